// `vorn nogo run` against simulated instances: POST /nogo with {}, exit 1 when nogo says ok: false.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import type { Sandbox, Sim } from "./harness";
import { byPid, type Call, DASH, expectCalls, instanceTable, pretty, useSandbox, wire } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

// The empty object goes out as a JSON body with its Content-Type.
const NOGO = "POST /nogo HTTP/1.1\r\nHost: unix\r\nConnection: close\r\nAccept: */*\r\nContent-Type: application/json\r\nContent-Length: 2\r\n\r\n{}";

function expectNogo(s: Sim, times = 1): void {
  expect(wire("POST", "/nogo", "{}")).toBe(NOGO);
  expectCalls(s, Array.from({ length: times }, (): Call => ["POST", "/nogo", "{}"]));
}

const WARNING = { source: "nogo", severity: "warning", path: "a.go", line: 4, col: 2, message: "shadow: x shadows" };
const ERROR = { source: "nogo", severity: "error", path: "b.go", line: 9, col: 1, message: "printf: wrong verb" };
const GOPLS = { source: "gopls", severity: "error", path: "c.go", line: 1, col: 1, message: "not nogo" };

describe("nogo run", () => {
  test('"ok": true exits 0 and prints the reply', async () => {
    const s = await sb.sim({ id: "s", diagnostics: [WARNING, GOPLS] });
    const r = await sb.run(["nogo", "run"]);
    expect(r.stdout).toBe(pretty({ ok: true, diagnostics: [WARNING] }));
    expect([r.stderr, r.code]).toEqual(["", 0]);
    expectNogo(s);
  });

  test('"ok": false exits 1', async () => {
    const s = await sb.sim({ id: "s", diagnostics: [WARNING, ERROR] });
    const r = await sb.run(["nogo", "run"]);
    expect(r.stdout).toBe(pretty({ ok: false, diagnostics: [WARNING, ERROR] }));
    expect(r.stderr).toBe("vorn nogo run: 1 target(s) failed\n");
    expect(r.code).toBe(1);
    expectNogo(s);
  });

  test('"ok": false with a detail fails with the detail', async () => {
    await sb.sim({ id: "s", routes: [{ method: "POST", path: "/nogo", json: { ok: false, detail: "bazel build failed" } }] });
    const r = await sb.run(["nogo", "run"]);
    expect(r.stdout).toBe('{\n  "ok": false,\n  "detail": "bazel build failed"\n}\n');
    expect([r.stderr, r.code]).toEqual(["vorn nogo run: bazel build failed\n", 1]);
  });

  test('a missing "ok" counts as success; a non-2xx status as failure', async () => {
    const s = await sb.sim({ id: "s", routes: [{ method: "POST", path: "/nogo", times: 1, json: { diagnostics: [] } }] });
    const ok = await sb.run(["nogo", "run"]);
    expect([ok.stdout, ok.stderr, ok.code]).toEqual(['{\n  "diagnostics": []\n}\n', "", 0]);
    await s.addRoute({ method: "POST", path: "/nogo", status: 409, json: { error: "not a Bazel workspace", ok: true } });
    const bad = await sb.run(["nogo", "run"]);
    expect([bad.stdout, bad.stderr, bad.code]).toEqual(['{\n  "error": "not a Bazel workspace",\n  "ok": true\n}\n', "vorn nogo run: 1 target(s) failed\n", 1]);
    expectNogo(s, 2);
  });

  test("-o json with one instance: the results wrapper", async () => {
    const s = await sb.sim({ id: "s", diagnostics: [ERROR] });
    const r = await sb.run(["nogo", "run", "-o", "json"]);
    expect(r.stdout).toBe(pretty({ results: [{ id: "s", status: 200, body: { ok: false, diagnostics: [ERROR] } }] }));
    expect(JSON.parse(r.stderr)).toEqual({ error: "vorn nogo run: 1 target(s) failed", code: 1 });
    expect(r.code).toBe(1);
    expectNogo(s);
  });

  test("no running instances", async () => {
    const r = await sb.run(["nogo", "run"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn nogo run: no running instances\n", 1]);
  });

  test("two instances and no selector: the ambiguity error, nothing posted", async () => {
    const sims = byPid(await sb.sims(2, (i) => ({ id: `two-${i}` })));
    const r = await sb.run(["nogo", "run"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(instanceTable(sims) + `\nvorn: 2 instances running ${DASH} pass -i ID (see vorn instance list)\n`);
    expect(r.code).toBe(2);
    for (const s of sims) expectNogo(s, 0);
  });

  test("-a posts to both: the wrapper, detail lines and the count of failures", async () => {
    const [a, b, c] = byPid(await sb.sims(3, (i) => ({ id: `all-${i}`, diagnostics: [WARNING] })));
    await b.addRoute({ method: "POST", path: "/nogo", json: { ok: false, detail: "analyzer panicked" } });
    await c.addRoute({ method: "POST", path: "/nogo", json: { ok: false, diagnostics: [ERROR] } });
    const r = await sb.run(["nogo", "run", "-a"]);
    expect(r.stdout).toBe(
      pretty({
        results: [
          { id: a.id, status: 200, body: { ok: true, diagnostics: [WARNING] } },
          { id: b.id, status: 200, body: { ok: false, detail: "analyzer panicked" } },
          { id: c.id, status: 200, body: { ok: false, diagnostics: [ERROR] } },
        ],
      }),
    );
    expect(r.stderr).toBe(`vorn nogo run [${b.id}]: analyzer panicked\nvorn nogo run: 2 target(s) failed\n`);
    expect(r.code).toBe(1);
    for (const s of [a, b, c]) expectNogo(s);
  });

  test("-a with every instance ok exits 0", async () => {
    const sims = byPid(await sb.sims(2, (i) => ({ id: `ok-${i}`, diagnostics: [] })));
    const r = await sb.run(["nogo", "run", "--all"]);
    expect(r.stdout).toBe(pretty({ results: sims.map((s) => ({ id: s.id, status: 200, body: { ok: true, diagnostics: [] } })) }));
    expect([r.stderr, r.code]).toEqual(["", 0]);
    for (const s of sims) expectNogo(s);
  });

  test("--pid picks one of several", async () => {
    const [a, b] = byPid(await sb.sims(2, (i) => ({ id: `p-${i}`, diagnostics: [] })));
    const r = await sb.run(["nogo", "run", "--pid", String(b.pid)]);
    expect([r.stdout, r.stderr, r.code]).toEqual([pretty({ ok: true, diagnostics: [] }), "", 0]);
    expectNogo(a, 0);
    expectNogo(b);
  });

  test("an unknown flag is refused before any request", async () => {
    const s = await sb.sim({ id: "s", diagnostics: [] });
    const r = await sb.run(["nogo", "run", "--yes"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn: unknown flag --yes\n", 2]);
    expectNogo(s, 0);
  });
});
