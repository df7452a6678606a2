// `vorn shell-command completion bash|zsh|fish`: the printed scripts, and what each real shell
// offers with them: nouns, verbs, flags, -o json, live instance ids from simulated instances,
// fixed first arguments, the dev group and the path shorthand.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import { buildDir, vornBin, type Sandbox } from "./harness";
import { byPid, useSandbox } from "./support";
import { bashWords, complete, completion, FILES, runShell, SHELLS } from "./shells";

setDefaultTimeout(60000);

let sb: Sandbox;
useSandbox((fresh) => {
  sb = fresh;
  // The scripts ask `vorn` on PATH for the live ids: that is the vorn under test.
  sb.symlink(vornBin(), "bin/vorn");
});

const NOUNS = ["instance", "workspace", "file", "command", "diagnostics", "nogo", "search", "test", "language", "server", "remote", "doctor", "shell-command"];
const DEV_NOUNS = ["qa", "ui", "input", "app", "lock", "perf", "profile", "log", "process", "rpc", "action"];
const sorted = (words: string[]) => [...words].sort();
const USAGE = "vorn shell-command completion: expected one of bash, zsh, fish\n";

// The generated files the build installs, beside the binary under test.
const generated = (rel: string) => path.join(buildDir(), "generated", rel);

describe("vorn shell-command completion", () => {
  test("prints each shell's script followed by a newline", async () => {
    const installed = { bash: "share/bash-completion/completions/vorn", zsh: "share/zsh/site-functions/_vorn", fish: "share/fish/vendor_completions.d/vorn.fish" };
    for (const shell of SHELLS) {
      const r = await sb.run(["shell-command", "completion", shell]);
      expect([r.stderr, r.code]).toEqual(["", 0]);
      expect(r.stdout.startsWith(shell === "zsh" ? "#compdef vorn\n# zsh completion for vorn" : `# ${shell} completion for vorn\n`)).toBe(true);
      expect(r.stdout).toContain(`# Generated from the command table by \`vorn shell-command completion ${shell}\`; do not edit.\n`);
      expect(r.stdout.endsWith("\n\n")).toBe(false);
      // The installed file is the same text.
      expect(fs.readFileSync(generated(installed[shell]), "utf8")).toBe(r.stdout);
    }
  });

  test("the bash script ends with its registration line and a newline", async () => {
    const r = await sb.run(["shell-command", "completion", "bash"]);
    expect(r.stdout.endsWith("\ncomplete -o default -F _vorn_complete vorn\n")).toBe(true);
  });

  test("global flags may stand anywhere", async () => {
    const plain = await sb.run(["shell-command", "completion", "fish"]);
    const r = await sb.run(["-a", "shell-command", "--pid", "7", "completion", "fish"]);
    expect([r.stdout, r.stderr, r.code]).toEqual([plain.stdout, "", 0]);
  });

  test("no shell, or any other word, is a usage error", async () => {
    for (const args of [[], ["powershell"], ["Bash"], ["sh"], [""]]) {
      const r = await sb.run(["shell-command", "completion", ...args]);
      expect([r.stdout, r.stderr, r.code]).toEqual(["", USAGE, 2]);
    }
    const j = await sb.run(["shell-command", "completion", "tcsh", "-o", "json"]);
    expect([j.stdout, j.stderr, j.code]).toEqual(["", JSON.stringify({ error: USAGE.trim(), code: 2 }) + "\n", 2]);
  });

  test("--help describes the verb", async () => {
    const r = await sb.run(["shell-command", "completion", "--help"]);
    expect(r.stdout.startsWith("  vorn shell-command completion bash|zsh|fish\n      print a shell completion script (nouns, verbs, flags, live instance ids)\n")).toBe(true);
    expect(r.code).toBe(0);
  });
});

test("bash splits words at '=' as the tests feed them", () => {
  expect(bashWords("vorn --output=j")).toEqual(["vorn", "--output", "=", "j"]);
  expect(bashWords("vorn -o=")).toEqual(["vorn", "-o", "="]);
  expect(bashWords("vorn instance ")).toEqual(["vorn", "instance", ""]);
});

