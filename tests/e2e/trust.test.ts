// What vorn trusts: only what belongs to the user (or to root) and that no one else may write.
// Each attack below is played as another local user would play it, then the same layout owned
// by the user shows the ordinary behaviour. Where another user's process or file is needed,
// the test runs only when it can change owners (as root, with setpriv to run a process as an
// unused uid) and is skipped otherwise; the variants that need only modes run everywhere.

import { afterEach, describe, expect, setDefaultTimeout, test } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import { startSim, type Sandbox, type Sim } from "./harness";
import { endHostsAfterEach, hostCheckout, REAL_BUN, useRealBun } from "./hosts";
import { nativeBuild, scriptCheckout, shimPath, shimTools } from "./installs";
import { checkout, DASH, instanceTable, onPath, useSandbox } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));
endHostsAfterEach();

/** The uid that plays the other local user: one no account uses. */
const OTHER = 12345;
const setpriv = Bun.which("setpriv");
/** Whether this run can give files to another user. */
const canChown = process.getuid?.() === 0;
/** Whether this run can also run a process as another user. */
const canImpersonate = canChown && setpriv !== null && process.platform === "linux";
/** A test name that says why it is skipped unless run as root. */
const rootOnly = (name: string) => `${name} (run as root only: it needs another user's files or processes)`;

function modeOf(p: string): number {
  return fs.statSync(p).mode & 0o7777;
}

/** A folder shared as /tmp is: mode 1777. */
function sharedDir(rel: string, mode = 0o1777): string {
  const dir = sb.dir(rel);
  fs.chmodSync(dir, mode);
  return dir;
}

/** Lets other users reach into the sandbox (it is private by default). */
function openSandbox(): void {
  fs.chmodSync(sb.root, 0o755);
}

/** Gives a file or folder (and with `deep`, everything in it) to the other user. */
function giveAway(p: string, deep = false): void {
  fs.lchownSync(p, OTHER, OTHER);
  if (deep && fs.lstatSync(p).isDirectory()) for (const name of fs.readdirSync(p)) giveAway(path.join(p, name), true);
}

/**
 * A simulated instance run by the other user in `runtime`: Bun started through setpriv, its
 * scenario and record files handed over to it first.
 */
async function foreignSim(runtime: string, opts: Record<string, unknown> = {}): Promise<Sim> {
  openSandbox();
  const workdir = sb.dir("foreign-sims");
  fs.chmodSync(workdir, 0o755);
  const wrapper = sb.file(
    "foreign-bun",
    `#!/bin/sh
prev=""
for a in "$@"; do
  case "$prev" in --scenario|--record) chown ${OTHER}:${OTHER} "$a" ;; esac
  prev="$a"
done
exec ${JSON.stringify(setpriv)} --reuid=${OTHER} --regid=${OTHER} --clear-groups ${JSON.stringify(REAL_BUN)} "$@"
`,
    0o755,
  );
  const sim = await startSim({ id: "evil", runtime, workdir, bun: wrapper, ...opts });
  stopLater.push(sim);
  return sim;
}

const stopLater: Sim[] = [];
afterEach(async () => {
  await Promise.all(stopLater.splice(0).map((s) => s.kill("SIGKILL").catch(() => {})));
});

/** A folder name that no process can have (beyond every system's pid range, inside 32 bits). */
const DEAD = ["99999971", "99999989"];

