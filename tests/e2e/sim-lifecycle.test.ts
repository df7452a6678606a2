// The simulated instance's life cycle (quitting, signals, crashes, the shapes its folder can
// take, many at once), its command line, and the fleet of background simulators.

import { describe, expect, test } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import { exchange, request, requestBytes, type Sandbox } from "./harness";
import { eventually, exists, useSandbox } from "./support";

const BUN = process.execPath;
const SIM_DIR = path.join(import.meta.dir, "..", "sim");

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

describe("life cycle", () => {
  test("POST /quit answers, exits and removes the folder", async () => {
    const s = await sb.sim();
    const r = await request(s.sock, "POST", "/quit", {});
    expect(r.json).toEqual({ ok: true });
    expect(await s.exited).toBe(0);
    expect(exists(s.dir)).toBe(false);
    expect(s.alive()).toBe(false);
    expect(s.requests().map((q) => q.target)).toEqual(["/quit"]);
  });

  test("ignoreQuit answers but stays; quitDelayMs exits later; keepDirOnExit leaves the folder", async () => {
    const stubborn = await sb.sim({ ignoreQuit: true });
    expect((await request(stubborn.sock, "POST", "/quit", {})).json).toEqual({ ok: true });
    expect((await request(stubborn.sock, "GET", "/health")).status).toBe(200);
    expect(stubborn.alive()).toBe(true);

    const slow = await sb.sim({ quitDelayMs: 300 });
    const t0 = performance.now();
    await request(slow.sock, "POST", "/quit", {});
    await slow.exited;
    expect(performance.now() - t0).toBeGreaterThanOrEqual(290);

    const crashy = await sb.sim({ keepDirOnExit: true });
    await request(crashy.sock, "POST", "/quit", {});
    await crashy.exited;
    expect(exists(crashy.sock)).toBe(true);
  });

  test("SIGTERM cleans up; SIGKILL leaves a dead folder with its socket", async () => {
    const a = await sb.sim();
    await a.stop();
    expect(exists(a.dir)).toBe(false);
    const b = await sb.sim();
    await b.kill();
    expect(fs.statSync(b.sock).isSocket()).toBe(true);
    const ex = await exchange(b.sock, requestBytes("GET", "/instance"));
    expect(ex.error).toBe("ECONNREFUSED");
  });

  test("the simulator exits when the harness's pipe closes", async () => {
    const proc = Bun.spawn([BUN, path.join(SIM_DIR, "instance.ts"), "--runtime", sb.runtime, "--stdin-control"], {
      stdin: "pipe",
      stdout: "pipe",
      stderr: "pipe",
    });
    const reader = (proc.stdout as ReadableStream<Uint8Array>).getReader();
    const first = new TextDecoder().decode((await reader.read()).value);
    const [, pid, sock] = first.trim().split(" ");
    expect(Number(pid)).toBe(proc.pid);
    expect(exists(sock)).toBe(true);
    proc.stdin.end();
    expect(await proc.exited).toBe(0);
    expect(exists(path.dirname(sock))).toBe(false);
  });

  test("crashAfter: the reply arrives, then the instance is gone as after a crash", async () => {
    const s = await sb.sim({ routes: [{ path: "/instance", crashAfter: true }] });
    const r = await request(s.sock, "GET", "/instance");
    expect(r.status).toBe(200);
    expect(r.json).toMatchObject({ id: s.id, pid: s.pid, socketPath: s.sock });
    // Refused at once, whether or not the process has ended yet.
    expect((await exchange(s.sock, requestBytes("GET", "/health"))).error).toBe("ECONNREFUSED");
    expect(await s.exited).toBe(null);
    expect(s.stderr()).toBe("");
    expect(fs.readdirSync(s.dir)).toEqual(["fs.sock"]);
    expect(fs.statSync(s.sock).isSocket()).toBe(true);
    expect((await exchange(s.sock, requestBytes("GET", "/instance"))).error).toBe("ECONNREFUSED");
    expect(s.requests().map((q) => q.target)).toEqual(["/instance"]);
  });

  test("crashAfter follows any reply, a dropped connection too, but never a hang", async () => {
    const s = await sb.sim({ routes: [{ path: "/health", action: "close", crashAfter: true }] });
    const ex = await exchange(s.sock, requestBytes("GET", "/health"));
    expect(ex).toMatchObject({ closed: true, timedOut: false });
    expect(ex.bytes.length).toBe(0);
    expect(await s.exited).toBe(null);
    expect(fs.statSync(s.sock).isSocket()).toBe(true);
    await expect(sb.sim({ routes: [{ path: "/x", action: "hang", crashAfter: true }] })).rejects.toThrow('"crashAfter" needs a reply to follow');
    await expect(sb.sim({ routes: [{ path: "/x", crashAfter: 1 } as never] })).rejects.toThrow('"crashAfter" must be a boolean');
  });

  test("folder-only, socket-file, symbolic-link and renamed-folder instances", async () => {
    const bare = await sb.sim({ sock: "none" });
    expect(fs.readdirSync(bare.dir)).toEqual([]);
    expect(bare.alive()).toBe(true);

    const file = await sb.sim({ sock: "file" });
    expect(fs.lstatSync(file.sock).isFile()).toBe(true);

    const target = sb.path("elsewhere/real.sock");
    const linked = await sb.sim({ bindAt: target });
    expect(fs.lstatSync(linked.sock).isSymbolicLink()).toBe(true);
    expect((await request(linked.sock, "GET", "/instance")).json).toMatchObject({ socketPath: target });

    const renamed = await sb.sim({ dirName: "0{pid}" });
    expect(path.basename(renamed.dir)).toBe("0" + renamed.pid);
    expect((await request(renamed.sock, "GET", "/instance")).json).toMatchObject({ pid: renamed.pid });

    await linked.stop();
    expect(exists(target)).toBe(false);
  });

  test("a runtime under TMPDIR (no XDG_RUNTIME_DIR) works the same", async () => {
    const s = await sb.sim({ runtime: sb.tmp });
    expect(s.dir).toBe(path.join(sb.tmp, "vorn", String(s.pid)));
    expect(sb.runtimeEntries(sb.tmp)).toEqual([String(s.pid)]);
  });

  test("32 simulators start in parallel and all bind", async () => {
    const t0 = performance.now();
    const sims = await sb.sims(32, (i) => ({ id: `s${i}` }));
    const elapsed = Math.round(performance.now() - t0);
    console.log(`32 simulators ready in ${elapsed} ms`);
    expect(new Set(sims.map((s) => s.pid)).size).toBe(32);
    expect(sb.runtimeEntries()).toEqual(sims.map((s) => String(s.pid)).sort());
    const records = await Promise.all(sims.map((s) => request(s.sock, "GET", "/instance")));
    records.forEach((r, i) => expect(r.json).toMatchObject({ id: `s${i}`, pid: sims[i].pid, socketPath: sims[i].sock }));
    await Promise.all(sims.map((s) => s.stop()));
    expect(sb.runtimeEntries()).toEqual([]);
  });
});

