// `vorn instance ...` against simulated instances: list, inspect, focus, quit, prune, health.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import type { Sandbox, Sim } from "./harness";
import { byPid, calls, DASH, expectCalls, expectWire, instanceTable, pretty, useSandbox } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

describe("instance list", () => {
  test("with no instances it says so and succeeds", async () => {
    const r = await sb.run(["instance", "list"]);
    expect(r.stdout).toBe("No running Vorn instances.\n");
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);

    const q = await sb.run(["instance", "list", "-q"]);
    expect([q.stdout, q.stderr, q.code]).toEqual(["", "", 0]);

    const j = await sb.run(["instance", "list", "-o", "json"]);
    expect(JSON.parse(j.stdout)).toEqual({ instances: [], stale: [] });
    expect(j.stdout).toBe('{\n  "instances": [],\n  "stale": []\n}\n');
    expect(j.code).toBe(0);
  });

  test("prints the instance table in pid order", async () => {
    const work = sb.dir("work/app");
    const [a, b] = await Promise.all([sb.sim({ id: "alpha", workspace: work }), sb.sim({ id: "beta", mode: "headless" })]);
    const r = await sb.run(["instance", "list"]);
    const mode = (s: Sim) => (s === b ? "headless" : "app");
    const ws = (s: Sim) => (s === a ? work : "(none)");
    expect(r.stdout).toBe(instanceTable(byPid([a, b]), { mode, workspace: ws }) + "\n");
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    // A scan only asks each instance who it is.
    for (const s of [a, b]) {
      expect(s.requests().map((q) => q.target)).toEqual(["/instance"]);
      expectWire(s.requests()[0], "GET", "/instance");
    }
  });

  test("-q prints only the ids, one per line", async () => {
    const sims = await sb.sims(2, (i) => ({ id: `q-${i}` }));
    const r = await sb.run(["instance", "list", "-q"]);
    expect(r.stdout).toBe(byPid(sims).map((s) => s.id + "\n").join(""));
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    const long = await sb.run(["instance", "list", "--quiet"]);
    expect(long.stdout).toBe(r.stdout);
  });

  test("-o json gives instances and stale entries", async () => {
    const work = sb.dir("work/proj");
    const live = await sb.sim({ id: "live-1", workspace: work, mode: "remote" });
    const nosock = await sb.sim({ id: "nosock", sock: "none" });
    const r = await sb.run(["instance", "list", "-o", "json"]);
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    const parsed = JSON.parse(r.stdout);
    expect(parsed).toEqual({
      instances: [
        {
          id: "live-1",
          pid: live.pid,
          sock: live.sock,
          mode: "remote",
          workspace: { root: work, name: "proj" },
          health: { ok: true, transport: "af_unix" },
        },
      ],
      stale: [{ pid: nosock.pid, dir: nosock.dir, reason: "no-sock" }],
    });
    // Keys in the documented order.
    expect(Object.keys(parsed)).toEqual(["instances", "stale"]);
    expect(Object.keys(parsed.instances[0])).toEqual(["id", "pid", "sock", "mode", "workspace", "health"]);
    expect(r.stdout).toBe(pretty(parsed));
  });

  test("stale folders are reported on stderr; -q stays silent about them", async () => {
    const live = await sb.sim({ id: "ok" });
    const nosock = await sb.sim({ id: "nosock", sock: "none" });
    const file = await sb.sim({ id: "file", sock: "file" });
    const stale = [nosock, file].sort((x, y) => x.pid - y.pid);
    const reason = (s: Sim) => (s === nosock ? "no-sock" : "unreachable");
    const r = await sb.run(["instance", "list"]);
    expect(r.stdout).toBe(instanceTable([live]) + "\n");
    expect(r.stderr).toBe(
      `vorn: 2 unreachable instance dir(s): ${stale.map((s) => `${s.pid} (${reason(s)})`).join(", ")} ${DASH} run vorn instance prune\n`,
    );
    expect(r.code).toBe(0);

    const q = await sb.run(["instance", "list", "-q"]);
    expect(q.stdout).toBe("ok\n");
    expect(q.stderr).toBe("");
    expect(q.code).toBe(0);
    // Nothing was removed: both processes are alive and their folders are young.
    expect(fs.existsSync(nosock.dir)).toBe(true);
    expect(fs.existsSync(file.dir)).toBe(true);
  });

  test("a plain list removes a dead pid's folder and says so", async () => {
    const dead = await sb.deadPidDir({ sockFile: true });
    const r = await sb.run(["instance", "list"]);
    expect(r.stdout).toBe("No running Vorn instances.\n");
    expect(r.stderr).toBe(`vorn: pruned ${dead.dir} (dead-pid)\n`);
    expect(r.code).toBe(0);
    expect(fs.existsSync(dead.dir)).toBe(false);

    // Quiet and JSON runs remove as well, without the line.
    const d2 = await sb.deadPidDir();
    const q = await sb.run(["instance", "list", "-q"]);
    expect([q.stdout, q.stderr, q.code]).toEqual(["", "", 0]);
    expect(fs.existsSync(d2.dir)).toBe(false);
    const d3 = await sb.deadPidDir();
    const j = await sb.run(["instance", "list", "-o", "json"]);
    expect(JSON.parse(j.stdout)).toEqual({ instances: [], stale: [] });
    expect(j.stderr).toBe("");
    expect(fs.existsSync(d3.dir)).toBe(false);
  });

  test("--prune removes old unreachable folders first and keeps young ones", async () => {
    const live = await sb.sim({ id: "ok" });
    const old = await sb.sim({ id: "old", sock: "none" });
    const young = await sb.sim({ id: "young", sock: "none" });
    sb.age(old.dir, 11000);
    const r = await sb.run(["instance", "list", "--prune"]);
    expect(r.stdout).toBe(instanceTable([live]) + "\n");
    expect(r.stderr).toBe(
      `vorn: pruned ${old.dir} (no-sock)\n` + `vorn: 1 unreachable instance dir(s): ${young.pid} (no-sock) ${DASH} run vorn instance prune\n`,
    );
    expect(r.code).toBe(0);
    expect(fs.existsSync(old.dir)).toBe(false);
    expect(fs.existsSync(young.dir)).toBe(true);
  });

  test("a <pid> entry that is a symbolic link to a folder elsewhere is never deleted", async () => {
    const dead = await sb.deadPidDir();
    fs.rmSync(dead.dir, { recursive: true });
    const outside = sb.dir("outside/keep");
    sb.file("outside/keep/fs.sock", "");
    sb.file("outside/keep/precious.txt", "data");
    fs.symlinkSync(outside, dead.dir);

    const r = await sb.run(["instance", "list"]);
    expect(r.stdout).toBe("No running Vorn instances.\n");
    expect(r.stderr).toBe(`vorn: 1 unreachable instance dir(s): ${dead.pid} (dead-pid) ${DASH} run vorn instance prune\n`);
    expect(r.code).toBe(0);

    const p = await sb.run(["instance", "prune"]);
    expect(p.stdout).toBe(`Kept ${dead.dir} (dead-pid; younger than 10s or not ours)\n0 live instance(s).\n`);
    expect(p.code).toBe(0);

    expect(fs.lstatSync(dead.dir).isSymbolicLink()).toBe(true);
    expect(fs.readFileSync(path.join(outside, "precious.txt"), "utf8")).toBe("data");
    expect(fs.existsSync(path.join(outside, "fs.sock"))).toBe(true);
  });

  test.skipIf(process.getuid?.() !== 0)("a dead pid's folder owned by another user is kept and reported stale", async () => {
    const dead = await sb.deadPidDir();
    fs.chownSync(dead.dir, 12345, 12345);
    const r = await sb.run(["instance", "list"]);
    expect(r.stdout).toBe("No running Vorn instances.\n");
    expect(r.stderr).toBe(`vorn: 1 unreachable instance dir(s): ${dead.pid} (dead-pid) ${DASH} run vorn instance prune\n`);
    expect(r.code).toBe(0);
    const j = await sb.run(["instance", "list", "--prune", "-o", "json"]);
    expect(JSON.parse(j.stdout)).toEqual({ instances: [], stale: [{ pid: dead.pid, dir: dead.dir, reason: "dead-pid" }] });
    expect(fs.existsSync(dead.dir)).toBe(true);
  });

  test("32 instances at once are all listed, in pid order", async () => {
    const sims = await sb.sims(32, (i) => ({ id: `fleet-${String(i).padStart(2, "0")}` }));
    const sorted = byPid(sims);
    const r = await sb.run(["instance", "list"]);
    expect(r.stdout).toBe(instanceTable(sorted) + "\n");
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);

    const j = await sb.run(["instance", "list", "-o", "json"]);
    const parsed = JSON.parse(j.stdout);
    expect(parsed.instances.map((x: { id: string; pid: number }) => [x.id, x.pid])).toEqual(sorted.map((s) => [s.id, s.pid]));
    expect(parsed.stale).toEqual([]);

    const q = await sb.run(["instance", "list", "-q"]);
    expect(q.stdout).toBe(sorted.map((s) => s.id + "\n").join(""));
  });
});

