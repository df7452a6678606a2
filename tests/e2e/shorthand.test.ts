// `vorn <dir>` and `vorn <file>[:line[:col]]`: the path shorthand for workspace open and file open.

import { describe, expect, test } from "bun:test";
import path from "node:path";
import type { Sandbox } from "./harness";
import { DASH, expectSent, requestLog, useSandbox } from "./support";

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

describe("a directory becomes workspace open", () => {
  test("vorn . opens the current directory in the only instance", async () => {
    const a = await sb.sim({ id: "a" });
    const r = await sb.run(["."]);
    expect(r.stdout).toBe(`Opened ${sb.work} on instance a\n`);
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expect(requestLog(a)).toEqual(["GET /instance", "POST /workspace", "POST /focus"]);
    expectSent(a, "POST", "/workspace", JSON.stringify({ root: sb.work }));
  });

  test("vorn . -i abc opens it in abc, not in its prefix sibling", async () => {
    const [abc, abcd] = await sb.sims(2, (i) => ({ id: ["abc", "abcd"][i] }));
    const r = await sb.run([".", "-i", "abc"]);
    expect(r.stdout).toBe(`Opened ${sb.work} on instance abc\n`);
    expect(r.code).toBe(0);
    expectSent(abc, "POST", "/workspace", JSON.stringify({ root: sb.work }));
    expect(requestLog(abcd)).toEqual(["GET /instance"]);
  });

  test("relative, parent and absolute folders", async () => {
    const app = sb.dir("work/app");
    const other = sb.dir("other");
    const a = await sb.sim({ id: "a" });
    for (const [word, expected] of [
      ["app", app],
      ["../other", other],
      [other + "/", other],
      ["app/../app/.", app],
    ]) {
      a.clearRequests();
      const r = await sb.run([word]);
      expect(r.stdout).toBe(`Opened ${expected} on instance a\n`);
      expect(r.code).toBe(0);
      expectSent(a, "POST", "/workspace", JSON.stringify({ root: expected }));
    }
  });

  test("a symbolic link to a folder opens the link's path", async () => {
    const real = sb.dir("work/real");
    const link = sb.symlink(real, "work/link");
    const a = await sb.sim({ id: "a" });
    const r = await sb.run(["link"]);
    expect(r.stdout).toBe(`Opened ${link} on instance a\n`);
    expectSent(a, "POST", "/workspace", JSON.stringify({ root: link }));
  });

  test("global flags after the folder are kept: --new with several instances", async () => {
    const sims = await sb.sims(2, (i) => ({ id: ["a", "b"][i] }));
    const r = await sb.run([".", "-o", "json"]);
    expect(r.stderr).toBe(
      JSON.stringify({
        error: `vorn workspace open: 2 instances running ${DASH} pass -i ID or --new`,
        instances: [...sims].sort((x, y) => x.pid - y.pid).map((s) => s.id),
        code: 2,
      }) + "\n",
    );
    expect(r.code).toBe(2);
  });

  test("a folder named like a noun is taken as the noun", async () => {
    sb.dir("work/test");
    const a = await sb.sim({ id: "a" });
    const help = await sb.run(["help", "test"]);
    expect(help.code).toBe(0);
    const r = await sb.run(["test"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(help.stdout + "vorn test: missing verb (run, rerun, cancel, status)\n");
    expect(r.code).toBe(2);
    // Spelled as a path it is the folder.
    const dotted = await sb.run(["./test"]);
    expect(dotted.stdout).toBe(`Opened ${path.join(sb.work, "test")} on instance a\n`);
    expect(dotted.code).toBe(0);
  });

  test("two positional words are no shorthand", async () => {
    const a = await sb.sim({ id: "a" });
    const r = await sb.run([".", "extra"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("vorn: unknown command '.' (vorn help)\n");
    expect(r.code).toBe(2);
    expect(requestLog(a)).toEqual([]);
  });
});

describe("a file becomes file open", () => {
  test("main.go:12:5 in exactly one workspace", async () => {
    const file = sb.file("work/main.go", "package main\n");
    const a = await sb.sim({ id: "a", workspace: sb.work });
    const r = await sb.run(["main.go:12:5"]);
    expect(r.stdout).toBe(`Opened ${file}:12:5 on instance a\n`);
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expectSent(a, "POST", "/openFile", `{"path":"${file}","line":12,"col":5}`);
  });

  test("an absolute file and a file whose name holds a colon", async () => {
    const plain = sb.file("work/src/main.go", "");
    const odd = sb.file("work/x:7", "");
    const a = await sb.sim({ id: "a", workspace: sb.work });
    let r = await sb.run([plain + ":3"], { cwd: sb.home });
    expect(r.stdout).toBe(`Opened ${plain}:3:undefined on instance a\n`);
    expect(r.code).toBe(0);
    a.clearRequests();
    r = await sb.run(["x:7"]);
    expect(r.stdout).toBe(`Opened ${odd}:undefined:undefined on instance a\n`);
    expectSent(a, "POST", "/openFile", `{"path":"${odd}"}`);
    // Two trailing numbers are always line and column: "x:7:2" names a file "x", which is not here.
    r = await sb.run(["x:7:2"]);
    expect(r.stderr).toBe("vorn: unknown command 'x:7:2' (vorn help)\n");
    expect(r.code).toBe(2);
    const named = sb.file("work/y:7.go", "");
    a.clearRequests();
    r = await sb.run(["y:7.go:2"]);
    expect(r.stdout).toBe(`Opened ${named}:2:undefined on instance a\n`);
    expectSent(a, "POST", "/openFile", `{"path":"${named}","line":2}`);
  });

  test("a line of 0 reaches file open and is refused there", async () => {
    sb.file("work/main.go", "");
    const a = await sb.sim({ id: "a", workspace: sb.work });
    const r = await sb.run(["main.go:0"]);
    expect(r.stderr).toBe(`vorn file open: no line or column 0 in main.go:0 ${DASH} lines and columns count from 1\n`);
    expect(r.code).toBe(2);
    expect(requestLog(a)).toEqual([]);
  });

  test("a file in two nested workspaces is ambiguous", async () => {
    const inner = sb.dir("work/inner");
    sb.file("work/inner/x.go", "");
    const sims = [...(await sb.sims(2, (i) => ({ id: ["outer", "inner"][i], workspace: [sb.work, inner][i] })))].sort(
      (x, y) => x.pid - y.pid,
    );
    const r = await sb.run(["inner/x.go", "-o", "json"]);
    expect(r.stderr).toBe(
      JSON.stringify({
        error: `file open: 2 instances have inner/x.go in their workspace ${DASH} pass -i ID (see vorn instance list)`,
        instances: sims.map((s) => s.id),
        code: 2,
      }) + "\n",
    );
    expect(r.code).toBe(2);
  });

  test("a missing file is no shorthand", async () => {
    await sb.sim({ id: "a", workspace: sb.work });
    let r = await sb.run(["missing.go"]);
    expect(r.stderr).toBe("vorn: unknown command 'missing.go' (vorn help)\n");
    expect(r.code).toBe(2);
    r = await sb.run(["missing.go:3"]);
    expect(r.stderr).toBe("vorn: unknown command 'missing.go:3' (vorn help)\n");
    expect(r.code).toBe(2);
  });
});

describe("an explicit socket", () => {
  test("vorn missing.go --sock <foreign sock> becomes file open with the path as typed", async () => {
    const far = await sb.sim({ id: "far", platform: "linux" });
    const r = await sb.run(["missing.go", "--sock", far.sock]);
    expect(r.stdout).toBe("Opened missing.go:undefined:undefined on instance far\n");
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expect(requestLog(far)).toEqual(["GET /instance", "POST /openFile"]);
    expectSent(far, "POST", "/openFile", `{"path":"missing.go"}`);
  });

  test("--sock=<path> and a position", async () => {
    const far = await sb.sim({ id: "far", platform: "linux" });
    const r = await sb.run(["src/missing.go:8:1", `--sock=${far.sock}`]);
    expect(r.stdout).toBe("Opened src/missing.go:8:1 on instance far\n");
    expectSent(far, "POST", "/openFile", `{"path":"src/missing.go","line":8,"col":1}`);
  });

  test("a local instance at that socket still needs the file here", async () => {
    const a = await sb.sim({ id: "a" });
    const r = await sb.run(["missing.go", "--sock", a.sock]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("vorn file open: no such file: missing.go\n");
    expect(r.code).toBe(2);
    expect(requestLog(a)).toEqual(["GET /instance"]);
  });

  test("a word without a dot or slash stays an unknown command", async () => {
    const far = await sb.sim({ id: "far", platform: "linux" });
    const r = await sb.run(["missing", "--sock", far.sock]);
    expect(r.stderr).toBe("vorn: unknown command 'missing' (vorn help)\n");
    expect(r.code).toBe(2);
    expect(requestLog(far)).toEqual([]);
  });

  test("a dead socket", async () => {
    const dead = sb.path("runtime/dead.sock");
    const r = await sb.run(["x.go", "--sock", dead]);
    expect(r.stderr).toBe(`vorn: no healthy instance at ${dead}\n`);
    expect(r.code).toBe(1);
  });
});
