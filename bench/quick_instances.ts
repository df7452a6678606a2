// Instances that answer GET /instance at once, for telling the scan's own cost apart from the
// reply time of the simulated instances (tests/sim, one Bun process with a full request parser
// each). One process serves every socket with Bun's native listener; each instance folder is
// named by a sleeping child process, so that the scan finds its pid alive.
//
//   bun bench/quick_instances.ts RUNTIME COUNT
//
// Prints "ready" once every socket listens; stops, with its children, when stdin closes.
import fs from "node:fs";
import path from "node:path";

const [runtime, countText] = process.argv.slice(2);
const count = Number(countText);
if (!runtime || !(count > 0)) {
  console.error("usage: bun bench/quick_instances.ts RUNTIME COUNT");
  process.exit(2);
}

const children: ReturnType<typeof Bun.spawn>[] = [];
const folders: string[] = [];
function stop(): never {
  for (const child of children) child.kill();
  for (const folder of folders) fs.rmSync(folder, { recursive: true, force: true });
  process.exit(0);
}

for (let i = 0; i < count; i++) {
  const child = Bun.spawn(["sleep", "3600"], { stdin: "ignore", stdout: "ignore", stderr: "ignore" });
  children.push(child);
  const folder = path.join(runtime, "vorn", String(child.pid));
  fs.mkdirSync(folder, { recursive: true, mode: 0o700 });
  folders.push(folder);
  const sock = path.join(folder, "fs.sock");
  const record = JSON.stringify({
    id: `quick-${i + 1}`,
    pid: child.pid,
    socketPath: sock,
    workspace: "",
    workspaceName: "",
    vornRoot: "/Applications/Vorn.app/Contents/Resources/app",
    startedAt: 1700000000000,
    platform: "darwin",
    transport: "af_unix",
  });
  const reply = `HTTP/1.1 200 OK\r\nContent-Type: application/json; charset=utf-8\r\nContent-Length: ${Buffer.byteLength(record)}\r\nConnection: close\r\n\r\n${record}`;
  Bun.listen({
    unix: sock,
    socket: {
      data(socket, data) {
        if (data.includes("\r\n\r\n")) {
          socket.write(reply);
          socket.end();
        }
      },
    },
  });
}

process.stdin.on("end", stop);
process.stdin.on("error", stop);
process.stdin.resume();
console.log("ready");
