// The fault matrix (tests/FAULTS.md), the faults around the exchange: a socket nobody listens
// on, an instance that dies between the scan and the request, standard output closed before
// vorn writes (or on a full disk), and a full disk under the detached server's log. Each cell
// checks the exact output and exit status, that vorn ended by itself, and what stays behind.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import { vornBin, type Sandbox, type Sim } from "./harness";
import { endHostsAfterEach, hostCheckout, logNamesAround, parseStarted, processesMentioning, running, track, useRealBun } from "./hosts";
import { eventually, useSandbox } from "./support";
import {
  baseline,
  doctorEdited,
  expectNothingLeft,
  failed,
  FAMILIES,
  type Family,
  type Fleet,
  type Outcome,
  outcome,
  runCell,
  startFleet,
  tableOf,
  unreachableWarning,
  withStaleRow,
} from "./faults";

setDefaultTimeout(60000);

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));
endHostsAfterEach();

/**
 * A folder named after a live process (this test runner) holding a socket nobody listens on:
 * a simulator bound there and was killed, which leaves its socket behind.
 */
async function refusingFolder(): Promise<Sim> {
  const dead = await sb.sim({ id: "refusing", dirName: String(process.pid) });
  await dead.kill();
  expect(fs.statSync(dead.sock).isSocket()).toBe(true);
  return dead;
}

describe("connection refused: a dead socket in a live process's folder", () => {
  // The folder is unreachable: the list and the doctor report it, the other families never
  // see it; naming its socket is the one way to aim at it.
  const cells: Record<string, (f: Fleet, refusing: Sim, base: Outcome) => { args?: string[]; expected: Outcome }> = {
    "scan/list": (f, refusing, base) => ({ expected: { ...base, stderr: unreachableWarning(process.pid) } }),
    selection: (f, refusing) => ({
      args: ["instance", "focus", "--sock", refusing.sock],
      expected: { stdout: "", stderr: `vorn: no healthy instance at ${refusing.sock}\n`, code: 1 },
    }),
    doctor: (f, refusing, base) => ({ expected: doctorEdited(base, (rows) => withStaleRow(rows, refusing.dir)) }),
  };

  for (const fam of FAMILIES) {
    test(fam.name, async () => {
      const fleet = await startFleet(sb);
      const base = await baseline(fleet, fam);
      const refusing = await refusingFolder();
      const cell = cells[fam.name]?.(fleet, refusing, base) ?? { expected: base };
      const r = await runCell(fleet, cell.args ?? fam.args(fleet));
      expect(outcome(r)).toEqual(cell.expected);
      // A live process's folder is never removed without --prune.
      expectNothingLeft(fleet, [fleet.a, fleet.b], [String(process.pid)]);
    });
  }
});

describe("an instance that dies between the scan and the request", () => {
  for (const fam of FAMILIES) {
    test(fam.name, async () => {
      const fleet = await startFleet(sb);
      const { a, b } = fleet;
      const base = await baseline(fleet, fam);
      // a answers its scan, then crashes: its next connection is refused.
      await a.addRoute({ method: "GET", path: "/instance", crashAfter: true });
      const refused = `connect ${a.sock}: Connection refused`;
      const expected =
        fam.name === "scan/list"
          ? base // the scan is its last exchange: a is listed, as it answered
          : fam.name === "selection"
            ? // focus scans once to see that instances run and once to pick: a is gone by the second
              { stdout: "", stderr: "vorn: no instance matches a\n", code: 1 }
            : fam.expect(fleet, failed(refused, true), base);
      const r = await runCell(fleet, fam.args(fleet));
      expect(outcome(r)).toEqual(expected);
      expect(await a.exited).toBe(null); // killed, as in a crash

      // What the crash left, vorn's next scan takes away (the focus may have done it already).
      const left = fs.existsSync(a.dir);
      const list = await runCell(fleet, ["instance", "list"]);
      expect([list.stdout, list.stderr, list.code]).toEqual([tableOf(fleet, [b]), left ? `vorn: pruned ${a.dir} (dead-pid)\n` : "", 0]);
      expectNothingLeft(fleet, [b]);
    });
  }
});

/** A pipe whose reading end is already closed, as after `| head -c 0`: every write to it fails. */
function readerlessPipe(): number {
  const fifo = sb.path("tmp/stdout.fifo");
  expect(Bun.spawnSync(["mkfifo", fifo]).exitCode).toBe(0);
  // Opened for reading and writing first, so that opening the writing end does not wait.
  const both = fs.openSync(fifo, fs.constants.O_RDWR);
  const write = fs.openSync(fifo, fs.constants.O_WRONLY);
  fs.closeSync(both);
  return write;
}

/**
 * Runs vorn with standard output on `sink`: a descriptor (given to it, closed here), or none at
 * all ("closed", so that the first descriptor vorn opens takes its place). Ended after 20 s at most.
 */
