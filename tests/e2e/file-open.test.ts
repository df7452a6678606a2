// `vorn file open` against simulated instances: usage errors, the instance that owns the file, a
// selector, and the replies.

import { describe, expect, test } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import type { Sandbox, Sim } from "./harness";
import { byPid, DASH, expectSent, instanceTable, pretty, requestLog, useSandbox } from "./support";

let sb: Sandbox;
const freshSandbox = useSandbox((fresh) => (sb = fresh));

// The exact /openFile request for a body given as its compact JSON text.
function expectOpenFile(sim: Sim, body: string): void {
  expectSent(sim, "POST", "/openFile", body);
}

describe("file open: usage errors", () => {
  test("no file", async () => {
    const a = await sb.sim({ id: "a" });
    const r = await sb.run(["file", "open"]);
    expect(r.stderr).toBe("vorn file open: missing file\n");
    expect(r.stdout).toBe("");
    expect(r.code).toBe(2);
    expect(requestLog(a)).toEqual([]);
  });

  test("--all", async () => {
    sb.file("work/app/main.go", "");
    const a = await sb.sim({ id: "a", workspace: sb.path("work/app") });
    const r = await sb.run(["file", "open", "app/main.go", "--all"]);
    expect(r.stderr).toBe("vorn file open: --all is not valid when opening a file\n");
    expect(r.code).toBe(2);
    expect(requestLog(a)).toEqual([]);
  });

  test("a directory, with or without a position", async () => {
    sb.dir("work/app/pkg");
    const a = await sb.sim({ id: "a", workspace: sb.path("work/app") });
    for (const word of ["app/pkg", "app/pkg:3"]) {
      const r = await sb.run(["file", "open", word]);
      expect(r.stderr).toBe("vorn file open: app/pkg is a directory (vorn workspace open)\n");
      expect(r.code).toBe(2);
    }
    expect(requestLog(a)).toEqual([]);
  });

  test("a file that does not exist: its typed path, nothing launched", async () => {
    const marker = sb.path("open-ran");
    sb.stub("open", `echo ran > "${marker}"\n`);
    const a = await sb.sim({ id: "a", workspace: sb.path("work") });
    let r = await sb.run(["file", "open", "nope.go:12:5"]);
    expect(r.stderr).toBe("vorn file open: no such file: nope.go\n");
    expect(r.stdout).toBe("");
    expect(r.code).toBe(2);
    r = await sb.run(["file", "open", "nope.go:x"]);
    expect(r.stderr).toBe("vorn file open: no such file: nope.go:x\n");
    expect(r.code).toBe(2);
    expect(requestLog(a)).toEqual([]);
    expect(fs.existsSync(marker)).toBe(false);
  });

  test("main.go: and main.go:x name no position: no such file, unless a file has exactly that name", async () => {
    const ws = sb.dir("work/app");
    sb.file("work/app/main.go", "");
    const a = await sb.sim({ id: "a", workspace: ws });
    for (const word of ["main.go:", "main.go:x", "main.go::3"]) {
      const r = await sb.run(["file", "open", word], { cwd: ws });
      expect(r.stderr).toBe(`vorn file open: no such file: ${word.replace(/:3$/, "")}\n`);
      expect(r.code).toBe(2);
    }
    expect(requestLog(a)).toEqual([]);
    const exact = sb.file("work/app/main.go:", "");
    const r = await sb.run(["file", "open", "main.go:"], { cwd: ws });
    expect(r.stdout).toBe(`Opened ${exact}:undefined:undefined on instance a\n`);
    expectOpenFile(a, `{"path":"${exact}"}`);
  });

  test("a line or column of 0 is refused before any socket is touched", async () => {
    sb.file("work/app/main.go", "");
    const a = await sb.sim({ id: "a", workspace: sb.path("work/app") });
    for (const word of ["app/main.go:0", "app/main.go:0:4", "app/main.go:3:0", "app/main.go:00"]) {
      const r = await sb.run(["file", "open", word]);
      expect(r.stderr).toBe(`vorn file open: no line or column 0 in ${word} ${DASH} lines and columns count from 1\n`);
      expect(r.stdout).toBe("");
      expect(r.code).toBe(2);
    }
    const r = await sb.run(["file", "open", "app/main.go:0", "-i", "a"]);
    expect(r.code).toBe(2);
    expect(requestLog(a)).toEqual([]);
  });

  test("a second positional word is refused", async () => {
    sb.file("work/a.go", "");
    sb.file("work/b.go", "");
    const r = await sb.run(["file", "open", "a.go", "b.go"]);
    expect(r.stderr).toBe("vorn file open: unexpected argument 'b.go'\n");
    expect(r.code).toBe(2);
  });
});

