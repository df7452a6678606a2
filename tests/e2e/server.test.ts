// `vorn server start`: the headless host of a checkout or an app, in the foreground (the CLI
// becomes the host) and detached (spawned in its own session, logged, waited for). The host
// is the simulated instance run by the real Bun; a probe in Bun's place shows exactly what ran.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import { vornBin, type Sandbox, type Sim } from "./harness";
import {
  endHostsAfterEach,
  envWithoutProbe,
  expectDefaultSigpipe,
  fakeApp,
  hostCheckout,
  logNamesAround,
  parseStarted,
  probedPids,
  probeEnv,
  probeRecord,
  processesMentioning,
  REAL_BUN,
  running,
  SOURCE,
  track,
  useProbe,
  useRealBun,
} from "./hosts";
import { DASH, eventually, instanceTable, pretty, useSandbox } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));
endHostsAfterEach();

const noHost = `vorn server start: no headless host ${DASH} run the vorn inside Vorn.app, from a Vorn checkout, or set VORN_APP\n`;

function modeOf(p: string): number {
  return fs.statSync(p).mode & 0o7777;
}

/** What vorn instance list shows for a headless host that the simulator runs. */
function hostList(hosts: { pid: number; sock: string; workspace: string }[]): string {
  const sorted = [...hosts].sort((a, b) => a.pid - b.pid);
  const rows = sorted.map((h) => ({ id: `sim-${h.pid}`, pid: h.pid, sock: h.sock }) as Sim);
  const workspace = (s: Sim) => sorted.find((h) => h.pid === s.pid)!.workspace;
  return instanceTable(rows, { mode: () => "headless", workspace }) + "\n";
}

/** Checks that nothing of a failed start runs or stayed behind. */
function expectNothingLeft(): void {
  expect(processesMentioning(sb.root)).toEqual([]);
  expect(sb.runtimeEntries().filter((n) => /^\d+$/.test(n))).toEqual([]);
}

