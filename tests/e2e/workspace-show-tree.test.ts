// `vorn workspace show|tree` against simulated instances.

import { describe, expect, test } from "bun:test";
import type { Sandbox, Sim } from "./harness";
import { byPid, expectSent, expectWire, only, pretty, requestLog, useSandbox } from "./support";

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

describe("workspace show", () => {
  test("one instance: its reply, indented", async () => {
    const a = await sb.sim({
      id: "a",
      routes: [{ method: "GET", path: "/workspace", json: { open: true, root: "/w/app", name: "app", n: 1.5 } }],
    });
    const r = await sb.run(["workspace", "show"]);
    expect(r.stdout).toBe('{\n  "open": true,\n  "root": "/w/app",\n  "name": "app",\n  "n": 1.5\n}\n');
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expectSent(a, "GET", "/workspace");
  });

  test("no folder open", async () => {
    await sb.sim({ id: "a" });
    const r = await sb.run(["workspace", "show"]);
    expect(r.stdout).toBe('{\n  "open": false,\n  "root": null,\n  "name": null\n}\n');
    expect(r.code).toBe(0);
  });

  test("every instance by default, in pid order", async () => {
    const sims = byPid(
      await sb.sims(2, (i) => ({
        id: ["a", "b"][i],
        routes: [{ method: "GET", path: "/workspace", json: { root: `/w/${i}` } }],
      })),
    );
    const rootOf = (s: Sim) => (s.id === "a" ? "/w/0" : "/w/1");
    const r = await sb.run(["workspace", "show"]);
    const expected = {
      results: sims.map((s) => ({ id: s.id, ok: true, body: { root: rootOf(s) } })),
    };
    expect(r.stdout).toBe(pretty(expected));
    expect(r.code).toBe(0);
  });

  test("-i narrows to one; -o json keeps the results wrapper", async () => {
    const [, b] = await sb.sims(2, (i) => ({ id: ["a", "b"][i] }));
    let r = await sb.run(["workspace", "show", "-i", "b"]);
    expect(r.stdout).toBe('{\n  "open": false,\n  "root": null,\n  "name": null\n}\n');
    r = await sb.run(["workspace", "show", "-i", "b", "-o", "json"]);
    expect(JSON.parse(r.stdout)).toEqual({ results: [{ id: "b", ok: true, body: { open: false, root: null, name: null } }] });
    expect(r.code).toBe(0);
    expect(requestLog(b).filter((c) => c === "GET /workspace").length).toBe(2);
  });

  test("an error status prints the body and exits 1 without a message", async () => {
    await sb.sim({ id: "a", routes: [{ method: "GET", path: "/workspace", status: 500, json: { error: "no" } }] });
    const r = await sb.run(["workspace", "show"]);
    expect(r.stdout).toBe('{\n  "error": "no"\n}\n');
    expect(r.stderr).toBe("");
    expect(r.code).toBe(1);
  });

  test("no instances", async () => {
    const r = await sb.run(["workspace", "show"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("vorn workspace show: no running instances\n");
    expect(r.code).toBe(1);
  });

  test("a stray argument is refused", async () => {
    const a = await sb.sim({ id: "a" });
    const r = await sb.run(["workspace", "show", "x"]);
    expect(r.stderr).toBe("vorn workspace show: unexpected argument 'x'\n");
    expect(r.code).toBe(2);
    expect(requestLog(a)).toEqual([]);
  });
});

describe("workspace tree", () => {
  test("a POST without a body, and the tree as JSON", async () => {
    const ws = sb.dir("work/app");
    sb.file("work/app/main.go", "package main\n");
    sb.file("work/app/pkg/a.go", "package pkg\n");
    const a = await sb.sim({ id: "a", workspace: ws });
    const r = await sb.run(["workspace", "tree"]);
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    const req = only(a, "POST", "/api/listTree");
    expectWire(req, "POST", "/api/listTree");
    expect(req.header("Content-Length")).toBe("0");
    const tree = JSON.parse(r.stdout);
    expect(r.stdout).toBe(pretty(tree));
    expect(tree.map((n: { name: string }) => n.name)).toEqual(["pkg", "main.go"]);
  });

  test("[] when no folder is open", async () => {
    await sb.sim({ id: "a" });
    const r = await sb.run(["workspace", "tree"]);
    expect(r.stdout).toBe("[]\n");
    expect(r.code).toBe(0);
  });

  test("an unreachable instance among several becomes a row", async () => {
    const sims = byPid(await sb.sims(2, (i) => ({ id: ["a", "b"][i] })));
    await sims[1].addRoute({ method: "POST", path: "/api/listTree", action: "close" });
    const r = await sb.run(["workspace", "tree"]);
    expect(r.stdout).toBe(
      JSON.stringify(
        {
          results: [
            { id: sims[0].id, ok: true, body: [] },
            { id: sims[1].id, ok: false, error: "malformed HTTP reply" },
          ],
        },
        null,
        2,
      ) + "\n",
    );
    expect(r.code).toBe(0);
  });
});

// A reply is held whole before any of it is printed (it must be known to parse first), so one
// beyond the limit for printed replies stops with an error instead of taking its size in memory.
describe("workspace tree: a reply of 1 GB", () => {
  const GB = 1 << 30;

  test("stops with a clear error after the limit, nothing printed, memory bounded", async () => {
    await sb.sim({ id: "a", routes: [{ method: "POST", path: "/api/listTree", jsonStringBytes: GB }] });
    const r = await sb.run(["workspace", "tree"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn: reply too large: over 256 MiB\n", 1]);
    // A coarse guard: the reply was not taken whole.
    expect(r.maxRssBytes).toBeGreaterThan(0);
    expect(r.maxRssBytes).toBeLessThan(512 * 1024 * 1024);
  });

  test("chunked, among several instances: that row carries the error, the others print", async () => {
    const [a, b] = byPid(await sb.sims(2, (i) => ({ id: ["a", "b"][i] })));
    await a.addRoute({ method: "POST", path: "/api/listTree", jsonStringBytes: GB, chunks: [65536] });
    const r = await sb.run(["workspace", "tree"]);
    expect(r.stdout).toBe(
      pretty({
        results: [
          { id: a.id, ok: false, error: "reply too large: over 256 MiB" },
          { id: b.id, ok: true, body: [] },
        ],
      }),
    );
    expect([r.stderr, r.code]).toEqual(["", 0]);
  });
});
