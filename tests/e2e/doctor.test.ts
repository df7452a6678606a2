// `vorn doctor check`: every row in its fixed order, for every state of the runtime root, the
// support folders, the instances, the CLI's installation, the PATH shim and the toolchain script.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import type { RunOptions, Sandbox } from "./harness";
import { brewVorn, bunOnPath, exists, nativeBuild, realBun, scriptCheckout, shimPath, vornBin } from "./installs";
import { byPid, DASH, expectCalls, pretty, useSandbox } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

type Row = [status: string, name: string, detail: string];

/** The text vorn prints for these rows: aligned names, then the summary line. */
function render(rows: Row[]): string {
  const width = Math.max(0, ...rows.map(([, name]) => [...name].length));
  const lines = rows.map(([status, name, detail]) => `[${status.padEnd(4)}] ${name}${" ".repeat(width - [...name].length)}  ${detail}\n`);
  const count = (s: string) => rows.filter(([status]) => status === s).length;
  return lines.join("") + `\n${count("fail")} failed, ${count("warn")} warning(s).\n`;
}

/** The rows of a text report. */
function parse(text: string): Row[] {
  const body = text.slice(0, text.indexOf("\n\n"));
  return body.split("\n").map((line) => {
    const m = line.match(/^\[(ok  |warn|fail)\] (\S+) +(.*)$/);
    if (!m) throw new Error(`not a doctor row: ${JSON.stringify(line)}`);
    return [m[1].trim(), m[2], m[3]] as Row;
  });
}

/**
 * Runs `doctor check` and returns its rows, after checking the text is laid out exactly as
 * rendered, nothing went to stderr and the exit status is 1 exactly when a row failed; unless
 * `once`, also runs `-o json` and checks it holds the same rows.
 */
async function doctor(opts: RunOptions = {}, once = false): Promise<Row[]> {
  const r = await sb.run(["doctor", "check"], opts);
  const rows = parse(r.stdout);
  expect(r.stdout).toBe(render(rows));
  expect(r.stderr).toBe("");
  const failed = rows.some(([status]) => status === "fail");
  expect(r.code).toBe(failed ? 1 : 0);
  if (!once) {
    const j = await sb.run(["doctor", "check", "-o", "json"], opts);
    expect(j.stdout).toBe(pretty({ ok: !failed, checks: rows.map(([status, name, detail]) => ({ name, status, detail })) }));
    expect([j.stderr, j.code]).toEqual(["", r.code]);
  }
  return rows;
}

function row(rows: Row[], name: string): Row | undefined {
  return rows.find(([, n]) => n === name);
}

/** The rows of a fresh sandbox: nothing has run, no checkout, no bun, no shim, no app. */
function fresh() {
  const shim = shimPath(sb);
  return {
    runtime: ["ok", "runtime.dir", `${sb.runtimeRoot} not created yet ${DASH} no instance has run ($XDG_RUNTIME_DIR)`] as Row,
    support: ["ok", "support.dir", `${sb.home}/Library/Application Support/Vorn`] as Row,
    instances: ["ok", "instances", "none running (vorn workspace open <dir> launches one)"] as Row,
    repo: ["ok", "cli.repo", `no checkout ${DASH} product verbs only (vorn dev needs one: run from it or set VORN_REPO_ROOT)`] as Row,
    bun: ["ok", "cli.bun", "bun is not on PATH; product verbs run in the native CLI (vorn dev needs bun)"] as Row,
    brew: ["ok", "cli.brew", "Homebrew does not link vorn (brew install --cask qor-labs/tap/vorn)"] as Row,
    shim: ["ok", "cli.shim", `${shim} not installed ${DASH} Omnibar "Install 'vorn' in PATH" or vorn shell-command install`] as Row,
    languages: [
      "warn",
      "languages",
      "toolchain rows skipped: no Vorn checkout or Vorn.app (run from a checkout, or set VORN_REPO_ROOT or VORN_APP)",
    ] as Row,
  };
}

const skipped = (reason: string): Row => ["warn", "languages", `toolchain rows skipped: ${reason}`];

const goRows = JSON.stringify([
  { name: "go", status: "ok", detail: "go1.23.4 (tools/go.pin)" },
  { name: "go.gopls", status: "ok", detail: "gopls v0.16.0", more: "ignored" },
]);

