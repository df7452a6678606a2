// A simulated editor instance: publishes a control server on
// <runtime>/vorn/<pid>/fs.sock, answers every endpoint the command line uses
// with plausible replies, lets a scenario script any reply down to the byte,
// and records every request it receives. Run `bun instance.ts --help`.

import fs from "node:fs";
import net from "node:net";
import path from "node:path";
import { BODY_PIECE_BYTES, bodyFrames, ByteBuffer, buildReply, parseRequest, replyHead, type HeaderList, type ParsedRequest } from "./http";
import { builtin, type BuiltinReply, type State } from "./endpoints";
import { checkRoute, checkScenario, headerPairs, isLarge, routeReplaces, ScenarioError, type Route, type Scenario } from "./scenario";

const USAGE = `usage: bun instance.ts --runtime DIR [options]

  --runtime DIR       base folder: the instance lives in DIR/vorn/<pid>/fs.sock
  --id ID             instance id (default sim-<pid>)
  --workspace DIR     folder the instance has open ("" for none; default none)
  --platform NAME     reported platform (default darwin)
  --mode MODE         reported mode: app, headless, remote, ... (default: none reported)
  --vorn-root DIR     reported vornRoot
  --started-at MS     reported startedAt (default: now)
  --scenario FILE     JSON scenario (routes, record overrides, ...); flags win over it
  --record FILE       append one JSON line per request received
  --dir-name NAME     folder name instead of the pid ({pid} is replaced by the pid)
  --bind-at PATH      bind there; <dir>/fs.sock becomes a symbolic link to it
  --no-sock           create the folder only, no socket
  --sock-file         create a regular file named fs.sock instead of a socket
  --ignore-quit       answer POST /quit but keep running
  --stdin-control     read control commands from stdin; exit when stdin closes

Prints "ready <pid> <socket path>" on stdout once it accepts connections.`;

class UsageError extends Error {}

function parseArgs(argv: string[]): Scenario & { record?: string; stdinControl?: boolean; help?: boolean } {
  const flags: Record<string, unknown> = {};
  let scenarioFile: string | undefined;
  const valueFlags: Record<string, string> = {
    "--runtime": "runtime",
    "--id": "id",
    "--workspace": "workspace",
    "--platform": "platform",
    "--mode": "mode",
    "--vorn-root": "vornRoot",
    "--started-at": "startedAt",
    "--record": "record",
    "--dir-name": "dirName",
    "--bind-at": "bindAt",
  };
  for (let i = 0; i < argv.length; i++) {
    let arg = argv[i];
    let inline: string | undefined;
    const eq = arg.indexOf("=");
    if (arg.startsWith("--") && eq > 0) {
      inline = arg.slice(eq + 1);
      arg = arg.slice(0, eq);
    }
    const take = () => {
      if (inline !== undefined) return inline;
      if (i + 1 >= argv.length) throw new UsageError(`${arg} needs a value`);
      return argv[++i];
    };
    if (arg === "--help" || arg === "-h") return { help: true };
    else if (arg === "--scenario") scenarioFile = take();
    else if (arg in valueFlags) flags[valueFlags[arg]] = take();
    else if (arg === "--no-sock") flags.sock = "none";
    else if (arg === "--sock-file") flags.sock = "file";
    else if (arg === "--ignore-quit") flags.ignoreQuit = true;
    else if (arg === "--stdin-control") flags.stdinControl = true;
    else throw new UsageError(`unknown argument: ${argv[i]}`);
  }
  if (flags.startedAt !== undefined) {
    const n = Number(flags.startedAt);
    if (!Number.isFinite(n) || String(flags.startedAt).trim() === "") throw new UsageError("--started-at needs a number");
    flags.startedAt = n;
  }
  let scenario: Scenario = {};
  if (scenarioFile !== undefined) {
    let text: string;
    try {
      text = fs.readFileSync(scenarioFile, "utf8");
    } catch (e) {
      throw new ScenarioError(`cannot read scenario ${scenarioFile}: ${(e as Error).message}`);
    }
    let v: unknown;
    try {
      v = JSON.parse(text);
    } catch (e) {
      throw new ScenarioError(`scenario ${scenarioFile} is not JSON: ${(e as Error).message}`);
    }
    scenario = checkScenario(v, `scenario ${scenarioFile}`);
  }
  const { record, stdinControl, ...rest } = flags;
  const merged = checkScenario({ ...scenario, ...rest }, "flags");
  return { ...merged, record: record as string | undefined, stdinControl: stdinControl === true };
}

