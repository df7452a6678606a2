// `vorn instance inspect|health` against simulated instances: what each instance reports, and
// how failed or missing replies show.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import type { Sandbox } from "./harness";
import { byPid, calls, DASH, expectCalls, expectWire, instanceTable, pretty, useSandbox } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

describe("instance inspect", () => {
  const fixedStart = 1795294275123; // 2026-11-21T20:51:15.123Z

  test("with no instances it fails", async () => {
    const r = await sb.run(["instance", "inspect"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("vorn instance inspect: no running instances\n");
    expect(r.code).toBe(1);
  });

  test("one instance by id: its detail, from four GETs", async () => {
    const work = sb.dir("work/app");
    const s = await sb.sim({
      id: "insp-1",
      workspace: work,
      startedAt: fixedStart,
      vornRoot: "/opt/vorn",
      diagnostics: [{ source: "gopls" }, { source: "nogo" }, { source: "gopls" }, { message: "no source" }],
    });
    const before = Date.now();
    const r = await sb.run(["instance", "inspect", "insp-1"]);
    const after = Date.now();
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    const parsed = JSON.parse(r.stdout);
    expect(r.stdout).toBe(pretty(parsed));
    expect(Array.isArray(parsed)).toBe(true);
    expect(parsed.length).toBe(1);
    const d = parsed[0];
    expect(Object.keys(d)).toEqual([
      "id",
      "pid",
      "sock",
      "startedAt",
      "uptimeMs",
      "vornRoot",
      "platform",
      "health",
      "workspace",
      "language",
      "diagnostics",
    ]);
    expect(d.id).toBe("insp-1");
    expect(d.pid).toBe(s.pid);
    expect(d.sock).toBe(s.sock);
    expect(d.startedAt).toBe("2026-11-21T20:51:15.123Z");
    expect(d.uptimeMs).toBeGreaterThanOrEqual(before - fixedStart);
    expect(d.uptimeMs).toBeLessThanOrEqual(after - fixedStart);
    expect(d.vornRoot).toBe("/opt/vorn");
    expect(d.platform).toBe("darwin");
    expect(d.health).toEqual({ ok: true, protocol: 1, id: "insp-1" });
    expect(d.workspace).toEqual({ open: true, root: work, name: "app", goVersion: "go1.22.5", goos: "darwin", goarch: "arm64", gomod: "", module: "" });
    expect(d.language).toEqual({ languageId: "go", ready: true, detail: "gopls v0.16.2" });
    expect(d.diagnostics).toEqual({ count: 4, bySource: { gopls: 2, nogo: 1 } });
    expect(Object.keys(d.diagnostics.bySource)).toEqual(["gopls", "nogo"]);

    const got = calls(s).sort((x, y) => (x.target < y.target ? -1 : 1));
    expect(got.map((q) => q.target)).toEqual(["/diagnostics", "/health", "/language/status", "/workspace"]);
    for (const q of got) expectWire(q, "GET", q.target);
  });

  test("without ids every live instance, in pid order; with ids in the order given", async () => {
    const sims = await sb.sims(3, (i) => ({ id: `i-${i}` }));
    const all = await sb.run(["instance", "inspect"]);
    expect(all.code).toBe(0);
    expect(JSON.parse(all.stdout).map((d: { id: string }) => d.id)).toEqual(byPid(sims).map((s) => s.id));

    const some = await sb.run(["instance", "inspect", "i-2", "i-0", "i-2"]);
    expect(some.code).toBe(0);
    // A repeated id is inspected once.
    expect(JSON.parse(some.stdout).map((d: { id: string }) => d.id)).toEqual(["i-2", "i-0"]);

    const prefix = await sb.run(["instance", "inspect", "i-1"]);
    expect(JSON.parse(prefix.stdout).map((d: { id: string }) => d.id)).toEqual(["i-1"]);
  });

  test("a unique prefix picks its instance; an exact id wins over a longer one", async () => {
    await sb.sim({ id: "abc" });
    await sb.sim({ id: "abcd" });
    await sb.sim({ id: "xyz" });
    const exact = await sb.run(["instance", "inspect", "abc"]);
    expect(JSON.parse(exact.stdout).map((d: { id: string }) => d.id)).toEqual(["abc"]);
    const prefix = await sb.run(["instance", "inspect", "xy"]);
    expect(JSON.parse(prefix.stdout).map((d: { id: string }) => d.id)).toEqual(["xyz"]);
  });

  test("an id that matches nothing fails before any instance is asked", async () => {
    const s = await sb.sim({ id: "real" });
    const r = await sb.run(["instance", "inspect", "real", "ghost"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("vorn instance inspect: no instance matches ghost\n");
    expect(r.code).toBe(1);
    expect(calls(s)).toEqual([]);

    const j = await sb.run(["instance", "inspect", "ghost", "-o", "json"]);
    expect(JSON.parse(j.stderr)).toEqual({ error: "vorn instance inspect: no instance matches ghost", code: 1 });
    expect(j.code).toBe(1);
  });

  test("an id that matches several instances is ambiguous", async () => {
    const [a, b] = await Promise.all([sb.sim({ id: "abc" }), sb.sim({ id: "abd" })]);
    const r = await sb.run(["instance", "inspect", "ab"]);
    const msg = `vorn instance inspect: 2 instances match ab ${DASH} pass a longer ID (see vorn instance list)`;
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(instanceTable(byPid([a, b])) + "\n" + msg + "\n");
    expect(r.code).toBe(2);
    expect(calls(a)).toEqual([]);
    expect(calls(b)).toEqual([]);

    const j = await sb.run(["instance", "inspect", "ab", "-o", "json"]);
    expect(JSON.parse(j.stderr)).toEqual({ error: msg, instances: byPid([a, b]).map((s) => s.id), code: 2 });
    expect(j.code).toBe(2);
  });

  test("an empty id is a usage error", async () => {
    await sb.sim({ id: "x" });
    const r = await sb.run(["instance", "inspect", ""]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("vorn instance inspect: an instance ID cannot be empty\n");
    expect(r.code).toBe(2);
  });

  test("selectors choose the instances when no id is given", async () => {
    const sims = await sb.sims(2, (i) => ({ id: `sel-${i}` }));
    const [first, second] = byPid(sims);
    const i = await sb.run(["instance", "inspect", "-i", "sel-1"]);
    expect(JSON.parse(i.stdout).map((d: { id: string }) => d.id)).toEqual(["sel-1"]);
    const p = await sb.run(["instance", "inspect", "--pid", String(second.pid)]);
    expect(JSON.parse(p.stdout).map((d: { id: string }) => d.id)).toEqual([second.id]);
    const a = await sb.run(["instance", "inspect", "-a"]);
    expect(JSON.parse(a.stdout).map((d: { id: string }) => d.id)).toEqual([first.id, second.id]);
    const none = await sb.run(["instance", "inspect", "--pid", "42"]);
    expect(none.stderr).toBe("vorn: no instance matches pid 42\n");
    expect(none.code).toBe(1);
  });

  test("replies that fail are shown as their errors", async () => {
    const s = await sb.sim({
      id: "flaky",
      routes: [
        { path: "/health", action: "close" },
        { path: "/diagnostics", status: 500, json: { error: "analyzer crashed" } },
        { path: "/language/status", status: 503, json: {} },
      ],
    });
    const r = await sb.run(["instance", "inspect"]);
    expect(r.code).toBe(0);
    const [d] = JSON.parse(r.stdout);
    expect(d.id).toBe(s.id);
    expect(d.health).toEqual({ error: "malformed HTTP reply" });
    expect(d.language).toEqual({ error: "HTTP 503" });
    expect(d.diagnostics).toEqual({ count: 0, bySource: {} });
    expect(d.workspace).toEqual({ open: false, root: null, name: null });
  });
});

describe("instance health", () => {
  const healthBody = (id: string, protocol = 1) => ({ ok: true, protocol, id });

  test("with no instances it fails", async () => {
    const r = await sb.run(["instance", "health"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn instance health: no running instances\n", 1]);
  });

  test("one instance: its reply as it came", async () => {
    const s = await sb.sim({ id: "h1" });
    const r = await sb.run(["instance", "health"]);
    expect(r.stdout).toBe(pretty(healthBody("h1")));
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expectCalls(s, [["GET", "/health"]]);

    const j = await sb.run(["instance", "health", "-o", "json"]);
    expect(JSON.parse(j.stdout)).toEqual({ results: [{ id: "h1", ok: true, body: healthBody("h1") }] });
  });

  test("several instances: one row each, in pid order", async () => {
    const sims = byPid(await sb.sims(2, (i) => ({ id: `h-${i}` })));
    const r = await sb.run(["instance", "health"]);
    expect(r.code).toBe(0);
    expect(r.stderr).toBe("");
    const parsed = JSON.parse(r.stdout);
    expect(r.stdout).toBe(pretty(parsed));
    expect(parsed).toEqual({ results: sims.map((s) => ({ id: s.id, ok: true, body: healthBody(s.id) })) });
  });

  test("a failing status prints the body and exits 1 with nothing more", async () => {
    await sb.sim({ id: "sick", routes: [{ path: "/health", status: 503, json: { ok: false, error: "starting" } }] });
    const r = await sb.run(["instance", "health"]);
    expect(r.stdout).toBe(pretty({ ok: false, error: "starting" }));
    expect(r.stderr).toBe("");
    expect(r.code).toBe(1);
  });

  test("an instance that goes away between the scan and the request", async () => {
    const gone = await sb.sim({ id: "gone", routes: [{ path: "/health", action: "close" }] });
    const one = await sb.run(["instance", "health"]);
    expect([one.stdout, one.stderr, one.code]).toEqual(["", "vorn: malformed HTTP reply\n", 1]);

    const fine = await sb.sim({ id: "fine" });
    const many = await sb.run(["instance", "health"]);
    expect(many.code).toBe(0);
    expect(many.stderr).toBe("");
    const rows = byPid([gone, fine]).map((s) =>
      s === gone ? { id: "gone", ok: false, error: "malformed HTTP reply" } : { id: "fine", ok: true, body: healthBody("fine") },
    );
    expect(JSON.parse(many.stdout)).toEqual({ results: rows });
  });

  // The control client has no time-out, and instances are read one after the other: an
  // instance that accepts and never answers stalls the command until the user interrupts it,
  // and nothing is printed before then, not even the rows already read.
  test("an instance that never answers stalls the command with nothing printed", async () => {
    const [first, second] = byPid(await sb.sims(2, (i) => ({ id: `hang-${i}` })));
    await second.addRoute({ path: "/health", action: "hang" });
    const r = await sb.run(["instance", "health"], { timeoutMs: 2000 });
    expect(r.timedOut).toBe(true);
    expect(r.signal).toBe("SIGKILL");
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("");
    // The first instance was read; its row was held back with the rest.
    expect(calls(first).map((q) => q.target)).toEqual(["/health"]);
    expect(second.records().filter((q) => q.target === "/health").length).toBe(1);

    // Hanging first: the second instance is never asked.
    await second.setRoutes([]);
    await first.addRoute({ path: "/health", action: "hang" });
    first.clearRequests();
    second.clearRequests();
    const r2 = await sb.run(["instance", "health"], { timeoutMs: 2000 });
    expect(r2.timedOut).toBe(true);
    expect(r2.stdout).toBe("");
    expect(calls(second)).toEqual([]);
  });
});
