// `vorn workspace open` against simulated instances: usage errors, choosing the instance (inside a
// checkout too), launching, and the replies.

import { describe, expect, test } from "bun:test";
import path from "node:path";
import type { Sandbox } from "./harness";
import { byPid, checkout, exists, expectSent, instanceTable, only, requestLog, useSandbox } from "./support";

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

const onLinux = process.platform === "linux";

describe("workspace open: usage errors", () => {
  test("no directory", async () => {
    const a = await sb.sim({ id: "a" });
    const r = await sb.run(["workspace", "open"]);
    expect(r.stderr).toBe("vorn workspace open: missing directory\n");
    expect(r.stdout).toBe("");
    expect(r.code).toBe(2);
    expect(requestLog(a)).toEqual([]);
  });

  test("--all is rejected before any socket is touched", async () => {
    const a = await sb.sim({ id: "a" });
    for (const flag of ["-a", "--all"]) {
      const r = await sb.run(["workspace", "open", ".", flag]);
      expect(r.stderr).toBe("vorn workspace open: --all is rejected (use -i ID, --new, or a loop)\n");
      expect(r.stdout).toBe("");
      expect(r.code).toBe(2);
    }
    expect(requestLog(a)).toEqual([]);
  });

  test("--all is rejected even when no instance runs, in JSON too", async () => {
    const r = await sb.run(["workspace", "open", ".", "-a", "-o", "json"]);
    expect(r.stderr).toBe(
      JSON.stringify({ error: "vorn workspace open: --all is rejected (use -i ID, --new, or a loop)", code: 2 }) + "\n",
    );
    expect(r.code).toBe(2);
  });

  test("a file is not a directory, and the hint names file open", async () => {
    sb.file("work/somefile.go", "package main\n");
    const a = await sb.sim({ id: "a" });
    const r = await sb.run(["workspace", "open", "somefile.go"]);
    expect(r.stderr).toBe("vorn workspace open: not a directory: somefile.go (files: vorn file open)\n");
    expect(r.stdout).toBe("");
    expect(r.code).toBe(2);
    expect(requestLog(a)).toEqual([]);
  });

  test("a missing folder is reported as typed", async () => {
    const r = await sb.run(["workspace", "open", "../nowhere/x"]);
    expect(r.stderr).toBe("vorn workspace open: not a directory: ../nowhere/x (files: vorn file open)\n");
    expect(r.code).toBe(2);
  });

  test("a second positional word is refused", async () => {
    sb.dir("work/x");
    sb.dir("work/y");
    const a = await sb.sim({ id: "a" });
    const r = await sb.run(["workspace", "open", "x", "y"]);
    expect(r.stderr).toBe("vorn workspace open: unexpected argument 'y'\n");
    expect(r.code).toBe(2);
    expect(requestLog(a)).toEqual([]);
  });
});