function sleep(ms: number): Promise<void> {
  return new Promise((r) => setTimeout(r, ms));
}

function say(line: string): void {
  try {
    fs.writeSync(1, line + "\n");
  } catch {
    // nobody listens any more
  }
}

function fail(message: string, code = 2): never {
  try {
    fs.writeSync(2, "sim: " + message + "\n");
  } catch {}
  process.exit(code);
}

let opts: ReturnType<typeof parseArgs>;
try {
  opts = parseArgs(process.argv.slice(2));
} catch (e) {
  if (e instanceof UsageError) fail(e.message + "\n" + USAGE);
  if (e instanceof ScenarioError) fail(e.message);
  throw e;
}
if (opts.help) {
  say(USAGE);
  process.exit(0);
}
if (opts.runtime === undefined || opts.runtime === "") fail("--runtime is required\n" + USAGE);

const pid = process.pid;
const runtime = path.resolve(opts.runtime);
const dir = path.join(runtime, "vorn", (opts.dirName ?? "{pid}").replaceAll("{pid}", String(pid)));
const sockPath = path.join(dir, "fs.sock");
const bindPath = opts.bindAt !== undefined ? path.resolve(opts.bindAt) : sockPath;
const sockMode = opts.sock ?? "listen";

const st: State = {
  pid,
  id: opts.id ?? `sim-${pid}`,
  workspace: opts.workspace ? path.resolve(opts.workspace) : "",
  vornRoot: opts.vornRoot ?? "/Applications/Vorn.app/Contents/Resources/app",
  platform: opts.platform ?? "darwin",
  mode: opts.mode ?? null,
  startedAt: opts.startedAt ?? Date.now(),
  socketPath: bindPath,
  scenario: opts,
  lastTest: null,
  testRuns: 0,
  focusCount: 0,
};

// Scripted routes with how often each has answered.
let routes: { route: Route; used: number }[] = (opts.routes ?? []).map((route) => ({ route, used: 0 }));

let recordFd: number | undefined;
let server: net.Server | undefined;
let shuttingDown = false;
// Set once whatever is at bindPath is ours to remove.
let bindPathOurs = false;

function removeOwnFiles(): void {
  if (st.scenario.keepDirOnExit) return;
  try {
    fs.rmSync(dir, { recursive: true, force: true });
  } catch {}
  if (bindPathOurs) {
    try {
      fs.unlinkSync(bindPath);
    } catch {}
  }
}

function shutdown(code: number): void {
  if (shuttingDown) return;
  shuttingDown = true;
  // Closing the server unlinks the socket; a simulated crash keeps it.
  if (!st.scenario.keepDirOnExit) {
    try {
      server?.close();
    } catch {}
  }
  removeOwnFiles();
  process.exit(code);
}

for (const sig of ["SIGTERM", "SIGINT", "SIGHUP"] as const) process.on(sig, () => shutdown(0));
process.on("uncaughtException", (e) => {
  try {
    fs.writeSync(2, "sim: internal error: " + ((e as Error)?.stack ?? String(e)) + "\n");
  } catch {}
  shutdown(1);
});

// --- recording -------------------------------------------------------------

let seq = 0;

function recordRequest(conn: number, req: ParsedRequest | undefined, partial: Buffer | undefined, route: number | null): void {
  if (recordFd === undefined) return;
  seq++;
  let rec: Record<string, unknown>;
  if (req === undefined) {
    rec = { seq, conn, time: Date.now(), complete: false, rawBase64: partial!.toString("base64"), rawText: partial!.toString("utf8") };
  } else {
    const q = req.target.indexOf("?");
    const bodyText = req.body.toString("utf8");
    rec = {
      seq,
      conn,
      time: Date.now(),
      complete: req.error === undefined,
      error: req.error,
      method: req.method,
      target: req.target,
      path: q < 0 ? req.target : req.target.slice(0, q),
      query: q < 0 ? [] : [...new URLSearchParams(req.target.slice(q + 1))],
      version: req.version,
      requestLine: req.requestLine,
      headerLines: req.headerLines,
      headers: req.headers,
      lineEnding: req.lineEnding,
      bodyBase64: req.body.toString("base64"),
      bodyText,
      rawBase64: req.raw.toString("base64"),
      extraBase64: req.extra.toString("base64"),
      route,
    };
  }
  // Synchronous, so a test that reads after the client exited sees it.
  fs.writeSync(recordFd, JSON.stringify(rec) + "\n");
}

