// scripts/sandbox.sh (make sandbox): three simulated hosts to try vorn by hand. The lines it
// prints give a shell in which vorn lists the hosts; starting again replaces the sandbox; the
// stop command leaves no process and no file behind, and never removes a folder that is not one.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import { vornBin, type Sandbox } from "./harness";
import { useSandbox } from "./support";

setDefaultTimeout(90000);

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

const script = path.resolve(import.meta.dir, "../../scripts/sandbox.sh");

async function sandboxScript(folder: string, args: string[]): Promise<{ code: number | null; stdout: string; stderr: string }> {
  const proc = Bun.spawn(["bash", script, ...args], {
    cwd: sb.work,
    // The script needs the machine's tools (ps, awk, sed); HOME and TMPDIR stay private.
    env: { PATH: process.env.PATH ?? "/usr/bin:/bin", HOME: sb.home, TMPDIR: sb.tmp, VORN_SANDBOX: folder },
    stdin: "ignore",
    stdout: "pipe",
    stderr: "pipe",
  });
  const [stdout, stderr] = await Promise.all([new Response(proc.stdout).text(), new Response(proc.stderr).text()]);
  return { code: await proc.exited, stdout, stderr };
}

/** The pids of processes whose command line mentions the folder. */
function processesIn(folder: string): number[] {
  const ps = Bun.spawnSync(["ps", "-A", "-o", "pid=", "-o", "args="]);
  return ps.stdout
    .toString()
    .split("\n")
    .filter((line) => line.includes(folder + "/") && !line.includes(" ps -A"))
    .map((line) => Number(line.trim().split(/\s+/)[0]));
}

/** Runs the printed export and cd lines in a shell, then the command. */
async function inPrintedShell(printed: string, command: string): Promise<string> {
  const lines = printed.split("\n").filter((l) => /^ {2}(export |cd )/.test(l));
  expect(lines.length).toBe(3);
  const proc = Bun.spawn(["bash", "-c", [...lines, command].join("\n")], {
    env: { PATH: process.env.PATH ?? "/usr/bin:/bin", HOME: sb.home },
    stdout: "pipe",
    stderr: "pipe",
  });
  const out = await new Response(proc.stdout).text();
  expect(await proc.exited).toBe(0);
  return out;
}

describe("the sandbox", () => {
  test("starts three hosts, its lines give a shell that lists them, and stop leaves nothing", async () => {
    const folder = sb.path("sbx");
    const first = await sandboxScript(folder, ["start", vornBin()]);
    expect(first.stderr).toBe("");
    expect(first.code).toBe(0);
    expect(first.stdout).toContain(`  export XDG_RUNTIME_DIR=${folder}/run\n`);
    expect(first.stdout).toContain(`  export PATH="${folder}/bin:$PATH"\n`);
    const stopLine = `  VORN_SANDBOX=${folder} ${script} stop\n`;
    expect(first.stdout).toContain(`When you are done (this ends the hosts and removes ${folder}):\n\n${stopLine}`);

    const ids = (await inPrintedShell(first.stdout, "vorn instance list -q")).trim().split("\n");
    expect(ids.length).toBe(3);
    const table = await inPrintedShell(first.stdout, "vorn instance list");
    for (const name of ["hello", "scratch", "notes"]) expect(table).toContain(`${folder}/projects/${name}`);
    const hosts = processesIn(folder);
    expect(hosts.length).toBe(3);

    // Again: the earlier hosts are gone, three new ones run.
    const second = await sandboxScript(folder, ["start", vornBin()]);
    expect(second.code).toBe(0);
    const again = (await inPrintedShell(second.stdout, "vorn instance list -q")).trim().split("\n");
    expect(again.length).toBe(3);
    for (const id of ids) expect(again).not.toContain(id);
    const now = processesIn(folder);
    expect(now.length).toBe(3);
    for (const pid of hosts) expect(now).not.toContain(pid);

    // A stopped host does not keep the stop command from ending it.
    // The printed stop command, run as it stands from elsewhere, ends it all.
    process.kill(now[0], "SIGSTOP");
    const stop = Bun.spawnSync(["bash", "-c", stopLine.trim()], {
      cwd: sb.home,
      env: { PATH: process.env.PATH ?? "/usr/bin:/bin", HOME: sb.home, TMPDIR: sb.tmp },
    });
    expect(stop.exitCode).toBe(0);
    expect(stop.stdout.toString()).toBe(`The sandbox is gone: its hosts are ended and ${folder} is removed.\n`);
    expect(fs.existsSync(folder)).toBe(false);
    expect(processesIn(folder)).toEqual([]);
  });

  test("stop leaves a folder that is not a sandbox alone", async () => {
    const folder = sb.dir("precious");
    sb.file("precious/keep.txt", "mine");
    const stop = await sandboxScript(folder, ["stop"]);
    expect(stop.code).toBe(1);
    expect(stop.stderr).toBe(`sandbox: ${folder} is not a vorn sandbox; leaving it alone\n`);
    expect(fs.readFileSync(path.join(folder, "keep.txt"), "utf8")).toBe("mine");
    const start = await sandboxScript(folder, ["start", vornBin()]);
    expect(start.code).toBe(1);
    expect(fs.readdirSync(folder)).toEqual(["keep.txt"]);
  });

  test("a wrong command line says how to call it", async () => {
    const r = await sandboxScript(sb.path("sbx"), ["begin"]);
    expect(r.code).toBe(2);
    expect(r.stderr).toBe("usage: scripts/sandbox.sh start <path of the vorn binary> | stop\n");
  });
});
