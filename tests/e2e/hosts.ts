// Helpers for the tests of the hosts vorn starts (server, remote): fake checkouts and app
// bundles, the real Bun or a probe in its place, what the probe recorded, and the processes a
// test started, ended afterwards.
//
//   const root = hostCheckout(sb, "repo");              // its headless host is the simulator
//   const env = useProbe(sb);                            // `bun` on PATH records how it ran
//   const r = await sb.run(["server", "start", "w"], { cwd: root, env });
//   const seen = probeRecord(sb, pidOf(r));              // argv, env, cwd, sigpipe, fds

import { afterEach, expect } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import { vornBin, type Sandbox } from "./harness";
import { checkout } from "./support";

/** The Bun that runs the tests: the real one, for hosts that must really run. */
export const REAL_BUN = process.execPath;
/** A stand-in for bun that records how it was started (see probe.sh). */
export const PROBE = path.join(import.meta.dir, "probe.sh");
/** The simulated instance run as a headless host. */
export const HEADLESS_SIM = path.resolve(import.meta.dir, "../sim/headless.ts");

/** A script that runs the simulated headless host when Bun runs it. */
export const headlessScript = `import ${JSON.stringify(HEADLESS_SIM)};\n`;

/** The script entries of a checkout and their prebuilt names inside an app. */
export const SOURCE = { headless: "src/bun/headless.ts", tunnel: "src/bun/remote/tunnel-main.ts" };
export const BUNDLED = { headless: "headless.js", tunnel: "tunnel-main.js" };

/**
 * A checkout at `rel` whose headless host is the simulated instance (or `headless`, when
 * given) and whose remote session runner is `tunnel` (by default a script that fails loudly,
 * since no test may reach a network).
 */
export function hostCheckout(sb: Sandbox, rel: string, scripts: { headless?: string; tunnel?: string } = {}): string {
  const root = checkout(sb, rel);
  sb.file(`${rel}/${SOURCE.headless}`, scripts.headless ?? headlessScript);
  sb.file(`${rel}/${SOURCE.tunnel}`, scripts.tunnel ?? 'console.error("no runner in tests"); process.exit(9);\n');
  return root;
}

export interface FakeApp {
  app: string; // <...>/X.app
  bun: string; // Contents/MacOS/bun
  appDir: string; // Contents/Resources/app, where its scripts run
  cli: string; // Contents/Resources/app/bin/vorn: a copy of the vorn under test
}

/**
 * An app bundle at `rel`: its Bun (the real one, or the probe), its prebuilt scripts (the
 * simulated headless host and a runner, unless others are given) and a copy of vorn inside.
 */
export function fakeApp(sb: Sandbox, rel: string, opts: { bun?: "real" | "probe"; scripts?: Record<string, string> } = {}): FakeApp {
  const app = sb.dir(rel);
  const bun = sb.path(rel, "Contents/MacOS/bun");
  fs.mkdirSync(path.dirname(bun), { recursive: true });
  if ((opts.bun ?? "probe") === "real") {
    fs.symlinkSync(REAL_BUN, bun);
  } else {
    fs.copyFileSync(PROBE, bun);
    fs.chmodSync(bun, 0o755);
  }
  const appDir = sb.path(rel, "Contents/Resources/app");
  const scripts = opts.scripts ?? { [BUNDLED.headless]: headlessScript, [BUNDLED.tunnel]: "process.exit(9);\n" };
  for (const [name, text] of Object.entries(scripts)) sb.file(path.join(rel, "Contents/Resources/app/bun", name), text);
  const cli = sb.path(rel, "Contents/Resources/app/bin/vorn");
  fs.mkdirSync(path.dirname(cli), { recursive: true });
  fs.copyFileSync(vornBin(), cli);
  fs.chmodSync(cli, 0o755);
  return { app, bun, appDir, cli };
}

/** Puts the real Bun on the sandbox's PATH (its bin folder) as `bun`; returns the link. */
export function useRealBun(sb: Sandbox): string {
  return sb.symlink(REAL_BUN, "bin/bun");
}

/**
 * Puts the probe on the sandbox's PATH as `bun`; returns the environment that tells it where
 * to record and, with `then`, to go on as the real Bun.
 */
export function useProbe(sb: Sandbox, opts: { then?: boolean; exit?: number } = {}): Record<string, string> {
  const bun = path.join(sb.bin, "bun");
  fs.copyFileSync(PROBE, bun);
  fs.chmodSync(bun, 0o755);
  return probeEnv(sb, opts);
}

/** The environment for a probe placed elsewhere (an app's Contents/MacOS/bun). */
export function probeEnv(sb: Sandbox, opts: { then?: boolean; exit?: number } = {}): Record<string, string> {
  const env: Record<string, string> = { VORN_PROBE_OUT: sb.path("probe") };
  if (opts.then) env.VORN_PROBE_THEN = REAL_BUN;
  if (opts.exit !== undefined) env.VORN_PROBE_EXIT = String(opts.exit);
  return env;
}

export interface ProbeRecord {
  argv: string[]; // $0 (the path the program was found at) first
  env: Record<string, string>;
  cwd: string;
  sigpipe: string; // "default", "ignored" or "unknown"
  fds: Map<number, string> | undefined; // descriptor -> what it points at (Linux)
  session: number | undefined; // the session id (Linux)
}