describe("workspace open: choosing the instance", () => {
  test("the only instance opens the folder, then gets focus", async () => {
    const app = sb.dir("work/app");
    const a = await sb.sim({ id: "a" });
    const r = await sb.run(["workspace", "open", "app"]);
    expect(r.stdout).toBe(`Opened ${app} on instance a\n`);
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expect(requestLog(a)).toEqual(["GET /instance", "POST /workspace", "POST /focus"]);
    const body = JSON.stringify({ root: app });
    expectSent(a, "POST", "/workspace", body);
    expectSent(a, "POST", "/focus");
    expect((await a.state()).workspace).toBe(app);
  });

  test("relative, dotted and absolute paths are sent absolute and normalised", async () => {
    const app = sb.dir("work/app");
    sb.dir("work/app/sub");
    const a = await sb.sim({ id: "a" });
    const cases: [string[], string | undefined][] = [
      [["workspace", "open", "."], sb.work],
      [["workspace", "open", "app/sub/.."], app],
      [["workspace", "open", app + "//sub/"], app + "/sub"],
      [["workspace", "open", "../" + path.basename(sb.work) + "/./app"], app],
    ];
    for (const [args, expected] of cases) {
      a.clearRequests();
      const r = await sb.run(args);
      expect(r.stdout).toBe(`Opened ${expected} on instance a\n`);
      expect(r.code).toBe(0);
      expect(only(a, "POST", "/workspace").bodyText).toBe(JSON.stringify({ root: expected }));
    }
  });

  test("a symbolic link is opened under its own name", async () => {
    const real = sb.dir("work/real");
    const link = sb.symlink(real, "work/link");
    const a = await sb.sim({ id: "a" });
    const r = await sb.run(["workspace", "open", "link"]);
    expect(r.stdout).toBe(`Opened ${link} on instance a\n`);
    expect(only(a, "POST", "/workspace").bodyText).toBe(JSON.stringify({ root: link }));
  });

  test("a folder with a non-ASCII name goes as UTF-8 in the body", async () => {
    const dir = sb.dir("work/Café ☕");
    const a = await sb.sim({ id: "a" });
    const r = await sb.run(["workspace", "open", "Café ☕"]);
    expect(r.stdout).toBe(`Opened ${dir} on instance a\n`);
    const body = `{"root":"${dir}"}`;
    expectSent(a, "POST", "/workspace", body);
  });

  test("-i picks one of several; the others get no request but the scan", async () => {
    const app = sb.dir("work/app");
    const [a, b] = await sb.sims(2, (i) => ({ id: ["a", "b"][i] }));
    const r = await sb.run(["workspace", "open", "app", "-i", "b"]);
    expect(r.stdout).toBe(`Opened ${app} on instance b\n`);
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expect(requestLog(a)).toEqual(["GET /instance"]);
    expect(requestLog(b)).toEqual(["GET /instance", "POST /workspace", "POST /focus"]);
  });

  test("an id prefix matching several opens in the first by pid", async () => {
    const app = sb.dir("work/app");
    const sims = byPid(await sb.sims(2, (i) => ({ id: ["abc", "abd"][i] })));
    const r = await sb.run(["workspace", "open", "app", "-i", "ab"]);
    expect(r.stdout).toBe(`Opened ${app} on instance ${sims[0].id}\n`);
    expect(r.code).toBe(0);
    expect(requestLog(sims[1])).toEqual(["GET /instance"]);
  });

  test("--pid and --sock select too", async () => {
    const app = sb.dir("work/app");
    const [a, b] = await sb.sims(2, (i) => ({ id: ["a", "b"][i] }));
    let r = await sb.run(["workspace", "open", "app", "--pid", String(a.pid)]);
    expect(r.stdout).toBe(`Opened ${app} on instance a\n`);
    expect(r.code).toBe(0);
    r = await sb.run(["workspace", "open", "app", "--sock", b.sock]);
    expect(r.stdout).toBe(`Opened ${app} on instance b\n`);
    expect(r.code).toBe(0);
    // --sock talks to that socket only: no scan of the others.
    expect(requestLog(a)).toEqual(["GET /instance", "POST /workspace", "POST /focus"]);
    expect(requestLog(b)).toEqual(["GET /instance", "GET /instance", "POST /workspace", "POST /focus"]);
  });

  test("a selector that matches nothing, and a dead socket", async () => {
    sb.dir("work/app");
    await sb.sim({ id: "a" });
    let r = await sb.run(["workspace", "open", "app", "-i", "zz"]);
    expect(r.stderr).toBe("vorn: no instance matches zz\n");
    expect(r.stdout).toBe("");
    expect(r.code).toBe(1);
    r = await sb.run(["workspace", "open", "app", "--pid", "999999999"]);
    expect(r.stderr).toBe("vorn: no instance matches pid 999999999\n");
    expect(r.code).toBe(1);
    const dead = sb.path("runtime/nothing.sock");
    r = await sb.run(["workspace", "open", "app", "--sock", dead]);
    expect(r.stderr).toBe(`vorn: no healthy instance at ${dead}\n`);
    expect(r.code).toBe(1);
  });

  test("several instances without a selector: exit 2 with the instance table", async () => {
    sb.dir("work/app");
    const wsA = sb.dir("work/one");
    const sims = byPid(await sb.sims(2, (i) => ({ id: ["a", "b"][i], workspace: i === 0 ? wsA : "" })));
    const r = await sb.run(["workspace", "open", "app"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(instanceTable(sims, { workspace: (s) => (s.id === "a" ? wsA : "(none)") }) + "\nvorn workspace open: 2 instances running \u2014 pass -i ID or --new\n");
    expect(r.code).toBe(2);
    for (const s of sims) expect(requestLog(s)).toEqual(["GET /instance"]);
  });

  test("the ambiguity in JSON lists the ids", async () => {
    sb.dir("work/app");
    const sims = byPid(await sb.sims(3, (i) => ({ id: ["a", "b", "c"][i] })));
    const r = await sb.run(["-o", "json", "workspace", "open", "app"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(
      JSON.stringify({
        error: "vorn workspace open: 3 instances running \u2014 pass -i ID or --new",
        instances: sims.map((s) => s.id),
        code: 2,
      }) + "\n",
    );
    expect(r.code).toBe(2);
  });
});

describe("workspace open: inside a checkout", () => {
  test("the checkout's dev app wins even when other instances run", async () => {
    const root = checkout(sb, "work/repo");
    const [a, dev, b] = await sb.sims(3, (i) => ({ id: ["a", "dev", "b"][i] }));
    sb.file("work/repo/.cache/vorn/dev-app.json", JSON.stringify({ pid: dev.pid, socketPath: dev.sock }));
    const r = await sb.run(["workspace", "open", "."], { cwd: root });
    expect(r.stdout).toBe(`Opened ${root} on instance dev\n`);
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expect(requestLog(dev)).toEqual(["GET /instance", "POST /workspace", "POST /focus"]);
    expect(requestLog(a)).toEqual([]);
    expect(requestLog(b)).toEqual([]);
  });

  test("without a dev app, the one instance started from the checkout is used", async () => {
    const root = checkout(sb, "work/repo");
    const [a, mine] = await sb.sims(2, (i) => ({ id: ["a", "mine"][i], vornRoot: i === 1 ? root : "/opt/vorn" }));
    const r = await sb.run(["workspace", "open", "."], { cwd: root });
    expect(r.stdout).toBe(`Opened ${root} on instance mine\n`);
    expect(r.code).toBe(0);
    expect(requestLog(a)).toEqual(["GET /instance"]);
    expect(requestLog(mine)).toEqual(["GET /instance", "POST /workspace", "POST /focus"]);
  });

  test("VORN_PID counts an instance as the checkout's", async () => {
    const root = checkout(sb, "work/repo");
    const [a, b] = await sb.sims(2, (i) => ({ id: ["a", "b"][i] }));
    const r = await sb.run(["workspace", "open", "."], { cwd: root, env: { VORN_PID: String(b.pid) } });
    expect(r.stdout).toBe(`Opened ${root} on instance b\n`);
    expect(r.code).toBe(0);
    expect(requestLog(a)).toEqual(["GET /instance"]);
  });

  test("no instance of this checkout: exit 2 listing every instance", async () => {
    const root = checkout(sb, "work/repo");
    const sims = byPid(await sb.sims(2, (i) => ({ id: ["a", "b"][i], vornRoot: "/opt/vorn" })));
    const r = await sb.run(["workspace", "open", "."], { cwd: root });
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(
      instanceTable(sims) +
        "\nvorn workspace open: no app for this checkout \u2014 vorn dev app start, or pass -i ID (see vorn instance list)\n",
    );
    expect(r.code).toBe(2);
  });

  test("two instances of this checkout are ambiguous", async () => {
    const root = checkout(sb, "work/repo");
    const sims = byPid(await sb.sims(2, (i) => ({ id: ["a", "b"][i], vornRoot: root })));
    const r = await sb.run(["workspace", "open", "."], { cwd: root });
    expect(r.stderr).toBe(instanceTable(sims) + "\nvorn workspace open: 2 instances running \u2014 pass -i ID or --new\n");
    expect(r.code).toBe(2);
  });
});

describe("workspace open: launching", () => {
  test.skipIf(!onLinux)("no instance: fails at once with the launch message and runs no program named open", async () => {
    const marker = sb.path("open-ran");
    sb.stub("open", `echo ran > "${marker}"\n`);
    sb.dir("work/app");
    const r = await sb.run(["workspace", "open", "app"], { timeoutMs: 10000 });
    expect(r.timedOut).toBe(false);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(
      "vorn workspace open: no app can be launched on this system (the Vorn app runs on macOS) \u2014 start an instance with vorn server start <dir>\n",
    );
    expect(r.code).toBe(1);
    expect(exists(marker)).toBe(false);
  });

  test.skipIf(!onLinux)("--new never reuses a running instance", async () => {
    const marker = sb.path("open-ran");
    sb.stub("open", `echo ran > "${marker}"\n`);
    sb.dir("work/app");
    const sims = await sb.sims(2, (i) => ({ id: ["a", "b"][i] }));
    const r = await sb.run(["workspace", "open", "app", "--new"], { timeoutMs: 10000 });
    expect(r.timedOut).toBe(false);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(
      "vorn workspace open: no app can be launched on this system (the Vorn app runs on macOS) \u2014 start an instance with vorn server start <dir>\n",
    );
    expect(r.code).toBe(1);
    for (const s of sims) expect(requestLog(s)).toEqual(["GET /instance"]);
    expect(exists(marker)).toBe(false);
  });

  test.skipIf(!onLinux)("the launch error comes out as JSON with -o json", async () => {
    sb.dir("work/app");
    const r = await sb.run(["workspace", "open", "app", "-o", "json"], { timeoutMs: 10000 });
    expect(r.stderr).toBe(
      JSON.stringify({
        error:
          "vorn workspace open: no app can be launched on this system (the Vorn app runs on macOS) \u2014 start an instance with vorn server start <dir>",
        code: 1,
      }) + "\n",
    );
    expect(r.code).toBe(1);
  });

  test("a selector wins over --new: nothing is launched", async () => {
    const app = sb.dir("work/app");
    const a = await sb.sim({ id: "a" });
    const r = await sb.run(["workspace", "open", "app", "--new", "-i", "a"]);
    expect(r.stdout).toBe(`Opened ${app} on instance a\n`);
    expect(r.code).toBe(0);
    expect(requestLog(a)).toEqual(["GET /instance", "POST /workspace", "POST /focus"]);
  });
});

describe("workspace open: replies", () => {
  test("the root the instance reports is printed", async () => {
    sb.dir("work/app");
    const a = await sb.sim({
      id: "a",
      routes: [{ method: "POST", path: "/workspace", json: { ok: true, root: "/elsewhere/app" } }],
    });
    const r = await sb.run(["workspace", "open", "app"]);
    expect(r.stdout).toBe("Opened /elsewhere/app on instance a\n");
    expect(r.code).toBe(0);
  });

  test("a reply without a string root prints the folder sent; a missing ok counts as success", async () => {
    const app = sb.dir("work/app");
    const a = await sb.sim({ id: "a", routes: [{ method: "POST", path: "/workspace", json: { root: 7 } }] });
    const r = await sb.run(["workspace", "open", "app"]);
    expect(r.stdout).toBe(`Opened ${app} on instance a\n`);
    expect(r.code).toBe(0);
    expect(requestLog(a)).toEqual(["GET /instance", "POST /workspace", "POST /focus"]);
  });

  test("a failing /focus is ignored", async () => {
    const app = sb.dir("work/app");
    const a = await sb.sim({ id: "a", routes: [{ method: "POST", path: "/focus", action: "close" }] });
    const r = await sb.run(["workspace", "open", "app"]);
    expect(r.stdout).toBe(`Opened ${app} on instance a\n`);
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
  });

  test("ok false with an error: that error, exit 1, no focus", async () => {
    sb.dir("work/app");
    const a = await sb.sim({
      id: "a",
      routes: [{ method: "POST", path: "/workspace", json: { ok: false, error: "folder is not readable" } }],
    });
    const r = await sb.run(["workspace", "open", "app"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("vorn: folder is not readable\n");
    expect(r.code).toBe(1);
    expect(requestLog(a)).toEqual(["GET /instance", "POST /workspace"]);
  });

  test("an error status without an error text names the instance and status", async () => {
    sb.dir("work/app");
    await sb.sim({ id: "a", routes: [{ method: "POST", path: "/workspace", status: 503, json: { error: 42 } }] });
    const r = await sb.run(["workspace", "open", "app"]);
    expect(r.stderr).toBe("vorn: open failed on a (503)\n");
    expect(r.code).toBe(1);
  });

  test("ok false alone, with status 200", async () => {
    sb.dir("work/app");
    await sb.sim({ id: "a", routes: [{ method: "POST", path: "/workspace", json: { ok: false } }] });
    const r = await sb.run(["workspace", "open", "app"]);
    expect(r.stderr).toBe("vorn: open failed on a (200)\n");
    expect(r.code).toBe(1);
  });

  test("a reply that is not JSON", async () => {
    sb.dir("work/app");
    await sb.sim({ id: "a", routes: [{ method: "POST", path: "/workspace", status: 500, body: "boom" }] });
    const r = await sb.run(["workspace", "open", "app"]);
    expect(r.stderr).toBe("vorn: HTTP 500: not JSON (boom)\n");
    expect(r.code).toBe(1);
  });

  test("a connection closed without a reply is a transport failure", async () => {
    sb.dir("work/app");
    await sb.sim({ id: "a", routes: [{ method: "POST", path: "/workspace", action: "close" }] });
    const r = await sb.run(["workspace", "open", "app"]);
    expect(r.stderr).toBe("vorn: malformed HTTP reply\n");
    expect(r.code).toBe(1);
  });
});
