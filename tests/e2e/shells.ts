// Driving the real shells with vorn's completion scripts: what bash, zsh and fish offer for the
// word at the end of a command line, the way their TAB would ask for it.
//
//   const got = await complete(sb, "bash", "vorn inst");   // ["instance"]
//
// bash and zsh answer FILES when nothing is offered and the shell falls back to its own file
// completion (the script registers with that default); fish lists the files itself.

import fs from "node:fs";
import path from "node:path";
import { vornBin, type Sandbox } from "./harness";
import { onPath } from "./support";

export type Shell = "bash" | "zsh" | "fish";
export const SHELLS: Shell[] = ["bash", "zsh", "fish"];

/** Stands for the shell's own (file) completion taking over. */
export const FILES = "<files>";

/**
 * Where the completion comes from: the printed script (zsh: loaded after compinit, or with no
 * compinit before it), or the files `make install` put under a prefix (the path as seen from
 * outside, DESTDIR included), found by each shell's own loader.
 */
export type Source = "printed" | "printed-without-compinit" | { installed: string };

export interface CompleteOptions {
  source?: Source; // default "printed"
  env?: Record<string, string | undefined>; // added to the sandbox's environment
  pathDirs?: string[]; // in front of PATH; default the sandbox's bin (or the prefix's bin)
}

export interface ShellRun {
  stdout: string;
  stderr: string;
  code: number | null;
}

export async function runShell(sb: Sandbox, argv: string[], opts: CompleteOptions = {}): Promise<ShellRun> {
  const dirs = opts.pathDirs ?? [sb.bin];
  const env = sb.env({ PATH: [...dirs, "/usr/bin", "/bin"].join(":"), XDG_CONFIG_HOME: sb.path("home/.config"), ...opts.env });
  const proc = Bun.spawn([onPath(argv[0]), ...argv.slice(1)], { cwd: sb.work, env, stdin: "ignore", stdout: "pipe", stderr: "pipe" });
  const timer = setTimeout(() => proc.kill("SIGKILL"), 30000);
  const [stdout, stderr] = await Promise.all([new Response(proc.stdout).text(), new Response(proc.stderr).text()]);
  await proc.exited;
  clearTimeout(timer);
  return { stdout, stderr, code: proc.exitCode };
}

/**
 * The words bash puts in COMP_WORDS for a line: split at blanks, with each "=" a word of its own
 * ("--output=j" gives "--output" "=" "j", and "--output=" ends with the "=").
 */
export function bashWords(line: string): string[] {
  const out: string[] = [];
  const words = line.split(" ");
  words.forEach((word, n) => {
    // Only the word at the cursor may be empty.
    if (word === "" && n === words.length - 1) out.push("");
    word.split("=").forEach((part, i) => {
      if (i > 0) out.push("=");
      if (part !== "") out.push(part);
    });
  });
  return out;
}

const BASH_DRIVER = path.join(import.meta.dir, "shells", "complete.bash");

/** bash-completion's loader: Debian's, or Homebrew's on Apple silicon or Intel Macs. */
const BASH_COMPLETION_LOADER =
  ["/usr/share", "/opt/homebrew/share", "/usr/local/share"]
    .map((share) => path.join(share, "bash-completion", "bash_completion"))
    .find((file) => fs.existsSync(file)) ?? "/usr/share/bash-completion/bash_completion";

const ZSH_DRIVER = path.join(import.meta.dir, "shells", "complete.zsh");

function parse(shell: Shell, run: ShellRun): { specs: string[]; words: string[][] } {
  if (run.code !== 0) throw new Error(`${shell} failed (${run.code}): ${run.stderr}${run.stdout}`);
  const specs: string[] = [];
  const words: string[][] = [[]];
  for (const line of run.stdout.split("\n")) {
    if (line.startsWith("spec ")) specs.push(line.slice(5));
    else if (line.startsWith("word ")) words[words.length - 1].push(line.slice(5));
    else if (line === "done") words.push([]);
  }
  return { specs, words };
}

export interface Completion {
  words: string[]; // sorted; [FILES] when the shell's file completion takes over
  registration: string; // bash: complete -p; zsh: the compinit entry before the first TAB
  stderr: string;
}

export async function completion(sb: Sandbox, shell: Shell, line: string, opts: CompleteOptions = {}): Promise<Completion> {
  const source = opts.source ?? "printed";
  const prefix = typeof source === "object" ? source.installed : undefined;
  const run = (argv: string[], extra: Record<string, string | undefined>) =>
    runShell(sb, argv, {
      pathDirs: opts.pathDirs ?? (prefix ? [path.join(prefix, "bin")] : undefined),
      // The script is printed by the vorn under test; the script itself runs whichever vorn is on PATH.
      env: { ...extra, VORN_UNDER_TEST: vornBin(), XDG_DATA_DIRS: prefix && path.join(prefix, "share"), ...opts.env },
    });
  const mode = prefix ? "installed" : (source as string);
  if (shell === "bash") {
    const out = await run(["bash", "--norc", "--noprofile", BASH_DRIVER, line, ...bashWords(line)], { SOURCE: mode, BASH_COMPLETION_LOADER });
    const { specs, words } = parse(shell, out);
    const fallback = words[0].length === 0 && specs[0]?.includes(" -o default ");
    return { words: fallback ? [FILES] : words[0].sort(), registration: specs[0], stderr: out.stderr };
  }
  if (shell === "zsh") {
    const sites = prefix && path.join(prefix, "share/zsh/site-functions");
    const out = await run(["zsh", "-f", ZSH_DRIVER, ...line.split(" ")], { SOURCE: mode, SITE_FUNCTIONS: sites });
    const { specs, words } = parse(shell, out);
    // The second TAB must offer what the first did, through whatever the first registered.
    if (JSON.stringify(words[1]) !== JSON.stringify(words[0])) throw new Error(`zsh: the second TAB differs: ${JSON.stringify(words)}`);
    return { words: words[0].sort(), registration: specs[0], stderr: out.stderr };
  }
  // fish finds installed completions only with its own configuration (which adds the vendor
  // folders of XDG_DATA_DIRS); the printed script is sourced into a bare fish.
  const argv = prefix ? ["fish", "-c", "complete -C $argv[1]", line] : ["fish", "--no-config", "-c", "$VORN_UNDER_TEST shell-command completion fish | source; complete -C $argv[1]", line];
  const out = await run(argv, {});
  if (out.code !== 0) throw new Error(`fish failed (${out.code}): ${out.stderr}`);
  const words = out.stdout.split("\n").filter((l) => l !== "").map((l) => l.split("\t")[0]);
  return { words: words.sort(), registration: "", stderr: out.stderr };
}

/**
 * The sorted words a shell offers at the end of `line`. Throws when the shell wrote anything to
 * standard error: the scripts are silent, so what an error message there says is that the
 * completion failed, and its "nothing offered" must not pass for an answer.
 */
export async function complete(sb: Sandbox, shell: Shell, line: string, opts: CompleteOptions = {}): Promise<string[]> {
  const got = await completion(sb, shell, line, opts);
  if (got.stderr !== "") throw new Error(`${shell} wrote to stderr completing ${JSON.stringify(line)}: ${got.stderr}`);
  return got.words;
}