describe("server start --detach", () => {
  test("comes up, is listed, and is stopped by instance quit", async () => {
    const root = hostCheckout(sb, "repo");
    const work = sb.dir("projects/app");
    useRealBun(sb);
    expect(fs.existsSync(sb.runtimeRoot)).toBe(false);
    const r = await sb.run(["server", "start", "--detach", "../projects/./app/"], { cwd: root });
    const host = parseStarted(r.stdout)!;
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expect(host).toBeDefined();
    expect(host.sock).toBe(path.join(sb.runtimeRoot, String(host.pid), "fs.sock"));
    expect(host.log).toMatch(new RegExp(`^${sb.runtimeRoot}/server-\\d+\\.log$`));
    expect(running(host.pid)).toBe(true);

    // The runtime folder was made for the log, the owner's alone; so is the log.
    expect(modeOf(sb.runtimeRoot)).toBe(0o700);
    expect(modeOf(host.log)).toBe(0o600);
    expect(fs.readFileSync(host.log, "utf8")).toBe(`ready ${host.pid} ${host.sock}\n`);

    const list = await sb.run(["instance", "list"]);
    expect(list.stdout).toBe(hostList([{ ...host, workspace: work }]));
    expect(list.code).toBe(0);

    const quit = await sb.run(["instance", "quit", "-i", `sim-${host.pid}`]);
    expect(quit.stdout).toBe(`Quit instance sim-${host.pid}\n`);
    expect(quit.code).toBe(0);
    expect(await eventually(() => !running(host.pid))).toBe(true);
    expect(fs.existsSync(path.dirname(host.sock))).toBe(false);
    expect((await sb.run(["instance", "list"])).stdout).toBe("No running Vorn instances.\n");
  });

  test("-o json reports pid, socket, runtime dir and log", async () => {
    const root = hostCheckout(sb, "repo");
    useRealBun(sb);
    const r = await sb.run(["-o", "json", "server", "start", "--detach"], { cwd: root });
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    const report = JSON.parse(r.stdout);
    track(report.pid);
    expect(Object.keys(report)).toEqual(["pid", "socketPath", "runtimeDir", "log"]);
    expect(typeof report.pid).toBe("number");
    expect(report.socketPath).toBe(path.join(sb.runtimeRoot, String(report.pid), "fs.sock"));
    expect(report.runtimeDir).toBe(sb.runtime);
    expect(report.log).toMatch(new RegExp(`^${sb.runtimeRoot}/server-\\d+\\.log$`));
    expect(r.stdout).toBe(pretty(report));
    // Without a folder the host has none open.
    const list = await sb.run(["instance", "list"]);
    expect(list.stdout).toBe(hostList([{ pid: report.pid, sock: report.socketPath, workspace: "(none)" }]));
  });

  test("a caller that reads vorn's output to its end is not held up by the host", async () => {
    const root = hostCheckout(sb, "repo");
    useRealBun(sb);
    // The shell waits for the end of vorn's output, which only comes when no process holds
    // the pipe any more.
    const r = await sb.run(["-c", 'out=$("$0" server start --detach) && printf "%s\\n" "$out"', vornBin()], {
      bin: "/bin/sh",
      cwd: root,
      timeoutMs: 20000,
    });
    const host = parseStarted(r.stdout)!;
    expect(r.timedOut).toBe(false);
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expect(host).toBeDefined();
    expect(running(host.pid)).toBe(true);
  });

  test("the host runs in its own session with the runtime dir, stdin from /dev/null, output to the log and nothing else inherited", async () => {
    const root = hostCheckout(sb, "repo");
    const env = { ...useProbe(sb, { then: true }), VORN_EDITION: "markdown", XDG_RUNTIME_DIR: sb.runtime + "//" };
    // vorn itself is given an extra descriptor, as a careless caller might pass on.
    const proc = Bun.spawn([vornBin(), "server", "start", "--detach", sb.work], {
      cwd: sb.path("repo"),
      env: sb.env(env),
      stdio: ["ignore", "pipe", "pipe", "pipe"],
    });
    const [stdout, stderr, code] = await Promise.all([new Response(proc.stdout).text(), new Response(proc.stderr).text(), proc.exited]);
    const host = parseStarted(stdout)!;
    expect(stderr).toBe("");
    expect(code).toBe(0);
    expect(host).toBeDefined();
    const seen = probeRecord(sb, host.pid);
    expect(seen.argv).toEqual([path.join(sb.bin, "bun"), "--conditions=vorn-edition-markdown", `${root}/${SOURCE.headless}`, sb.work]);
    expect(envWithoutProbe(seen)).toEqual({ ...sb.env({ VORN_EDITION: "markdown" }), XDG_RUNTIME_DIR: sb.runtime });
    expect(seen.cwd).toBe(root);
    expectDefaultSigpipe(seen);
    if (process.platform === "linux") {
      expect(seen.session).toBe(host.pid);
      expect(seen.fds!.get(0)).toBe("/dev/null");
      expect(seen.fds!.get(1)).toBe(host.log);
      expect(seen.fds!.get(2)).toBe(host.log);
      // Beyond those, only the shell's own hold on its script.
      for (const [fd, target] of seen.fds!) if (fd > 2) expect(target).toBe(path.join(sb.bin, "bun"));
    }
  });

  test("from an app bundle: the app's Bun runs its own script, in its folder, apart from any checkout", async () => {
    const app = fakeApp(sb, "x/Vorn.app", { bun: "real" });
    const root = hostCheckout(sb, "repo");
    const r = await sb.run(["server", "start", "--detach", sb.work], { bin: app.cli, cwd: root, env: { VORN_REPO_ROOT: root } });
    const host = parseStarted(r.stdout)!;
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expect(host).toBeDefined();
    const inspect = await sb.run(["-o", "json", "instance", "inspect", `sim-${host.pid}`]);
    const [record] = JSON.parse(inspect.stdout);
    // The simulated host reports the folder it runs in.
    expect(record.vornRoot).toBe(app.appDir);
    expect(record.workspace.root).toBe(sb.work);
    if (process.platform === "linux") {
      const environ = fs.readFileSync(`/proc/${host.pid}/environ`, "utf8").split("\0");
      expect(environ).toContain(`XDG_RUNTIME_DIR=${sb.runtime}`);
      expect(environ.filter((e) => e.startsWith("VORN_REPO_ROOT="))).toEqual([]);
      expect(fs.readlinkSync(`/proc/${host.pid}/exe`)).toBe(fs.realpathSync(REAL_BUN));
    }
    const quit = await sb.run(["instance", "quit", "--pid", String(host.pid)]);
    expect(quit.stdout).toBe(`Quit instance sim-${host.pid}\n`);
    expect(await eventually(() => !running(host.pid))).toBe(true);
  });

  test("a host that exits at once fails fast, naming the log", async () => {
    const root = hostCheckout(sb, "repo", { headless: 'console.log("starting up"); console.error("boom"); process.exit(3);\n' });
    useRealBun(sb);
    const r = await sb.run(["server", "start", "--detach"], { cwd: root, timeoutMs: 20000 });
    expect(r.timedOut).toBe(false);
    expect(r.stdout).toBe("");
    const m = new RegExp(`^vorn server start: the host \\(pid (\\d+)\\) did not come up within 30s ${DASH} see (${sb.runtimeRoot}/server-\\d+\\.log)\\n$`).exec(
      r.stderr,
    );
    expect(m).not.toBeNull();
    expect(r.code).toBe(1);
    expect(fs.readFileSync(m![2], "utf8")).toBe("starting up\nboom\n");
    expect(running(Number(m![1]))).toBe(false);
    expectNothingLeft();
  });

  test("two starts in the same second share one log, appended to", async () => {
    const root = hostCheckout(sb, "repo");
    useRealBun(sb);
    fs.mkdirSync(sb.runtimeRoot, { mode: 0o700 });
    for (let attempt = 0; attempt < 5; attempt++) {
      // Start just after a second begins, so both starts are likely to fall in it.
      const second = Math.floor(Date.now() / 1000) + 1;
      // A little past the turn: the coarse clock that time() reads lags by up to a tick.
      await eventually(() => Date.now() >= second * 1000 + 20, 2000);
      const logs = logNamesAround(sb);
      for (const log of logs) fs.writeFileSync(log, "earlier\n", { mode: 0o600 });
      const [a, b] = await Promise.all([0, 1].map(() => sb.run(["server", "start", "--detach"], { cwd: root })));
      const [ha, hb] = [parseStarted(a.stdout)!, parseStarted(b.stdout)!];
      expect(ha).toBeDefined();
      expect(hb).toBeDefined();
      expect([a.code, b.code]).toEqual([0, 0]);
      expect(logs).toContain(ha.log);
      if (ha.log === hb.log) {
        const text = fs.readFileSync(ha.log, "utf8");
        expect(text.startsWith("earlier\n")).toBe(true);
        const lines = text.split("\n").slice(1, -1).sort();
        expect(lines).toEqual([`ready ${ha.pid} ${ha.sock}`, `ready ${hb.pid} ${hb.sock}`].sort());
        const list = await sb.run(["instance", "list"]);
        expect(list.stdout).toBe(hostList([ha, hb].map((h) => ({ ...h, workspace: "(none)" }))));
        return;
      }
      // Different seconds this time: end both and try again.
      for (const h of [ha, hb]) process.kill(h.pid, "SIGTERM");
      expect(await eventually(() => !running(ha.pid) && !running(hb.pid))).toBe(true);
      for (const log of logs) fs.rmSync(log, { force: true });
    }
    throw new Error("no two starts fell in the same second in 5 attempts");
  });

  test("an empty XDG_RUNTIME_DIR beats TMPDIR: the host runs relative to its own folder", async () => {
    const root = hostCheckout(sb, "repo");
    useRealBun(sb);
    const env = { XDG_RUNTIME_DIR: "" };
    const r = await sb.run(["server", "start", "--detach"], { cwd: root, env });
    const host = parseStarted(r.stdout)!;
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expect(host.sock).toBe(`vorn/${host.pid}/fs.sock`);
    expect(host.log).toMatch(/^vorn\/server-\d+\.log$/);
    expect(fs.readFileSync(path.join(root, host.log), "utf8")).toBe(`ready ${host.pid} ${path.join(root, host.sock)}\n`);
    expect(fs.existsSync(path.join(sb.tmp, "vorn"))).toBe(false);
    // vorn finds it the same way from that folder.
    const quit = await sb.run(["instance", "quit", "--pid", String(host.pid)], { cwd: root, env });
    expect(quit.stdout).toBe(`Quit instance sim-${host.pid}\n`);
    expect(await eventually(() => !running(host.pid))).toBe(true);
  });

  test("a runtime dir that cannot be created", async () => {
    const root = hostCheckout(sb, "repo");
    useRealBun(sb);
    sb.file("plain-file", "x");
    const r = await sb.run(["server", "start", "--detach"], { cwd: root, env: { XDG_RUNTIME_DIR: sb.path("plain-file/run") } });
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(`vorn server start: cannot create ${sb.path("plain-file/run/vorn")}: Not a directory\n`);
    expect(r.code).toBe(1);
    expectNothingLeft();
  });

  test("a log that cannot be opened", async () => {
    const root = hostCheckout(sb, "repo");
    useRealBun(sb);
    fs.mkdirSync(sb.runtimeRoot, { mode: 0o700 });
    // A folder where the log would go, for any second the start may fall in.
    for (const log of logNamesAround(sb)) fs.mkdirSync(log);
    const r = await sb.run(["server", "start", "--detach"], { cwd: root });
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("vorn server start: cannot run bun: Is a directory\n");
    expect(r.code).toBe(1);
    expectNothingLeft();
  });

  test("a bun that cannot be spawned", async () => {
    const root = hostCheckout(sb, "repo");
    const r = await sb.run(["server", "start", "--detach"], { cwd: root });
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("vorn server start: cannot run bun: No such file or directory\n");
    expect(r.code).toBe(1);
    expectNothingLeft();

    // An app whose Bun is no program.
    const app = fakeApp(sb, "X.app");
    fs.chmodSync(app.bun, 0o644);
    const bundled = await sb.run(["server", "start", "--detach"], { bin: app.cli });
    expect(bundled.stderr).toBe(`vorn server start: cannot run ${app.bun}: Permission denied\n`);
    expect(bundled.code).toBe(1);
    expectNothingLeft();
  });
});

