// `vorn shell-command install|uninstall|status`, and the shim they write run by bash in each of
// its choices: native build, script CLI with Bun, the app's CLI, and the two failures.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import fs from "node:fs";
import os from "node:os";
import path from "node:path";
import { vornBin, type RunResult, type Sandbox } from "./harness";
import { useRealBun } from "./hosts";
import {
  brewVorn,
  fakeApp,
  nativeBuild,
  nativeRel,
  scriptCheckout,
  scriptSays,
  shimPath,
  shimTools,
  touchSource,
} from "./installs";
import { checkout, DASH, exists, onPath, pretty, useSandbox } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
let shim: string;
let binDir: string;
useSandbox((fresh) => {
  sb = fresh;
  shim = shimPath(sb);
  binDir = path.dirname(shim);
});

const notOnPathHint = () => `Add ${binDir} to PATH to use it in new terminals\n`;

async function install(opts: { cwd?: string; env?: Record<string, string | undefined> } = {}): Promise<RunResult> {
  const r = await sb.run(["shell-command", "install"], opts);
  expect(r.stderr).toBe("");
  expect(r.code).toBe(0);
  return r;
}

/** The FALLBACK= and APP= lines of the installed shim. */
function assignments(): string[] {
  return fs
    .readFileSync(shim, "utf8")
    .split("\n")
    .filter((l) => l.startsWith("FALLBACK=") || l.startsWith("APP="));
}

describe("install", () => {
  test("writes an executable managed shim and says where the folder must go on PATH", async () => {
    const r = await install();
    expect(r.stdout).toBe(`Installed 'vorn' to ${shim}\n` + notOnPathHint());
    const text = fs.readFileSync(shim, "utf8");
    expect(text.split("\n").slice(0, 5)).toEqual([
      "#!/usr/bin/env bash",
      `# vorn-shell-command: managed by Vorn Omnibar ${DASH} do not edit`,
      "set -euo pipefail",
      'FALLBACK=""',
      'APP=""',
    ]);
    expect(fs.statSync(shim).mode & 0o7777).toBe(0o755);
    expect(fs.readdirSync(binDir)).toEqual(["vorn"]);
  });

  test("installing twice rewrites the same managed file and succeeds both times", async () => {
    const env = { PATH: `${sb.bin}:${binDir}` };
    const first = await install({ env });
    expect(first.stdout).toBe(`Installed 'vorn' to ${shim}\n`);
    const before = fs.readFileSync(shim);
    fs.chmodSync(shim, 0o600);
    const second = await install({ env });
    expect(second.stdout).toBe(first.stdout);
    expect(fs.readFileSync(shim).equals(before)).toBe(true);
    expect(fs.statSync(shim).mode & 0o7777).toBe(0o755);
    expect(fs.readdirSync(binDir)).toEqual(["vorn"]);
  });

  test("a shim installed outside any checkout carries an empty FALLBACK", async () => {
    await install();
    expect(assignments()).toEqual(['FALLBACK=""', 'APP=""']);
  });

  test("from inside a checkout it falls back to that checkout", async () => {
    const root = checkout(sb, "work/repo");
    await install({ cwd: sb.dir("work/repo/pkg/x") });
    expect(assignments()).toEqual([`FALLBACK=${JSON.stringify(root)}`, 'APP=""']);
  });

  test("else to VORN_REPO_ROOT, trimmed and made absolute", async () => {
    await install({ env: { VORN_REPO_ROOT: "  ../src/vorn/ \n" } });
    expect(assignments()[0]).toBe(`FALLBACK=${JSON.stringify(path.join(sb.root, "src/vorn"))}`);
  });

  test("the app's CLI: VORN_APP, else the bundle holding the CLI", async () => {
    const { app, cli } = fakeApp(sb, "apps/My \"Vorn\".app");
    await install({ env: { VORN_APP: app } });
    expect(assignments()).toEqual(['FALLBACK=""', `APP=${JSON.stringify(cli)}`]);
    // A CLI run from inside an app bundle falls back to that bundle's CLI.
    const own = fakeApp(sb, "apps/Own.app");
    const inside = path.join(own.app, "Contents/Resources/app/bin/vorn");
    fs.copyFileSync(vornBin(), inside);
    const r = await sb.run(["shell-command", "install"], { bin: inside });
    expect([r.stderr, r.code]).toEqual(["", 0]);
    expect(assignments()).toEqual(['FALLBACK=""', `APP=${JSON.stringify(inside)}`]);
  });

  test("with Homebrew's vorn it does nothing", async () => {
    const brew = brewVorn(sb);
    const r = await sb.run(["shell-command", "install"], { env: { HOMEBREW_PREFIX: brew.prefix } });
    expect(r.stdout).toBe(`'vorn' is already installed by Homebrew at ${brew.link} ${DASH} nothing to do\n`);
    expect([r.stderr, r.code]).toEqual(["", 0]);
    expect(exists(path.join(sb.home, ".local"))).toBe(false);
  });

  test("replaces a foreign file", async () => {
    sb.file("home/.local/bin/vorn", "#!/bin/sh\necho mine\n", 0o755);
    const r = await install();
    expect(r.stdout).toBe(`Installed 'vorn' to ${shim}\n` + notOnPathHint());
    expect(fs.readFileSync(shim, "utf8")).toContain("vorn-shell-command: managed by Vorn Omnibar");
  });

  test("refuses a fallback the shim could not carry", async () => {
    const r = await sb.run(["shell-command", "install"], { env: { VORN_REPO_ROOT: "/src/$(touch pwned)" } });
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(
      "vorn shell-command install: cannot write a shim for /src/$(touch pwned): the path holds $, ` or a control character, which the shim script cannot carry\n",
    );
    expect(r.code).toBe(1);
    expect(exists(path.join(sb.home, ".local"))).toBe(false);
  });

  test("a folder it cannot create", async () => {
    sb.file("home/.local", "not a folder");
    const r = await sb.run(["shell-command", "install"]);
    expect(r.stderr).toStartWith(`vorn shell-command install: cannot create ${binDir}: `);
    expect(r.code).toBe(1);
    expect(fs.readFileSync(path.join(sb.home, ".local"), "utf8")).toBe("not a folder");
  });
});

