// Which instances a command acts on: -i, --pid, --sock, -a, the checkout's own app, VORN_PID,
// and the ambiguity error when a mutating verb cannot tell.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import type { Sandbox, Sim } from "./harness";
import { byPid, calls, checkout, DASH, instanceTable, useSandbox } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

const focused = (sims: Sim[]) => sims.map((s) => `Focused instance ${s.id}\n`).join("");
const focusCalls = (s: Sim) => s.requests().filter((q) => q.target === "/focus").length;

describe("-i, --pid, --sock, -a", () => {
  test("-i with a prefix selects every instance it starts", async () => {
    const [abc, abd, xyz] = await Promise.all([sb.sim({ id: "abc" }), sb.sim({ id: "abd" }), sb.sim({ id: "xyz" })]);
    const v = await sb.run(["version", "-i", "ab"]);
    expect(v.stdout).toBe("vorn 0.2.0\n" + byPid([abc, abd]).map((s) => `instance ${s.id}: bridge protocol 1\n`).join(""));
    expect(v.code).toBe(0);
    const f = await sb.run(["instance", "focus", "-i", "ab"]);
    expect([f.stdout, f.stderr, f.code]).toEqual([focused(byPid([abc, abd])), "", 0]);
    expect(focusCalls(xyz)).toBe(0);
  });

  test("-i with an exact id wins over longer ids it prefixes", async () => {
    const [abc, abcd] = await Promise.all([sb.sim({ id: "abc" }), sb.sim({ id: "abcd" })]);
    const f = await sb.run(["instance", "focus", "-i", "abc"]);
    expect([f.stdout, f.stderr, f.code]).toEqual([focused([abc]), "", 0]);
    expect(focusCalls(abcd)).toBe(0);
    const long = await sb.run(["instance", "focus", "--instance", "abcd"]);
    expect(long.stdout).toBe(focused([abcd]));
  });

  test("--pid with no such instance", async () => {
    const s = await sb.sim({ id: "one" });
    const r = await sb.run(["instance", "focus", "--pid", "42"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn: no instance matches pid 42\n", 1]);
    expect(focusCalls(s)).toBe(0);
    const j = await sb.run(["instance", "focus", "--pid", "42", "-o", "json"]);
    expect(JSON.parse(j.stderr)).toEqual({ error: "no instance matches pid 42", code: 1 });
    const ok = await sb.run(["instance", "focus", "--pid", String(s.pid)]);
    expect(ok.stdout).toBe(focused([s]));
  });

  test("--sock at a dead socket fails even when other instances run", async () => {
    const alive = await sb.sim({ id: "alive" });
    const dead = await sb.sim({ id: "dead", keepDirOnExit: true });
    await dead.kill();
    expect(fs.existsSync(dead.sock)).toBe(true);
    const r = await sb.run(["instance", "focus", "--sock", dead.sock]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", `vorn: no healthy instance at ${dead.sock}\n`, 1]);
    const missing = sb.path("nowhere/fs.sock");
    const m = await sb.run(["version", "--sock", missing]);
    expect([m.stdout, m.stderr, m.code]).toEqual(["", `vorn: no healthy instance at ${missing}\n`, 1]);
    expect(focusCalls(alive)).toBe(0);
    const ok = await sb.run(["instance", "focus", "--sock", alive.sock]);
    expect(ok.stdout).toBe(focused([alive]));
  });

  test("-a where a command takes one instance, even when none runs", async () => {
    const r = await sb.run(["search", "run", "needle", "-a"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn: --all is not valid for this command\n", 1]);
    const s = await sb.sim({ id: "one" });
    const again = await sb.run(["search", "run", "needle", "--all"]);
    expect([again.stdout, again.stderr, again.code]).toEqual(["", "vorn: --all is not valid for this command\n", 1]);
    expect(calls(s)).toEqual([]);
  });

  test("two instances and no selector: a mutating verb refuses to guess", async () => {
    const sims = byPid(await sb.sims(2, (i) => ({ id: `two-${i}` })));
    const msg = `2 instances running ${DASH} pass -i ID (see vorn instance list)`;
    const r = await sb.run(["instance", "focus"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(instanceTable(sims) + "\nvorn: " + msg + "\n");
    expect(r.code).toBe(2);
    const j = await sb.run(["instance", "focus", "-o", "json"]);
    expect(j.stdout).toBe("");
    expect(JSON.parse(j.stderr)).toEqual({ error: msg, instances: sims.map((s) => s.id), code: 2 });
    expect(j.code).toBe(2);
    for (const s of sims) expect(focusCalls(s)).toBe(0);
  });
});

describe("the checkout the CLI runs in", () => {
  test("the instance running from this checkout is chosen without a selector", async () => {
    const co = checkout(sb, "co");
    const [mine, other] = await Promise.all([sb.sim({ id: "mine", vornRoot: co }), sb.sim({ id: "other" })]);
    const r = await sb.run(["instance", "focus"], { cwd: sb.dir("co/src/cli") });
    expect([r.stdout, r.stderr, r.code]).toEqual([focused([mine]), "", 0]);
    expect(focusCalls(other)).toBe(0);
  });

  test("a vornRoot that reaches the checkout through a symbolic link counts", async () => {
    const co = checkout(sb, "co");
    const link = sb.symlink(co, "links/co");
    const [mine] = await Promise.all([sb.sim({ id: "linked", vornRoot: link }), sb.sim({ id: "other" })]);
    const r = await sb.run(["instance", "focus"], { cwd: co });
    expect([r.stdout, r.stderr, r.code]).toEqual([focused([mine]), "", 0]);
  });

  test("no app for this checkout: the ambiguity error lists every live instance", async () => {
    const co = checkout(sb, "co");
    const sims = byPid(await sb.sims(2, (i) => ({ id: `elsewhere-${i}` })));
    const msg = `no app for this checkout ${DASH} vorn dev app start, or pass -i ID (see vorn instance list)`;
    const r = await sb.run(["instance", "focus"], { cwd: co });
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(instanceTable(sims) + "\nvorn: " + msg + "\n");
    expect(r.code).toBe(2);
    const j = await sb.run(["instance", "focus", "-o", "json"], { cwd: co });
    expect(JSON.parse(j.stderr)).toEqual({ error: msg, instances: sims.map((s) => s.id), code: 2 });

    // Even a single instance from elsewhere is not taken for this checkout's app.
    await sims[1].stop();
    const one = await sb.run(["instance", "focus"], { cwd: co });
    expect(one.stderr).toBe(instanceTable([sims[0]]) + "\nvorn: " + msg + "\n");
    expect(one.code).toBe(2);
    // A selector bypasses the checkout rule.
    const sel = await sb.run(["instance", "focus", "-i", sims[0].id], { cwd: co });
    expect(sel.stdout).toBe(focused([sims[0]]));
  });

  test("VORN_PID names the instance that belongs to this checkout", async () => {
    const co = checkout(sb, "co");
    const sims = byPid(await sb.sims(2, (i) => ({ id: `vp-${i}` })));
    const r = await sb.run(["instance", "focus"], { cwd: co, env: { VORN_PID: String(sims[1].pid) } });
    expect([r.stdout, r.stderr, r.code]).toEqual([focused([sims[1]]), "", 0]);
    expect(focusCalls(sims[0])).toBe(0);
    // A value that is not a decimal number is ignored.
    const bad = await sb.run(["instance", "focus"], { cwd: co, env: { VORN_PID: "12x" } });
    expect(bad.code).toBe(2);
    expect(bad.stderr.endsWith(`vorn: no app for this checkout ${DASH} vorn dev app start, or pass -i ID (see vorn instance list)\n`)).toBe(true);
  });

  test("a dev-app record pointing at a live instance makes it the checkout's own", async () => {
    const co = checkout(sb, "co");
    const [dev, other] = byPid(await sb.sims(2, (i) => ({ id: `dev-${i}` })));
    const record = sb.file("co/.cache/vorn/dev-app.json", JSON.stringify({ pid: dev.pid, socketPath: dev.sock, started: 1 }));
    const r = await sb.run(["instance", "focus"], { cwd: co });
    expect([r.stdout, r.stderr, r.code]).toEqual([focused([dev]), "", 0]);
    expect(focusCalls(other)).toBe(0);
    const h = await sb.run(["instance", "health"], { cwd: co });
    expect(JSON.parse(h.stdout)).toEqual({ ok: true, protocol: 1, id: dev.id });
    expect(fs.existsSync(record)).toBe(true);
  });

  test("a dev-app record whose socket no longer answers is deleted", async () => {
    const co = checkout(sb, "co");
    const mine = await sb.sim({ id: "mine", vornRoot: co });
    const dead = await sb.deadPidDir();
    const record = sb.file("co/.cache/vorn/dev-app.json", JSON.stringify({ pid: dead.pid, socketPath: dead.sock }));
    const r = await sb.run(["instance", "focus"], { cwd: co });
    expect(fs.existsSync(record)).toBe(false);
    // Selection then falls back to the checkout rule.
    expect([r.stdout, r.stderr, r.code]).toEqual([focused([mine]), "", 0]);
  });

  test("a dev-app record whose pid is not the instance's is deleted", async () => {
    const co = checkout(sb, "co");
    const [a, b] = byPid(await sb.sims(2, (i) => ({ id: `pm-${i}` })));
    const record = sb.file("co/.cache/vorn/dev-app.json", JSON.stringify({ pid: b.pid, socketPath: a.sock }));
    const r = await sb.run(["instance", "focus"], { cwd: co });
    expect(fs.existsSync(record)).toBe(false);
    expect(r.code).toBe(2);
    expect(focusCalls(a) + focusCalls(b)).toBe(0);
  });

  test("a dev-app record outside the runtime directory is ignored and left alone", async () => {
    const co = checkout(sb, "co");
    const [a, b] = byPid(await sb.sims(2, (i) => ({ id: `out-${i}` })));
    const elsewhere = path.join(sb.root, "elsewhere", "1", "fs.sock");
    const record = sb.file("co/.cache/vorn/dev-app.json", JSON.stringify({ pid: a.pid, socketPath: elsewhere }));
    const r = await sb.run(["instance", "focus"], { cwd: co });
    expect(fs.existsSync(record)).toBe(true);
    expect(r.code).toBe(2);
    expect(r.stderr).toBe(
      instanceTable([a, b]) + `\nvorn: no app for this checkout ${DASH} vorn dev app start, or pass -i ID (see vorn instance list)\n`,
    );
  });
});