describe("1. the runtime root", () => {
  // XDG_RUNTIME_DIR unset: the root falls back to <TMPDIR>/vorn, in a folder others can write.
  const envIn = (tmp: string) => ({ XDG_RUNTIME_DIR: undefined, TMPDIR: tmp });

  function photos(): string[] {
    return DEAD.map((name) => sb.file(`home/Photos/${name}/img.jpg`, "keep"));
  }

  test("a root that is a link to the user's own folder: nothing listed, nothing deleted", async () => {
    const tmp = sharedDir("shared");
    const kept = photos();
    fs.symlinkSync(sb.path("home/Photos"), path.join(tmp, "vorn"));
    for (const args of [["instance", "list"], ["instance", "prune"], ["instance", "list", "--prune"]]) {
      const r = await sb.run(args, { env: envIn(tmp) });
      expect(r.stderr).toBe("");
      expect(r.code).toBe(0);
      expect(r.stdout).not.toContain("pruned");
    }
    for (const p of kept) expect(fs.readFileSync(p, "utf8")).toBe("keep");
    const doctor = await sb.run(["doctor", "check"], { env: envIn(tmp) });
    expect(doctor.stdout).toContain(`[fail] runtime.dir  ${path.join(tmp, "vorn")} is not a directory\n`);
  });

  test("a root that others may write (no sticky bit): nothing deleted", async () => {
    const tmp = sharedDir("shared");
    const root = sharedDir("shared/vorn", 0o777);
    const dirs = DEAD.map((name) => sb.dir(`shared/vorn/${name}`));
    const r = await sb.run(["instance", "list"], { env: envIn(tmp) });
    expect([r.stdout, r.stderr, r.code]).toEqual(["No running Vorn instances.\n", "", 0]);
    for (const d of dirs) expect(fs.existsSync(d)).toBe(true);
    expect(modeOf(root)).toBe(0o777);
  });

  test.skipIf(!canChown)(rootOnly("a root of another user: nothing deleted"), async () => {
    const tmp = sharedDir("shared");
    const root = sb.dir("shared/vorn");
    const dirs = DEAD.map((name) => sb.dir(`shared/vorn/${name}`));
    giveAway(root);
    const r = await sb.run(["instance", "prune"], { env: envIn(tmp) });
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expect(r.stdout).not.toContain("removed");
    for (const d of dirs) expect(fs.existsSync(d)).toBe(true);
  });

  test("the user's own root, private or sticky: dead folders are pruned as ever", async () => {
    for (const mode of [0o700, 0o755, 0o1777]) {
      const tmp = sharedDir(`shared-${mode.toString(8)}`);
      const root = sb.dir(`shared-${mode.toString(8)}/vorn`);
      fs.chmodSync(root, mode);
      const dirs = DEAD.map((name) => sb.dir(`shared-${mode.toString(8)}/vorn/${name}`));
      const r = await sb.run(["instance", "list"], { env: envIn(tmp) });
      expect(r.stdout).toBe("No running Vorn instances.\n");
      expect(r.stderr.split("\n").filter(Boolean).sort()).toEqual(dirs.map((d) => `vorn: pruned ${d} (dead-pid)`).sort());
      expect(r.code).toBe(0);
      for (const d of dirs) expect(fs.existsSync(d)).toBe(false);
    }
  });
});

