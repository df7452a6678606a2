// `vorn remote ssh`: the target and arguments are checked before anything runs; then the CLI
// becomes the remote session runner of the app or checkout (where no window can be opened,
// that is also what happens without --no-window). A probe in Bun's place shows what ran.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import type { Sandbox } from "./harness";
import {
  endHostsAfterEach,
  envWithoutProbe,
  expectDefaultSigpipe,
  fakeApp,
  hostCheckout,
  probedPids,
  probeEnv,
  probeRecord,
  SOURCE,
  useProbe,
  useRealBun,
} from "./hosts";
import { DASH, useSandbox } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));
endHostsAfterEach();

const windowsHere = process.platform === "darwin";
const noRunner = `vorn remote ssh: no remote session runner ${DASH} run the vorn inside Vorn.app, from a Vorn checkout, or set VORN_APP\n`;

/** Runs vorn remote ssh with the probe as bun; the one runner start it recorded, if any. */
async function runRemote(args: string[], opts: { cwd?: string; env?: Record<string, string | undefined> } = {}) {
  fs.rmSync(sb.path("probe"), { recursive: true, force: true });
  const r = await sb.run(["remote", "ssh", ...args], { cwd: opts.cwd, env: { ...probeEnv(sb), ...opts.env } });
  const pids = probedPids(sb);
  expect(pids.length).toBeLessThanOrEqual(1);
  return { r, seen: pids.length ? probeRecord(sb, pids[0]) : undefined };
}

describe("remote ssh targets", () => {
  test("[user@]host[:path] and ssh:// targets reach the runner as typed", async () => {
    const root = hostCheckout(sb, "repo");
    useProbe(sb);
    for (const target of ["dev@box:~/src", "box", "ssh://box/srv", "box:", "u@10.0.0.7:/srv/my-app"]) {
      const { r, seen } = await runRemote([target, "--no-window"], { cwd: root });
      expect(r.stderr).toBe("");
      expect(r.code).toBe(0);
      expect(seen!.argv).toEqual([path.join(sb.bin, "bun"), `${root}/${SOURCE.tunnel}`, target]);
    }
  });

  test("bare paths, missing hosts, blanks and empty targets fail with exit 2 before anything runs", async () => {
    const root = hostCheckout(sb, "repo");
    useProbe(sb);
    for (const target of ["/srv/app", ":path", "@box", "my box", "box\tname", "box\n", "", "ssh://", "ssh:///srv", " box"]) {
      for (const window of [[], ["--no-window"]]) {
        const { r, seen } = await runRemote([target, ...window], { cwd: root });
        expect(r.stdout).toBe("");
        expect(r.stderr).toBe(`vorn remote ssh: not an ssh target: ${target} (want [user@]host[:path])\n`);
        expect(r.code).toBe(2);
        expect(seen).toBeUndefined();
      }
    }
  });

  test("no target, or a second one, fails with exit 2 before anything runs", async () => {
    const root = hostCheckout(sb, "repo");
    useProbe(sb);
    const missing = await runRemote(["--no-window"], { cwd: root });
    expect(missing.r.stderr).toBe("vorn remote ssh: missing target ([user@]host[:path])\n");
    expect(missing.r.code).toBe(2);
    expect(missing.seen).toBeUndefined();
    for (const window of [[], ["--no-window"]]) {
      const extra = await runRemote(["box", "extra", ...window], { cwd: root });
      expect(extra.r.stdout).toBe("");
      expect(extra.r.stderr).toBe("vorn remote ssh: unexpected argument extra\n");
      expect(extra.r.code).toBe(2);
      expect(extra.seen).toBeUndefined();
    }
    const json = await runRemote(["-o", "json"], { cwd: root });
    expect(json.r.stderr).toBe('{"error":"vorn remote ssh: missing target ([user@]host[:path])","code":2}\n');
    expect(json.r.code).toBe(2);
  });
});