for (const shell of SHELLS) {
  describe(`${shell} completes`, () => {
    const at = (line: string) => complete(sb, shell, line);

    test("the first word: help, version, dev and the nouns", async () => {
      expect(await at("vorn ")).toEqual(sorted(["help", "version", "dev", ...NOUNS]));
      expect(await at("vorn inst")).toEqual(["instance"]);
      expect(await at("vorn shell")).toEqual(["shell-command"]);
      expect(await at("vorn ver")).toEqual(["version"]);
    });

    test("the verbs of a noun, and the nouns after help", async () => {
      expect(await at("vorn instance ")).toEqual(sorted(["list", "inspect", "focus", "quit", "prune", "health"]));
      expect(await at("vorn language type")).toEqual(["type-definition"]);
      expect(await at("vorn shell-command ")).toEqual(sorted(["install", "uninstall", "status", "completion"]));
      expect(await at("vorn help ")).toEqual(sorted(NOUNS));
      expect(await at("vorn help work")).toEqual(["workspace"]);
    });

    test("global flags, and the verb's own once noun and verb are known", async () => {
      expect(await at("vorn --")).toEqual(sorted(["--instance", "--all", "--pid", "--sock", "--output"]));
      expect(await at("vorn instance list --")).toEqual(sorted(["--instance", "--all", "--pid", "--sock", "--output", "--prune", "--quiet"]));
      expect(await at("vorn instance list -")).toEqual(sorted(["-i", "-a", "-o", "-q", "--instance", "--all", "--pid", "--sock", "--output", "--prune", "--quiet"]));
      expect(await at("vorn search run TODO --ex")).toEqual(["--exclude"]);
      expect(await at("vorn remote ssh box --ssh")).toEqual(["--ssh-config"]);
    });

    test("-o and --output complete json", async () => {
      expect(await at("vorn -o ")).toEqual(["json"]);
      expect(await at("vorn instance list --output j")).toEqual(["json"]);
      // --output=<TAB>: bash splits the word at "=", zsh and fish keep it whole.
      expect(await at("vorn instance list --output=")).toEqual([shell === "bash" ? "json" : "--output=json"]);
      // fish reads no "=" after a one-letter flag (its idiom is -ojson, which vorn does not take).
      expect(await at("vorn instance list -o=j")).toEqual({ bash: ["json"], zsh: ["-o=json"], fish: [] }[shell]);
    });

    test("-i and --instance complete the live ids", async () => {
      const sims = byPid(await sb.sims(2, (i) => ({ id: ["alpha", "beta"][i] })));
      expect(await at("vorn -i ")).toEqual(sorted(sims.map((s) => s.id)));
      expect(await at("vorn instance focus --instance b")).toEqual(["beta"]);
      expect(await at("vorn instance inspect ")).toEqual(["alpha", "beta"]);
      expect(await at("vorn instance inspect al")).toEqual(["alpha"]);
    });

    test("the ids come from `vorn instance list -q` with a bounded wait, errors not shown", async () => {
      fs.unlinkSync(sb.path("bin/vorn")); // the link to the vorn under test: the stub replaces it, not its target
      sb.stub("vorn", `echo "VORN_TIMEOUT=$VORN_TIMEOUT $*" >> "${sb.path("calls")}"\necho 3fa1\necho 3fb2\necho "vorn: something went wrong" >&2\nexit 1\n`);
      const r = await completion(sb, shell, "vorn -i 3f");
      expect(r.words).toEqual(["3fa1", "3fb2"]);
      expect(r.stderr).toBe("");
      const calls = fs.readFileSync(sb.path("calls"), "utf8").trim().split("\n");
      expect(calls[calls.length - 1]).toBe("VORN_TIMEOUT=1 instance list -q");
    });

    test("with no instances, -i offers nothing", async () => {
      expect(await at("vorn -i ")).toEqual(shell === "fish" ? [] : [FILES]);
    });

    test("fixed first arguments", async () => {
      expect(await at("vorn test rerun ")).toEqual(["failed", "last"]);
      expect(await at("vorn test rerun --no-wait l")).toEqual(["last"]);
      expect(await at("vorn shell-command completion ")).toEqual(["bash", "fish", "zsh"]);
      expect(await at("vorn shell-command completion z")).toEqual(["zsh"]);
    });

    test("a value flag's argument is not a positional", async () => {
      expect(await at("vorn --sock /tmp/x.sock inst")).toEqual(["instance"]);
      expect(await at("vorn -i abc instance ")).toEqual(sorted(["list", "inspect", "focus", "quit", "prune", "health"]));
      expect(await at("vorn search run --include *.go --max 3 x --re")).toEqual(["--regex"]);
      expect(await at("vorn --prune instance ")).toEqual(sorted(["list", "inspect", "focus", "quit", "prune", "health"]));
    });

    test("the dev group: its nouns, verbs, flags and first arguments", async () => {
      expect(await at("vorn dev ")).toEqual(sorted(["help", ...DEV_NOUNS]));
      expect(await at("vorn dev help ")).toEqual(sorted(DEV_NOUNS));
      expect(await at("vorn dev qa ")).toEqual(sorted(["run", "parity", "sweep", "bisect"]));
      expect(await at("vorn dev perf ")).toEqual(sorted(["memory", "cpu", "startup", "renders", "latency", "commits", "remote"]));
      expect(await at("vorn dev ui ")).toEqual(sorted(["show", "query", "terminal", "shot", "eval", "resize", "wait"]));
      expect(await at("vorn dev qa run --b")).toEqual(["--base", "--bead"]);
      expect(await at("vorn dev qa bisect --good HEAD~3 --w")).toEqual(["--worktree"]);
      expect(await at("vorn dev rpc post -d {} --t")).toEqual(["--timeout"]);
      // -n takes a value, so "5" is not the first argument: the log names are.
      expect(await at("vorn dev log show -n 5 ")).toEqual(["app", "gopls", "host"]);
      expect(await at("vorn dev input key Arrow")).toEqual(["ArrowDown", "ArrowLeft", "ArrowRight", "ArrowUp"]);
      expect(await at("vorn dev profile pprof h")).toEqual(["heap"]);
    });

    test("after a dev flag that takes a value, the shell completes files", async () => {
      sb.file("work/report.txt", "");
      expect(await at("vorn dev ui shot --out rep")).toEqual(shell === "fish" ? ["report.txt"] : [FILES]);
    });

    test("the path shorthand: a path at the first position completes as a file", async () => {
      sb.file("work/main.go", "");
      sb.dir("work/pkg");
      expect(await at("vorn ./")).toEqual(shell === "fish" ? ["./main.go", "./pkg/"] : [FILES]);
      expect(await at("vorn ./m")).toEqual(shell === "fish" ? ["./main.go"] : [FILES]);
    });

    test("where no word fits, the shell's file completion takes over", async () => {
      sb.file("work/main.go", "");
      expect(await at("vorn file open ma")).toEqual(shell === "fish" ? ["main.go"] : [FILES]);
      expect(await at("vorn workspace open ")).toEqual(shell === "fish" ? ["main.go"] : [FILES]);
    });

    test("after --, words starting with - are not flags", async () => {
      sb.file("work/-x.txt", "");
      expect(await at("vorn search run -- --re")).toEqual(shell === "fish" ? [] : [FILES]);
    });
  });
}

