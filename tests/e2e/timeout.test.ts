// VORN_TIMEOUT against an instance that accepts a request and never answers. Without the
// variable vorn waits (it is still running once the request has arrived; the test ends it);
// with it, the exchange fails with "timed out after <N>s" and that failure takes the usual
// road: an unreachable instance in the scan, a failed row in a fan-out, the command's error.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import { vornBin, type Sandbox, type Sim } from "./harness";
import { byPid, DASH, eventually, instanceTable, pretty, requestLog, useSandbox } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

const hang = (method: string, path: string) => ({ method, path, action: "hang" as const });

// Runs vorn without VORN_TIMEOUT until `sim` has received `request` (method and target), then
// checks again and again for a while that vorn has not exited: it is waiting for the reply.
// Then ends it.
async function expectStillWaiting(args: string[], sim: Sim, request: string, opts: { cwd?: string } = {}): Promise<void> {
  const proc = Bun.spawn([vornBin(), ...args], {
    cwd: opts.cwd ?? sb.work,
    env: sb.env(),
    stdin: "ignore",
    stdout: "ignore",
    stderr: "ignore",
  });
  let exited = false;
  proc.exited.then(() => (exited = true));
  try {
    expect(await eventually(() => requestLog(sim).includes(request) || exited, 20000)).toBe(true);
    for (let i = 0; i < 10; i++) {
      expect(exited).toBe(false);
      await Bun.sleep(50);
    }
    expect(exited).toBe(false);
  } finally {
    proc.kill("SIGKILL");
    await proc.exited;
  }
  expect(proc.signalCode).toBe("SIGKILL");
}

describe("the variable's value", () => {
  test("a value that is not a positive number is a usage error naming the variable", async () => {
    const a = await sb.sim({ id: "a" });
    for (const bad of ["0", "-1", "abc", "1e3", "1s", " 2"]) {
      const r = await sb.run(["instance", "list"], { env: { VORN_TIMEOUT: bad } });
      expect(r.stderr).toBe(`vorn: VORN_TIMEOUT must be a positive number of seconds (got ${bad})\n`);
      expect(r.stdout).toBe("");
      expect(r.code).toBe(2);
    }
    const j = await sb.run(["instance", "list", "-o", "json"], { env: { VORN_TIMEOUT: "soon" } });
    expect(JSON.parse(j.stderr)).toEqual({ error: "VORN_TIMEOUT must be a positive number of seconds (got soon)", code: 2 });
    expect(j.code).toBe(2);
    // Nothing was asked of the instance.
    expect(requestLog(a)).toEqual([]);
  });

  test("an empty value is no limit, and a limit that is not reached changes nothing", async () => {
    const a = await sb.sim({ id: "a" });
    for (const value of ["", "30", "2.5"]) {
      const r = await sb.run(["instance", "list"], { env: { VORN_TIMEOUT: value } });
      expect(r.stdout).toBe(instanceTable([a], { mode: () => "app" }) + "\n");
      expect(r.stderr).toBe("");
      expect(r.code).toBe(0);
    }
  });
});

describe("instance list", () => {
  test("without VORN_TIMEOUT the scan waits for the instance", async () => {
    const a = await sb.sim({ id: "a", routes: [hang("GET", "/instance")] });
    await expectStillWaiting(["instance", "list"], a, "GET /instance");
  });

  test("with VORN_TIMEOUT the silent instance is unreachable and the others are listed", async () => {
    const [silent, ok] = await Promise.all([sb.sim({ id: "silent", routes: [hang("GET", "/instance")] }), sb.sim({ id: "ok" })]);
    const r = await sb.run(["instance", "list"], { env: { VORN_TIMEOUT: "0.5" } });
    expect(r.stdout).toBe(instanceTable([ok], { mode: () => "app" }) + "\n");
    expect(r.stderr).toBe(`vorn: 1 unreachable instance dir(s): ${silent.pid} (unreachable) ${DASH} run vorn instance prune\n`);
    expect(r.code).toBe(0);

    const j = await sb.run(["instance", "list", "-o", "json"], { env: { VORN_TIMEOUT: ".5" } });
    expect(JSON.parse(j.stdout).stale).toEqual([{ pid: silent.pid, dir: silent.dir, reason: "unreachable" }]);
    expect(j.code).toBe(0);
  });
});

