// Starting and driving simulated instances from tests and scripts. Each
// simulator is a child process holding a pipe on its stdin: it exits when
// that pipe closes, so a crashed test run cannot leave simulators behind.

import fs from "node:fs";
import os from "node:os";
import path from "node:path";
import type { Route, Scenario } from "./scenario";

export const INSTANCE_SCRIPT = path.join(import.meta.dir, "instance.ts");

export interface SimOptions extends Scenario {
  runtime: string; // base folder (XDG_RUNTIME_DIR): the instance lives in <runtime>/vorn/<pid>/
  // Where the scenario and the request record are written; default a new temp folder, removed on stop.
  workdir?: string;
  record?: boolean; // default true
  readyTimeoutMs?: number; // default 30000
  bun?: string; // the Bun executable; default the running one
}

export interface SimRequest {
  seq: number;
  conn: number;
  time: number;
  complete: boolean;
  error?: string;
  method: string;
  target: string; // as sent, query included
  path: string; // target without the query
  query: [string, string][]; // decoded form pairs, in order
  version: string;
  requestLine: string;
  headerLines: string[]; // raw header lines, in order
  headers: [string, string][]; // parsed (name, trimmed value), in order
  lineEnding: string;
  body: Buffer;
  bodyText: string;
  json: unknown; // the body parsed as JSON; undefined when empty or not JSON
  raw: Buffer; // the whole request as received, up to the end of the body
  rawText: string;
  extra: Buffer; // bytes received after the body
  route: number | null; // index of the scripted route that answered, null for built-in
  header(name: string): string | undefined; // last header of that name, case-insensitive
}

export interface Sim {
  pid: number;
  id: string;
  sock: string; // <runtime>/vorn/<folder>/fs.sock
  dir: string; // <runtime>/vorn/<folder>
  runtime: string;
  recordFile: string | undefined;
  exited: Promise<number | null>; // exit code (null when killed by a signal)
  alive(): boolean;
  requests(): SimRequest[]; // complete requests since start (or since clearRequests)
  records(): SimRequest[]; // everything, including incomplete requests
  clearRequests(): void;
  update(set: Partial<Scenario>): Promise<void>; // change live fields (workspace, routes, instance overrides, ...)
  setRoutes(routes: Route[]): Promise<void>;
  addRoute(route: Route, opts?: { last?: boolean }): Promise<void>; // first by default: it wins over older routes
  state(): Promise<Record<string, unknown>>;
  stderr(): string;
  stop(): Promise<void>; // SIGTERM, wait; the folder is removed
  kill(signal?: NodeJS.Signals): Promise<void>; // signal (default SIGKILL), wait; the folder stays
}

const live = new Set<{ kill(): void }>();
const ownWorkdirs = new Set<string>();
let exitHookInstalled = false;

function installExitHook(): void {
  if (exitHookInstalled) return;
  exitHookInstalled = true;
  process.on("exit", () => {
    for (const s of live) s.kill();
    for (const d of ownWorkdirs) fs.rmSync(d, { recursive: true, force: true });
  });
}

function parseRecord(line: string): SimRequest | undefined {
  let r: Record<string, unknown>;
  try {
    r = JSON.parse(line);
  } catch {
    return undefined; // a line still being written
  }
  const body = Buffer.from((r.bodyBase64 as string) ?? "", "base64");
  const raw = Buffer.from((r.rawBase64 as string) ?? "", "base64");
  const bodyText = (r.bodyText as string) ?? "";
  let json: unknown;
  if (bodyText !== "") {
    try {
      json = JSON.parse(bodyText);
    } catch {
      json = undefined;
    }
  }
  const headers = (r.headers as [string, string][]) ?? [];
  return {
    seq: r.seq as number,
    conn: r.conn as number,
    time: r.time as number,
    complete: r.complete as boolean,
    error: r.error as string | undefined,
    method: (r.method as string) ?? "",
    target: (r.target as string) ?? "",
    path: (r.path as string) ?? "",
    query: (r.query as [string, string][]) ?? [],
    version: (r.version as string) ?? "",
    requestLine: (r.requestLine as string) ?? "",
    headerLines: (r.headerLines as string[]) ?? [],
    headers,
    lineEnding: (r.lineEnding as string) ?? "",
    body,
    bodyText,
    json,
    raw,
    rawText: raw.toString("utf8"),
    extra: Buffer.from((r.extraBase64 as string) ?? "", "base64"),
    route: (r.route as number | null) ?? null,
    header(name: string) {
      const want = name.toLowerCase();
      let v: string | undefined;
      for (const [k, val] of headers) if (k.toLowerCase() === want) v = val;
      return v;
    },
  };
}

