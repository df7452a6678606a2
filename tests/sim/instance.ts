// A simulated editor instance: publishes a control server on
// <runtime>/vorn/<pid>/fs.sock, answers every endpoint the command line uses
// with plausible replies, lets a scenario script any reply down to the byte,
// and records every request it receives. Run `bun instance.ts --help`.
//
// This file is the process: its state, its folder and socket, the connections and the answer to
// each, shutting down and crashing. Beside it: args.ts (the command line), routes.ts (the
// scripted routes), replies.ts (the bytes of a reply and sending them), recording.ts (the
// --record file) and control.ts (stdout and the control commands on stdin).

import fs from "node:fs";
import net from "node:net";
import path from "node:path";
import { parseArgs, UsageError, USAGE } from "./args";
import { listenToStdin, say } from "./control";
import { builtin, type BuiltinReply, type State } from "./endpoints";
import { buildReply, ByteBuffer, parseRequest, type ParsedRequest } from "./http";
import { Recorder } from "./recording";
import { jsonReply, replyBytes, send, sendPieces, sleep } from "./replies";
import { RouteTable } from "./routes";
import { routeReplaces, ScenarioError } from "./scenario";

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
const routes = new RouteTable(opts.routes ?? []);

const recorder = new Recorder();
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

// Stops taking connections but leaves the socket file where it is, as a process that died
// leaves it: whoever connects from now on is refused. (Closing the server alone would unlink it.)
function stopListening(): void {
  if (server === undefined) return;
  const kept = `${bindPath}.kept`;
  fs.linkSync(bindPath, kept);
  server.close();
  fs.renameSync(kept, bindPath);
  server = undefined;
}

// Ends at once, as a crash would: by a signal, with the folder and the socket left behind.
function crash(): never {
  process.kill(process.pid, "SIGKILL");
  throw new Error("still running after SIGKILL");
}

for (const sig of ["SIGTERM", "SIGINT", "SIGHUP"] as const) process.on(sig, () => shutdown(0));
process.on("uncaughtException", (e) => {
  try {
    fs.writeSync(2, "sim: internal error: " + ((e as Error)?.stack ?? String(e)) + "\n");
  } catch {}
  shutdown(1);
});

// --- answering -------------------------------------------------------------

async function answer(sock: net.Socket, conn: number, req: ParsedRequest): Promise<void> {
  if (req.error !== undefined) {
    recorder.record(conn, req, undefined, null);
    const status = req.error === "header too large" ? 431 : req.error === "body too large" ? 413 : 400;
    await send(sock, buildReply({ ...jsonReply(status, { error: req.error }) }), undefined);
    return;
  }
  const q = req.target.indexOf("?");
  const p = q < 0 ? req.target : req.target.slice(0, q);
  const ri = routes.pick(req.method, req.target, p);
  const route = ri === null ? undefined : routes.use(ri);
  recorder.record(conn, req, undefined, ri);

  // Built-in replies (and their side effects) run when the request arrives,
  // unless a route replaces the reply altogether.
  let b: BuiltinReply | undefined;
  if (!route || !routeReplaces(route)) {
    b = builtin(st, { method: req.method, path: p, query: new URLSearchParams(q < 0 ? "" : req.target.slice(q + 1)), bodyText: req.body.toString("utf8") });
  }
  if (route?.delayMs) await sleep(route.delayMs);
  const bytes = replyBytes(route, b);
  if (bytes === "hang") return;
  // Before the reply is out, so that nobody the reply lets go on can still connect.
  if (route?.crashAfter) stopListening();
  if (bytes === "close") sock.destroy();
  else if (Buffer.isBuffer(bytes)) await send(sock, bytes, route);
  else await sendPieces(sock, bytes, route);
  if (route?.crashAfter) crash();
  if (bytes === "close") return;
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
    if (buf.length > 0) recorder.record(conn, undefined, Buffer.from(buf.view()), null);
    sock.end();
  });
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
    recorder.open(opts.record);
  } catch (e) {
    removeOwnFiles();
    fail(`cannot open record file ${opts.record}: ${(e as Error).message}`);
  }
}

function ready(): void {
  say(`ready ${pid} ${sockPath}`);
  if (opts.stdinControl) listenToStdin(st, routes, () => shutdown(0));
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
