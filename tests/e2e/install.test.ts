// Installing like a native tool: `make install` and `cmake --install` into a temporary prefix
// under DESTDIR put the binary, the three completion files and the manual page in place; each
// shell's own loader finds its completion there; `make uninstall` removes exactly what was
// installed. The manual page renders without a warning and holds the whole command table.

import { afterAll, beforeAll, describe, expect, setDefaultTimeout, test } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import { buildDir, type Sandbox } from "./harness";
import { useSandbox } from "./support";
import { completion, runShell } from "./shells";

setDefaultTimeout(180000);

const BUILD = buildDir();
const REPO = path.resolve(import.meta.dir, "../..");
const MANIFEST = path.join(BUILD, "install_manifest.txt");
const PREFIX = "/opt/vorn";
const INSTALLED = ["bin/vorn", "share/bash-completion/completions/vorn", "share/fish/vendor_completions.d/vorn.fish", "share/man/man1/vorn.1", "share/zsh/site-functions/_vorn"];

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh), "file");

// The tests install from the build under test, which records what it installed in its manifest:
// leave that record as it was found.
let savedManifest: Buffer | undefined;
beforeAll(() => {
  if (!fs.existsSync(path.join(BUILD, "cmake_install.cmake"))) throw new Error(`${BUILD} is not a CMake build folder: point VORN_BIN at build/vorn (or VORN_BUILD at build)`);
  savedManifest = fs.existsSync(MANIFEST) ? fs.readFileSync(MANIFEST) : undefined;
});
afterAll(() => {
  if (savedManifest) fs.writeFileSync(MANIFEST, savedManifest);
  else fs.rmSync(MANIFEST, { force: true });
});

// Runs make or cmake in the source folder, as a user would: not as part of a make that may be
// running the tests (whose jobserver and directory messages are its own).
async function run(argv: string[], env: Record<string, string> = {}) {
  const outer = new Set(["MAKEFLAGS", "MFLAGS", "MAKELEVEL", "MAKEOVERRIDES"]);
  const base = Object.fromEntries(Object.entries(process.env).filter(([k]) => !outer.has(k)));
  const proc = Bun.spawn(argv, { cwd: REPO, env: { ...base, ...env }, stdin: "ignore", stdout: "pipe", stderr: "pipe" });
  const [stdout, stderr] = await Promise.all([new Response(proc.stdout).text(), new Response(proc.stderr).text()]);
  return { stdout, stderr, code: await proc.exited };
}

// Every file under a folder, relative to it, sorted.
function files(root: string): string[] {
  const out: string[] = [];
  const walk = (dir: string) => {
    for (const entry of fs.readdirSync(dir, { withFileTypes: true })) {
      const p = path.join(dir, entry.name);
      if (entry.isDirectory()) walk(p);
      else out.push(path.relative(root, p));
    }
  };
  if (fs.existsSync(root)) walk(root);
  return out.sort();
}

const bytes = (p: string) => fs.readFileSync(p);