describe("remote ssh --no-window", () => {
  test("the checkout's runner, run in the checkout with SIGPIPE at its default", async () => {
    const root = hostCheckout(sb, "repo");
    const sub = sb.dir("repo/pkg");
    useProbe(sb);
    const env = { VORN_EDITION: "markdown", VORN_REPO_ROOT: root };
    const { r, seen } = await runRemote(["dev@box:~/src", "--no-window"], { cwd: sub, env });
    expect(r.code).toBe(0);
    // No edition condition for the runner, and nothing added to or taken from the environment.
    expect(seen!.argv).toEqual([path.join(sb.bin, "bun"), `${root}/${SOURCE.tunnel}`, "dev@box:~/src"]);
    expect(envWithoutProbe(seen!)).toEqual(sb.env(env));
    expect(seen!.cwd).toBe(root);
    expectDefaultSigpipe(seen!);
  });

  test("--ssh-config is made absolute from the current directory, odd characters and all", async () => {
    const root = hostCheckout(sb, "repo");
    useProbe(sb);
    const cases: [string, string][] = [
      ["./cfg", `${root}/cfg`],
      ["../configs/ssh config", `${sb.path("configs")}/ssh config`],
      [`conf/'q"uote;$(x)*?\\`, `${root}/conf/'q"uote;$(x)*?\\`],
      ["/etc//ssh/./cfg/", "/etc/ssh/cfg"],
      ["-F", `${root}/-F`],
      ["über/ä b", `${root}/über/ä b`],
    ];
    for (const [given, absolute] of cases) {
      const { r, seen } = await runRemote(["box", "--no-window", "--ssh-config", given], { cwd: root });
      expect(r.stderr).toBe("");
      expect(r.code).toBe(0);
      expect(seen!.argv).toEqual([path.join(sb.bin, "bun"), `${root}/${SOURCE.tunnel}`, "box", "--ssh-config", absolute]);
    }
    // An empty file name is no config at all.
    const { seen } = await runRemote(["box", "--no-window", "--ssh-config="], { cwd: root });
    expect(seen!.argv).toEqual([path.join(sb.bin, "bun"), `${root}/${SOURCE.tunnel}`, "box"]);
  });

  test("-o json asks the runner for JSON, last", async () => {
    const root = hostCheckout(sb, "repo");
    useProbe(sb);
    const { seen } = await runRemote(["box", "--no-window", "-o", "json", "--ssh-config", "cfg"], { cwd: root });
    expect(seen!.argv).toEqual([path.join(sb.bin, "bun"), `${root}/${SOURCE.tunnel}`, "box", "--ssh-config", `${root}/cfg`, "--json"]);
    const { seen: hoisted } = await runRemote(["-o", "json", "box", "--no-window"], { cwd: root });
    expect(hoisted!.argv.at(-1)).toBe("--json");
  });

  test("an app's runner: its own Bun, in its script folder, without VORN_REPO_ROOT", async () => {
    const app = fakeApp(sb, "x/Vorn.app");
    const root = hostCheckout(sb, "repo");
    const env = { ...probeEnv(sb), VORN_REPO_ROOT: root, VORN_EDITION: "markdown" };
    const r = await sb.run(["remote", "ssh", "ssh://box/srv", "--no-window"], { bin: app.cli, cwd: root, env });
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    const seen = probeRecord(sb, probedPids(sb)[0]);
    expect(seen.argv).toEqual([app.bun, `${app.appDir}/bun/tunnel-main.js`, "ssh://box/srv"]);
    const { VORN_REPO_ROOT: _gone, ...rest } = sb.env({ VORN_EDITION: "markdown" });
    expect(envWithoutProbe(seen)).toEqual(rest);
    expect(seen.cwd).toBe(app.appDir);
    expectDefaultSigpipe(seen);
  });

  test("the runner takes over the terminal and its exit status is vorn's", async () => {
    const root = hostCheckout(sb, "repo", {
      tunnel: 'console.log("runner " + process.argv.slice(2).join(" ") + " in " + process.cwd()); process.exit(4);\n',
    });
    useRealBun(sb);
    const r = await sb.run(["remote", "ssh", "box:/srv", "--no-window", "-o", "json"], { cwd: sb.work, env: { VORN_REPO_ROOT: root } });
    expect(r.stdout).toBe(`runner box:/srv --json in ${root}\n`);
    expect(r.stderr).toBe("");
    expect(r.code).toBe(4);
  });

  test("no runner anywhere", async () => {
    useProbe(sb);
    const { r, seen } = await runRemote(["box", "--no-window"], { env: { VORN_APP: sb.path("missing.app") } });
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(noRunner);
    expect(r.code).toBe(1);
    expect(seen).toBeUndefined();
  });

  test("without bun on PATH it prints the Bun hint and exits 127", async () => {
    const root = hostCheckout(sb, "repo");
    const r = await sb.run(["remote", "ssh", "box", "--no-window"], { cwd: root });
    expect(r.stderr).toBe(`vorn: bun not on PATH ${DASH} run \`direnv allow\`, or install Bun (https://bun.sh puts it in ~/.bun/bin)\n`);
    expect(r.code).toBe(127);
  });
});

describe("remote ssh without --no-window", () => {
  test.skipIf(windowsHere)("where no window can be opened, the runner runs in the foreground", async () => {
    const root = hostCheckout(sb, "repo");
    useProbe(sb);
    const { r, seen } = await runRemote(["dev@box:~/src", "--ssh-config", "./cfg"], { cwd: root });
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expect(seen!.argv).toEqual([path.join(sb.bin, "bun"), `${root}/${SOURCE.tunnel}`, "dev@box:~/src", "--ssh-config", `${root}/cfg`]);
    // No window was asked for, so nothing is handed over through the environment.
    expect(seen!.env.VORN_REMOTE_SSH).toBeUndefined();
    expect(seen!.env.VORN_SSH_CONFIG).toBeUndefined();
  });

  test.skipIf(windowsHere)("and without a runner it says so", async () => {
    useProbe(sb);
    const { r, seen } = await runRemote(["box"]);
    expect(r.stderr).toBe(noRunner);
    expect(r.code).toBe(1);
    expect(seen).toBeUndefined();
  });
});
