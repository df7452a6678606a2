// `vorn test run|rerun|cancel|status` against simulated instances: how a target becomes a body,
// which instance gets it, and the exit status of failed runs.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import type { Sandbox } from "./harness";
import { byPid, type Call, DASH, expectCalls, instanceTable, pretty, useSandbox } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
let app: string; // the working directory of most runs, and the workspace of the main instance
useSandbox((fresh) => {
  sb = fresh;
  app = sb.dir("work/app");
  sb.dir("work/app/pkg/foo");
  sb.file("work/app/foo_test.go", "package app\n");
  sb.file("work/app/pkg/foo/bar_test.go", "package foo\n");
});

const postTest = (body: string): Call => ["POST", "/test", body];

// The simulator's summary of a finished run that passed.
function passed(runId: number, target: string, extra: Record<string, unknown> = {}) {
  return { ok: true, summary: { runId, target, ...extra, status: "passed", passed: 3, failed: 0, skipped: 0, durationMs: 120, failures: [] } };
}

const run = (args: string[], cwd = app) => sb.run(["test", "run", ...args], { cwd });

describe("test run: local targets", () => {
  test("./... from the app folder goes to the instance whose workspace holds it", async () => {
    const [mine, other] = await Promise.all([sb.sim({ id: "mine", workspace: app }), sb.sim({ id: "other", workspace: sb.dir("work/other") })]);
    const r = await run(["./..."]);
    expect(r.stdout).toBe(pretty(passed(1, app + "/...")));
    expect([r.stderr, r.code]).toEqual(["", 0]);
    expectCalls(mine, [postTest(`{"path":"${app}/..."}`)]);
    expectCalls(other, []);
  });

  test("a directory is that package; the path is made absolute and normalised", async () => {
    const s = await sb.sim({ id: "s", workspace: app });
    const r = await run(["pkg/foo"]);
    expect([r.stdout, r.stderr, r.code]).toEqual([pretty(passed(1, app + "/pkg/foo")), "", 0]);
    const dotted = await run(["./pkg//foo/../foo/"]);
    expect(dotted.code).toBe(0);
    const up = await run(["../../app/pkg/..."], sb.path("work/app/pkg"));
    expect(up.code).toBe(0);
    const absolute = await run([app + "/pkg/foo"], sb.work);
    expect(absolute.code).toBe(0);
    expectCalls(s, [
      postTest(`{"path":"${app}/pkg/foo"}`),
      postTest(`{"path":"${app}/pkg/foo"}`),
      postTest(`{"path":"${app}/pkg/..."}`),
      postTest(`{"path":"${app}/pkg/foo"}`),
    ]);
  });

  test("foo_test.go:42 sends the file's path and line 42; a column is dropped", async () => {
    const s = await sb.sim({ id: "s", workspace: app });
    const r = await run(["foo_test.go:42"]);
    expect([r.stdout, r.stderr, r.code]).toEqual([pretty(passed(1, app + "/foo_test.go", { line: 42 })), "", 0]);
    const col = await run(["pkg/foo/bar_test.go:7:3"]);
    expect(col.code).toBe(0);
    const plain = await run(["foo_test.go"]);
    expect(plain.code).toBe(0);
    expectCalls(s, [
      postTest(`{"path":"${app}/foo_test.go","line":42}`),
      postTest(`{"path":"${app}/pkg/foo/bar_test.go","line":7}`),
      postTest(`{"path":"${app}/foo_test.go"}`),
    ]);
  });

  test("a file whose own name looks like a position is that file", async () => {
    sb.file("work/app/a:12", "");
    const s = await sb.sim({ id: "s", workspace: app });
    const r = await run(["a:12"]);
    expect(r.code).toBe(0);
    expectCalls(s, [postTest(`{"path":"${app}/a:12"}`)]);
  });

  test("unicode folder names", async () => {
    const dir = sb.dir("work/app/ünï/日本");
    const s = await sb.sim({ id: "s", workspace: app });
    const r = await run(["ünï/日本/..."]);
    expect([r.stdout, r.stderr, r.code]).toEqual([pretty(passed(1, dir + "/...")), "", 0]);
    expectCalls(s, [postTest(`{"path":"${dir}/..."}`)]);
  });

  test("missing.go fails with code 2 before any instance is contacted", async () => {
    const s = await sb.sim({ id: "s", workspace: app });
    for (const arg of ["missing.go", "missing.go:12", "missing/...", "foo_test.go:x"]) {
      const r = await run([arg]);
      expect([r.stdout, r.stderr, r.code]).toEqual(["", `vorn test run: no such file or directory: ${arg}\n`, 2]);
    }
    expect(s.requests()).toEqual([]);
  });

  test("test run -1 treats -1 as a positional argument", async () => {
    const s = await sb.sim({ id: "s", workspace: app });
    const missing = await run(["-1"]);
    expect([missing.stdout, missing.stderr, missing.code]).toEqual(["", "vorn test run: no such file or directory: -1\n", 2]);
    expect(s.requests()).toEqual([]);
    sb.dir("work/app/-1");
    const r = await run(["-1"]);
    expect([r.stdout, r.stderr, r.code]).toEqual([pretty(passed(1, app + "/-1")), "", 0]);
    expectCalls(s, [postTest(`{"path":"${app}/-1"}`)]);
  });

  test("--cover --no-wait: cover true, then wait false, in either order typed", async () => {
    const s = await sb.sim({ id: "s", workspace: app });
    const r = await run(["pkg/foo", "--cover", "--no-wait"]);
    expect([r.stdout, r.stderr, r.code]).toEqual([pretty({ ok: true, summary: { runId: 1, target: app + "/pkg/foo", started: true } }), "", 0]);
    const swapped = await run(["--no-wait", "--cover", "foo_test.go:3"]);
    expect(swapped.code).toBe(0);
    expectCalls(s, [
      postTest(`{"path":"${app}/pkg/foo","cover":true,"wait":false}`),
      postTest(`{"path":"${app}/foo_test.go","line":3,"cover":true,"wait":false}`),
    ]);
  });

  test("--cover alone: the summary carries the coverage", async () => {
    const s = await sb.sim({ id: "s", workspace: app, tests: { coverage: { total: 61.5, packages: { "example.com/app": 61.5 } } } });
    const r = await run(["--cover"]);
    const coverage = { total: 61.5, packages: { "example.com/app": 61.5 } };
    expect(r.stdout).toBe(pretty({ ok: true, summary: { ...passed(1, "./...").summary, coverage } }));
    expect([r.stderr, r.code]).toEqual(["", 0]);
    expectCalls(s, [postTest('{"cover":true}')]);
  });

  test("failing tests: the summary, then exit 1", async () => {
    const failures = [{ test: "TestFoo", package: "example.com/app", output: "foo_test.go:9: want 1, got 2" }];
    const s = await sb.sim({ id: "s", workspace: app, tests: { passed: 2, failed: 1, failures } });
    const r = await run(["foo_test.go"]);
    expect(r.stdout).toBe(
      pretty({ ok: false, summary: { runId: 1, target: app + "/foo_test.go", status: "failed", passed: 2, failed: 1, skipped: 0, durationMs: 120, failures } }),
    );
    expect([r.stderr, r.code]).toEqual(["vorn test run: 1 target(s) failed\n", 1]);
    expectCalls(s, [postTest(`{"path":"${app}/foo_test.go"}`)]);
  });
});