/** A checkout (the working directory of `run`) with bun on PATH and `packs` as its doctor-packs script. */
function packsCheckout(packs?: string): { root: string; script: string; opts: RunOptions } {
  const root = scriptCheckout(sb, "work/repo");
  bunOnPath(sb);
  const script = path.join(root, "src/cli/doctor-packs.ts");
  if (packs !== undefined) sb.file("work/repo/src/cli/doctor-packs.ts", packs);
  return { root, script, opts: { cwd: root } };
}

/** The runtime root made as a private folder. */
function privateRoot(): void {
  fs.mkdirSync(sb.runtimeRoot, { mode: 0o700 });
  fs.chmodSync(sb.runtimeRoot, 0o700);
}

describe("a fresh machine", () => {
  test("every row in order, the runtime root not created yet, exit 0", async () => {
    const r = await sb.run(["doctor", "check"]);
    const f = fresh();
    expect(r.stdout).toBe(
      [
        `[ok  ] runtime.dir  ${f.runtime[2]}`,
        `[ok  ] support.dir  ${f.support[2]}`,
        `[ok  ] instances    ${f.instances[2]}`,
        `[ok  ] cli.repo     ${f.repo[2]}`,
        `[ok  ] cli.bun      ${f.bun[2]}`,
        `[ok  ] cli.brew     ${f.brew[2]}`,
        `[ok  ] cli.shim     ${f.shim[2]}`,
        `[warn] languages    ${f.languages[2]}`,
        "",
        "0 failed, 1 warning(s).",
        "",
      ].join("\n"),
    );
    expect([r.stderr, r.code]).toEqual(["", 0]);
    expect(exists(sb.runtimeRoot)).toBe(false);
  });

  test("JSON: ok and every row as name, status, detail", async () => {
    const r = await sb.run(["doctor", "check", "-o", "json"]);
    const f = fresh();
    const rows = [f.runtime, f.support, f.instances, f.repo, f.bun, f.brew, f.shim, f.languages];
    expect(r.stdout).toBe(pretty({ ok: true, checks: rows.map(([status, name, detail]) => ({ name, status, detail })) }));
    expect([r.stderr, r.code]).toEqual(["", 0]);
  });

  test("a stray word is a usage error", async () => {
    const r = await sb.run(["doctor", "check", "now"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn doctor check: unexpected argument 'now'\n", 2]);
  });
});

describe("all well", () => {
  test("the summary line still comes: 0 failed, 0 warning(s).", async () => {
    const { root, opts } = packsCheckout(`console.log(${JSON.stringify(goRows)})`);
    privateRoot();
    const rows = await doctor(opts);
    const f = fresh();
    expect(rows).toEqual([
      ["ok", "runtime.dir", `${sb.runtimeRoot} (mode 700; $XDG_RUNTIME_DIR)`],
      f.support,
      f.instances,
      ["ok", "cli.repo", root],
      ["ok", "cli.bun", path.join(sb.bin, "bun")],
      f.brew,
      f.shim,
      ["ok", "go", "go1.23.4 (tools/go.pin)"],
      ["ok", "go.gopls", "gopls v0.16.0"],
    ]);
    const r = await sb.run(["doctor", "check"], opts);
    expect(r.stdout).toEndWith("\n\n0 failed, 0 warning(s).\n");
  });
});

describe("runtime.dir", () => {
  test("a regular file fails, and so does the command", async () => {
    fs.writeFileSync(sb.runtimeRoot, "");
    const rows = await doctor();
    expect(rows[0]).toEqual(["fail", "runtime.dir", `${sb.runtimeRoot} is not a directory`]);
    expect(rows.filter(([s]) => s === "fail").length).toBe(1);
  });

  test("a symbolic link fails even when it leads to a private folder", async () => {
    const real = sb.dir("elsewhere");
    fs.chmodSync(real, 0o700);
    fs.symlinkSync(real, sb.runtimeRoot);
    expect((await doctor())[0]).toEqual(["fail", "runtime.dir", `${sb.runtimeRoot} is not a directory`]);
  });

  test("mode 755 warns, naming tmpdir when XDG_RUNTIME_DIR is unset", async () => {
    const root = path.join(sb.tmp, "vorn");
    fs.mkdirSync(root);
    fs.chmodSync(root, 0o755);
    const rows = await doctor({ env: { XDG_RUNTIME_DIR: undefined } });
    expect(rows[0]).toEqual(["warn", "runtime.dir", `${root} mode 755 (expected 700; tmpdir)`]);
  });

  test("mode 700 is fine, naming $XDG_RUNTIME_DIR when it is set", async () => {
    privateRoot();
    expect((await doctor())[0]).toEqual(["ok", "runtime.dir", `${sb.runtimeRoot} (mode 700; $XDG_RUNTIME_DIR)`]);
  });

  test("another user's folder fails, and the command exits 1 though every other row is ok", async () => {
    if (process.getuid?.() !== 0) {
      console.warn("skipped: only root can give the runtime root to another user");
      return;
    }
    const { opts } = packsCheckout(`console.log(${JSON.stringify(goRows)})`);
    privateRoot();
    fs.chownSync(sb.runtimeRoot, 65534, 65534);
    const rows = await doctor(opts);
    expect(rows[0]).toEqual(["fail", "runtime.dir", `${sb.runtimeRoot} owned by uid 65534, not you`]);
    expect(rows.slice(1).every(([status]) => status === "ok")).toBe(true);
    const r = await sb.run(["doctor", "check"], opts);
    expect(r.stdout).toEndWith("\n\n1 failed, 0 warning(s).\n");
    expect([r.stderr, r.code]).toEqual(["", 1]);
  });
});

describe("support.dir", () => {
  test("a legacy folder warns with its entries", async () => {
    const base = path.join(sb.home, "Library/Application Support");
    sb.file("home/Library/Application Support/vorn/state.json", "{}");
    sb.dir("home/Library/Application Support/vorn/Workspaces");
    sb.dir("home/Library/Application Support/Vorn");
    const rows = await doctor();
    expect(row(rows, "support.dir")).toEqual([
      "warn",
      "support.dir",
      `${base}/vorn still holds Workspaces, state.json (newer copies in ${base}/Vorn win; delete it once checked)`,
    ]);
  });

  test("VORN_HOME moves both folders", async () => {
    const other = sb.dir("other");
    sb.dir("other/Library/Application Support/vorn");
    const rows = await doctor({ env: { VORN_HOME: ` ${other} ` } });
    const base = path.join(other, "Library/Application Support");
    expect(row(rows, "support.dir")).toEqual([
      "warn",
      "support.dir",
      `${base}/vorn still holds nothing (newer copies in ${base}/Vorn win; delete it once checked)`,
    ]);
    expect(row(await doctor(), "support.dir")).toEqual(fresh().support);
  });
});

describe("the scan", () => {
  test("a dead instance's folder is removed and reported; stale folders warn", async () => {
    const dead = await sb.deadPidDir({ sockFile: true });
    const nosock = await sb.sim({ id: "nosock", sock: "none" });
    const file = await sb.sim({ id: "file", sock: "file" });
    const rows = await doctor({}, true);
    const stale = byPid([nosock, file]).map(
      (s): Row => ["warn", "runtime.stale", `${s.dir} (${s === nosock ? "no-sock" : "unreachable"}) ${DASH} run vorn instance prune`],
    );
    expect(rows.slice(1, 6)).toEqual([
      fresh().support,
      ["ok", "runtime.pruned", `removed dead-pid dir ${dead.dir}`],
      ...stale,
      fresh().instances,
    ]);
    expect(exists(dead.dir)).toBe(false);
    expect(exists(nosock.dir) && exists(file.dir)).toBe(true);
  });
});

describe("instances", () => {
  const language = { language: "go", ready: true, detail: "gopls v0.16.0" };

  test("healthy instances in pid order, each asked for /health and /language/status", async () => {
    const work = sb.dir("work/app");
    const [a, b] = await Promise.all([
      sb.sim({ id: "alpha", workspace: work, language }),
      sb.sim({ id: "beta", language: { language: "go", ready: false } }),
    ]);
    const rows = await doctor({}, true);
    const sims = byPid([a, b]);
    const detail = (s: typeof a) =>
      s === a ? `protocol 1 \u00b7 app \u00b7 go ready (gopls v0.16.0)` : `protocol 1 \u00b7 No Folder \u00b7 go not ready`;
    expect(rows.slice(2, 5)).toEqual([
      ["ok", "instances", `2 live: ${sims.map((s) => s.id).join(", ")}`],
      ...sims.map((s): Row => ["ok", `instance.${s.id}`, detail(s)]),
    ]);
    for (const s of [a, b]) expectCalls(s, [["GET", "/health"], ["GET", "/language/status"]]);
  });

  test("the simulator's own language reply, which has no language name", async () => {
    const s = await sb.sim({ id: "plain" });
    const rows = await doctor({}, true);
    expect(row(rows, "instance.plain")).toEqual(["ok", "instance.plain", "protocol 1 \u00b7 No Folder \u00b7 language ready (gopls v0.16.2)"]);
    expectCalls(s, [["GET", "/health"], ["GET", "/language/status"]]);
  });

  test("/health not ok fails the row and the command, and language is not asked", async () => {
    const s = await sb.sim({ id: "sick", workspace: sb.dir("work/app"), routes: [{ path: "/health", json: { ok: false, error: "bridge down" } }] });
    const rows = await doctor({}, true);
    expect(row(rows, "instance.sick")).toEqual(["fail", "instance.sick", `pid ${s.pid} \u00b7 app: /health bridge down`]);
    expectCalls(s, [["GET", "/health"]]);
    await s.addRoute({ path: "/health", json: { ok: "yes", protocol: 1 } });
    const again = await doctor({}, true);
    expect(row(again, "instance.sick")).toEqual(["fail", "instance.sick", `pid ${s.pid} \u00b7 app: /health not ok`]);
    await s.addRoute({ path: "/health", status: 503, json: { ok: true } });
    const third = await doctor({}, true);
    expect(row(third, "instance.sick")).toEqual(["fail", "instance.sick", `pid ${s.pid} \u00b7 app: /health HTTP 503`]);
  });

  test("another protocol warns; a failed language status is shown", async () => {
    const s = await sb.sim({
      id: "two",
      protocol: 2,
      routes: [{ path: "/language/status", status: 500, json: { error: "gopls crashed" } }],
    });
    const rows = await doctor({}, true);
    expect(row(rows, "instance.two")).toEqual(["warn", "instance.two", "protocol 2 \u00b7 No Folder \u00b7 language status: gopls crashed"]);
    expectCalls(s, [["GET", "/health"], ["GET", "/language/status"]]);
  });
});

describe("cli rows", () => {
  test("a VORN_REPO_ROOT that is no checkout fails", async () => {
    const rows = await doctor({ env: { VORN_REPO_ROOT: sb.dir("notacheckout") } });
    expect(row(rows, "cli.repo")).toEqual(["fail", "cli.repo", `VORN_REPO_ROOT=${sb.path("notacheckout")} is not a Vorn checkout`]);
  });

  test("no bun in a checkout without a native build warns; with the build it is fine", async () => {
    const root = scriptCheckout(sb, "work/repo");
    const rows = await doctor({ cwd: root });
    expect(row(rows, "cli.repo")).toEqual(["ok", "cli.repo", root]);
    expect(row(rows, "cli.bun")).toEqual([
      "warn",
      "cli.bun",
      `bun is not on PATH and there is no native CLI build at ${root}/cli/native/.build/debug/vorn ${DASH} the vorn shim needs one (make -C cli/native dev)`,
    ]);
    expect(row(rows, "languages")).toEqual(skipped("bun not on PATH (direnv allow)"));
    nativeBuild(sb, "work/repo");
    expect(row(await doctor({ cwd: root }), "cli.bun")).toEqual(fresh().bun);
  });

  test("Homebrew's vorn", async () => {
    const brew = brewVorn(sb);
    const rows = await doctor({ env: { HOMEBREW_PREFIX: brew.prefix } });
    expect(row(rows, "cli.brew")).toEqual(["ok", "cli.brew", `Homebrew links vorn at ${brew.link} \u2192 ${brew.target}`]);
    expect(row(rows, "cli.shim")).toEqual(["ok", "cli.shim", `${shimPath(sb)} not installed ${DASH} Homebrew links vorn at ${brew.link}`]);
  });
});

describe("cli.shim", () => {
  const withShim = () => ({ PATH: `${path.dirname(shimPath(sb))}:${sb.bin}` });
  const installShim = async (opts: RunOptions = {}) => {
    const r = await sb.run(["shell-command", "install"], opts);
    expect([r.stderr, r.code]).toEqual(["", 0]);
  };
  const shimRow = async (env: Record<string, string | undefined> = withShim()) => row(await doctor({ env }), "cli.shim");

  test("installed from a checkout: where it falls back", async () => {
    const root = scriptCheckout(sb, "work/repo");
    await installShim({ cwd: root });
    expect(await shimRow()).toEqual(["ok", "cli.shim", `${shimPath(sb)} \u2192 checkout of $PWD, else VORN_REPO_ROOT, else ${root}`]);
  });

  test("installed from nowhere: nothing to fall back to", async () => {
    await installShim();
    expect(await shimRow()).toEqual(["ok", "cli.shim", `${shimPath(sb)} \u2192 checkout of $PWD, else VORN_REPO_ROOT, else nothing`]);
  });

  test("a foreign file", async () => {
    sb.file("home/.local/bin/vorn", "#!/bin/sh\n", 0o755);
    expect(await shimRow()).toEqual(["warn", "cli.shim", `${shimPath(sb)} exists but is not Vorn-managed`]);
  });

  test("a directory", async () => {
    sb.dir("home/.local/bin/vorn");
    expect(await shimRow()).toEqual(["warn", "cli.shim", `${shimPath(sb)} is a directory`]);
  });

  test("a fallback that is gone, or has no CLI", async () => {
    const root = scriptCheckout(sb, "work/repo");
    await installShim({ cwd: root });
    fs.rmSync(path.join(root, "src/cli/vorn.ts"));
    expect(await shimRow()).toEqual(["warn", "cli.shim", `${shimPath(sb)} falls back to ${root}, which has no CLI ${DASH} reinstall`]);
    fs.rmSync(root, { recursive: true });
    expect(await shimRow()).toEqual(["warn", "cli.shim", `${shimPath(sb)} falls back to ${root}, which is gone ${DASH} reinstall`]);
  });

  test("a shim from before the current-directory search", async () => {
    await installShim();
    const text = fs.readFileSync(shimPath(sb), "utf8");
    fs.writeFileSync(shimPath(sb), text.replace('d="$PWD"\n', 'd=""\n'));
    expect(await shimRow()).toEqual([
      "warn",
      "cli.shim",
      `${shimPath(sb)} predates $PWD checkout detection ${DASH} reinstall (vorn shell-command install)`,
    ]);
  });

  test("not executable, or not on PATH", async () => {
    await installShim();
    fs.chmodSync(shimPath(sb), 0o644);
    expect(await shimRow()).toEqual(["warn", "cli.shim", `${shimPath(sb)} is not executable ${DASH} reinstall (vorn shell-command install)`]);
    fs.chmodSync(shimPath(sb), 0o755);
    expect(await shimRow({})).toEqual([
      "warn",
      "cli.shim",
      `${shimPath(sb)} is not on PATH ${DASH} add ${path.dirname(shimPath(sb))} to PATH`,
    ]);
  });

  test("another vorn first on PATH shadows it", async () => {
    await installShim();
    const other = sb.file("bin/vorn", "#!/bin/sh\n", 0o755);
    expect(await shimRow({ PATH: `${sb.bin}:${path.dirname(shimPath(sb))}` })).toEqual([
      "warn",
      "cli.shim",
      `vorn on PATH resolves to ${other}, shadowing ${shimPath(sb)}`,
    ]);
  });

  test("it shadows Homebrew's vorn", async () => {
    await installShim();
    const brew = brewVorn(sb);
    expect(await shimRow({ ...withShim(), HOMEBREW_PREFIX: brew.prefix })).toEqual([
      "warn",
      "cli.shim",
      `${shimPath(sb)} shadows Homebrew's ${brew.link} ${DASH} vorn shell-command uninstall`,
    ]);
  });
});

describe("toolchain rows", () => {
  test("a script that succeeds gives its rows, in order, after the CLI rows", async () => {
    const { opts } = packsCheckout(`console.log(${JSON.stringify(goRows)})`);
    const rows = await doctor(opts);
    expect(rows.slice(-3)).toEqual([fresh().shim, ["ok", "go", "go1.23.4 (tools/go.pin)"], ["ok", "go.gopls", "gopls v0.16.0"]]);
  });

  test("the script runs in the checkout root", async () => {
    const { root, opts } = packsCheckout(
      `console.log(JSON.stringify([{ name: "cwd", status: "warn", detail: process.cwd() }, { name: "bazel", status: "fail", detail: "not found" }]))`,
    );
    const rows = await doctor({ ...opts, cwd: sb.dir("work/repo/pkg") });
    expect(rows.slice(-2)).toEqual([
      ["warn", "cwd", root],
      ["fail", "bazel", "not found"],
    ]);
  });

  test("a script that fails", async () => {
    const { script, opts } = packsCheckout(`console.log("[]"); process.exit(3)`);
    expect((await doctor(opts)).at(-1)).toEqual(skipped(`${script} exited 3`));
  });

  test("a script that prints garbage", async () => {
    const { script, opts } = packsCheckout(`console.log("go: ok")`);
    expect((await doctor(opts)).at(-1)).toEqual(skipped(`${script} printed no JSON (bad number at offset 0)`));
    sb.file("work/repo/src/cli/doctor-packs.ts", `console.log(JSON.stringify({ go: "ok" }))`);
    expect((await doctor(opts)).at(-1)).toEqual(
      skipped(`${script} printed something other than an array of rows with name, status (ok, warn or fail) and detail`),
    );
  });

  test("a script that prints megabytes", async () => {
    const { script, opts } = packsCheckout(`try { await Bun.write(Bun.stdout, " ".repeat(3_000_000) + "[]"); } catch {}`);
    expect((await doctor(opts)).at(-1)).toEqual(skipped(`${script} printed more than 1 MiB`));
  });

  test("a missing script", async () => {
    const { script, opts } = packsCheckout();
    expect((await doctor(opts)).at(-1)).toEqual(skipped(`no script at ${script}`));
  });

  test("the app's own script and Bun, outside any checkout", async () => {
    const app = sb.path("apps/Vorn.app");
    sb.symlink(realBun, "apps/Vorn.app/Contents/MacOS/bun");
    sb.file(
      "apps/Vorn.app/Contents/Resources/app/bun/doctor-packs.js",
      `console.log(JSON.stringify([{ name: "go", status: "ok", detail: process.cwd() }]))`,
    );
    const rows = await doctor({ env: { VORN_APP: app } });
    expect(rows.at(-1)).toEqual(["ok", "go", path.join(app, "Contents/Resources/app")]);
    expect(row(rows, "cli.bun")).toEqual(fresh().bun);
  });

  test("a background process holding the output open is not waited for", async () => {
    const pidFile = sb.path("grandchild.pid");
    const { opts } = packsCheckout(
      `const child = Bun.spawn([${JSON.stringify(Bun.which("sleep"))}, "30"], { stdout: "inherit", stderr: "ignore" });
require("fs").writeFileSync(${JSON.stringify(pidFile)}, String(child.pid));
child.unref();
console.log(${JSON.stringify(goRows)});
process.exit(0);`,
    );
    const rows = await doctor(opts, true);
    expect(rows.at(-1)).toEqual(["ok", "go.gopls", "gopls v0.16.0"]);
    const pid = Number(fs.readFileSync(pidFile, "utf8"));
    // Still running: the doctor finished when the script did, not when the pipe closed.
    expect(() => process.kill(pid, 0)).not.toThrow();
    process.kill(pid, "SIGKILL");
  });

  test("a script that does not exit keeps the doctor waiting, silent, until it does", async () => {
    const started = sb.path("started");
    const release = sb.path("release");
    const { opts } = packsCheckout(
      `const fs = require("fs");
fs.writeFileSync(${JSON.stringify(started)}, "");
while (!fs.existsSync(${JSON.stringify(release)})) Bun.sleepSync(20);
console.log(${JSON.stringify(goRows)});`,
    );
    const proc = Bun.spawn([vornBin(), "doctor", "check"], { cwd: opts.cwd, env: sb.env(), stdout: "pipe", stderr: "pipe" });
    const output = new Response(proc.stdout).text();
    const deadline = Date.now() + 30_000;
    while (!fs.existsSync(started) && Date.now() < deadline) await Bun.sleep(20);
    expect(fs.existsSync(started)).toBe(true);
    // The script cannot finish before it is released, so neither can the doctor.
    expect(proc.exitCode).toBeNull();
    fs.writeFileSync(release, "");
    expect(await proc.exited).toBe(0);
    const text = await output;
    expect(parse(text).at(-1)).toEqual(["ok", "go.gopls", "gopls v0.16.0"]);
    expect(text).toBe(render(parse(text)));
  });
});