describe("2. checkouts", () => {
  /** Plants a checkout at the top of `rel` (its script CLI and doctor packs leave a mark). */
  function plant(rel: string): string {
    const root = scriptCheckout(sb, rel);
    const mark = sb.path("ran");
    sb.file(`${rel}/src/cli/vorn.ts`, `require("node:fs").appendFileSync(${JSON.stringify(mark)}, "cli " + process.argv.slice(2).join(" ") + "\\n");\n`);
    sb.file(
      `${rel}/src/cli/doctor-packs.ts`,
      `require("node:fs").appendFileSync(${JSON.stringify(mark)}, "packs\\n"); console.log("[]");\n`,
    );
    return root;
  }
  const ran = () => (fs.existsSync(sb.path("ran")) ? fs.readFileSync(sb.path("ran"), "utf8") : "");
  const needsCheckout = `vorn dev: needs a Vorn checkout (run from one, or set VORN_REPO_ROOT) ${DASH} the installed app ships only the product CLI\n`;

  test("markers at the top of a folder others may write are passed over: dev and doctor run nothing", async () => {
    const shared = plant("shared");
    fs.chmodSync(shared, 0o1777);
    const project = sb.dir("shared/project");
    useRealBun(sb);
    const dev = await sb.run(["dev", "test"], { cwd: project });
    expect([dev.stdout, dev.stderr, dev.code]).toEqual(["", needsCheckout, 1]);
    await sb.run(["doctor", "check"], { cwd: project });
    // Not through VORN_REPO_ROOT either.
    const named = await sb.run(["dev", "test"], { cwd: sb.work, env: { VORN_REPO_ROOT: shared } });
    expect([named.stderr, named.code]).toEqual([needsCheckout, 1]);
    expect(ran()).toBe("");
  });

  test.skipIf(!canChown)(rootOnly("a checkout of another user is passed over: dev and doctor run nothing"), async () => {
    const theirs = plant("theirs");
    const project = sb.dir("theirs/project");
    giveAway(path.join(theirs, "MODULE.bazel"));
    giveAway(path.join(theirs, "src/cli/vorn.ts"));
    giveAway(path.join(theirs, "src/cli/doctor-packs.ts"));
    useRealBun(sb);
    const dev = await sb.run(["dev", "test"], { cwd: project });
    expect([dev.stdout, dev.stderr, dev.code]).toEqual(["", needsCheckout, 1]);
    await sb.run(["doctor", "check"], { cwd: project });
    expect(ran()).toBe("");
    // The folder itself given away, markers and all.
    giveAway(theirs, true);
    const again = await sb.run(["dev", "test"], { cwd: project });
    expect([again.stderr, again.code]).toEqual([needsCheckout, 1]);
    expect(ran()).toBe("");
  });

  test("the user's own checkout: dev and doctor run its scripts as ever", async () => {
    const mine = plant("mine");
    const project = sb.dir("mine/project");
    useRealBun(sb);
    const dev = await sb.run(["dev", "test"], { cwd: project });
    expect([dev.stderr, dev.code]).toEqual(["", 0]);
    await sb.run(["doctor", "check"], { cwd: project });
    expect(ran()).toBe("cli dev test\npacks\n");
    expect(fs.realpathSync(mine)).toBe(mine);
  });

  describe("the PATH shim", () => {
    const runShim = (args: string[], cwd: string) =>
      sb.run([shimPath(sb), ...args], { bin: onPath("bash"), cwd, env: { PATH: `${sb.bin}:${shimTools(sb)}` } });
    async function install(): Promise<void> {
      const r = await sb.run(["shell-command", "install"]);
      expect([r.stderr, r.code]).toEqual(["", 0]);
    }
    const notFound = `vorn: CLI not found at /src/cli/vorn.ts (set VORN_REPO_ROOT or reinstall via Omnibar)\n`;

    test("a planted native build at the top of a folder others may write is not run", async () => {
      const shared = checkout(sb, "shared");
      nativeBuild(sb, "shared", 'echo "owned $*"\n');
      fs.chmodSync(shared, 0o1777);
      await install();
      const r = await runShim(["instance", "list"], sb.dir("shared/project"));
      expect([r.stdout, r.stderr, r.code]).toEqual(["", notFound, 1]);
    });

    test("a planted marker that others may write is enough to pass the folder over", async () => {
      checkout(sb, "planted");
      nativeBuild(sb, "planted", 'echo "owned $*"\n');
      fs.chmodSync(sb.path("planted/tools/go.pin"), 0o666);
      await install();
      const r = await runShim(["instance", "list"], sb.dir("planted/project"));
      expect([r.stdout, r.stderr, r.code]).toEqual(["", notFound, 1]);
    });

    test.skipIf(!canChown)(rootOnly("a native build in another user's checkout is not run"), async () => {
      const theirs = checkout(sb, "theirs");
      nativeBuild(sb, "theirs", 'echo "owned $*"\n');
      giveAway(theirs, true);
      await install();
      const r = await runShim(["instance", "list"], sb.dir("theirs/project"));
      expect([r.stdout, r.stderr, r.code]).toEqual(["", notFound, 1]);
    });

    test("the user's own checkout: its native build runs as ever", async () => {
      const mine = checkout(sb, "mine");
      nativeBuild(sb, "mine", 'echo "native root=$VORN_REPO_ROOT args=$*"\n');
      await install();
      const r = await runShim(["instance", "list"], sb.dir("mine/project"));
      expect([r.stdout, r.stderr, r.code]).toEqual([`native root=${mine} args=instance list\n`, "", 0]);
    });
  });
});