describe("instance inspect", () => {
  const fixedStart = 1795294275123; // 2026-11-21T20:51:15.123Z

  test("with no instances it fails", async () => {
    const r = await sb.run(["instance", "inspect"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("vorn instance inspect: no running instances\n");
    expect(r.code).toBe(1);
  });

  test("one instance by id: its detail, from four GETs", async () => {
    const work = sb.dir("work/app");
    const s = await sb.sim({
      id: "insp-1",
      workspace: work,
      startedAt: fixedStart,
      vornRoot: "/opt/vorn",
      diagnostics: [{ source: "gopls" }, { source: "nogo" }, { source: "gopls" }, { message: "no source" }],
    });
    const before = Date.now();
    const r = await sb.run(["instance", "inspect", "insp-1"]);
    const after = Date.now();
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    const parsed = JSON.parse(r.stdout);
    expect(r.stdout).toBe(pretty(parsed));
    expect(Array.isArray(parsed)).toBe(true);
    expect(parsed.length).toBe(1);
    const d = parsed[0];
    expect(Object.keys(d)).toEqual([
      "id",
      "pid",
      "sock",
      "startedAt",
      "uptimeMs",
      "vornRoot",
      "platform",
      "health",
      "workspace",
      "language",
      "diagnostics",
    ]);
    expect(d.id).toBe("insp-1");
    expect(d.pid).toBe(s.pid);
    expect(d.sock).toBe(s.sock);
    expect(d.startedAt).toBe("2026-11-21T20:51:15.123Z");
    expect(d.uptimeMs).toBeGreaterThanOrEqual(before - fixedStart);
    expect(d.uptimeMs).toBeLessThanOrEqual(after - fixedStart);
    expect(d.vornRoot).toBe("/opt/vorn");
    expect(d.platform).toBe("darwin");
    expect(d.health).toEqual({ ok: true, protocol: 1, id: "insp-1" });
    expect(d.workspace).toEqual({ open: true, root: work, name: "app", goVersion: "go1.22.5", goos: "darwin", goarch: "arm64", gomod: "", module: "" });
    expect(d.language).toEqual({ languageId: "go", ready: true, detail: "gopls v0.16.2" });
    expect(d.diagnostics).toEqual({ count: 4, bySource: { gopls: 2, nogo: 1 } });
    expect(Object.keys(d.diagnostics.bySource)).toEqual(["gopls", "nogo"]);

    const got = calls(s).sort((x, y) => (x.target < y.target ? -1 : 1));
    expect(got.map((q) => q.target)).toEqual(["/diagnostics", "/health", "/language/status", "/workspace"]);
    for (const q of got) expectWire(q, "GET", q.target);
  });

  test("without ids every live instance, in pid order; with ids in the order given", async () => {
    const sims = await sb.sims(3, (i) => ({ id: `i-${i}` }));
    const all = await sb.run(["instance", "inspect"]);
    expect(all.code).toBe(0);
    expect(JSON.parse(all.stdout).map((d: { id: string }) => d.id)).toEqual(byPid(sims).map((s) => s.id));

    const some = await sb.run(["instance", "inspect", "i-2", "i-0", "i-2"]);
    expect(some.code).toBe(0);
    // A repeated id is inspected once.
    expect(JSON.parse(some.stdout).map((d: { id: string }) => d.id)).toEqual(["i-2", "i-0"]);

    const prefix = await sb.run(["instance", "inspect", "i-1"]);
    expect(JSON.parse(prefix.stdout).map((d: { id: string }) => d.id)).toEqual(["i-1"]);
  });

  test("a unique prefix picks its instance; an exact id wins over a longer one", async () => {
    await sb.sim({ id: "abc" });
    await sb.sim({ id: "abcd" });
    await sb.sim({ id: "xyz" });
    const exact = await sb.run(["instance", "inspect", "abc"]);
    expect(JSON.parse(exact.stdout).map((d: { id: string }) => d.id)).toEqual(["abc"]);
    const prefix = await sb.run(["instance", "inspect", "xy"]);
    expect(JSON.parse(prefix.stdout).map((d: { id: string }) => d.id)).toEqual(["xyz"]);
  });

  test("an id that matches nothing fails before any instance is asked", async () => {
    const s = await sb.sim({ id: "real" });
    const r = await sb.run(["instance", "inspect", "real", "ghost"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("vorn instance inspect: no instance matches ghost\n");
    expect(r.code).toBe(1);
    expect(calls(s)).toEqual([]);

    const j = await sb.run(["instance", "inspect", "ghost", "-o", "json"]);
    expect(JSON.parse(j.stderr)).toEqual({ error: "vorn instance inspect: no instance matches ghost", code: 1 });
    expect(j.code).toBe(1);
  });

  test("an id that matches several instances is ambiguous", async () => {
    const [a, b] = await Promise.all([sb.sim({ id: "abc" }), sb.sim({ id: "abd" })]);
    const r = await sb.run(["instance", "inspect", "ab"]);
    const msg = `vorn instance inspect: 2 instances match ab ${DASH} pass a longer ID (see vorn instance list)`;
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(instanceTable(byPid([a, b])) + "\n" + msg + "\n");
    expect(r.code).toBe(2);
    expect(calls(a)).toEqual([]);
    expect(calls(b)).toEqual([]);

    const j = await sb.run(["instance", "inspect", "ab", "-o", "json"]);
    expect(JSON.parse(j.stderr)).toEqual({ error: msg, instances: byPid([a, b]).map((s) => s.id), code: 2 });
    expect(j.code).toBe(2);
  });

  test("an empty id is a usage error", async () => {
    await sb.sim({ id: "x" });
    const r = await sb.run(["instance", "inspect", ""]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("vorn instance inspect: an instance ID cannot be empty\n");
    expect(r.code).toBe(2);
  });

  test("selectors choose the instances when no id is given", async () => {
    const sims = await sb.sims(2, (i) => ({ id: `sel-${i}` }));
    const [first, second] = byPid(sims);
    const i = await sb.run(["instance", "inspect", "-i", "sel-1"]);
    expect(JSON.parse(i.stdout).map((d: { id: string }) => d.id)).toEqual(["sel-1"]);
    const p = await sb.run(["instance", "inspect", "--pid", String(second.pid)]);
    expect(JSON.parse(p.stdout).map((d: { id: string }) => d.id)).toEqual([second.id]);
    const a = await sb.run(["instance", "inspect", "-a"]);
    expect(JSON.parse(a.stdout).map((d: { id: string }) => d.id)).toEqual([first.id, second.id]);
    const none = await sb.run(["instance", "inspect", "--pid", "42"]);
    expect(none.stderr).toBe("vorn: no instance matches pid 42\n");
    expect(none.code).toBe(1);
  });

  test("replies that fail are shown as their errors", async () => {
    const s = await sb.sim({
      id: "flaky",
      routes: [
        { path: "/health", action: "close" },
        { path: "/diagnostics", status: 500, json: { error: "analyzer crashed" } },
        { path: "/language/status", status: 503, json: {} },
      ],
    });
    const r = await sb.run(["instance", "inspect"]);
    expect(r.code).toBe(0);
    const [d] = JSON.parse(r.stdout);
    expect(d.id).toBe(s.id);
    expect(d.health).toEqual({ error: "malformed HTTP reply" });
    expect(d.language).toEqual({ error: "HTTP 503" });
    expect(d.diagnostics).toEqual({ count: 0, bySource: {} });
    expect(d.workspace).toEqual({ open: false, root: null, name: null });
  });
});

describe("instance focus", () => {
  test("with no instances it fails", async () => {
    const r = await sb.run(["instance", "focus"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn instance focus: no running instances\n", 1]);
  });

  test("focuses the one instance", async () => {
    const s = await sb.sim({ id: "win" });
    const r = await sb.run(["instance", "focus"]);
    expect(r.stdout).toBe("Focused instance win\n");
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expectCalls(s, [["POST", "/focus", "{}"]]);
    expect((await s.state()).focusCount).toBe(1);
  });

  test("-a focuses every instance in pid order", async () => {
    const sims = byPid(await sb.sims(2, (i) => ({ id: `f-${i}` })));
    const r = await sb.run(["instance", "focus", "-a"]);
    expect(r.stdout).toBe(sims.map((s) => `Focused instance ${s.id}\n`).join(""));
    expect(r.code).toBe(0);
    for (const s of sims) expect(calls(s).map((q) => q.target)).toEqual(["/focus"]);
  });

  test("failures: the reply's error, the status, or unreachable; successes still print", async () => {
    const [a, b, c, d] = byPid(await sb.sims(4, (i) => ({ id: `ff-${i}` })));
    await b.addRoute({ path: "/focus", status: 409, json: { error: "window minimised" } });
    await c.addRoute({ path: "/focus", status: 500, json: { detail: "no error key" } });
    await d.addRoute({ path: "/focus", action: "close" });
    const r = await sb.run(["instance", "focus", "-a"]);
    expect(r.stdout).toBe(`Focused instance ${a.id}\n`);
    expect(r.stderr).toBe(
      `vorn instance focus [${b.id}]: window minimised\n` +
        `vorn instance focus [${c.id}]: focus failed (500)\n` +
        `vorn instance focus [${d.id}]: focus failed (unreachable)\n` +
        "vorn instance focus: 3 target(s) failed\n",
    );
    expect(r.code).toBe(1);

    const j = await sb.run(["instance", "focus", "-a", "-o", "json"]);
    expect(j.code).toBe(1);
    const lines = j.stderr.trimEnd().split("\n");
    expect(JSON.parse(lines[lines.length - 1])).toEqual({ error: "vorn instance focus: 3 target(s) failed", code: 1 });
  });
});

describe("instance quit", () => {
  test("needs a selector even when exactly one instance runs", async () => {
    const s = await sb.sim({ id: "solo" });
    const r = await sb.run(["instance", "quit"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("vorn instance quit: pass -i ID, --pid N, -a, or --sock (see vorn instance list)\n");
    expect(r.code).toBe(1);
    expect(s.requests()).toEqual([]); // not even a scan
    expect(s.alive()).toBe(true);
  });

  test("quits the selected instance, waits for it and its folder is gone", async () => {
    const [keep, go] = await Promise.all([sb.sim({ id: "keep" }), sb.sim({ id: "go" })]);
    const r = await sb.run(["instance", "quit", "-i", "go"]);
    expect(r.stdout).toBe("Quit instance go\n");
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expect(await go.exited).toBe(0);
    expect(fs.existsSync(go.dir)).toBe(false);
    expect(sb.runtimeEntries()).toEqual([String(keep.pid)]);
    const posts = go.requests().filter((q) => q.method === "POST");
    expect(posts.length).toBe(1);
    expectWire(posts[0], "POST", "/quit", "{}");
    expect(calls(keep)).toEqual([]);
  });

  test("--sock and --pid select too", async () => {
    const [a, b] = await Promise.all([sb.sim({ id: "by-sock" }), sb.sim({ id: "by-pid" })]);
    const r1 = await sb.run(["instance", "quit", "--sock", a.sock]);
    expect([r1.stdout, r1.stderr, r1.code]).toEqual(["Quit instance by-sock\n", "", 0]);
    const r2 = await sb.run(["instance", "quit", "--pid", String(b.pid)]);
    expect([r2.stdout, r2.stderr, r2.code]).toEqual(["Quit instance by-pid\n", "", 0]);
    await Promise.all([a.exited, b.exited]);
    expect(sb.runtimeEntries()).toEqual([]);
  });

  test("-a with nothing running, or an id that matches nothing", async () => {
    const r = await sb.run(["instance", "quit", "-a"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn instance quit: no matching instances\n", 1]);
    await sb.sim({ id: "there" });
    const n = await sb.run(["instance", "quit", "-i", "nope"]);
    expect([n.stdout, n.stderr, n.code]).toEqual(["", "vorn: no instance matches nope\n", 1]);
  });

  test("a refused quit reports the reply's error or its status, and a dropped connection its transport error", async () => {
    const [a, b, c, d] = byPid(await sb.sims(4, (i) => ({ id: `qq-${i}` })));
    await b.addRoute({ path: "/quit", status: 423, json: { error: "unsaved changes" } });
    await c.addRoute({ path: "/quit", status: 500, json: {} });
    await d.addRoute({ path: "/quit", action: "close" });
    const r = await sb.run(["instance", "quit", "-a"]);
    expect(r.stdout).toBe(`Quit instance ${a.id}\n`);
    expect(r.stderr).toBe(
      `vorn instance quit [${b.id}]: unsaved changes\n` +
        `vorn instance quit [${c.id}]: quit failed (500)\n` +
        `vorn instance quit [${d.id}]: malformed HTTP reply\n` +
        "vorn instance quit: 3 target(s) failed\n",
    );
    expect(r.code).toBe(1);
    for (const s of [b, c, d]) expect(s.alive()).toBe(true);
  });

  test("-a with an instance that ignores the quit reports it still running after 10s", async () => {
    const s = await sb.sim({ id: "stubborn", ignoreQuit: true });
    const started = Date.now();
    const r = await sb.run(["instance", "quit", "-a"]);
    const took = Date.now() - started;
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("vorn instance quit [stubborn]: still running after 10s\nvorn instance quit: 1 target(s) failed\n");
    expect(r.code).toBe(1);
    expect(took).toBeGreaterThanOrEqual(10000);
    expect(s.alive()).toBe(true);
    expect(fs.existsSync(s.dir)).toBe(true);
  });
});

describe("instance prune", () => {
  test("nothing to prune", async () => {
    const r = await sb.run(["instance", "prune"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["Nothing to prune.\n0 live instance(s).\n", "", 0]);
    const j = await sb.run(["instance", "prune", "-o", "json"]);
    expect(JSON.parse(j.stdout)).toEqual({ pruned: [], kept: [], live: [] });
  });

  test("a folder right after an instance started is kept; once older than 10 s it is pruned", async () => {
    const live = await sb.sim({ id: "alive" });
    const starting = await sb.sim({ id: "starting", sock: "none" });
    const r = await sb.run(["instance", "prune"]);
    expect(r.stdout).toBe(`Kept ${starting.dir} (no-sock; younger than 10s or not ours)\n1 live instance(s).\n`);
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expect(fs.existsSync(starting.dir)).toBe(true);

    sb.age(starting.dir, 11000);
    const again = await sb.run(["instance", "prune"]);
    expect(again.stdout).toBe(`Pruned ${starting.dir} (no-sock)\n1 live instance(s).\n`);
    expect(fs.existsSync(starting.dir)).toBe(false);
    expect(fs.existsSync(live.dir)).toBe(true);
  });

  test("dead and unreachable folders, in text and JSON", async () => {
    const live = await sb.sim({ id: "alive" });
    const file = await sb.sim({ id: "file", sock: "file" });
    const young = await sb.sim({ id: "young", sock: "none" });
    sb.age(file.dir, 20000);
    const dead = await sb.deadPidDir();
    const j = await sb.run(["instance", "prune", "-o", "json"]);
    expect(j.stderr).toBe("");
    expect(j.code).toBe(0);
    const parsed = JSON.parse(j.stdout);
    expect(Object.keys(parsed)).toEqual(["pruned", "kept", "live"]);
    expect(parsed.kept).toEqual([{ pid: young.pid, dir: young.dir, reason: "no-sock" }]);
    expect(parsed.live).toEqual([live.id]);
    // Removed folders come in listing order, which the directory decides.
    expect(parsed.pruned.sort((x: { pid: number }, y: { pid: number }) => x.pid - y.pid)).toEqual(
      [
        { pid: file.pid, dir: file.dir, reason: "unreachable" },
        { pid: dead.pid, dir: dead.dir, reason: "dead-pid" },
      ].sort((x, y) => x.pid - y.pid),
    );
    expect(fs.existsSync(file.dir)).toBe(false);
    expect(fs.existsSync(dead.dir)).toBe(false);
    expect(fs.existsSync(young.dir)).toBe(true);
  });
});

describe("instance health", () => {
  const healthBody = (id: string, protocol = 1) => ({ ok: true, protocol, id });

  test("with no instances it fails", async () => {
    const r = await sb.run(["instance", "health"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn instance health: no running instances\n", 1]);
  });

  test("one instance: its reply as it came", async () => {
    const s = await sb.sim({ id: "h1" });
    const r = await sb.run(["instance", "health"]);
    expect(r.stdout).toBe(pretty(healthBody("h1")));
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expectCalls(s, [["GET", "/health"]]);

    const j = await sb.run(["instance", "health", "-o", "json"]);
    expect(JSON.parse(j.stdout)).toEqual({ results: [{ id: "h1", ok: true, body: healthBody("h1") }] });
  });

  test("several instances: one row each, in pid order", async () => {
    const sims = byPid(await sb.sims(2, (i) => ({ id: `h-${i}` })));
    const r = await sb.run(["instance", "health"]);
    expect(r.code).toBe(0);
    expect(r.stderr).toBe("");
    const parsed = JSON.parse(r.stdout);
    expect(r.stdout).toBe(pretty(parsed));
    expect(parsed).toEqual({ results: sims.map((s) => ({ id: s.id, ok: true, body: healthBody(s.id) })) });
  });

  test("a failing status prints the body and exits 1 with nothing more", async () => {
    await sb.sim({ id: "sick", routes: [{ path: "/health", status: 503, json: { ok: false, error: "starting" } }] });
    const r = await sb.run(["instance", "health"]);
    expect(r.stdout).toBe(pretty({ ok: false, error: "starting" }));
    expect(r.stderr).toBe("");
    expect(r.code).toBe(1);
  });

  test("an instance that goes away between the scan and the request", async () => {
    const gone = await sb.sim({ id: "gone", routes: [{ path: "/health", action: "close" }] });
    const one = await sb.run(["instance", "health"]);
    expect([one.stdout, one.stderr, one.code]).toEqual(["", "vorn: malformed HTTP reply\n", 1]);

    const fine = await sb.sim({ id: "fine" });
    const many = await sb.run(["instance", "health"]);
    expect(many.code).toBe(0);
    expect(many.stderr).toBe("");
    const rows = byPid([gone, fine]).map((s) =>
      s === gone ? { id: "gone", ok: false, error: "malformed HTTP reply" } : { id: "fine", ok: true, body: healthBody("fine") },
    );
    expect(JSON.parse(many.stdout)).toEqual({ results: rows });
  });

  // The control client has no time-out, and instances are read one after the other: an
  // instance that accepts and never answers stalls the command until the user interrupts it,
  // and nothing is printed before then, not even the rows already read.
  test("an instance that never answers stalls the command with nothing printed", async () => {
    const [first, second] = byPid(await sb.sims(2, (i) => ({ id: `hang-${i}` })));
    await second.addRoute({ path: "/health", action: "hang" });
    const r = await sb.run(["instance", "health"], { timeoutMs: 2000 });
    expect(r.timedOut).toBe(true);
    expect(r.signal).toBe("SIGKILL");
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("");
    // The first instance was read; its row was held back with the rest.
    expect(calls(first).map((q) => q.target)).toEqual(["/health"]);
    expect(second.records().filter((q) => q.target === "/health").length).toBe(1);

    // Hanging first: the second instance is never asked.
    await second.setRoutes([]);
    await first.addRoute({ path: "/health", action: "hang" });
    first.clearRequests();
    second.clearRequests();
    const r2 = await sb.run(["instance", "health"], { timeoutMs: 2000 });
    expect(r2.timedOut).toBe(true);
    expect(r2.stdout).toBe("");
    expect(calls(second)).toEqual([]);
  });
});

// An instance record is a few hundred bytes: the probe gives up after 1 MiB and the scan goes on.
describe("instance list: a record of 1 GB", () => {
  test("that instance is unreachable; the others list", async () => {
    const [big, ok] = await Promise.all([
      sb.sim({ id: "big", routes: [{ method: "GET", path: "/instance", jsonStringBytes: 1 << 30 }] }),
      sb.sim({ id: "ok" }),
    ]);
    const r = await sb.run(["instance", "list"]);
    expect(r.stdout).toBe(instanceTable([ok]) + "\n");
    expect(r.stderr).toBe(`vorn: 1 unreachable instance dir(s): ${big.pid} (unreachable) ${DASH} run vorn instance prune\n`);
    expect(r.code).toBe(0);
    expect(r.maxRssBytes).toBeLessThan(128 * 1024 * 1024);
  });
});
