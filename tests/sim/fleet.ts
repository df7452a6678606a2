// Starts many simulated instances in the background for demos and
// benchmarks, and stops them again:
//
//   bun tests/sim/fleet.ts start --runtime DIR --count N [options]
//   bun tests/sim/fleet.ts status --runtime DIR
//   bun tests/sim/fleet.ts stop --runtime DIR
//
// The pids file (default DIR/sim-fleet.pids) holds one "<pid> <id> <sock>" line
// per simulator; stop only signals pids whose instance folder still exists.

import { spawn } from "node:child_process";
import fs from "node:fs";
import path from "node:path";
import { INSTANCE_SCRIPT } from "./launch";

const USAGE = `usage:
  bun fleet.ts start --runtime DIR --count N [--pids FILE] [--id-prefix P]
                     [--workspace DIR]... [--platform P] [--mode M] [--vorn-root DIR]
                     [--scenario FILE] [--log FILE]
  bun fleet.ts status (--runtime DIR | --pids FILE)
  bun fleet.ts stop   (--runtime DIR | --pids FILE)

start   launches N simulators in DIR/vorn/<pid>/ and returns once all accept
        connections; workspaces are handed out in turn; ids are P1..PN (P = sim-)
status  prints the simulators that are still running
stop    SIGTERM, then SIGKILL after 5 s; removes the pids file`;

class UsageError extends Error {}

interface Args {
  cmd: string;
  runtime?: string;
  count: number;
  pids?: string;
  idPrefix: string;
  workspaces: string[];
  platform?: string;
  mode?: string;
  vornRoot?: string;
  scenario?: string;
  log?: string;
}

function parse(argv: string[]): Args {
  const a: Args = { cmd: argv[0] ?? "", count: 0, idPrefix: "sim-", workspaces: [] };
  if (!["start", "stop", "status"].includes(a.cmd)) throw new UsageError(a.cmd ? `unknown command: ${a.cmd}` : "missing command");
  for (let i = 1; i < argv.length; i++) {
    const flag = argv[i];
    const take = () => {
      if (i + 1 >= argv.length) throw new UsageError(`${flag} needs a value`);
      return argv[++i];
    };
    switch (flag) {
      case "--runtime":
        a.runtime = path.resolve(take());
        break;
      case "--count": {
        const v = take();
        if (!/^[0-9]+$/.test(v) || Number(v) < 1 || Number(v) > 1000) throw new UsageError("--count needs a number from 1 to 1000");
        a.count = Number(v);
        break;
      }
      case "--pids":
        a.pids = path.resolve(take());
        break;
      case "--id-prefix":
        a.idPrefix = take();
        break;
      case "--workspace":
        a.workspaces.push(path.resolve(take()));
        break;
      case "--platform":
        a.platform = take();
        break;
      case "--mode":
        a.mode = take();
        break;
      case "--vorn-root":
        a.vornRoot = take();
        break;
      case "--scenario":
        a.scenario = path.resolve(take());
        break;
      case "--log":
        a.log = path.resolve(take());
        break;
      default:
        throw new UsageError(`unknown argument: ${flag}`);
    }
  }
  if (a.pids === undefined) {
    if (a.runtime === undefined) throw new UsageError("--runtime or --pids is required");
    a.pids = path.join(a.runtime, "sim-fleet.pids");
  }
  if (a.cmd === "start") {
    if (a.runtime === undefined) throw new UsageError("start needs --runtime");
    if (a.count === 0) throw new UsageError("start needs --count");
  }
  return a;
}

interface Member {
  pid: number;
  id: string;
  sock: string;
}

function alive(pid: number): boolean {
  try {
    process.kill(pid, 0);
  } catch (e) {
    return (e as NodeJS.ErrnoException).code === "EPERM";
  }
  // A detached simulator that exited stays a zombie until init reaps it.
  try {
    const stat = fs.readFileSync(`/proc/${pid}/stat`, "utf8");
    return stat[stat.lastIndexOf(")") + 2] !== "Z";
  } catch {
    return true;
  }
}

function readPids(file: string): Member[] {
  let text: string;
  try {
    text = fs.readFileSync(file, "utf8");
  } catch {
    throw new UsageError(`no pids file ${file} (nothing started?)`);
  }
  return text
    .split("\n")
    .filter((l) => l.trim() !== "")
    .map((l) => {
      const [pid, id, ...sock] = l.split(" ");
      return { pid: Number(pid), id, sock: sock.join(" ") };
    })
    .filter((m) => Number.isInteger(m.pid) && m.pid > 0);
}

