// The end-to-end harness: a private sandbox per test (HOME, runtime folder,
// PATH, working directory), a runner for the built vorn binary with only that
// sandbox's environment, and simulated instances living in the sandbox.
//
//   const sb = await sandbox();
//   const a = await sb.sim({ id: "a", workspace: sb.dir("work/app") });
//   const r = await sb.run(["instance", "list"]);
//   expect(r.stdout).toBe(...);
//   expect(a.requests().map((q) => q.target)).toEqual(["/instance"]);
//   await sb.cleanup();

import fs from "node:fs";
import os from "node:os";
import path from "node:path";
import { startSim, type Sim, type SimOptions } from "../sim/launch";

export { startSim, type Sim, type SimOptions, type SimRequest } from "../sim/launch";
export type { Route, Scenario } from "../sim/scenario";
export { exchange, request, requestBytes } from "../sim/client";

export interface RunOptions {
  cwd?: string; // default sb.work
  env?: Record<string, string | undefined>; // added to the private environment; undefined removes a variable
  stdin?: string | Uint8Array; // default: none (end of file at once)
  timeoutMs?: number; // kill the process after this long (default 30000)
  bin?: string; // the program to run instead of VORN_BIN
}

export interface RunResult {
  stdout: string;
  stderr: string;
  code: number | null; // null when ended by a signal
  signal: string | null;
  stdoutBytes: Buffer;
  stderrBytes: Buffer;
  timedOut: boolean;
  // The peak resident memory the system accounted to the process (Bun's resourceUsage().maxRSS).
  // On Linux that is an upper bound of the program's own peak, not the peak itself: Bun starts
  // a child sharing its memory until the exec, and the kernel carries the high-water mark of
  // that memory over the exec, so the figure is at least what the test runner held when it
  // started the program. A check below a bound holds the program to it (a failure may be the
  // runner's); 0 means no figure came back.
  maxRssBytes: number;
}

export interface Sandbox {
  root: string; // real path of the private temp folder
  home: string; // HOME
  runtime: string; // XDG_RUNTIME_DIR
  runtimeRoot: string; // <runtime>/vorn, where instances live
  bin: string; // the only PATH entry
  work: string; // default working directory
  tmp: string; // TMPDIR
  // The private environment every run starts from (plus `extra`).
  env(extra?: Record<string, string | undefined>): Record<string, string>;
  run(args: string[], opts?: RunOptions): Promise<RunResult>;
  // Starts a simulator in this sandbox (runtime defaults to sb.runtime, id to sim-<n>).
  sim(opts?: Partial<SimOptions>): Promise<Sim>;
  // Starts several simulators in parallel.
  sims(count: number, opts?: (i: number) => Partial<SimOptions>): Promise<Sim[]>;
  // A runtime folder named by the pid of a process that has already exited.
  deadPidDir(opts?: { sockFile?: boolean; runtime?: string }): Promise<{ pid: number; dir: string; sock: string }>;
  // A runtime folder of any name (e.g. "+123", "abc"); optionally with a regular file as fs.sock.
  runtimeDir(name: string | number, opts?: { sockFile?: boolean; runtime?: string }): { dir: string; sock: string };
  // Names in <runtime>/vorn, sorted.
  runtimeEntries(runtime?: string): string[];
  path(...parts: string[]): string; // a path inside the sandbox
  file(rel: string, content?: string | Uint8Array, mode?: number): string; // writes a file (parents made)
  dir(rel: string): string; // makes a folder (parents made)
  symlink(target: string, rel: string): string;
  stub(name: string, script: string): string; // an executable in bin/ ("#!/bin/sh" added when no "#!")
  age(p: string, ms: number): void; // sets the modification time ms into the past
  cleanup(): Promise<void>;
}

const openSandboxes = new Set<string>();
let exitHookInstalled = false;

function installExitHook(): void {
  if (exitHookInstalled) return;
  exitHookInstalled = true;
  process.on("exit", () => {
    for (const root of openSandboxes) removeTree(root);
  });
}

// Removes a tree even when a test made parts of it read-only.
function removeTree(root: string): void {
  try {
    fs.rmSync(root, { recursive: true, force: true });
    return;
  } catch {}
  const walk = (p: string) => {
    let st: fs.Stats;
    try {
      st = fs.lstatSync(p);
    } catch {
      return;
    }
    if (!st.isDirectory()) return;
    try {
      fs.chmodSync(p, 0o700);
    } catch {}
    for (const name of fs.readdirSync(p)) walk(path.join(p, name));
  };
  walk(root);
  fs.rmSync(root, { recursive: true, force: true });
}

/** The vorn under test (VORN_BIN), as an absolute path; a clear error when VORN_BIN is not set. */
export function vornBin(): string {
  const bin = process.env.VORN_BIN;
  if (!bin) throw new Error("VORN_BIN is not set: point it at the built vorn binary (make test sets it)");
  return path.resolve(bin);
}

/**
 * The build folder that goes with the vorn under test: its generated completion scripts and
 * manual page, and its install rules. VORN_BUILD when set (a released binary tested on its own
 * lives elsewhere), else the folder of VORN_BIN.
 */
export function buildDir(): string {
  return path.resolve(process.env.VORN_BUILD || path.dirname(vornBin()));
}

async function readAllBytes(stream: ReadableStream<Uint8Array>): Promise<Buffer> {
  return Buffer.from(await new Response(stream).arrayBuffer());
}