describe("uninstall", () => {
  test("removes the managed shim", async () => {
    await install();
    const r = await sb.run(["shell-command", "uninstall"]);
    expect([r.stdout, r.stderr, r.code]).toEqual([`Removed 'vorn' from ${shim}\n`, "", 0]);
    expect(exists(shim)).toBe(false);
  });

  test("with nothing installed it says so and succeeds", async () => {
    const r = await sb.run(["shell-command", "uninstall"]);
    expect([r.stdout, r.stderr, r.code]).toEqual([`'vorn' was not installed at ${shim}\n`, "", 0]);
  });

  test("a foreign file is left untouched and the command fails", async () => {
    sb.file("home/.local/bin/vorn", "#!/bin/sh\necho mine\n", 0o755);
    const r = await sb.run(["shell-command", "uninstall"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(`vorn: ${shim} exists but was not installed by Vorn ${DASH} leaving it untouched\n`);
    expect(r.code).toBe(1);
    expect(fs.readFileSync(shim, "utf8")).toBe("#!/bin/sh\necho mine\n");
    const j = await sb.run(["shell-command", "uninstall", "-o", "json"]);
    expect(j.stderr).toBe(
      JSON.stringify({ error: `${shim} exists but was not installed by Vorn ${DASH} leaving it untouched`, code: 1 }) + "\n",
    );
  });
});

describe("status", () => {
  test("each state, in text and JSON", async () => {
    const status = async (env: Record<string, string> = {}) => {
      const r = await sb.run(["shell-command", "status"], { env });
      const j = await sb.run(["shell-command", "status", "-o", "json"], { env });
      expect([r.stderr, r.code, j.stderr, j.code]).toEqual(["", 0, "", 0]);
      expect(j.stdout).toBe(pretty(JSON.parse(j.stdout)));
      return [r.stdout, JSON.parse(j.stdout)];
    };
    expect(await status()).toEqual([
      `${shim}: not installed; dir not on PATH\n`,
      { installed: false, path: shim, managed: false, onPath: false },
    ]);
    sb.file("home/.local/bin/vorn", "#!/bin/sh\n", 0o755);
    expect(await status({ PATH: `${sb.bin}:${binDir}/` })).toEqual([
      `${shim}: present, not Vorn-managed; on PATH\n`,
      { installed: true, path: shim, managed: false, onPath: true },
    ]);
    await install();
    const brew = brewVorn(sb);
    expect(await status({ HOMEBREW_PREFIX: brew.prefix })).toEqual([
      `${shim}: installed (Vorn-managed); dir not on PATH\n${brew.link}: Homebrew \u2192 ${brew.target}\n`,
      { installed: true, path: shim, managed: true, onPath: false },
    ]);
  });
});

describe("a shim path that is not a readable file", () => {
  test("a directory: every verb fails clearly and touches nothing", async () => {
    sb.file("home/.local/bin/vorn/keep", "kept");
    for (const verb of ["install", "uninstall", "status"]) {
      const r = await sb.run(["shell-command", verb]);
      expect(r.stdout).toBe("");
      expect(r.stderr).toBe(`vorn shell-command ${verb}: ${shim} is a directory ${DASH} left as it is\n`);
      expect(r.code).toBe(1);
    }
    expect(fs.readdirSync(binDir)).toEqual(["vorn"]);
    expect(fs.readdirSync(shim)).toEqual(["keep"]);
  });

  test("a FIFO is refused without waiting on it", async () => {
    fs.mkdirSync(binDir, { recursive: true });
    const mk = Bun.spawnSync(["mkfifo", shim]);
    expect(mk.exitCode).toBe(0);
    for (const verb of ["install", "uninstall", "status"]) {
      const r = await sb.run(["shell-command", verb]);
      expect(r.stderr).toBe(`vorn shell-command ${verb}: ${shim} is not a regular file ${DASH} left as it is\n`);
      expect(r.code).toBe(1);
    }
    expect(fs.lstatSync(shim).isFIFO()).toBe(true);
  });

  // Root reads every file, so as root the commands run as another user (where that works):
  // skipped as root without setpriv to act as one.
  const asRoot = process.getuid?.() === 0;
  const setpriv = Bun.which("setpriv");
  test.skipIf(asRoot && !setpriv)("an unreadable file: every verb fails clearly and touches nothing", async () => {
    let home = sb.home;
    let run = (verb: string) => sb.run(["shell-command", verb]);
    let cleanup = () => {};
    if (asRoot) {
      // A world-readable place outside the private sandbox, owned by nobody (65534).
      const base = fs.mkdtempSync(path.join(os.tmpdir(), "vorn-e2e-other-"));
      fs.chmodSync(base, 0o755);
      home = path.join(base, "home");
      fs.mkdirSync(path.join(home, ".local/bin"), { recursive: true });
      for (const p of [home, path.join(home, ".local"), path.join(home, ".local/bin")]) fs.chownSync(p, 65534, 65534);
      cleanup = () => fs.rmSync(base, { recursive: true, force: true });
      run = (verb) =>
        sb.run(["--reuid=65534", "--regid=65534", "--clear-groups", vornBin(), "shell-command", verb], {
          bin: setpriv!,
          cwd: home,
          env: { HOME: home },
        });
    }
    try {
      const file = path.join(home, ".local/bin/vorn");
      fs.mkdirSync(path.dirname(file), { recursive: true });
      fs.writeFileSync(file, "#!/bin/sh\n");
      if (asRoot) fs.chownSync(file, 65534, 65534);
      fs.chmodSync(file, 0);
      const probe = await run("status");
      if (asRoot && probe.stderr.includes("setpriv")) {
        console.warn(`skipped: setpriv cannot switch users here (${probe.stderr.trim()})`);
        return;
      }
      for (const verb of ["install", "uninstall", "status"]) {
        const r = await run(verb);
        expect(r.stdout).toBe("");
        expect(r.stderr).toBe(`vorn shell-command ${verb}: cannot read ${file}: Permission denied ${DASH} left as it is\n`);
        expect(r.code).toBe(1);
      }
      fs.chmodSync(file, 0o600);
      expect(fs.readFileSync(file, "utf8")).toBe("#!/bin/sh\n");
      expect(fs.readdirSync(path.dirname(file))).toEqual(["vorn"]);
    } finally {
      cleanup();
    }
  });
});

describe("usage", () => {
  test("stray words and a missing HOME", async () => {
    const r = await sb.run(["shell-command", "status", "now"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn shell-command status: unexpected argument 'now'\n", 2]);
    const h = await sb.run(["shell-command", "install"], { env: { HOME: undefined } });
    expect(h.stderr).toBe("vorn shell-command install: HOME is not set to an absolute path (the shim lives in ~/.local/bin)\n");
    expect(h.code).toBe(1);
  });
});

describe("the shim, run by bash", () => {
  let tools: string;
  // Runs the installed shim with bash in `cwd`; PATH holds sb.bin (bun when a test put it
  // there) and the shim's system tools, nothing else.
  const runShim = (args: string[], cwd: string, env: Record<string, string | undefined> = {}) =>
    sb.run([shim, ...args], { bin: onPath("bash"), cwd, env: { PATH: `${sb.bin}:${tools}`, ...env } });

  const prepare = async (installFrom?: string, env: Record<string, string> = {}) => {
    tools = shimTools(sb);
    await install({ cwd: installFrom, env });
  };

  test("a fresh native build runs, with VORN_REPO_ROOT set to its checkout", async () => {
    const root = scriptCheckout(sb, "repo");
    nativeBuild(sb, "repo");
    useRealBun(sb);
    await prepare();
    const r = await runShim(["a b", "--x=\"q\""], sb.dir("repo/deep/er"));
    expect([r.stdout, r.stderr, r.code]).toEqual([`native root=${root} args=a b --x="q"\n`, "", 0]);
  });

  test("the native build is the real CLI: vorn version through the shim", async () => {
    scriptCheckout(sb, "repo");
    nativeBuild(sb, "repo", `exec ${JSON.stringify(vornBin())} "$@"\n`);
    await prepare();
    const r = await runShim(["version"], sb.path("repo"));
    expect([r.stdout, r.stderr, r.code]).toEqual(["vorn 0.2.0\n", "", 0]);
  });

  test("a stale native build gives way to the script CLI when bun is on PATH", async () => {
    const root = scriptCheckout(sb, "repo");
    nativeBuild(sb, "repo");
    touchSource(sb, "repo");
    useRealBun(sb);
    await prepare();
    const r = await runShim(["instance", "list"], sb.path("repo"));
    expect([r.stdout, r.stderr, r.code]).toEqual([scriptSays(root, ["instance", "list"]), "", 0]);
  });

  test("a manifest newer than the build makes it stale too", async () => {
    const root = scriptCheckout(sb, "repo");
    nativeBuild(sb, "repo");
    sb.file("repo/cli/native/CMakeLists.txt", "project(vorn) # changed\n");
    useRealBun(sb);
    await prepare();
    const r = await runShim([], sb.path("repo"));
    expect([r.stdout, r.stderr, r.code]).toEqual([scriptSays(root, []), "", 0]);
  });

  test("a stale native build without bun still runs, with a warning", async () => {
    const root = scriptCheckout(sb, "repo");
    nativeBuild(sb, "repo");
    const changed = touchSource(sb, "repo");
    await prepare();
    const r = await runShim(["x"], sb.path("repo"));
    expect(r.stdout).toBe(`native root=${root} args=x\n`);
    expect(r.stderr).toBe(
      `vorn: the native CLI build is older than its sources (${changed}); using it anyway ${DASH} run direnv allow, or rebuild it: make -C ${root}/cli/native dev\n`,
    );
    expect(r.code).toBe(0);
  });

  test("without a native build the script CLI runs with bun", async () => {
    const root = scriptCheckout(sb, "repo");
    useRealBun(sb);
    await prepare();
    const r = await runShim(["file", "open", "main.go:3"], sb.dir("repo/src"));
    expect([r.stdout, r.stderr, r.code]).toEqual([scriptSays(root, ["file", "open", "main.go:3"]), "", 0]);
    // A native build that is not executable does not count.
    sb.file(`repo/${nativeRel}`, "#!/bin/sh\necho native\n", 0o644);
    const again = await runShim([], sb.path("repo"));
    expect(again.stdout).toBe(scriptSays(root, []));
  });

  test("the checkout of the current directory wins over VORN_REPO_ROOT and the fallback", async () => {
    const here = scriptCheckout(sb, "here");
    const named = scriptCheckout(sb, "named");
    const fallback = scriptCheckout(sb, "fallback");
    useRealBun(sb);
    await prepare(fallback);
    const inHere = await runShim([], sb.path("here"), { VORN_REPO_ROOT: named });
    expect(inHere.stdout).toBe(scriptSays(here, []));
    const outside = await runShim([], sb.work, { VORN_REPO_ROOT: named });
    expect(outside.stdout).toBe(scriptSays(named, []));
    const plain = await runShim(["a"], sb.work);
    expect(plain.stdout).toBe(scriptSays(fallback, ["a"]));
  });

  test("outside any checkout the app's CLI runs", async () => {
    const { app } = fakeApp(sb);
    useRealBun(sb);
    await prepare(undefined, { VORN_APP: app });
    const r = await runShim(["instance", "list", "-o", "json"], sb.work);
    expect([r.stdout, r.stderr, r.code]).toEqual(["app args=instance list -o json\n", "", 0]);
  });

  test("with no checkout and no app: CLI not found", async () => {
    useRealBun(sb);
    await prepare();
    const r = await runShim(["instance", "list"], sb.work);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("vorn: CLI not found at /src/cli/vorn.ts (set VORN_REPO_ROOT or reinstall via Omnibar)\n");
    expect(r.code).toBe(1);
    // A fallback checkout without its script CLI says where it looked.
    const bare = sb.dir("bare");
    const named = await runShim([], sb.work, { VORN_REPO_ROOT: bare });
    expect(named.stderr).toBe(`vorn: CLI not found at ${bare}/src/cli/vorn.ts (set VORN_REPO_ROOT or reinstall via Omnibar)\n`);
    expect(named.code).toBe(1);
  });

  test("a checkout without bun, native build or app: bun not on PATH", async () => {
    const root = scriptCheckout(sb, "repo");
    await prepare();
    const r = await runShim(["x"], sb.path("repo"));
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(
      `vorn: bun not on PATH ${DASH} it runs the CLI at ${root}/src/cli/vorn.ts; install it (direnv allow), or build the native CLI: make -C ${root}/cli/native dev\n`,
    );
    expect(r.code).toBe(1);
  });
});