// A pid is ours while its instance folder exists: the simulator removes the
// folder when it exits, so a recycled pid is never signalled.
function ours(m: Member): boolean {
  return fs.existsSync(path.dirname(m.sock)) && alive(m.pid);
}

function startOne(a: Args, i: number, logFd: number | "ignore"): Promise<Member> {
  const id = `${a.idPrefix}${i + 1}`;
  const args = [INSTANCE_SCRIPT, "--runtime", a.runtime!, "--id", id];
  if (a.scenario) args.push("--scenario", a.scenario);
  if (a.workspaces.length) args.push("--workspace", a.workspaces[i % a.workspaces.length]);
  if (a.platform) args.push("--platform", a.platform);
  if (a.mode) args.push("--mode", a.mode);
  if (a.vornRoot) args.push("--vorn-root", a.vornRoot);
  const child = spawn(process.execPath, args, { detached: true, stdio: ["ignore", "pipe", logFd] });
  return new Promise((resolve, reject) => {
    let out = "";
    const timer = setTimeout(() => {
      child.kill("SIGKILL");
      reject(new Error(`${id}: not ready after 30 s`));
    }, 30000);
    child.stdout!.on("data", (d: Buffer) => {
      out += d.toString("utf8");
      const m = /^ready (\d+) (.*)$/m.exec(out);
      if (!m) return;
      clearTimeout(timer);
      child.stdout!.destroy();
      child.unref();
      resolve({ pid: Number(m[1]), id, sock: m[2] });
    });
    child.on("exit", (code) => {
      clearTimeout(timer);
      reject(new Error(`${id}: exited with ${code} before it was ready${logFd === "ignore" ? "" : " (see the log)"}`));
    });
    child.on("error", (e) => {
      clearTimeout(timer);
      reject(new Error(`${id}: ${e.message}`));
    });
  });
}

async function stopMembers(members: Member[]): Promise<number> {
  const targets = members.filter(ours);
  for (const m of targets) process.kill(m.pid, "SIGTERM");
  const deadline = Date.now() + 5000;
  while (targets.some((m) => alive(m.pid)) && Date.now() < deadline) await Bun.sleep(20);
  for (const m of targets) {
    if (alive(m.pid)) {
      process.kill(m.pid, "SIGKILL");
      fs.rmSync(path.dirname(m.sock), { recursive: true, force: true });
    }
  }
  return targets.length;
}

async function main(): Promise<number> {
  const a = parse(process.argv.slice(2));
  if (a.cmd === "status") {
    const members = readPids(a.pids!).filter(ours);
    for (const m of members) console.log(`${m.pid} ${m.id} ${m.sock}`);
    console.error(`${members.length} simulator(s) running`);
    return 0;
  }
  if (a.cmd === "stop") {
    const n = await stopMembers(readPids(a.pids!));
    fs.rmSync(a.pids!, { force: true });
    console.error(`stopped ${n} simulator(s)`);
    return 0;
  }
  if (fs.existsSync(a.pids!) && readPids(a.pids!).some(ours))
    throw new UsageError(`simulators from ${a.pids} are still running: stop them first`);
  fs.mkdirSync(a.runtime!, { recursive: true });
  const logFd = a.log ? fs.openSync(a.log, "a") : "ignore";
  const t0 = performance.now();
  const results = await Promise.allSettled(Array.from({ length: a.count }, (_, i) => startOne(a, i, logFd)));
  const started = results.flatMap((r) => (r.status === "fulfilled" ? [r.value] : []));
  const failures = results.flatMap((r) => (r.status === "rejected" ? [(r.reason as Error).message] : []));
  if (failures.length) {
    await stopMembers(started);
    for (const f of failures) console.error(`fleet: ${f}`);
    return 1;
  }
  const tmp = a.pids + ".tmp";
  fs.writeFileSync(tmp, started.map((m) => `${m.pid} ${m.id} ${m.sock}\n`).join(""));
  fs.renameSync(tmp, a.pids!);
  console.error(`started ${started.length} simulator(s) in ${Math.round(performance.now() - t0)} ms; pids in ${a.pids}`);
  return 0;
}

main().then(
  (code) => process.exit(code),
  (e) => {
    console.error(e instanceof UsageError ? `fleet: ${e.message}\n${USAGE}` : `fleet: ${(e as Error).message}`);
    process.exit(2);
  },
);