describe("3. a socket planted by another user", () => {
  // The shared root: <TMPDIR>/vorn, sticky and open to all, as /tmp/vorn is on a shared machine.
  function sharedRoot(): { tmp: string; env: Record<string, string | undefined> } {
    const tmp = sharedDir("shared");
    sharedDir("shared/vorn");
    return { tmp, env: { XDG_RUNTIME_DIR: undefined, TMPDIR: tmp } };
  }

  test.skipIf(!canImpersonate)(rootOnly("its server is sent nothing: not by a scan, a read verb, --sock or --pid"), async () => {
    const { tmp, env } = sharedRoot();
    const project = sb.dir("work/project");
    sb.file("work/project/.env", "password=hunter2\n");
    const evil = await foreignSim(tmp, { workspace: project });
    expect(fs.statSync(evil.sock).uid).toBe(OTHER);

    const list = await sb.run(["instance", "list"], { env });
    expect(list.stdout).toBe("No running Vorn instances.\n");
    expect(list.stderr).toBe(`vorn: 1 unreachable instance dir(s): ${evil.pid} (unreachable) ${DASH} run vorn instance prune\n`);
    expect(list.code).toBe(0);

    const search = await sb.run(["search", "run", "password=hunter2"], { env, cwd: project });
    expect(search.code).toBe(1);
    const read = await sb.run(["file", "read", ".env"], { env, cwd: project });
    expect(read.code).toBe(1);
    const open = await sb.run(["file", "open", ".env"], { env, cwd: project });
    expect(open.code).toBe(1);
    const bySock = await sb.run(["file", "read", ".env", "--sock", evil.sock], { env, cwd: project });
    expect([bySock.stderr, bySock.code]).toEqual([`vorn: no healthy instance at ${evil.sock}\n`, 1]);
    const byPid = await sb.run(["file", "read", ".env", "--pid", String(evil.pid)], { env, cwd: project });
    expect([byPid.stderr, byPid.code]).toEqual([`vorn: no instance matches pid ${evil.pid}\n`, 1]);

    // The other user's server heard no request at all, not even who we are (vorn has exited, so
    // any request it made has been recorded).
    expect(evil.requests()).toEqual([]);
    // And its folder is not ours to delete.
    const prune = await sb.run(["instance", "prune"], { env });
    expect(prune.code).toBe(0);
    expect(fs.existsSync(evil.dir)).toBe(true);
  });

  test("the user's own instance in the same shared root answers as ever", async () => {
    const { tmp, env } = sharedRoot();
    const project = sb.dir("work/project");
    sb.file("work/project/.env", "password=hunter2\n");
    const mine = await sb.sim({ id: "mine", runtime: tmp, workspace: project });
    const list = await sb.run(["instance", "list"], { env });
    expect([list.stdout, list.stderr, list.code]).toEqual([instanceTable([mine], { workspace: () => project }) + "\n", "", 0]);
    mine.clearRequests();
    const read = await sb.run(["file", "read", ".env"], { env, cwd: project });
    expect(read.code).toBe(0);
    expect(mine.requests().map((q) => q.target)).toEqual(["/instance", "/read?path=.env"]);
  });
});