describe("test run: which instance", () => {
  test("no argument and no selector: one instance gets an empty object", async () => {
    const s = await sb.sim({ id: "s", workspace: app });
    const r = await run([]);
    expect([r.stdout, r.stderr, r.code]).toEqual([pretty(passed(1, "./...")), "", 0]);
    expectCalls(s, [postTest("{}")]);
  });

  test("no argument and no selector with two instances: the ambiguity error", async () => {
    const sims = byPid(await sb.sims(2, (i) => ({ id: `two-${i}` })));
    const r = await run([]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(instanceTable(sims) + `\nvorn: 2 instances running ${DASH} pass -i ID (see vorn instance list)\n`);
    expect(r.code).toBe(2);
    for (const s of sims) expectCalls(s, []);
  });

  test("no instance at all", async () => {
    const none = await run([]);
    expect([none.stdout, none.stderr, none.code]).toEqual(["", "vorn test run: no running instances\n", 1]);
    const withPath = await run(["pkg/foo"]);
    expect([withPath.stdout, withPath.stderr, withPath.code]).toEqual([
      "",
      `vorn test run: no running instances ${DASH} open its folder first: vorn workspace open <dir>\n`,
      1,
    ]);
  });

  test("no instance has the path in its workspace", async () => {
    const s = await sb.sim({ id: "s", workspace: sb.dir("work/other") });
    const r = await run(["pkg/foo"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(`vorn test run: no instance has ${app}/pkg/foo in its workspace ${DASH} run vorn workspace open <dir> first\n`);
    expect(r.code).toBe(1);
    expectCalls(s, []);
  });

  test("two workspaces hold the path: the owner's ambiguity error", async () => {
    const sims = byPid([await sb.sim({ id: "outer", workspace: sb.work }), await sb.sim({ id: "inner", workspace: app })]);
    const r = await run(["pkg/foo"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(
      instanceTable(sims, { workspace: (s) => (s.id === "outer" ? sb.work : app) }) +
        `\nvorn: test run: 2 instances have ${app}/pkg/foo in their workspace ${DASH} pass -i ID (see vorn instance list)\n`,
    );
    expect(r.code).toBe(2);
    for (const s of sims) expectCalls(s, []);
  });

  test("-i with a local instance: the path is resolved here and the selector decides", async () => {
    const [a, b] = await Promise.all([sb.sim({ id: "a", workspace: app }), sb.sim({ id: "b", workspace: sb.dir("work/other") })]);
    const r = await run(["pkg/foo", "-i", "b"]);
    expect([r.stdout, r.stderr, r.code]).toEqual([pretty(passed(1, app + "/pkg/foo")), "", 0]);
    expectCalls(a, []);
    expectCalls(b, [postTest(`{"path":"${app}/pkg/foo"}`)]);
    const missing = await run(["missing.go", "-i", "b"]);
    expect([missing.stdout, missing.stderr, missing.code]).toEqual(["", "vorn test run: no such file or directory: missing.go\n", 2]);
    expectCalls(b, [postTest(`{"path":"${app}/pkg/foo"}`)]);
  });

  test("-a posts the local path to every instance", async () => {
    const sims = byPid(await Promise.all([sb.sim({ id: "a", workspace: app }), sb.sim({ id: "b" })]));
    const r = await run(["foo_test.go:5", "-a"]);
    expect(r.stdout).toBe(pretty({ results: sims.map((s) => ({ id: s.id, status: 200, body: passed(1, app + "/foo_test.go", { line: 5 }) })) }));
    expect([r.stderr, r.code]).toEqual(["", 0]);
    for (const s of sims) expectCalls(s, [postTest(`{"path":"${app}/foo_test.go","line":5}`)]);
  });

  test("-a with a target that does not exist here: code 2", async () => {
    const s = await sb.sim({ id: "s", platform: "linux" });
    const r = await run(["pkg/x:12", "-a"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn test run: no such file or directory: pkg/x:12\n", 2]);
    expectCalls(s, []);
  });

  test("-i with no match: the resolver's error", async () => {
    await sb.sim({ id: "s", workspace: app });
    const r = await run(["pkg/foo", "-i", "zzz"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn: no instance matches zzz\n", 1]);
  });

  test("-o json wraps the one reply", async () => {
    const s = await sb.sim({ id: "s", workspace: app });
    const r = await run(["pkg/foo", "-o", "json"]);
    expect([r.stdout, r.stderr, r.code]).toEqual([pretty({ results: [{ id: "s", status: 200, body: passed(1, app + "/pkg/foo") }] }), "", 0]);
    expectCalls(s, [postTest(`{"path":"${app}/pkg/foo"}`)]);
  });
});

describe("test run: a foreign instance", () => {
  // An instance on another host: its paths mean nothing here, so the argument goes as typed.
  const remote = () => sb.sim({ id: "far", platform: "linux", workspace: "/srv/remote/app" });

  test("-i ID pkg/x:12 sends path pkg/x and line 12 without touching the local file system", async () => {
    const s = await remote();
    const r = await run(["-i", "far", "pkg/x:12"]);
    expect([r.stdout, r.stderr, r.code]).toEqual([pretty(passed(1, "pkg/x", { line: 12 })), "", 0]);
    expectCalls(s, [postTest('{"path":"pkg/x","line":12}')]);
  });

  test("the other forms: /..., a column, no position, something local", async () => {
    const s = await remote();
    for (const arg of ["./...", "pkg/x:3:9", "pkg/x", "pkg/x:", "foo_test.go", ":12", "-1"]) {
      const r = await run([arg, "--instance", "far"]);
      expect([r.stderr, r.code]).toEqual(["", 0]);
    }
    expectCalls(s, [
      postTest('{"path":"./..."}'),
      postTest('{"path":"pkg/x","line":3}'),
      postTest('{"path":"pkg/x"}'),
      postTest('{"path":"pkg/x:"}'),
      postTest('{"path":"foo_test.go"}'),
      postTest('{"path":":12"}'),
      postTest('{"path":"-1"}'),
    ]);
  });

  test("--pid and --sock select it the same way; options still apply", async () => {
    const s = await remote();
    const byPidRun = await run(["--pid", String(s.pid), "svc/...", "--no-wait"]);
    expect([byPidRun.stdout, byPidRun.stderr, byPidRun.code]).toEqual([pretty({ ok: true, summary: { runId: 1, target: "svc/...", started: true } }), "", 0]);
    const bySock = await run(["--sock", s.sock, "a_test.go:7", "--cover"]);
    expect([bySock.stderr, bySock.code]).toEqual(["", 0]);
    expectCalls(s, [postTest('{"path":"svc/...","wait":false}'), postTest('{"path":"a_test.go","line":7,"cover":true}')]);
  });

  test("a foreign instance among local ones is picked by its id", async () => {
    const [local, far] = await Promise.all([sb.sim({ id: "near", workspace: app }), remote()]);
    const r = await run(["-i", "far", "pkg/x:12"]);
    expect(r.code).toBe(0);
    expectCalls(far, [postTest('{"path":"pkg/x","line":12}')]);
    expectCalls(local, []);
  });
});

describe("test rerun", () => {
  test("a wrong or missing argument fails with code 2 before any socket is touched", async () => {
    const s = await sb.sim({ id: "s", workspace: app });
    for (const args of [[], ["everything"], ["Last"], ["failed "], [""]]) {
      const r = await sb.run(["test", "rerun", ...args]);
      expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn test rerun: needs last|failed\n", 2]);
    }
    expect(s.requests()).toEqual([]);
  });

  test("rerun failed --no-wait sends {rerun: failed, wait: false}", async () => {
    const s = await sb.sim({ id: "s", workspace: app });
    const first = await run(["pkg/foo"]);
    expect(first.code).toBe(0);
    const r = await sb.run(["test", "rerun", "failed", "--no-wait"]);
    expect([r.stdout, r.stderr, r.code]).toEqual([pretty({ ok: true, summary: { runId: 2, target: app + "/pkg/foo", rerun: "failed", started: true } }), "", 0]);
    const last = await sb.run(["test", "rerun", "last"]);
    expect(last.code).toBe(0);
    expectCalls(s, [postTest(`{"path":"${app}/pkg/foo"}`), postTest('{"rerun":"failed","wait":false}'), postTest('{"rerun":"last"}')]);
  });

  test("nothing to rerun: the instance's detail", async () => {
    const s = await sb.sim({ id: "s", workspace: app });
    const r = await sb.run(["test", "rerun", "last"]);
    expect(r.stdout).toBe(pretty({ ok: false, detail: "no previous test run", error: "no previous test run" }));
    expect([r.stderr, r.code]).toEqual(["vorn test rerun: no previous test run\n", 1]);
    expectCalls(s, [postTest('{"rerun":"last"}')]);
  });

  test("no instances; several without a selector", async () => {
    const none = await sb.run(["test", "rerun", "last"]);
    expect([none.stdout, none.stderr, none.code]).toEqual(["", "vorn test rerun: no running instances\n", 1]);
    const sims = byPid(await sb.sims(2, (i) => ({ id: `re-${i}` })));
    const two = await sb.run(["test", "rerun", "last"]);
    expect(two.stderr).toBe(instanceTable(sims) + `\nvorn: 2 instances running ${DASH} pass -i ID (see vorn instance list)\n`);
    expect(two.code).toBe(2);
    const all = await sb.run(["test", "rerun", "last", "-a"]);
    const body = { ok: false, detail: "no previous test run", error: "no previous test run" };
    expect(all.stdout).toBe(pretty({ results: sims.map((s) => ({ id: s.id, status: 200, body })) }));
    expect(all.stderr).toBe(sims.map((s) => `vorn test rerun [${s.id}]: no previous test run\n`).join("") + "vorn test rerun: 2 target(s) failed\n");
    expect(all.code).toBe(1);
  });
});

describe("test cancel", () => {
  test("POST /test/cancel with {}", async () => {
    const s = await sb.sim({ id: "s", workspace: app });
    const idle = await sb.run(["test", "cancel"]);
    expect([idle.stdout, idle.stderr, idle.code]).toEqual([pretty({ ok: true, cancelled: 0 }), "", 0]);
    await run(["--no-wait"]);
    const busy = await sb.run(["test", "cancel"]);
    expect([busy.stdout, busy.stderr, busy.code]).toEqual([pretty({ ok: true, cancelled: 1 }), "", 0]);
    expectCalls(s, [["POST", "/test/cancel", "{}"], postTest('{"wait":false}'), ["POST", "/test/cancel", "{}"]]);
  });

  test("no instances; -a cancels everywhere", async () => {
    const none = await sb.run(["test", "cancel"]);
    expect([none.stdout, none.stderr, none.code]).toEqual(["", "vorn test cancel: no running instances\n", 1]);
    const sims = byPid(await sb.sims(2, (i) => ({ id: `c-${i}` })));
    const all = await sb.run(["test", "cancel", "-a"]);
    expect(all.stdout).toBe(pretty({ results: sims.map((s) => ({ id: s.id, status: 200, body: { ok: true, cancelled: 0 } })) }));
    expect([all.stderr, all.code]).toEqual(["", 0]);
    for (const s of sims) expectCalls(s, [["POST", "/test/cancel", "{}"]]);
  });
});

describe("test status", () => {
  test("GET /test: the latest summary, null before any run", async () => {
    const s = await sb.sim({ id: "s", workspace: app });
    const before = await sb.run(["test", "status"]);
    expect([before.stdout, before.stderr, before.code]).toEqual(['{\n  "summary": null\n}\n', "", 0]);
    await run(["pkg/foo"]);
    const after = await sb.run(["test", "status"]);
    expect([after.stdout, after.stderr, after.code]).toEqual([pretty({ summary: passed(1, app + "/pkg/foo").summary }), "", 0]);
    expectCalls(s, [["GET", "/test"], postTest(`{"path":"${app}/pkg/foo"}`), ["GET", "/test"]]);
  });

  test("two instances: both summaries; none: the read error", async () => {
    const none = await sb.run(["test", "status"]);
    expect([none.stdout, none.stderr, none.code]).toEqual(["", "vorn test status: no running instances\n", 1]);
    const sims = byPid(await sb.sims(2, (i) => ({ id: `st-${i}` })));
    const r = await sb.run(["test", "status"]);
    expect(r.stdout).toBe(pretty({ results: sims.map((s) => ({ id: s.id, ok: true, body: { summary: null } })) }));
    expect([r.stderr, r.code]).toEqual(["", 0]);
    for (const s of sims) expectCalls(s, [["GET", "/test"]]);
  });
});