// --- replying --------------------------------------------------------------

function pickRoute(method: string, target: string, p: string): number | null {
  for (let i = 0; i < routes.length; i++) {
    const { route, used } = routes[i];
    if (route.method !== undefined && route.method !== "*" && route.method !== method) continue;
    if (route.path !== (route.path.includes("?") ? target : p)) continue;
    if (route.times !== undefined && used >= route.times) continue;
    return i;
  }
  return null;
}

function jsonReply(status: number, value: unknown): { status: number; headers: HeaderList; body: Buffer } {
  return {
    status,
    headers: [["Content-Type", "application/json; charset=utf-8"]],
    body: Buffer.from(JSON.stringify(value), "utf8"),
  };
}

// A body produced piece by piece as it is sent.
interface LargeBody {
  size: number;
  slice(start: number, end: number): Buffer;
}

const fileBodies = new Map<string, Buffer>();
const filler = Buffer.alloc(BODY_PIECE_BYTES, "x");

function largeBody(route: Route): LargeBody {
  if (route.bodyFile !== undefined) {
    let bytes = fileBodies.get(route.bodyFile);
    if (bytes === undefined) {
      bytes = fs.readFileSync(route.bodyFile);
      fileBodies.set(route.bodyFile, bytes);
    }
    const file = bytes;
    return { size: file.length, slice: (start, end) => file.subarray(start, end) };
  }
  // "xx...x": one shared run of x, with a quote put in a copy at either end.
  const size = route.jsonStringBytes!;
  return {
    size,
    slice(start, end) {
      if (start > 0 && end < size) return filler.subarray(0, end - start);
      const piece = Buffer.from(filler.subarray(0, end - start));
      if (start === 0) piece[0] = 0x22;
      if (end === size) piece[end - start - 1] = 0x22;
      return piece;
    },
  };
}

type ReplyPlan = Buffer | Iterable<Buffer> | "close" | "hang";

function replyBytes(route: Route | undefined, builtinReply: BuiltinReply | undefined): ReplyPlan {
  if (route?.action === "close") return "close";
  if (route?.action === "hang") return "hang";
  if (route?.raw !== undefined) return Buffer.from(route.raw, "utf8");
  if (route?.rawBase64 !== undefined) return Buffer.from(route.rawBase64, "base64");
  const shape = {
    reason: route?.reason,
    extraHeaders: headerPairs(route?.headers),
    chunks: route?.chunks,
    chunkEnd: route?.chunkEnd,
    contentLength: route?.contentLength,
  };
  if (route && isLarge(route)) {
    const body = largeBody(route);
    const head = replyHead({ ...shape, status: route.status ?? 200, headers: [["Content-Type", "application/json; charset=utf-8"]] }, body.size);
    return (function* () {
      yield head;
      yield* bodyFrames(body.size, body.slice, route.chunks, route.chunkEnd);
    })();
  }
  let base: { status: number; headers: HeaderList; body: Buffer };
  if (route && routeReplaces(route)) {
    const status = route.status ?? 200;
    if ("json" in route) base = jsonReply(status, route.json);
    else if (route.body !== undefined)
      base = { status, headers: [["Content-Type", "text/plain; charset=utf-8"]], body: Buffer.from(route.body, "utf8") };
    else if (route.bodyBase64 !== undefined)
      base = { status, headers: [["Content-Type", "application/octet-stream"]], body: Buffer.from(route.bodyBase64, "base64") };
    else base = { status, headers: [], body: Buffer.alloc(0) };
  } else {
    base = jsonReply(builtinReply!.status, builtinReply!.json);
  }
  return buildReply({ ...shape, status: base.status, headers: base.headers, body: base.body });
}

function endConnection(sock: net.Socket): Promise<void> {
  return new Promise<void>((resolve) => {
    if (sock.destroyed) return resolve();
    sock.once("close", () => resolve());
    sock.end(() => resolve());
  });
}