describe("4. the host log", () => {
  const trustHint = `${DASH} remove it, or set XDG_RUNTIME_DIR to a folder of your own`;

  /** server start --detach with the real Bun; nothing may have been started. */
  async function refusedStart(expected: string): Promise<void> {
    const root = hostCheckout(sb, "repo");
    useRealBun(sb);
    const r = await sb.run(["server", "start", "--detach"], { cwd: root });
    expect([r.stdout, r.stderr, r.code]).toEqual(["", expected, 1]);
    // No host came up: no instance folder was made.
    expect(sb.runtimeEntries().filter((n) => /^\d+$/.test(n))).toEqual([]);
  }

  test("a log folder others may write is refused before anything runs", async () => {
    const dir = sb.dir("runtime/vorn");
    fs.chmodSync(dir, 0o777);
    await refusedStart(`vorn server start: the log folder ${dir} cannot be trusted: writable by group or others ${trustHint}\n`);
    expect(modeOf(dir)).toBe(0o777);
  });

  test("a log folder that is a link is refused, and what it leads to is untouched", async () => {
    const elsewhere = sb.dir("home/somewhere");
    fs.chmodSync(elsewhere, 0o755);
    fs.symlinkSync(elsewhere, sb.runtimeRoot);
    await refusedStart(`vorn server start: the log folder ${sb.runtimeRoot} cannot be trusted: a symbolic link ${trustHint}\n`);
    expect(fs.readdirSync(elsewhere)).toEqual([]);
    expect(modeOf(elsewhere)).toBe(0o755);
  });

  test.skipIf(!canChown)(rootOnly("a log folder made beforehand by another user is refused"), async () => {
    const dir = sb.dir("runtime/vorn");
    fs.chmodSync(dir, 0o700);
    giveAway(dir);
    await refusedStart(`vorn server start: the log folder ${dir} cannot be trusted: owned by uid ${OTHER} ${trustHint}\n`);
  });

  test("predicted log names linked to ~/.bashrc in a folder others may write: refused, .bashrc untouched", async () => {
    const dir = sb.dir("runtime/vorn");
    fs.chmodSync(dir, 0o1777);
    const bashrc = sb.file("home/.bashrc", "alias ll='ls -l'\n");
    const now = Math.floor(Date.now() / 1000);
    for (let t = now; t < now + 60; t++) fs.symlinkSync(bashrc, path.join(dir, `server-${t}.log`));
    await refusedStart(`vorn server start: the log folder ${dir} cannot be trusted: writable by group or others ${trustHint}\n`);
    expect(fs.readFileSync(bashrc, "utf8")).toBe("alias ll='ls -l'\n");
  });

  test.skipIf(!canChown)(rootOnly("predicted log names linked by another user: refused, .bashrc untouched"), async () => {
    const dir = sb.dir("runtime/vorn");
    fs.chmodSync(dir, 0o700);
    const bashrc = sb.file("home/.bashrc", "alias ll='ls -l'\n");
    const now = Math.floor(Date.now() / 1000);
    for (let t = now; t < now + 60; t++) {
      const link = path.join(dir, `server-${t}.log`);
      fs.symlinkSync(bashrc, link);
      giveAway(link);
    }
    const root = hostCheckout(sb, "repo");
    useRealBun(sb);
    const r = await sb.run(["server", "start", "--detach"], { cwd: root });
    expect(r.stdout).toBe("");
    expect(r.stderr).toMatch(
      new RegExp(`^vorn server start: the log ${dir}/server-\\d+\\.log cannot be trusted: a symbolic link owned by uid ${OTHER} ${trustHint}\n$`),
    );
    expect(r.code).toBe(1);
    expect(fs.readFileSync(bashrc, "utf8")).toBe("alias ll='ls -l'\n");
    // The folder itself given away, links and all.
    giveAway(dir);
    const again = await sb.run(["server", "start", "--detach"], { cwd: root });
    expect([again.stderr, again.code]).toEqual([`vorn server start: the log folder ${dir} cannot be trusted: owned by uid ${OTHER} ${trustHint}\n`, 1]);
    expect(fs.readFileSync(bashrc, "utf8")).toBe("alias ll='ls -l'\n");
  });

  test("the user's own private log folder: the host starts and logs there as ever", async () => {
    const dir = sb.dir("runtime/vorn");
    fs.chmodSync(dir, 0o755);
    const root = hostCheckout(sb, "repo");
    useRealBun(sb);
    const r = await sb.run(["server", "start", "--detach"], { cwd: root });
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    const m = /^vorn server (\d+) \(headless\) on (\S+)\nlog (\S+)\n$/.exec(r.stdout)!;
    expect(m).not.toBeNull();
    expect(modeOf(m[3])).toBe(0o600);
    expect(fs.readFileSync(m[3], "utf8")).toBe(`ready ${m[1]} ${m[2]}\n`);
    expect(modeOf(dir)).toBe(0o755);
    const quit = await sb.run(["instance", "quit", "--pid", m[1]]);
    expect(quit.code).toBe(0);
  });
});