// Starts one simulator and resolves once it accepts connections.
export async function startSim(opts: SimOptions): Promise<Sim> {
  const { workdir: wd, record = true, readyTimeoutMs = 30000, bun = process.execPath, ...scenario } = opts;
  if (!scenario.runtime) throw new Error("startSim: runtime is required");
  installExitHook();
  const ownWorkdir = wd === undefined;
  const workdir = wd ?? fs.mkdtempSync(path.join(os.tmpdir(), "vorn-sim-"));
  if (ownWorkdir) ownWorkdirs.add(workdir);
  const cleanupFiles = () => {
    if (!ownWorkdir) return;
    fs.rmSync(workdir, { recursive: true, force: true });
    ownWorkdirs.delete(workdir);
  };
  fs.mkdirSync(workdir, { recursive: true });
  const base = path.join(workdir, `sim-${Date.now().toString(36)}-${Math.random().toString(36).slice(2, 8)}`);
  const scenarioFile = base + ".json";
  const recordFile = record ? base + ".jsonl" : undefined;
  fs.writeFileSync(scenarioFile, JSON.stringify(scenario));
  const args = [bun, INSTANCE_SCRIPT, "--scenario", scenarioFile, "--stdin-control"];
  if (recordFile) {
    fs.writeFileSync(recordFile, "");
    args.push("--record", recordFile);
  }
  const proc = Bun.spawn(args, { stdin: "pipe", stdout: "pipe", stderr: "pipe", env: process.env });
  const guard = { kill: () => proc.kill("SIGKILL") };
  live.add(guard);

  let errText = "";
  (async () => {
    const dec = new TextDecoder();
    for await (const chunk of proc.stderr as ReadableStream<Uint8Array>) {
      if (errText.length < 65536) errText += dec.decode(chunk, { stream: true });
    }
  })().catch(() => {});

  // Lines on stdout: "ready <pid> <sock>", then "ok <n> [json]" / "err <n> <message>" for control commands.
  const pending = new Map<number, { resolve: (v: string) => void; reject: (e: Error) => void }>();
  let onReady: ((line: string) => void) | undefined;
  let exitedFlag = false;
  const exited = proc.exited.then((code) => {
    exitedFlag = true;
    live.delete(guard);
    for (const p of pending.values()) p.reject(new Error("simulator exited"));
    pending.clear();
    return proc.signalCode ? null : code;
  });
  (async () => {
    const dec = new TextDecoder();
    let buf = "";
    for await (const chunk of proc.stdout as ReadableStream<Uint8Array>) {
      buf += dec.decode(chunk, { stream: true });
      for (let nl = buf.indexOf("\n"); nl >= 0; nl = buf.indexOf("\n")) {
        const line = buf.slice(0, nl);
        buf = buf.slice(nl + 1);
        if (line.startsWith("ready ")) onReady?.(line);
        const m = /^(ok|err) (\d+)(?: (.*))?$/.exec(line);
        if (m) {
          const p = pending.get(Number(m[2]));
          pending.delete(Number(m[2]));
          if (m[1] === "ok") p?.resolve(m[3] ?? "");
          else p?.reject(new Error("simulator: " + (m[3] ?? "")));
        }
      }
    }
  })().catch(() => {});

  const readyLine = await new Promise<string>((resolve, reject) => {
    const timer = setTimeout(() => {
      proc.kill("SIGKILL");
      reject(new Error(`simulator not ready after ${readyTimeoutMs} ms: ${errText.trim()}`));
    }, readyTimeoutMs);
    onReady = (line) => {
      clearTimeout(timer);
      resolve(line);
    };
    exited.then(async (code) => {
      clearTimeout(timer);
      await Bun.sleep(10); // let stderr drain
      reject(new Error(`simulator exited (${code ?? proc.signalCode}) before it was ready: ${errText.trim()}`));
    });
  }).catch((e) => {
    cleanupFiles();
    throw e;
  });
  const [, pidText, sock] = readyLine.split(" ");
  const pid = Number(pidText);
  const dir = path.dirname(sock);

  let n = 0;
  const send = (cmd: Record<string, unknown>): Promise<string> => {
    if (exitedFlag) return Promise.reject(new Error("simulator exited"));
    const id = ++n;
    const p = new Promise<string>((resolve, reject) => pending.set(id, { resolve, reject }));
    proc.stdin.write(JSON.stringify({ ...cmd, n: id }) + "\n");
    proc.stdin.flush();
    return p;
  };

  let mark = 0;
  const readAll = (): SimRequest[] => {
    if (!recordFile) return [];
    let text: string;
    try {
      text = fs.readFileSync(recordFile, "utf8");
    } catch {
      return [];
    }
    const out: SimRequest[] = [];
    for (const line of text.split("\n")) {
      if (line === "") continue;
      const r = parseRecord(line);
      if (r) out.push(r);
    }
    return out;
  };

  const sim: Sim = {
    pid,
    id: scenario.id ?? `sim-${pid}`,
    sock,
    dir,
    runtime: scenario.runtime,
    recordFile,
    exited,
    alive: () => !exitedFlag,
    requests: () => readAll().filter((r) => r.seq > mark && r.complete),
    records: () => readAll().filter((r) => r.seq > mark),
    clearRequests: () => {
      const all = readAll();
      mark = all.length ? all[all.length - 1].seq : mark;
    },
    update: async (set) => {
      await send({ op: "update", set });
      if (typeof set.id === "string") sim.id = set.id;
    },
    setRoutes: async (routes) => {
      await send({ op: "update", set: { routes } });
    },
    addRoute: async (route, o) => {
      await send({ op: "addRoute", route, last: o?.last === true });
    },
    state: async () => JSON.parse(await send({ op: "state" })),
    stderr: () => errText,
    stop: async () => {
      if (!exitedFlag) {
        proc.kill("SIGTERM");
        const t = setTimeout(() => proc.kill("SIGKILL"), 5000);
        await exited;
        clearTimeout(t);
      }
      // A simulator that had to be killed leaves its folder behind.
      if (proc.signalCode === "SIGKILL" && !scenario.keepDirOnExit) fs.rmSync(dir, { recursive: true, force: true });
      cleanupFiles();
    },
    kill: async (signal = "SIGKILL") => {
      if (!exitedFlag) proc.kill(signal);
      await exited;
    },
  };
  return sim;
}