describe("registration", () => {
  test("bash registers the function with the default (file) completion", async () => {
    const r = await completion(sb, "bash", "vorn ");
    expect(r.registration).toBe("complete -o default -F _vorn_complete vorn");
  });

  test("zsh goes through bashcompinit, whether or not compinit ran first", async () => {
    for (const source of ["printed", "printed-without-compinit"] as const) {
      const r = await completion(sb, "zsh", "vorn inst", { source });
      expect(r.registration).toBe("_bash_complete -o default -F _vorn_complete");
      expect(r.words).toEqual(["instance"]);
      expect(r.stderr).toBe("");
    }
  });

  test("sourcing the fish script twice does not offer words twice", async () => {
    const load = "$VORN_UNDER_TEST shell-command completion fish | source";
    const out = await runShell(sb, ["fish", "--no-config", "-c", `${load}; ${load}; complete -C 'vorn test rerun '`], { env: { VORN_UNDER_TEST: vornBin() } });
    expect(out.stdout.split("\n").filter((l) => l).sort()).toEqual(["failed", "last"]);
  });
});

test("a bash completion that fails is not taken for one that offers nothing", async () => {
  // Scripts in the place of the printed one: one whose function runs a command that is not
  // there (bash says so on stderr), one whose function fails silently.
  const broken = {
    noisy: "_vorn_complete() { vorn-no-such-command; COMPREPLY=(); }",
    failing: "_vorn_complete() { COMPREPLY=(); return 1; }",
  };
  for (const [name, fn] of Object.entries(broken)) {
    const printer = sb.file(`scripts/${name}`, `#!/bin/sh\necho '${fn}; complete -o default -F _vorn_complete vorn'\n`, 0o755);
    await expect(complete(sb, "bash", "vorn -i ", { env: { VORN_UNDER_TEST: printer } })).rejects.toThrow(
      name === "noisy" ? "vorn-no-such-command: command not found" : "_vorn_complete returned 1",
    );
  }
  // The noisy one offers nothing, which would have passed for the answer to "vorn -i ".
  const noisy = await completion(sb, "bash", "vorn -i ", { env: { VORN_UNDER_TEST: sb.path("scripts/noisy") } });
  expect(noisy.words).toEqual([FILES]);
  expect(noisy.stderr).toContain("vorn-no-such-command");
});

test("the printed scripts hold no path of the build machine", async () => {
  for (const shell of SHELLS) {
    const r = await sb.run(["shell-command", "completion", shell]);
    expect(r.stdout).not.toContain(path.dirname(vornBin()));
    expect(r.stdout).not.toContain(sb.root);
  }
});
