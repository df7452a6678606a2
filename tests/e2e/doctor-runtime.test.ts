// `vorn doctor check`: the whole report on a fresh machine and when all is well, then the rows of
// the runtime root, the support folders, the scan and the instances.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import type { Sandbox } from "./harness";
import { doctor, fresh, goRows, packsCheckout, privateRoot, row, type Row, useDoctorSandbox } from "./doctor";
import { byPid, DASH, exists, expectCalls, pretty } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
useDoctorSandbox((fresh) => (sb = fresh));

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

  // Only root can give the runtime root to another user.
  test.skipIf(process.getuid?.() !== 0)("another user's folder fails, and the command exits 1 though every other row is ok", async () => {
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