describe("file open: the owner of the file", () => {
  test("main.go:12:5 inside exactly one workspace", async () => {
    const ws = sb.dir("work/app");
    const file = sb.file("work/app/main.go", "package main\n");
    const [a, b] = await sb.sims(2, (i) => ({ id: ["a", "b"][i], workspace: i === 0 ? ws : sb.dir("work/other") }));
    const r = await sb.run(["file", "open", "main.go:12:5"], { cwd: ws });
    expect(r.stdout).toBe(`Opened ${file}:12:5 on instance a\n`);
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expectOpenFile(a, `{"path":"${file}","line":12,"col":5}`);
    expect(requestLog(a)).toEqual(["GET /instance", "POST /openFile"]);
    expect(requestLog(b)).toEqual(["GET /instance"]);
  });

  test("without a position only the path goes; the reply's missing keys print as undefined", async () => {
    const ws = sb.dir("work/app");
    const file = sb.file("work/app/main.go", "");
    const a = await sb.sim({ id: "a", workspace: ws });
    let r = await sb.run(["file", "open", "app/main.go"]);
    expect(r.stdout).toBe(`Opened ${file}:undefined:undefined on instance a\n`);
    expect(r.code).toBe(0);
    expectOpenFile(a, `{"path":"${file}"}`);
    a.clearRequests();
    r = await sb.run(["file", "open", "app/main.go:7"]);
    expect(r.stdout).toBe(`Opened ${file}:7:undefined on instance a\n`);
    expectOpenFile(a, `{"path":"${file}","line":7}`);
  });

  test("relative, dotted and absolute words name the same file", async () => {
    const ws = sb.dir("work/app");
    const file = sb.file("work/app/src/main.go", "");
    sb.dir("work/app/pkg");
    const a = await sb.sim({ id: "a", workspace: ws });
    for (const [word, cwd] of [
      ["src/main.go:3", ws],
      ["../src/./main.go:3", path.join(ws, "pkg")],
      [`${ws}//src/main.go:3`, sb.home],
    ]) {
      a.clearRequests();
      const r = await sb.run(["file", "open", word], { cwd });
      expect(r.stdout).toBe(`Opened ${file}:3:undefined on instance a\n`);
      expect(r.code).toBe(0);
      expectOpenFile(a, `{"path":"${file}","line":3}`);
    }
  });

  test("a file whose name holds a colon is opened whole; its position may follow", async () => {
    const ws = sb.dir("work/app");
    const odd = sb.file("work/app/notes:12", "");
    const colon = sb.file("work/app/a:b.go", "");
    const a = await sb.sim({ id: "a", workspace: ws });
    let r = await sb.run(["file", "open", "notes:12"], { cwd: ws });
    expect(r.stdout).toBe(`Opened ${odd}:undefined:undefined on instance a\n`);
    expectOpenFile(a, `{"path":"${odd}"}`);
    a.clearRequests();
    r = await sb.run(["file", "open", "a:b.go:4:2"], { cwd: ws });
    expect(r.stdout).toBe(`Opened ${colon}:4:2 on instance a\n`);
    expectOpenFile(a, `{"path":"${colon}","line":4,"col":2}`);
    // Two trailing numbers are always the position: "notes:12:3" asks for a file "notes".
    r = await sb.run(["file", "open", "notes:12:3"], { cwd: ws });
    expect(r.stderr).toBe("vorn file open: no such file: notes\n");
    expect(r.code).toBe(2);
  });

  test("a file reached through a symbolic link: the owner is found by real path, the link is sent", async () => {
    const ws = sb.dir("work/real");
    sb.file("work/real/main.go", "");
    const link = sb.symlink(ws, "home/link");
    const a = await sb.sim({ id: "a", workspace: ws });
    const r = await sb.run(["file", "open", "link/main.go:2"], { cwd: sb.home });
    expect(r.stdout).toBe(`Opened ${link}/main.go:2:undefined on instance a\n`);
    expect(r.code).toBe(0);
    expectOpenFile(a, `{"path":"${link}/main.go","line":2}`);
  });

  test("a workspace opened through a symbolic link owns the real file", async () => {
    const real = sb.dir("work/real");
    const file = sb.file("work/real/main.go", "");
    const link = sb.symlink(real, "home/link");
    const a = await sb.sim({ id: "a", workspace: link });
    const r = await sb.run(["file", "open", "main.go"], { cwd: real });
    expect(r.stdout).toBe(`Opened ${file}:undefined:undefined on instance a\n`);
    expect(r.code).toBe(0);
  });

  test("non-ASCII paths go as UTF-8 in the body", async () => {
    const ws = sb.dir("work/app");
    const file = sb.file("work/app/résumé ☕.go", "");
    const a = await sb.sim({ id: "a", workspace: ws });
    const r = await sb.run(["file", "open", "résumé ☕.go:1:1"], { cwd: ws });
    expect(r.stdout).toBe(`Opened ${file}:1:1 on instance a\n`);
    expectOpenFile(a, `{"path":"${file}","line":1,"col":1}`);
  });

  test("no instance holds the file: the owner message, no launch", async () => {
    const marker = sb.path("open-ran");
    sb.stub("open", `echo ran > "${marker}"\n`);
    sb.file("work/main.go", "");
    const a = await sb.sim({ id: "a", workspace: sb.dir("home/elsewhere") });
    const r = await sb.run(["file", "open", "main.go:3"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(`vorn file open: no instance has main.go in its workspace ${DASH} run vorn workspace open <dir> first\n`);
    expect(r.code).toBe(1);
    expect(requestLog(a)).toEqual(["GET /instance"]);
    expect(fs.existsSync(marker)).toBe(false);
  });

  test("no instance at all", async () => {
    sb.file("work/main.go", "");
    const r = await sb.run(["file", "open", "main.go"]);
    expect(r.stderr).toBe(`vorn file open: no running instances ${DASH} open its folder first: vorn workspace open <dir>\n`);
    expect(r.code).toBe(1);
  });

  test("the workspace folder itself is not a file to open", async () => {
    const ws = sb.dir("work/app");
    await sb.sim({ id: "a", workspace: ws });
    const r = await sb.run(["file", "open", "."], { cwd: ws });
    expect(r.stderr).toBe("vorn file open: . is a directory (vorn workspace open)\n");
    expect(r.code).toBe(2);
  });

  test("a file named ..notes at the top of a workspace counts as outside it", async () => {
    const ws = sb.dir("work/app");
    sb.file("work/app/..notes", "");
    await sb.sim({ id: "a", workspace: ws });
    const r = await sb.run(["file", "open", "..notes"], { cwd: ws });
    expect(r.stderr).toBe(`vorn file open: no instance has ..notes in its workspace ${DASH} run vorn workspace open <dir> first\n`);
    expect(r.code).toBe(1);
  });

  test("nested workspaces are ambiguous: exit 2 with the candidates' table", async () => {
    const outer = sb.dir("work/app");
    const inner = sb.dir("work/app/sub");
    sb.file("work/app/sub/x.go", "");
    const sims = byPid(await sb.sims(3, (i) => ({ id: ["outer", "inner", "far"][i], workspace: [outer, inner, sb.dir("home/far")][i] })));
    const candidates = sims.filter((s) => s.id !== "far");
    const r = await sb.run(["file", "open", "app/sub/x.go:9"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(
      instanceTable(candidates, { workspace: (s) => (s.id === "outer" ? outer : inner) }) +
        `\nvorn: file open: 2 instances have app/sub/x.go in their workspace ${DASH} pass -i ID (see vorn instance list)\n`,
    );
    expect(r.code).toBe(2);
    for (const s of sims) expect(requestLog(s)).toEqual(["GET /instance"]);
  });

  test("the nested ambiguity in JSON carries the instances", async () => {
    const outer = sb.dir("work/app");
    const inner = sb.dir("work/app/sub");
    sb.file("work/app/sub/x.go", "");
    const sims = byPid(await sb.sims(2, (i) => ({ id: ["outer", "inner"][i], workspace: [outer, inner][i] })));
    const r = await sb.run(["file", "open", "app/sub/x.go", "-o", "json"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(
      JSON.stringify({
        error: `file open: 2 instances have app/sub/x.go in their workspace ${DASH} pass -i ID (see vorn instance list)`,
        instances: sims.map((s) => s.id),
        code: 2,
      }) + "\n",
    );
    expect(r.code).toBe(2);
  });

  test("the checkout's own dev app wins the nested ambiguity", async () => {
    const root = sb.dir("work/repo");
    sb.file("work/repo/MODULE.bazel", "");
    sb.file("work/repo/tools/go.pin", "");
    sb.file("work/repo/src/cli/vorn.ts", "");
    const file = sb.file("work/repo/pkg/x.go", "");
    const [outer, dev] = await sb.sims(2, (i) => ({ id: ["outer", "dev"][i], workspace: [sb.path("work"), root][i] }));
    sb.file("work/repo/.cache/vorn/dev-app.json", JSON.stringify({ pid: dev.pid, socketPath: dev.sock }));
    const r = await sb.run(["file", "open", "pkg/x.go:1"], { cwd: root });
    expect(r.stdout).toBe(`Opened ${file}:1:undefined on instance dev\n`);
    expect(r.code).toBe(0);
    expect(requestLog(outer)).toEqual([]);
  });
});

describe("file open: with a selector", () => {
  test("-i opens in that instance even outside its workspace", async () => {
    const file = sb.file("work/main.go", "");
    const [a, b] = await sb.sims(2, (i) => ({ id: ["a", "b"][i], workspace: sb.dir(`home/w${i}`) }));
    const r = await sb.run(["file", "open", "main.go:4:2", "-i", "b"]);
    expect(r.stdout).toBe(`Opened ${file}:4:2 on instance b\n`);
    expect(r.code).toBe(0);
    expectOpenFile(b, `{"path":"${file}","line":4,"col":2}`);
    expect(requestLog(a)).toEqual(["GET /instance"]);
  });

  test("a local instance still needs the file here", async () => {
    sb.dir("work/pkg");
    const a = await sb.sim({ id: "a" });
    let r = await sb.run(["file", "open", "gone.go:3", "-i", "a"]);
    expect(r.stderr).toBe("vorn file open: no such file: gone.go\n");
    expect(r.code).toBe(2);
    r = await sb.run(["file", "open", "pkg", "--sock", a.sock]);
    expect(r.stderr).toBe("vorn file open: pkg is a directory (vorn workspace open)\n");
    expect(r.code).toBe(2);
    expect(requestLog(a).filter((c) => c.startsWith("POST"))).toEqual([]);
  });

  test("a foreign instance gets the path as typed, without looking here", async () => {
    const a = await sb.sim({ id: "far", platform: "linux" });
    const r = await sb.run(["file", "open", "pkg/missing.go:12", "--sock", a.sock]);
    expect(r.stdout).toBe("Opened pkg/missing.go:12:undefined on instance far\n");
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expect(requestLog(a)).toEqual(["GET /instance", "POST /openFile"]);
    expectOpenFile(a, `{"path":"pkg/missing.go","line":12}`);
  });

  test("a foreign instance selected by id, with a relative dotted path kept as typed", async () => {
    sb.file("work/here.go", "");
    const a = await sb.sim({ id: "far", platform: "linux" });
    const r = await sb.run(["file", "open", "./x/../y.go:1:2", "-i", "far"]);
    expect(r.stdout).toBe("Opened ./x/../y.go:1:2 on instance far\n");
    expectOpenFile(a, `{"path":"./x/../y.go","line":1,"col":2}`);
  });

  test("a foreign instance still refuses line 0", async () => {
    const a = await sb.sim({ id: "far", platform: "linux" });
    const r = await sb.run(["file", "open", "x.go:0", "--sock", a.sock]);
    expect(r.stderr).toBe(`vorn file open: no line or column 0 in x.go:0 ${DASH} lines and columns count from 1\n`);
    expect(r.code).toBe(2);
    expect(requestLog(a)).toEqual([]);
  });

  test("selectors that match nothing keep the resolver's messages", async () => {
    sb.file("work/main.go", "");
    await sb.sim({ id: "a" });
    let r = await sb.run(["file", "open", "main.go", "-i", "zz"]);
    expect(r.stderr).toBe("vorn: no instance matches zz\n");
    expect(r.code).toBe(1);
    r = await sb.run(["file", "open", "main.go", "--pid", "999999999"]);
    expect(r.stderr).toBe("vorn: no instance matches pid 999999999\n");
    expect(r.code).toBe(1);
    const dead = sb.path("runtime/dead.sock");
    r = await sb.run(["file", "open", "main.go", "--sock", dead]);
    expect(r.stderr).toBe(`vorn: no healthy instance at ${dead}\n`);
    expect(r.code).toBe(1);
  });
});

describe("file open: replies", () => {
  async function openWith(reply: Record<string, unknown>) {
    const ws = sb.dir("work/app");
    sb.file("work/app/main.go", "");
    const a = await sb.sim({ id: "a", workspace: ws, routes: [{ method: "POST", path: "/openFile", ...reply }] });
    const r = await sb.run(["file", "open", "app/main.go:12:5"]);
    return { a, r };
  }

  test("JSON mode puts the instance first", async () => {
    const ws = sb.dir("work/app");
    const file = sb.file("work/app/main.go", "");
    await sb.sim({ id: "a", workspace: ws });
    const r = await sb.run(["-o", "json", "file", "open", "app/main.go:12:5"]);
    expect(r.stdout).toBe(pretty({ instance: "a", ok: true, path: file, line: 12, col: 5 }));
    expect(r.code).toBe(0);
  });

  test("JSON mode keeps an instance key of the reply, moved to the front", async () => {
    const { r } = await (async () => {
      const ws = sb.dir("work/app");
      sb.file("work/app/main.go", "");
      await sb.sim({ id: "a", workspace: ws, routes: [{ method: "POST", path: "/openFile", json: { ok: true, path: "p", instance: "x" } }] });
      return { r: await sb.run(["file", "open", "app/main.go", "--output", "json"]) };
    })();
    expect(r.stdout).toBe('{\n  "instance": "x",\n  "ok": true,\n  "path": "p"\n}\n');
  });

  test("values of any type print as a script renders them", async () => {
    let { r } = await openWith({ json: { ok: true, path: 42, line: null, col: [1, { a: "b" }] } });
    expect(r.stdout).toBe('Opened 42:null:[1,{"a":"b"}] on instance a\n');
    expect(r.code).toBe(0);
  });

  test("booleans, fractions and large integers", async () => {
    const { r } = await openWith({ json: { ok: true, path: false, line: 2.5, col: 12345678901 } });
    expect(r.stdout).toBe("Opened false:2.5:12345678901 on instance a\n");
  });

  test("a reply without col prints undefined there", async () => {
    const { r } = await openWith({ json: { ok: true, path: "/x.go", line: 12 } });
    expect(r.stdout).toBe("Opened /x.go:12:undefined on instance a\n");
  });

  test("ok false with an error", async () => {
    const { r } = await openWith({ json: { ok: false, error: "editor busy" } });
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("vorn file open [a]: editor busy\n");
    expect(r.code).toBe(1);
  });

  test("ok missing, or not the boolean true", async () => {
    for (const json of [{ path: "/x.go" }, { ok: "true", path: "/x.go" }, { ok: 1 }]) {
      await freshSandbox();
      const { r } = await openWith({ json });
      expect(r.stderr).toBe("vorn file open [a]: openFile failed (200)\n");
      expect(r.code).toBe(1);
    }
  });

  test("an error status with and without an error text", async () => {
    let { r } = await openWith({ status: 400, json: { error: "line must be a number" } });
    expect(r.stderr).toBe("vorn file open [a]: line must be a number\n");
    expect(r.code).toBe(1);
    await freshSandbox();
    ({ r } = await openWith({ status: 500, json: { ok: true, error: { nested: 1 } } }));
    expect(r.stderr).toBe("vorn file open [a]: openFile failed (500)\n");
    expect(r.code).toBe(1);
  });

  test("a reply that is not JSON, an array, and a closed connection", async () => {
    let { r } = await openWith({ body: "oops" });
    expect(r.stderr).toBe("vorn file open [a]: HTTP 200: not JSON (oops)\n");
    expect(r.code).toBe(1);
    await freshSandbox();
    ({ r } = await openWith({ json: [true] }));
    expect(r.stderr).toBe("vorn file open [a]: openFile failed (200)\n");
    await freshSandbox();
    ({ r } = await openWith({ action: "close" }));
    expect(r.stderr).toBe("vorn file open [a]: malformed HTTP reply\n");
    expect(r.code).toBe(1);
  });
});
