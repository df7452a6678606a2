// The end-to-end harness itself: the private environment of a run, the sandbox's file helpers,
// and its cleanup.

import { describe, expect, test } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import { sandbox, type Sandbox } from "./harness";
import { exists, useSandbox } from "./support";

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

describe("harness", () => {
  test("run uses only the private environment", async () => {
    const r = await sb.run([], { bin: "/usr/bin/env" });
    expect(r.code).toBe(0);
    expect(r.stdout.trim().split("\n").sort()).toEqual(
      [`HOME=${sb.home}`, `PATH=${sb.bin}`, `TMPDIR=${sb.tmp}`, `XDG_RUNTIME_DIR=${sb.runtime}`].sort(),
    );
    const r2 = await sb.run([], { bin: "/usr/bin/env", env: { XDG_RUNTIME_DIR: undefined, VORN_PID: "7" } });
    expect(r2.stdout).not.toContain("XDG_RUNTIME_DIR");
    expect(r2.stdout).toContain("VORN_PID=7\n");
  });

  test("run passes stdin, cwd, exit status and stops a hung program", async () => {
    const cat = await sb.run([], { bin: "/bin/cat", stdin: "in\n" });
    expect([cat.stdout, cat.code]).toEqual(["in\n", 0]);
    const dir = sb.dir("work/sub");
    const pwd = await sb.run(["-c", "pwd; echo err >&2; exit 3"], { bin: "/bin/sh", cwd: dir });
    expect([pwd.stdout, pwd.stderr, pwd.code]).toEqual([dir + "\n", "err\n", 3]);
    const hung = await sb.run(["30"], { bin: "/bin/sleep", timeoutMs: 200 });
    expect(hung.timedOut).toBe(true);
    expect(hung.signal).toBe("SIGKILL");
  });

  test("run without VORN_BIN or bin explains itself", async () => {
    const saved = process.env.VORN_BIN;
    delete process.env.VORN_BIN;
    try {
      await expect(sb.run(["version"])).rejects.toThrow("VORN_BIN is not set");
    } finally {
      if (saved !== undefined) process.env.VORN_BIN = saved;
    }
  });

  test("stubs on PATH are found", async () => {
    sb.stub("open", 'echo "open $*"\n');
    const r = await sb.run(["-c", "open -a X"], { bin: "/bin/sh" });
    expect(r.stdout).toBe("open -a X\n");
  });

  test("deadPidDir names an exited process", async () => {
    const d = await sb.deadPidDir({ sockFile: true });
    expect(() => process.kill(d.pid, 0)).toThrow();
    expect(fs.statSync(d.dir).isDirectory()).toBe(true);
    expect(fs.lstatSync(d.sock).isFile()).toBe(true);
    expect(path.dirname(d.dir)).toBe(sb.runtimeRoot);
  });

  test("file helpers stay inside the sandbox; age sets the mtime back", () => {
    const f = sb.file("work/x/y.txt", "hi");
    expect(fs.readFileSync(f, "utf8")).toBe("hi");
    expect(() => sb.file("../escape.txt", "no")).toThrow("outside the sandbox");
    const l = sb.symlink(f, "work/link");
    expect(fs.realpathSync(l)).toBe(f);
    sb.age(f, 11000);
    expect(Date.now() - fs.statSync(f).mtimeMs).toBeGreaterThan(10500);
  });

  test("cleanup stops every simulator and removes the root", async () => {
    const other = await sandbox();
    const sims = await other.sims(3);
    await other.cleanup();
    for (const s of sims) expect(s.alive()).toBe(false);
    expect(exists(other.root)).toBe(false);
  });
});
