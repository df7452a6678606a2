// `vorn instance list|prune` against simulated instances: the table, -q and JSON, stale folders,
// and which folders are removed and which kept.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import type { Sandbox, Sim } from "./harness";
import { byPid, DASH, expectWire, instanceTable, pretty, useSandbox } from "./support";

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
    expect(r.maxRssBytes).toBeGreaterThan(0);
    expect(r.maxRssBytes).toBeLessThan(128 * 1024 * 1024);
  });
});