/** The pids the probe recorded a start of, in the sandbox. */
export function probedPids(sb: Sandbox): number[] {
  try {
    return fs
      .readdirSync(sb.path("probe"))
      .filter((n) => /^\d+$/.test(n))
      .map(Number)
      .sort((a, b) => a - b);
  } catch {
    return [];
  }
}

/** What the probe recorded for the process `pid`. */
export function probeRecord(sb: Sandbox, pid: number): ProbeRecord {
  const dir = sb.path("probe", String(pid));
  const read = (name: string) => fs.readFileSync(path.join(dir, name), "utf8");
  const optional = (name: string) => (fs.existsSync(path.join(dir, name)) ? read(name) : undefined);
  const argv = read("argv").split("\0").slice(0, -1);
  const env: Record<string, string> = {};
  for (const pair of read("env").split("\0")) {
    const eq = pair.indexOf("=");
    if (eq > 0) env[pair.slice(0, eq)] = pair.slice(eq + 1);
  }
  const fdsText = optional("fds");
  let fds: Map<number, string> | undefined;
  if (fdsText !== undefined) {
    fds = new Map();
    for (const line of fdsText.split("\n")) {
      const m = / (\d+) -> (.*)$/.exec(line);
      if (m) fds.set(Number(m[1]), m[2]);
    }
  }
  const stat = optional("stat");
  // Fields after the command name: state, ppid, pgrp, session, ...
  const session = stat === undefined ? undefined : Number(stat.slice(stat.lastIndexOf(")") + 2).split(" ")[3]);
  return { argv, env, cwd: read("cwd").trimEnd(), sigpipe: read("sigpipe").trimEnd(), fds, session };
}

/** The environment a probe saw, without the probe's own settings. */
export function envWithoutProbe(record: ProbeRecord): Record<string, string> {
  const { VORN_PROBE_OUT: _o, VORN_PROBE_THEN: _t, VORN_PROBE_EXIT: _e, ...rest } = record.env;
  return rest;
}

/** Checks that SIGPIPE was back at its default when the program started (where that shows). */
export function expectDefaultSigpipe(record: ProbeRecord): void {
  expect(record.sigpipe).toBe("default");
}

/** True while a process with that pid runs (an exited child that nobody reaped counts as gone). */
export function running(pid: number): boolean {
  try {
    process.kill(pid, 0);
  } catch {
    return false;
  }
  if (process.platform !== "linux") {
    // No /proc: ps shows the state, Z for a zombie.
    const ps = Bun.spawnSync(["ps", "-o", "stat=", "-p", String(pid)]);
    return !ps.stdout.toString().trim().startsWith("Z");
  }
  try {
    const stat = fs.readFileSync(`/proc/${pid}/stat`, "utf8");
    return stat[stat.lastIndexOf(")") + 2] !== "Z";
  } catch {
    return true;
  }
}

/**
 * Every process whose command line mentions `text` (a sandbox path), this test run's own
 * processes aside: from /proc on Linux, from ps elsewhere.
 */
export function processesMentioning(text: string): number[] {
  if (process.platform !== "linux") {
    const ps = Bun.spawnSync(["ps", "-axo", "pid=,command="]).stdout.toString();
    return ps
      .split("\n")
      .map((line) => line.trim().match(/^(\d+) (.*)$/))
      .filter((m): m is RegExpMatchArray => !!m && m[2].includes(text) && Number(m[1]) !== process.pid && running(Number(m[1])))
      .map((m) => Number(m[1]));
  }
  const found: number[] = [];
  for (const name of fs.readdirSync("/proc")) {
    if (!/^\d+$/.test(name) || Number(name) === process.pid) continue;
    try {
      if (fs.readFileSync(`/proc/${name}/cmdline`, "utf8").includes(text) && running(Number(name))) found.push(Number(name));
    } catch {}
  }
  return found;
}

const started = new Set<number>();

/** Remembers a host pid, to be killed after the test if it still runs. */
export function track(pid: number): number {
  started.add(pid);
  return pid;
}

/** Kills (SIGKILL) every tracked process that still runs; registered for every test below. */
export function endTracked(): void {
  for (const pid of started) if (running(pid)) process.kill(pid, "SIGKILL");
  started.clear();
}

/** Ends every host a test started, after each test of the file that calls it. */
export function endHostsAfterEach(): void {
  afterEach(endTracked);
}

/**
 * The names `server start --detach` may give its log just now: from the second before this one
 * (the system's coarse clock, which vorn's time() reads, may still be there) to a few seconds
 * ahead, so that a start lands on one of them whatever the clock.
 */
export function logNamesAround(sb: Sandbox): string[] {
  const now = Math.floor(Date.now() / 1000);
  return Array.from({ length: 7 }, (_, i) => path.join(sb.runtimeRoot, `server-${now - 1 + i}.log`));
}

/**
 * The parts of the text `vorn server start --detach` prints. The host's pid is tracked, to be
 * ended after the test: parse the output right after the start, before checking anything else.
 */
export function parseStarted(stdout: string): { pid: number; sock: string; log: string } | undefined {
  const m = /^vorn server (\d+) \(headless\) on (.*)\nlog (.*)\n$/.exec(stdout);
  return m ? { pid: track(Number(m[1])), sock: m[2], log: m[3] } : undefined;
}