describe("instance health over two instances", () => {
  // Both answer the scan; the first in pid order never answers /health.
  async function twoInstances(): Promise<[Sim, Sim]> {
    const sims = byPid(await sb.sims(2, (i) => ({ id: ["x", "y"][i] })));
    await sims[0].addRoute(hang("GET", "/health"));
    return [sims[0], sims[1]];
  }

  test("without VORN_TIMEOUT it waits on the first and never asks the second", async () => {
    const [first, second] = await twoInstances();
    await expectStillWaiting(["instance", "health"], first, "GET /health");
    expect(requestLog(second)).toEqual(["GET /instance"]);
  });

  test("with VORN_TIMEOUT the first row fails and the second row arrives", async () => {
    const [first, second] = await twoInstances();
    const r = await sb.run(["instance", "health"], { env: { VORN_TIMEOUT: "0.5" } });
    expect(r.stdout).toBe(
      pretty({
        results: [
          { id: first.id, ok: false, error: "timed out after 0.5s" },
          { id: second.id, ok: true, body: { ok: true, protocol: 1, id: second.id } },
        ],
      }),
    );
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expect(requestLog(second)).toEqual(["GET /instance", "GET /health"]);
  });

  test("the limit is written back as a JSON number", async () => {
    const [first] = await twoInstances();
    const r = await sb.run(["instance", "health", "-i", first.id], { env: { VORN_TIMEOUT: "0.50" } });
    expect(r.stderr).toBe("vorn: timed out after 0.5s\n");
    expect(r.stdout).toBe("");
    expect(r.code).toBe(1);
  });
});

describe("version fan-out", () => {
  test("with VORN_TIMEOUT a silent instance's protocol is unknown", async () => {
    const [first, second] = byPid(await sb.sims(2, (i) => ({ id: ["x", "y"][i] })));
    await first.addRoute(hang("GET", "/health"));
    const r = await sb.run(["version"], { env: { VORN_TIMEOUT: "0.5" } });
    expect(r.stdout).toBe(`vorn 0.2.0\ninstance ${first.id}: bridge protocol unknown\ninstance ${second.id}: bridge protocol 1\n`);
    expect(r.code).toBe(0);
  });
});

describe("file open", () => {
  async function silentOwner(): Promise<{ sim: Sim; ws: string; file: string }> {
    const ws = sb.dir("work/app");
    const file = sb.file("work/app/main.go", "package main\n");
    const sim = await sb.sim({ id: "a", workspace: ws, routes: [hang("POST", "/openFile")] });
    return { sim, ws, file };
  }

  test("without VORN_TIMEOUT it waits for the reply", async () => {
    const { sim, ws } = await silentOwner();
    await expectStillWaiting(["file", "open", "main.go:12"], sim, "POST /openFile", { cwd: ws });
  });

  test("with VORN_TIMEOUT the command fails with the time-out", async () => {
    const { sim, ws } = await silentOwner();
    const r = await sb.run(["file", "open", "main.go:12"], { cwd: ws, env: { VORN_TIMEOUT: "0.5" } });
    expect(r.stderr).toBe(`vorn file open [${sim.id}]: timed out after 0.5s\n`);
    expect(r.stdout).toBe("");
    expect(r.code).toBe(1);

    const j = await sb.run(["file", "open", "main.go:12", "-o", "json"], { cwd: ws, env: { VORN_TIMEOUT: "0.5" } });
    expect(JSON.parse(j.stderr)).toEqual({ error: `vorn file open [${sim.id}]: timed out after 0.5s`, code: 1 });
    expect(j.code).toBe(1);
  });
});