describe("command line of the simulator", () => {
  const run = (args: string[]) => Bun.spawnSync([BUN, path.join(SIM_DIR, "instance.ts"), ...args], { stdout: "pipe", stderr: "pipe" });

  test("bad arguments fail with a message and status 2", () => {
    const r = run(["--frob"]);
    expect(r.exitCode).toBe(2);
    expect(r.stderr.toString()).toStartWith("sim: unknown argument: --frob\n");
    const missing = run(["--id", "x"]);
    expect(missing.exitCode).toBe(2);
    expect(missing.stderr.toString()).toStartWith("sim: --runtime is required");
    const badScenario = run(["--runtime", sb.runtime, "--scenario", sb.file("bad.json", "{")]);
    expect(badScenario.exitCode).toBe(2);
    expect(badScenario.stderr.toString()).toContain("is not JSON");
    expect(sb.runtimeEntries()).toEqual([]);
  });

  test("--help prints the usage", () => {
    const r = run(["--help"]);
    expect(r.exitCode).toBe(0);
    expect(r.stdout.toString()).toContain("--runtime DIR");
  });
});

describe("fleet", () => {
  test("start, status and stop background simulators", async () => {
    const fleet = (args: string[]) => Bun.spawnSync([BUN, path.join(SIM_DIR, "fleet.ts"), ...args], { stdout: "pipe", stderr: "pipe" });
    const start = fleet(["start", "--runtime", sb.runtime, "--count", "4", "--workspace", sb.work, "--id-prefix", "f"]);
    expect(start.exitCode).toBe(0);
    const lines = fs.readFileSync(path.join(sb.runtime, "sim-fleet.pids"), "utf8").trim().split("\n");
    expect(lines.map((l) => l.split(" ")[1])).toEqual(["f1", "f2", "f3", "f4"]);
    const sock = lines[0].split(" ")[2];
    expect((await request(sock, "GET", "/instance")).json).toMatchObject({ id: "f1", workspace: sb.work });
    expect(fleet(["start", "--runtime", sb.runtime, "--count", "1"]).exitCode).toBe(2);
    const status = fleet(["status", "--runtime", sb.runtime]);
    expect(status.stdout.toString().trim().split("\n").length).toBe(4);
    const stop = fleet(["stop", "--runtime", sb.runtime]);
    expect(stop.exitCode).toBe(0);
    expect(stop.stderr.toString()).toBe("stopped 4 simulator(s)\n");
    const pids = path.join(sb.runtime, "sim-fleet.pids");
    expect(await eventually(() => !exists(pids), 5000)).toBe(true);
    expect(sb.runtimeEntries()).toEqual([]);
  });
});