export async function sandbox(): Promise<Sandbox> {
  installExitHook();
  const root = fs.realpathSync(fs.mkdtempSync(path.join(os.tmpdir(), "vorn-e2e-")));
  openSandboxes.add(root);
  const sub = (name: string) => {
    const p = path.join(root, name);
    fs.mkdirSync(p, { mode: 0o700 });
    return p;
  };
  const home = sub("home");
  const runtime = sub("runtime");
  const bin = sub("bin");
  const work = sub("work");
  const tmp = sub("tmp");
  const simsDir = sub("sims");
  const sims: Sim[] = [];
  const running = new Set<{ kill(sig?: number | NodeJS.Signals): void }>();
  let simCount = 0;

  const inside = (rel: string) => {
    const p = path.resolve(root, rel);
    if (p !== root && !p.startsWith(root + "/")) throw new Error(`path outside the sandbox: ${rel}`);
    return p;
  };

  const env = (extra: Record<string, string | undefined> = {}) => {
    const e: Record<string, string | undefined> = { HOME: home, XDG_RUNTIME_DIR: runtime, PATH: bin, TMPDIR: tmp, ...extra };
    const out: Record<string, string> = {};
    for (const [k, v] of Object.entries(e)) if (v !== undefined) out[k] = v;
    return out;
  };

  const runtimeDir = (name: string | number, opts: { sockFile?: boolean; runtime?: string } = {}) => {
    const dir = path.join(opts.runtime ?? runtime, "vorn", String(name));
    fs.mkdirSync(dir, { recursive: true, mode: 0o700 });
    const sock = path.join(dir, "fs.sock");
    if (opts.sockFile) fs.writeFileSync(sock, "");
    return { dir, sock };
  };

  const sb: Sandbox = {
    root,
    home,
    runtime,
    runtimeRoot: path.join(runtime, "vorn"),
    bin,
    work,
    tmp,
    env,

    async run(args, opts = {}) {
      const program = opts.bin ?? vornBin();
      const proc = Bun.spawn([program, ...args], {
        cwd: opts.cwd ?? work,
        env: env(opts.env),
        stdin: opts.stdin === undefined ? "ignore" : Buffer.from(opts.stdin),
        stdout: "pipe",
        stderr: "pipe",
      });
      running.add(proc);
      let timedOut = false;
      const timer = setTimeout(() => {
        timedOut = true;
        proc.kill("SIGKILL");
      }, opts.timeoutMs ?? 30000);
      const out = readAllBytes(proc.stdout as ReadableStream<Uint8Array>);
      const err = readAllBytes(proc.stderr as ReadableStream<Uint8Array>);
      await proc.exited;
      clearTimeout(timer);
      running.delete(proc);
      // A grandchild that kept the pipes open must not stall the test.
      const grace = <T>(p: Promise<T>, empty: T) => Promise.race([p, Bun.sleep(2000).then(() => empty)]);
      const [stdoutBytes, stderrBytes] = await Promise.all([grace(out, Buffer.alloc(0)), grace(err, Buffer.alloc(0))]);
      return {
        stdout: stdoutBytes.toString("utf8"),
        stderr: stderrBytes.toString("utf8"),
        code: proc.signalCode ? null : proc.exitCode,
        signal: proc.signalCode ?? null,
        stdoutBytes,
        stderrBytes,
        timedOut,
        maxRssBytes: proc.resourceUsage()?.maxRSS ?? 0,
      };
    },

    async sim(opts = {}) {
      simCount++;
      const s = await startSim({ id: `sim-${simCount}`, ...opts, runtime: opts.runtime ?? runtime, workdir: simsDir });
      sims.push(s);
      return s;
    },

    async sims(count, opts) {
      return Promise.all(Array.from({ length: count }, (_, i) => sb.sim(opts ? opts(i) : {})));
    },

    async deadPidDir(opts = {}) {
      for (;;) {
        const p = Bun.spawn(["true"], { stdin: "ignore", stdout: "ignore", stderr: "ignore" });
        await p.exited;
        // Make sure the pid was not handed out again in the meantime.
        let alive = true;
        try {
          process.kill(p.pid, 0);
        } catch {
          alive = false;
        }
        if (alive) continue;
        return { pid: p.pid, ...runtimeDir(p.pid, opts) };
      }
    },

    runtimeDir,

    runtimeEntries(rt = runtime) {
      try {
        return fs.readdirSync(path.join(rt, "vorn")).sort();
      } catch {
        return [];
      }
    },

    path: (...parts) => inside(path.join(...parts)),

    file(rel, content = "", mode) {
      const p = inside(rel);
      fs.mkdirSync(path.dirname(p), { recursive: true });
      fs.writeFileSync(p, content);
      if (mode !== undefined) fs.chmodSync(p, mode);
      return p;
    },

    dir(rel) {
      const p = inside(rel);
      fs.mkdirSync(p, { recursive: true });
      return p;
    },

    symlink(target, rel) {
      const p = inside(rel);
      fs.mkdirSync(path.dirname(p), { recursive: true });
      fs.symlinkSync(target, p);
      return p;
    },

    stub(name, script) {
      if (name.includes("/")) throw new Error(`stub name must be a plain file name: ${name}`);
      const text = script.startsWith("#!") ? script : "#!/bin/sh\n" + script;
      return sb.file(path.join("bin", name), text, 0o755);
    },

    age(p, ms) {
      const t = (Date.now() - ms) / 1000;
      fs.utimesSync(p, t, t);
    },

    async cleanup() {
      for (const p of running) p.kill("SIGKILL");
      await Promise.all(sims.map((s) => s.stop().catch(() => {})));
      sims.length = 0;
      removeTree(root);
      openSandboxes.delete(root);
    },
  };
  return sb;
}