async function runWithStdout(args: string[], sink: number | "closed", cwd = sb.work): Promise<{ code: number | null; signal: string | null; stderr: string }> {
  const argv = sink === "closed" ? ["/bin/sh", "-c", 'exec "$0" "$@" >&-', vornBin(), ...args] : [vornBin(), ...args];
  const proc = Bun.spawn(argv, { cwd, env: sb.env(), stdin: "ignore", stdout: sink === "closed" ? "ignore" : sink, stderr: "pipe" });
  if (sink !== "closed") fs.closeSync(sink);
  const timer = setTimeout(() => proc.kill("SIGKILL"), 20000);
  const stderr = await new Response(proc.stderr).text();
  await proc.exited;
  clearTimeout(timer);
  return { code: proc.signalCode ? null : proc.exitCode, signal: proc.signalCode ?? null, stderr };
}

const hasDevFull = fs.existsSync("/dev/full");

describe("standard output closed early", () => {
  // What vorn could not print is dropped: no signal, no retrying, the exit status it would have
  // had, and its standard error as it would have been.
  const sinks: [string, () => number | "closed", boolean][] = [
    ["a pipe without a reader", readerlessPipe, true],
    ["a full disk (/dev/full)", () => fs.openSync("/dev/full", "w"), hasDevFull],
    ["no descriptor at all (>&-)", () => "closed", true],
  ];
  for (const [sink, open, available] of sinks) {
    describe(sink, () => {
      for (const fam of FAMILIES) {
        test.if(available)(fam.name, async () => {
          const fleet = await startFleet(sb);
          const base = await baseline(fleet, fam);
          expect(base.stdout).not.toBe(""); // there is something to lose
          const r = await runWithStdout(fam.args(fleet), open());
          expect(r).toEqual({ code: base.code, signal: null, stderr: base.stderr });
          // Nothing meant for the terminal went down a socket that took descriptor 1.
          for (const sim of [fleet.a, fleet.b]) {
            for (const q of sim.records()) expect([q.complete, q.extra.length]).toEqual([true, 0]);
          }
          expectNothingLeft(fleet);
        });
      }
    });
  }
});

describe("server start --detach", () => {
  /** The one host in the runtime directory: it answers, and instance quit ends it without a trace. */
  async function expectHostThenQuit(pid: number, logs: string[]): Promise<void> {
    expect(sb.runtimeEntries().filter((n) => /^\d+$/.test(n))).toEqual([String(pid)]);
    const list = await sb.run(["instance", "list", "-q"]);
    expect([list.stdout, list.stderr, list.code]).toEqual([`sim-${pid}\n`, "", 0]);
    const quit = await sb.run(["instance", "quit", "--pid", String(pid)]);
    expect([quit.stdout, quit.stderr, quit.code]).toEqual([`Quit instance sim-${pid}\n`, "", 0]);
    expect(await eventually(() => !running(pid))).toBe(true);
    expect(processesMentioning(sb.root)).toEqual([]);
    expect(sb.runtimeEntries()).toEqual(logs.map((log) => path.basename(log)).sort());
  }

  test.if(hasDevFull)("a full disk for its log: the host still comes up, and vorn says where it logs", async () => {
    const root = hostCheckout(sb, "repo");
    useRealBun(sb);
    fs.mkdirSync(sb.runtimeRoot, { mode: 0o700 });
    const logs = logNamesAround(sb);
    for (const log of logs) fs.symlinkSync("/dev/full", log);
    const r = await sb.run(["server", "start", "--detach"], { cwd: root, timeoutMs: 40000 });
    const host = parseStarted(r.stdout)!;
    expect([r.stderr, r.code, r.signal, r.timedOut]).toEqual(["", 0, null, false]);
    expect(host).toBeDefined();
    expect(logs).toContain(host.log);
    expect(fs.readlinkSync(host.log)).toBe("/dev/full");
    await expectHostThenQuit(host.pid, logs);
  });

  test("standard output closed early: the host still comes up and vorn exits 0", async () => {
    const root = hostCheckout(sb, "repo");
    useRealBun(sb);
    const r = await runWithStdout(["server", "start", "--detach"], readerlessPipe(), root);
    expect(r).toEqual({ code: 0, signal: null, stderr: "" });
    // Nothing printed the host's pid: its runtime folder names it. Ended after the test if it still runs.
    const hosts = sb.runtimeEntries().filter((n) => /^\d+$/.test(n));
    for (const pid of hosts) track(Number(pid));
    expect(hosts.length).toBe(1);
    const logs = sb.runtimeEntries().filter((n) => n.startsWith("server-"));
    await expectHostThenQuit(Number(hosts[0]), logs.map((n) => path.join(sb.runtimeRoot, n)));
  });
});