async function send(sock: net.Socket, bytes: Buffer, route: Route | undefined): Promise<void> {
  const segments: Buffer[] = [];
  let pos = 0;
  for (const size of route?.writes ?? []) {
    if (pos >= bytes.length) break;
    segments.push(bytes.subarray(pos, pos + size));
    pos += size;
  }
  if (pos < bytes.length) segments.push(bytes.subarray(pos));
  for (let i = 0; i < segments.length; i++) {
    if (sock.destroyed) return;
    if (i > 0 && route?.writeGapMs) await sleep(route.writeGapMs);
    sock.write(segments[i]);
  }
  if (route?.keepOpen) return;
  await endConnection(sock);
}

// Writes one piece; true once the socket can take more, false when the client has gone.
function writePiece(sock: net.Socket, piece: Buffer): Promise<boolean> {
  if (sock.destroyed) return Promise.resolve(false);
  if (sock.write(piece)) return Promise.resolve(true);
  return new Promise<boolean>((resolve) => {
    const done = (more: boolean) => {
      sock.off("drain", onDrain);
      sock.off("close", onClose);
      resolve(more);
    };
    const onDrain = () => done(true);
    const onClose = () => done(false);
    sock.on("drain", onDrain);
    sock.on("close", onClose);
  });
}

// Sends the pieces as the client takes them, so a large body is never buffered whole; stops
// when the client closes.
async function sendPieces(sock: net.Socket, pieces: Iterable<Buffer>, route: Route | undefined): Promise<void> {
  let first = true;
  for (const piece of pieces) {
    if (!first && route?.writeGapMs) await sleep(route.writeGapMs);
    first = false;
    if (!(await writePiece(sock, piece))) return;
  }
  if (route?.keepOpen) return;
  await endConnection(sock);
}

async function answer(sock: net.Socket, conn: number, req: ParsedRequest): Promise<void> {
  if (req.error !== undefined) {
    recordRequest(conn, req, undefined, null);
    const status = req.error === "header too large" ? 431 : req.error === "body too large" ? 413 : 400;
    await send(sock, buildReply({ ...jsonReply(status, { error: req.error }) }), undefined);
    return;
  }
  const q = req.target.indexOf("?");
  const p = q < 0 ? req.target : req.target.slice(0, q);
  const ri = pickRoute(req.method, req.target, p);
  const route = ri === null ? undefined : routes[ri].route;
  if (ri !== null) routes[ri].used++;
  recordRequest(conn, req, undefined, ri);

  // Built-in replies (and their side effects) run when the request arrives,
  // unless a route replaces the reply altogether.
  let b: BuiltinReply | undefined;
  if (!route || !routeReplaces(route)) {
    b = builtin(st, { method: req.method, path: p, query: new URLSearchParams(q < 0 ? "" : req.target.slice(q + 1)), bodyText: req.body.toString("utf8") });
  }
  if (route?.delayMs) await sleep(route.delayMs);
  const bytes = replyBytes(route, b);
  if (bytes === "hang") return;
  if (bytes === "close") {
    sock.destroy();
    return;
  }
  if (Buffer.isBuffer(bytes)) await send(sock, bytes, route);
  else await sendPieces(sock, bytes, route);
  if (b?.effect === "quit" && !st.scenario.ignoreQuit) {
    if (st.scenario.quitDelayMs) await sleep(st.scenario.quitDelayMs);
    shutdown(0);
  }
}

let connSeq = 0;

function onConnection(sock: net.Socket): void {
  const conn = ++connSeq;
  const buf = new ByteBuffer();
  let done = false;
  sock.on("error", () => {});
  sock.on("data", (d: Buffer) => {
    if (done) return;
    buf.append(d);
    const req = parseRequest(buf.view());
    if (req === undefined) return;
    done = true;
    answer(sock, conn, req).catch((e) => {
      try {
        fs.writeSync(2, "sim: reply failed: " + String(e) + "\n");
      } catch {}
      sock.destroy();
    });
  });
  sock.on("end", () => {
    if (done) return;
    done = true;
    // The client gave up before sending a whole request.
    if (buf.length > 0) recordRequest(conn, undefined, Buffer.from(buf.view()), null);
    sock.end();
  });
}

// --- control channel (stdin) -----------------------------------------------

