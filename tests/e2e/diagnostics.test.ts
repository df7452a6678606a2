// `vorn diagnostics list` against simulated instances.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import type { Sandbox, Sim } from "./harness";
import { byPid, type Call, expectCalls, pretty, useSandbox } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

// The GET requests an instance received besides the scan, byte for byte.
function expectGets(s: Sim, targets: string[]): void {
  expectCalls(s, targets.map((t): Call => ["GET", t]));
}

const ROWS = [
  { source: "gopls", severity: "warning", path: "main.go", line: 3, col: 2, message: "declared and not used: x" },
  { source: "go test", severity: "error", path: "main_test.go", line: 12, col: 1, message: "TestMain failed" },
  { source: "nogo", severity: "warning", path: "ü/é.go", line: 1, col: 1, message: "printf: bad verb" },
  { source: "é&=+/~'()*! ", severity: "info", path: "x.go", line: 1, col: 1, message: "odd source" },
];
const reply = (rows: unknown[]) => ({ diagnostics: rows, analyzers: { nogo: { state: "idle" } } });

describe("diagnostics list", () => {
  test("without --source: GET /diagnostics, the reply as received", async () => {
    const s = await sb.sim({ id: "s", diagnostics: ROWS });
    const r = await sb.run(["diagnostics", "list"]);
    expect(r.stdout).toBe(pretty(reply(ROWS)));
    expect([r.stderr, r.code]).toEqual(["", 0]);
    expectGets(s, ["/diagnostics"]);
  });

  test('--source "go test" is sent as go%20test', async () => {
    const s = await sb.sim({ id: "s", diagnostics: ROWS });
    const r = await sb.run(["diagnostics", "list", "--source", "go test"]);
    expect(r.stdout).toBe(pretty(reply([ROWS[1]])));
    expect([r.stderr, r.code]).toEqual(["", 0]);
    expectGets(s, ["/diagnostics?source=go%20test"]);
  });

  test("--source nogo, and the inline form", async () => {
    const s = await sb.sim({ id: "s", diagnostics: ROWS });
    const r = await sb.run(["diagnostics", "list", "--source", "nogo"]);
    expect(r.stdout).toBe(pretty(reply([ROWS[2]])));
    expect([r.stderr, r.code]).toEqual(["", 0]);
    const inline = await sb.run(["diagnostics", "list", "--source=gopls"]);
    expect(inline.stdout).toBe(pretty(reply([ROWS[0]])));
    expectGets(s, ["/diagnostics?source=nogo", "/diagnostics?source=gopls"]);
  });

  test("a source of any bytes is one percent-encoded component", async () => {
    const s = await sb.sim({ id: "s", diagnostics: ROWS });
    const r = await sb.run(["diagnostics", "list", "--source", "é&=+/~'()*! "]);
    expect(r.stdout).toBe(pretty(reply([ROWS[3]])));
    expect([r.stderr, r.code]).toEqual(["", 0]);
    expectGets(s, ["/diagnostics?source=%C3%A9%26%3D%2B%2F~'()*!%20"]);
  });

  test("an empty --source= value is sent empty", async () => {
    const s = await sb.sim({ id: "s", diagnostics: ROWS });
    const r = await sb.run(["diagnostics", "list", "--source="]);
    expect(r.stdout).toBe(pretty(reply([])));
    expect([r.stderr, r.code]).toEqual(["", 0]);
    expectGets(s, ["/diagnostics?source="]);
  });

  test("--source without a value is a usage error", async () => {
    const s = await sb.sim({ id: "s" });
    const r = await sb.run(["diagnostics", "list", "--source"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn: --source needs a value (S)\n", 2]);
    expect(s.requests()).toEqual([]);
  });

  test("no instances", async () => {
    const r = await sb.run(["diagnostics", "list", "--source", "nogo"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn diagnostics list: no running instances\n", 1]);
  });

  test("two instances: both replies in the results wrapper", async () => {
    const sims = byPid(await sb.sims(2, (i) => ({ id: `d-${i}`, diagnostics: [ROWS[i]] })));
    const r = await sb.run(["diagnostics", "list"]);
    expect(r.stdout).toBe(pretty({ results: sims.map((s) => ({ id: s.id, ok: true, body: reply([ROWS[Number(s.id.slice(2))]]) })) }));
    expect([r.stderr, r.code]).toEqual(["", 0]);
    for (const s of sims) expectGets(s, ["/diagnostics"]);
  });

  test("two instances, one failing: the row says so and the command still succeeds", async () => {
    const [a, b] = byPid(await sb.sims(2, (i) => ({ id: `f-${i}`, diagnostics: [] })));
    await b.addRoute({ method: "GET", path: "/diagnostics", status: 500, json: { error: "gopls crashed" } });
    const r = await sb.run(["diagnostics", "list", "--source", "gopls"]);
    expect(r.stdout).toBe(
      pretty({
        results: [
          { id: a.id, ok: true, body: reply([]) },
          { id: b.id, ok: false, body: { error: "gopls crashed" } },
        ],
      }),
    );
    expect([r.stderr, r.code]).toEqual(["", 0]);
    expectGets(b, ["/diagnostics?source=gopls"]);
  });

  test("-i narrows to one; -o json wraps even one reply", async () => {
    const [a, b] = byPid(await sb.sims(2, (i) => ({ id: `n-${i}`, diagnostics: [] })));
    const r = await sb.run(["diagnostics", "list", "-i", a.id]);
    expect([r.stdout, r.stderr, r.code]).toEqual([pretty(reply([])), "", 0]);
    const j = await sb.run(["diagnostics", "list", "-i", a.id, "-o", "json"]);
    expect([j.stdout, j.stderr, j.code]).toEqual([pretty({ results: [{ id: a.id, ok: true, body: reply([]) }] }), "", 0]);
    expectGets(a, ["/diagnostics", "/diagnostics"]);
    expectGets(b, []);
  });

  test("one instance answering 500: its body, then exit 1 with no message", async () => {
    await sb.sim({ id: "s", routes: [{ method: "GET", path: "/diagnostics", status: 500, json: { error: "boom" } }] });
    const r = await sb.run(["diagnostics", "list"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(['{\n  "error": "boom"\n}\n', "", 1]);
  });
});