describe("make install and cmake --install", () => {
  let destdir: string; // DESTDIR of make install
  let prefix: string; // the installed prefix as seen from here: DESTDIR + PREFIX

  beforeAll(async () => {
    destdir = sb.dir("dest-make");
    prefix = path.join(destdir, PREFIX);
    // Somebody else's files in the same prefix, which uninstall must leave alone.
    sb.file(`dest-make${PREFIX}/bin/other-tool`, "#!/bin/sh\n", 0o755);
    sb.file(`dest-make${PREFIX}/share/man/man1/other.1`, ".TH OTHER 1\n");
    // "-o build": install the build under test as it stands, without building during a test run.
    const r = await run(["make", "-o", "build", "install", `BUILD=${BUILD}`, `PREFIX=${PREFIX}`, `DESTDIR=${destdir}`]);
    if (r.code !== 0) throw new Error(`make install failed: ${r.stderr}${r.stdout}`);
  });

  test("puts the binary, the completions and the manual page under DESTDIR and the prefix", () => {
    expect(files(destdir)).toEqual([...INSTALLED, "bin/other-tool", "share/man/man1/other.1"].map((f) => path.join(PREFIX.slice(1), f)).sort());
    expect(fs.statSync(path.join(prefix, "bin/vorn")).mode & 0o777).toBe(0o755);
    for (const f of INSTALLED.slice(1)) expect(fs.statSync(path.join(prefix, f)).mode & 0o777).toBe(0o644);
    expect(bytes(path.join(prefix, "bin/vorn")).equals(bytes(path.join(BUILD, "vorn")))).toBe(true);
    expect(bytes(path.join(prefix, "share/man/man1/vorn.1")).equals(bytes(path.join(BUILD, "generated/share/man/man1/vorn.1")))).toBe(true);
  });

  test("the installed binary runs and prints the installed scripts", async () => {
    const installed = path.join(prefix, "bin/vorn");
    const v = await sb.run(["version"], { bin: installed });
    expect([v.stdout.split("\n")[0], v.code]).toEqual(["vorn 0.2.0", 0]);
    const files = { bash: "share/bash-completion/completions/vorn", zsh: "share/zsh/site-functions/_vorn", fish: "share/fish/vendor_completions.d/vorn.fish" };
    for (const [shell, file] of Object.entries(files)) {
      const r = await sb.run(["shell-command", "completion", shell], { bin: installed });
      expect(r.stdout).toBe(fs.readFileSync(path.join(prefix, file), "utf8"));
    }
  });

  test("cmake --install installs the same files", async () => {
    const other = sb.dir("dest-cmake");
    const r = await run(["cmake", "--install", BUILD, "--prefix", PREFIX], { DESTDIR: other });
    expect(r.code).toBe(0);
    expect(files(path.join(other, PREFIX))).toEqual([...INSTALLED].sort());
    for (const f of INSTALLED) expect(bytes(path.join(other, PREFIX, f)).equals(bytes(path.join(prefix, f)))).toBe(true);
  });

  test("bash-completion's loader completes vorn from the installed file alone", async () => {
    const sim = await sb.sim({ id: "inst-a" });
    const got = await completion(sb, "bash", "vorn inst", { source: { installed: prefix } });
    expect(got.registration).toBe("complete -o default -F _vorn_complete vorn");
    expect(got.words).toEqual(["instance"]);
    expect(await completion(sb, "bash", "vorn -i ", { source: { installed: prefix } })).toMatchObject({ words: [sim.id] });
    // Without the installed file the loader has nothing for vorn.
    const none = await completion(sb, "bash", "vorn inst", { source: { installed: prefix }, env: { XDG_DATA_DIRS: sb.dir("empty-share") } });
    expect(none.registration).not.toContain("_vorn_complete");
    await sim.stop();
  });

  test("fish completes vorn from vendor_completions.d", async () => {
    expect((await completion(sb, "fish", "vorn inst", { source: { installed: prefix } })).words).toEqual(["instance"]);
    expect((await completion(sb, "fish", "vorn dev qa ", { source: { installed: prefix } })).words).toEqual(["bisect", "parity", "run", "sweep"]);
    const none = await completion(sb, "fish", "vorn inst", { source: { installed: prefix }, env: { XDG_DATA_DIRS: sb.dir("empty-share") } });
    expect(none.words).toEqual([]);
  });

  test("zsh completes vorn from the site-functions folder on fpath after compinit", async () => {
    const got = await completion(sb, "zsh", "vorn inst", { source: { installed: prefix } });
    expect(got.registration).toBe("_vorn"); // compinit's autoload entry, from the #compdef line
    expect(got.words).toEqual(["instance"]);
    expect(got.stderr).toBe("");
    expect((await completion(sb, "zsh", "vorn test rerun ", { source: { installed: prefix } })).words).toEqual(["failed", "last"]);
  });

  test("make uninstall where listed files are missing names them, and removing none keeps the manifest", async () => {
    const manifest = bytes(MANIFEST);
    const listed = manifest.toString().trim().split("\n");
    expect([...listed].sort()).toEqual(INSTALLED.map((f) => path.join(PREFIX, f)).sort());
    const script = (lines: string[]) => lines.filter((l) => l.startsWith("make uninstall: "));
    // A DESTDIR where nothing was installed: nothing removed, every file named, the manifest kept.
    const elsewhere = sb.dir("dest-elsewhere");
    const none = await run(["make", "uninstall", `BUILD=${BUILD}`, `DESTDIR=${elsewhere}`]);
    expect(none.code).not.toBe(0);
    expect(none.stdout).toBe("");
    expect(script(none.stderr.trim().split("\n"))).toEqual([
      ...listed.map((f) => `make uninstall: ${elsewhere}${f} is not there`),
      `make uninstall: nothing removed under DESTDIR ${elsewhere}; ${MANIFEST} is kept (give the DESTDIR of the install)`,
    ]);
    expect(bytes(MANIFEST).equals(manifest)).toBe(true);
    // One file gone from an install: the others removed, that one named, the manifest gone.
    const partial = sb.dir("dest-partial");
    expect((await run(["cmake", "--install", BUILD, "--prefix", PREFIX], { DESTDIR: partial })).code).toBe(0);
    const gone = path.join(partial, PREFIX, "share/man/man1/vorn.1");
    fs.rmSync(gone);
    const some = await run(["make", "uninstall", `BUILD=${BUILD}`, `DESTDIR=${partial}`]);
    expect(some.code).toBe(0);
    expect(some.stdout.trim().split("\n").sort()).toEqual(listed.filter((f) => !f.endsWith("/vorn.1")).map((f) => `removed ${partial}${f}`).sort());
    expect(some.stderr).toBe(`make uninstall: ${gone} is not there\n`);
    expect(files(partial)).toEqual([]);
    expect(fs.existsSync(MANIFEST)).toBe(false);
    // Back as make install left it, for the uninstall below.
    fs.writeFileSync(MANIFEST, manifest);
  });

  test("make uninstall removes exactly what was installed", async () => {
    const r = await run(["make", "uninstall", `BUILD=${BUILD}`, `DESTDIR=${destdir}`]);
    expect(r.code).toBe(0);
    expect(r.stdout.trim().split("\n").sort()).toEqual(INSTALLED.map((f) => `removed ${path.join(prefix, f)}`).sort());
    expect(files(destdir)).toEqual([`${PREFIX.slice(1)}/bin/other-tool`, `${PREFIX.slice(1)}/share/man/man1/other.1`]);
    // Nothing is left to remove, and saying so is an error.
    const again = await run(["make", "uninstall", `BUILD=${BUILD}`, `DESTDIR=${destdir}`]);
    expect(again.code).not.toBe(0);
    expect(again.stderr).toContain("nothing was installed from this build");
  });
});