describe("server start in the foreground", () => {
  test("vorn becomes the host, which Ctrl-C ends", async () => {
    const root = hostCheckout(sb, "repo");
    const work = sb.dir("work/app");
    useRealBun(sb);
    const proc = Bun.spawn([vornBin(), "server", "start", work], {
      cwd: root,
      env: sb.env(),
      stdio: ["ignore", "pipe", "pipe"],
    });
    track(proc.pid);
    // The host keeps vorn's pid: its socket appears under that pid.
    const sock = path.join(sb.runtimeRoot, String(proc.pid), "fs.sock");
    expect(await eventually(() => fs.existsSync(sock))).toBe(true);
    const list = await sb.run(["instance", "list"]);
    expect(list.stdout).toBe(hostList([{ pid: proc.pid, sock, workspace: work }]));

    proc.kill("SIGINT");
    expect(await proc.exited).toBe(0);
    expect(await new Response(proc.stdout).text()).toBe(`ready ${proc.pid} ${sock}\n`);
    expect(fs.existsSync(path.dirname(sock))).toBe(false);
  });

  test("from a checkout: bun with the edition, the checkout's script and the folder, in the checkout", async () => {
    const root = hostCheckout(sb, "repo");
    const other = hostCheckout(sb, "other");
    const sub = sb.dir("repo/pkg/deep");
    const env = { ...useProbe(sb, { exit: 5 }), VORN_EDITION: "markdown", VORN_REPO_ROOT: other, XDG_RUNTIME_DIR: `${sb.runtime}/./x/..` };
    const r = await sb.run(["server", "start", "."], { cwd: sub, env });
    expect(r.stderr).toBe("");
    expect(r.code).toBe(5); // the probe's own status: vorn was replaced
    const [pid] = probedPids(sb);
    const seen = probeRecord(sb, pid);
    // The current directory's checkout wins over VORN_REPO_ROOT.
    expect(seen.argv).toEqual([path.join(sb.bin, "bun"), "--conditions=vorn-edition-markdown", `${root}/${SOURCE.headless}`, sub]);
    expect(envWithoutProbe(seen)).toEqual({ ...sb.env({ VORN_EDITION: "markdown", VORN_REPO_ROOT: other }), XDG_RUNTIME_DIR: sb.runtime });
    expect(seen.cwd).toBe(root);
    expectDefaultSigpipe(seen);
  });

  test("an empty XDG_RUNTIME_DIR is handed on as it is, TMPDIR notwithstanding", async () => {
    const root = hostCheckout(sb, "repo");
    const env = { ...useProbe(sb), XDG_RUNTIME_DIR: "" };
    const r = await sb.run(["server", "start"], { cwd: root, env });
    expect(r.code).toBe(0);
    const seen = probeRecord(sb, probedPids(sb)[0]);
    expect(seen.argv).toEqual([path.join(sb.bin, "bun"), `${root}/${SOURCE.headless}`]);
    expect(seen.env.XDG_RUNTIME_DIR).toBe("");
    expect(seen.env.TMPDIR).toBe(sb.tmp);
  });

  test("a CLI inside an app uses that app's Bun and script, without the checkout", async () => {
    const app = fakeApp(sb, "x/Vorn.app");
    const root = hostCheckout(sb, "repo");
    const env = { ...probeEnv(sb), VORN_EDITION: "markdown", VORN_REPO_ROOT: root };
    // Even from inside a checkout, the app's own script comes first.
    for (const cwd of [sb.work, root]) {
      fs.rmSync(sb.path("probe"), { recursive: true, force: true });
      const r = await sb.run(["server", "start", sb.work], { bin: app.cli, cwd, env });
      expect(r.stderr).toBe("");
      expect(r.code).toBe(0);
      const seen = probeRecord(sb, probedPids(sb)[0]);
      expect(seen.argv).toEqual([app.bun, `${app.appDir}/bun/headless.js`, sb.work]);
      const { VORN_REPO_ROOT: _gone, ...rest } = sb.env({ VORN_EDITION: "markdown" });
      expect(envWithoutProbe(seen)).toEqual(rest);
      expect(seen.cwd).toBe(app.appDir);
      expectDefaultSigpipe(seen);
    }
  });

  test("VORN_APP names the app outside a checkout; a checkout comes before it", async () => {
    const app = fakeApp(sb, "apps/Named.app");
    const root = hostCheckout(sb, "repo");
    const env = useProbe(sb);
    const viaApp = await sb.run(["server", "start"], { env: { ...env, VORN_APP: "../apps/Named.app" } });
    expect(viaApp.code).toBe(0);
    expect(probeRecord(sb, probedPids(sb)[0]).argv).toEqual([app.bun, `${app.appDir}/bun/headless.js`]);

    fs.rmSync(sb.path("probe"), { recursive: true, force: true });
    const viaCheckout = await sb.run(["server", "start"], { cwd: root, env: { ...env, VORN_APP: app.app } });
    expect(viaCheckout.code).toBe(0);
    expect(probeRecord(sb, probedPids(sb)[0]).argv).toEqual([path.join(sb.bin, "bun"), `${root}/${SOURCE.headless}`]);
  });

  test("without bun on PATH it prints the Bun hint and exits 127", async () => {
    const root = hostCheckout(sb, "repo");
    const r = await sb.run(["server", "start"], { cwd: root });
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(`vorn: bun not on PATH ${DASH} run \`direnv allow\`, or install Bun (https://bun.sh puts it in ~/.bun/bin)\n`);
    expect(r.code).toBe(127);
  });
});