describe("5. server start --detach and a socket the host never bound", () => {
  /** A host that binds nothing: it puts a link to `sock` where its own socket belongs and waits. */
  function impostorHost(sock: string): string {
    return `import fs from "node:fs";
const dir = process.env.XDG_RUNTIME_DIR + "/vorn/" + process.pid;
fs.mkdirSync(dir, { recursive: true, mode: 0o700 });
fs.symlinkSync(${JSON.stringify(sock)}, dir + "/fs.sock");
setTimeout(() => process.exit(0), 60000);
`;
  }

  test("a socket served by another process is not reported", async () => {
    const impostor = await sb.sim({ id: "impostor", runtime: sb.dir("elsewhere") });
    const root = hostCheckout(sb, "repo", { headless: impostorHost(impostor.sock) });
    useRealBun(sb);
    const r = await sb.run(["server", "start", "--detach"], { cwd: root });
    const m = /^vorn server start: the socket (\S+) is not the host's \(pid (\d+)\): connect \S+: the server is pid (\d+), not pid (\d+) \u2014 see (\S+)\n$/.exec(
      r.stderr,
    );
    expect(m).not.toBeNull();
    const [, sock, host, server, expected] = m!;
    try {
      expect(sock).toBe(path.join(sb.runtimeRoot, host, "fs.sock"));
      expect(Number(server)).toBe(impostor.pid);
      expect(expected).toBe(host);
      expect(r.stdout).toBe("");
      expect(r.code).toBe(1);
      // It was asked for its health while the host was awaited, and nothing after that.
      expect(impostor.requests().map((q) => q.target)).toEqual(["/health"]);
    } finally {
      process.kill(Number(host), "SIGKILL");
    }
  });

  test("the host's own socket is reported as ever", async () => {
    const root = hostCheckout(sb, "repo");
    useRealBun(sb);
    const r = await sb.run(["server", "start", "--detach"], { cwd: root });
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    const m = /^vorn server (\d+) \(headless\) on (\S+)\n/.exec(r.stdout)!;
    expect(m[2]).toBe(path.join(sb.runtimeRoot, m[1], "fs.sock"));
    expect((await sb.run(["instance", "quit", "--pid", m[1]])).code).toBe(0);
  });
});

describe("6. text from an instance reaches the terminal inert", () => {
  const hostile = "w\u001b[2J\u001b]0;pwned\u0007\r\u009b1A";
  const shown = "w\\x1b[2J\\x1b]0;pwned\\x07\\x0d\\u009b1A";

  test("in tables, one-line messages and errors; JSON keeps the text as it came", async () => {
    const work = sb.dir("work/app");
    const s = await sb.sim({
      id: hostile,
      workspace: work,
      routes: [
        { method: "POST", path: "/focus", status: 500, json: { error: "\u001b[2K\rOpened /safe/place" } },
        { method: "POST", path: "/openFile", json: { ok: true, path: "\u001b[1A/safe/place", line: 1, col: 1 } },
      ],
    });
    const list = await sb.run(["instance", "list"]);
    expect(list.stdout).toBe(instanceTable([{ ...s, id: shown }], { workspace: () => work }) + "\n");
    expect(list.stdout).not.toContain("\u001b");
    const quiet = await sb.run(["instance", "list", "-q"]);
    expect(quiet.stdout).toBe(shown + "\n");

    const focus = await sb.run(["instance", "focus"]);
    expect(focus.stderr).toBe(
      `vorn instance focus [${shown}]: \\x1b[2K\\x0dOpened /safe/place\nvorn instance focus: 1 target(s) failed\n`,
    );
    expect(focus.code).toBe(1);

    sb.file("work/app/main.go", "package main\n");
    const open = await sb.run(["file", "open", "main.go"], { cwd: work });
    expect([open.stdout, open.stderr, open.code]).toEqual([`Opened \\x1b[1A/safe/place:1:1 on instance ${shown}\n`, "", 0]);

    const json = await sb.run(["-o", "json", "instance", "list"]);
    expect(JSON.parse(json.stdout).instances[0].id).toBe(hostile);
  });

  test("plain text is printed as ever", async () => {
    const work = sb.dir("work/app");
    const s = await sb.sim({ id: "w1", workspace: work });
    const list = await sb.run(["instance", "list"]);
    expect(list.stdout).toBe(instanceTable([s], { workspace: () => work }) + "\n");
  });
});