// The rendered page with the fonts' overstriking taken out.
async function render(page: string, ...opts: string[]) {
  const r = await runShell(sb, ["groff", "-man", "-Tutf8", "-ww", ...opts, page]);
  return { text: r.stdout.replace(/.\x08/g, ""), warnings: r.stderr, code: r.code };
}

describe("the manual page", () => {
  const page = () => path.join(BUILD, "generated/share/man/man1/vorn.1");

  test("renders without a warning", async () => {
    for (const width of [[], ["-rLL=60n"], ["-rLL=200n"]]) {
      const r = await render(page(), ...width);
      expect([r.warnings, r.code]).toEqual(["", 0]);
      expect(r.text).toContain("NAME\n       vorn - command-line front end of the Vorn code editor\n");
    }
  });

  test("holds every noun, verb and option the help lists", async () => {
    // Wide enough that no line breaks, and no hyphenation, so that every usage stays whole.
    const { text } = await render(page(), "-rLL=1000n", "-rHY=0");
    const top = (await sb.run(["help"])).stdout;
    const nouns = [...top.matchAll(/^([a-z-]+) \u2014 /gm)].map((m) => m[1]);
    expect(nouns.length).toBe(13);
    let verbs = 0;
    let options = 0;
    for (const noun of nouns) {
      expect(text).toContain(`\n   ${noun}\n`);
      const help = (await sb.run(["help", noun])).stdout;
      for (const [, usage] of help.matchAll(/^  (vorn \S+ .*)$/gm)) {
        expect(text).toContain(`\n       ${usage}\n`);
        verbs++;
      }
      for (const [, flags, rest] of help.matchAll(/^      (-\S+(?:, --\S+)?)( [A-Z]+|json)?  /gm)) {
        expect(text).toContain(`\n              ${flags}${rest ?? ""}`);
        options++;
      }
    }
    expect(verbs).toBe(31);
    expect(options).toBe(17);
    for (const global of ["-i, --instance ID", "-a, --all", "--pid N", "--sock PATH", "-o, --output json"]) expect(text).toContain(`\n       ${global}\n`);
    for (const section of ["SYNOPSIS", "DESCRIPTION", "COMMANDS", "OPTIONS", "ENVIRONMENT", "EXIT STATUS", "FILES", "EXAMPLES"]) expect(text).toContain(`\n${section}\n`);
    for (const variable of ["VORN_REPO_ROOT", "VORN_APP", "VORN_EDITION", "XDG_RUNTIME_DIR", "VORN_TIMEOUT"]) expect(text).toContain(`\n       ${variable}\n`);
    for (const file of ["$XDG_RUNTIME_DIR/vorn/<pid>/fs.sock", "~/.local/bin/vorn", "<checkout>/.cache/vorn/dev-app.json"]) expect(text).toContain(`\n       ${file}\n`);
    expect(text).toContain("Registry commands: the same ids as \u2318\u21e7P, the native menus");
  });

  test("man reads it", async () => {
    // man-db reads a file with -l; macOS's man takes a path with a slash as the file itself.
    const argv = process.platform === "darwin" ? ["man", page()] : ["man", "-l", page()];
    const r = await runShell(sb, argv, { env: { MANPAGER: "cat", PAGER: "cat", MANWIDTH: "80" } });
    expect(r.code).toBe(0);
    expect(r.stdout.replace(/.\x08/g, "")).toContain("vorn - command-line front end of the Vorn code editor");
  });
});