function control(line: string): void {
  let cmd: Record<string, unknown>;
  try {
    cmd = JSON.parse(line);
  } catch {
    say("err 0 control line is not JSON");
    return;
  }
  const n = typeof cmd.n === "number" ? cmd.n : 0;
  try {
    switch (cmd.op) {
      case "ping":
        break;
      case "update": {
        const set = checkScenario(cmd.set, "update", true);
        for (const [k, v] of Object.entries(set)) {
          if (k === "id") st.id = v as string;
          else if (k === "workspace") st.workspace = v ? path.resolve(v as string) : "";
          else if (k === "vornRoot") st.vornRoot = v as string;
          else if (k === "platform") st.platform = v as string;
          else if (k === "mode") st.mode = (v as string | null) ?? null;
          else if (k === "startedAt") st.startedAt = v as number;
          else if (k === "routes") routes = (v as Route[]).map((route) => ({ route, used: 0 }));
          else (st.scenario as Record<string, unknown>)[k] = v;
        }
        break;
      }
      case "addRoute": {
        const route = checkRoute(cmd.route, "addRoute");
        if (cmd.last === true) routes.push({ route, used: 0 });
        else routes.unshift({ route, used: 0 });
        break;
      }
      case "state":
        say(
          `ok ${n} ` +
            JSON.stringify({
              id: st.id,
              workspace: st.workspace,
              focusCount: st.focusCount,
              lastTest: st.lastTest,
              routes: routes.map((r) => ({ path: r.route.path, method: r.route.method, used: r.used })),
            }),
        );
        return;
      default:
        throw new ScenarioError(`unknown op ${JSON.stringify(cmd.op)}`);
    }
    say(`ok ${n}`);
  } catch (e) {
    say(`err ${n} ${(e as Error).message}`);
  }
}

function listenToStdin(): void {
  let pending = "";
  process.stdin.setEncoding("utf8");
  process.stdin.on("data", (chunk: string) => {
    pending += chunk;
    for (let nl = pending.indexOf("\n"); nl >= 0; nl = pending.indexOf("\n")) {
      const line = pending.slice(0, nl).trim();
      pending = pending.slice(nl + 1);
      if (line !== "") control(line);
    }
  });
  // The parent is gone: never outlive it.
  process.stdin.on("end", () => shutdown(0));
  process.stdin.on("error", () => shutdown(0));
}

// --- start-up --------------------------------------------------------------

try {
  fs.mkdirSync(path.join(runtime, "vorn"), { recursive: true, mode: 0o700 });
  fs.mkdirSync(dir, { recursive: true, mode: 0o700 });
  fs.chmodSync(dir, 0o700);
} catch (e) {
  fail(`cannot create ${dir}: ${(e as Error).message}`);
}
if (opts.record !== undefined) {
  try {
    recordFd = fs.openSync(opts.record, "a");
  } catch (e) {
    removeOwnFiles();
    fail(`cannot open record file ${opts.record}: ${(e as Error).message}`);
  }
}

function ready(): void {
  say(`ready ${pid} ${sockPath}`);
  if (opts.stdinControl) listenToStdin();
}

// Leftovers from an earlier process with the same pid; outside our own
// folder only an old socket or link is replaced, never another file.
try {
  fs.unlinkSync(sockPath);
} catch {}
if (bindPath !== sockPath) {
  let old: fs.Stats | undefined;
  try {
    old = fs.lstatSync(bindPath);
  } catch {}
  if (old && !old.isSocket() && !old.isSymbolicLink()) {
    removeOwnFiles();
    fail(`--bind-at ${bindPath} exists and is not a socket`);
  }
  if (old) fs.unlinkSync(bindPath);
  bindPathOurs = true;
}

if (sockMode === "none") {
  ready();
  // Nothing keeps the event loop busy without a server: stay until told.
  setInterval(() => {}, 1 << 30);
} else if (sockMode === "file") {
  fs.writeFileSync(sockPath, "");
  ready();
  setInterval(() => {}, 1 << 30);
} else {
  if (bindPath !== sockPath) {
    try {
      fs.mkdirSync(path.dirname(bindPath), { recursive: true });
      fs.symlinkSync(bindPath, sockPath);
    } catch (e) {
      removeOwnFiles();
      fail(`cannot link ${sockPath} to ${bindPath}: ${(e as Error).message}`);
    }
  }
  server = net.createServer({ allowHalfOpen: true }, onConnection);
  server.on("error", (e) => {
    removeOwnFiles();
    fail(`cannot listen on ${bindPath}: ${e.message}`);
  });
  server.listen(bindPath, ready);
}