describe("7. remote ssh targets", () => {
  test("a target beginning with - is refused before anything runs, with or without ssh://", async () => {
    const root = hostCheckout(sb, "repo", { tunnel: `require("node:fs").writeFileSync(${JSON.stringify(sb.path("ran"))}, "x");\n` });
    useRealBun(sb);
    for (const args of [["--", "-oProxyCommand=id"], ["ssh://-oProxyCommand=id"], ["ssh://-oProxyCommand=id", "--no-window"]]) {
      const target = args.find((a) => a !== "--" && a !== "--no-window")!;
      const r = await sb.run(["remote", "ssh", ...args], { cwd: root });
      expect([r.stdout, r.stderr, r.code]).toEqual(["", `vorn remote ssh: not an ssh target: ${target} (want [user@]host[:path])\n`, 2]);
    }
    expect(fs.existsSync(sb.path("ran"))).toBe(false);
  });

  test("a host name with a dash inside reaches the runner as ever", async () => {
    const root = hostCheckout(sb, "repo", {
      tunnel: `require("node:fs").writeFileSync(${JSON.stringify(sb.path("ran"))}, process.argv.slice(2).join(" "));\n`,
    });
    useRealBun(sb);
    const r = await sb.run(["remote", "ssh", "dev@my-box:-x", "--no-window"], { cwd: root });
    expect(r.code).toBe(0);
    expect(fs.readFileSync(sb.path("ran"), "utf8")).toBe("dev@my-box:-x");
  });
});

describe("8. the checkout's dev-app record", () => {
  function devApp(root: string, pid: number, socketPath: string): void {
    sb.file(path.relative(sb.root, path.join(root, ".cache/vorn/dev-app.json")), JSON.stringify({ pid, socketPath }));
  }

  test("a socket path that climbs out of the runtime root is never dialled", async () => {
    const root = checkout(sb, "work/repo");
    const agentSock = path.join(sb.runtime, "agent.sock");
    const agent = await sb.sim({ id: "agent", runtime: sb.dir("elsewhere"), bindAt: agentSock });
    for (const sock of [`${sb.runtimeRoot}/../agent.sock`, `${sb.runtimeRoot}/1/../../agent.sock`]) {
      devApp(root, agent.pid, sock);
      const r = await sb.run(["workspace", "show"], { cwd: root });
      expect([r.stderr, r.code]).toEqual(["vorn workspace show: no running instances\n", 1]);
    }
    expect(agent.requests()).toEqual([]);
    expect(fs.existsSync(path.join(root, ".cache/vorn/dev-app.json"))).toBe(true);
  });

  test("the app's own socket in the runtime root is used as ever", async () => {
    const root = checkout(sb, "work/repo");
    const mine = await sb.sim({ id: "mine", vornRoot: root });
    devApp(root, mine.pid, mine.sock);
    const r = await sb.run(["workspace", "show"], { cwd: root });
    expect(r.code).toBe(0);
    expect(mine.requests().map((q) => q.target)).toEqual(["/instance", "/workspace"]);
  });
});