describe("server start usage", () => {
  test("a folder that is not one fails with exit 2 before any script lookup", async () => {
    sb.file("work/notes.txt", "x");
    for (const dir of ["missing-dir", "notes.txt", "/no/such/place"]) {
      const r = await sb.run(["server", "start", dir, "--detach"]);
      expect(r.stdout).toBe("");
      expect(r.stderr).toBe(`vorn server start: not a directory: ${dir}\n`);
      expect(r.code).toBe(2);
    }
    const j = await sb.run(["-o", "json", "server", "start", "missing-dir"]);
    expect(j.stderr).toBe('{"error":"vorn server start: not a directory: missing-dir","code":2}\n');
    expect(j.code).toBe(2);
    expectNothingLeft();
  });

  test("one folder at most", async () => {
    const r = await sb.run(["server", "start", ".", "extra"]);
    expect(r.stderr).toBe("vorn server start: unexpected argument extra\n");
    expect(r.code).toBe(2);
  });

  test("no headless host anywhere", async () => {
    useRealBun(sb);
    for (const args of [["server", "start"], ["server", "start", ".", "--detach"]]) {
      const r = await sb.run(args, { env: { VORN_APP: sb.path("missing.app") } });
      expect(r.stdout).toBe("");
      expect(r.stderr).toBe(noHost);
      expect(r.code).toBe(1);
    }
    const j = await sb.run(["server", "start", "-o", "json"]);
    expect(JSON.parse(j.stderr)).toEqual({ error: noHost.trimEnd(), code: 1 });
    expectNothingLeft();
  });
});
