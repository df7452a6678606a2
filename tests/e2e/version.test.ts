// `vorn version`: the CLI line and each instance's bridge protocol.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import fs from "node:fs";
import type { Sandbox, Sim } from "./harness";
import { byPid, checkout, expectCalls, pretty, useSandbox } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

const line = (s: Sim, protocol: string) => `instance ${s.id}: bridge protocol ${protocol}\n`;

describe("vorn version", () => {
  test("with nothing running only the CLI line", async () => {
    for (const word of ["version", "--version", "-V"]) {
      const r = await sb.run([word]);
      expect([r.stdout, r.stderr, r.code]).toEqual(["vorn 0.2.0\n", "", 0]);
    }
    const j = await sb.run(["version", "-o", "json"]);
    expect(JSON.parse(j.stdout)).toEqual({ cli: "0.2.0", instances: [] });
    expect(j.stdout).toBe('{\n  "cli": "0.2.0",\n  "instances": []\n}\n');
    expect(j.code).toBe(0);
  });

  test("one line per instance, in pid order, from GET /health", async () => {
    const [a, b] = await Promise.all([sb.sim({ id: "v-a", protocol: 3 }), sb.sim({ id: "v-b", protocol: "2.1-beta" })]);
    const r = await sb.run(["version"]);
    const proto = (s: Sim) => (s === a ? "3" : "2.1-beta");
    expect(r.stdout).toBe("vorn 0.2.0\n" + byPid([a, b]).map((s) => line(s, proto(s))).join(""));
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    for (const s of [a, b]) expectCalls(s, [["GET", "/health"]]);

    const j = await sb.run(["version", "-o", "json"]);
    const parsed = JSON.parse(j.stdout);
    expect(parsed).toEqual({
      cli: "0.2.0",
      instances: byPid([a, b]).map((s) => ({ id: s.id, protocol: s === a ? 3 : "2.1-beta" })),
    });
    expect(j.stdout).toBe(pretty(parsed));
  });

  test("protocol values are rendered like a script would, 3.0 as 3", async () => {
    const health = (protocol: string) => [{ path: "/health", body: `{"ok":true,"protocol":${protocol}}` }];
    const cases: [string, string][] = [
      ["3.0", "3"],
      ["2.5", "2.5"],
      ["1e21", "1000000000000000000000"],
      ["true", "true"],
      ['{"major": 2, "minor": [1, 0]}', '{"major":2,"minor":[1,0]}'],
      ['"v7"', "v7"],
    ];
    const sims = await Promise.all(cases.map(([raw], i) => sb.sim({ id: `p-${i}`, routes: health(raw) })));
    const r = await sb.run(["version"]);
    const shown = new Map(sims.map((s, i) => [s, cases[i][1]]));
    expect(r.stdout).toBe("vorn 0.2.0\n" + byPid(sims).map((s) => line(s, shown.get(s)!)).join(""));
    expect(r.code).toBe(0);
  });

  test("a missing, null or unreadable protocol is unknown, as is an instance that stops answering", async () => {
    const sims = await Promise.all([
      sb.sim({ id: "missing", routes: [{ path: "/health", json: { ok: true } }] }),
      sb.sim({ id: "null", routes: [{ path: "/health", json: { ok: true, protocol: null } }] }),
      sb.sim({ id: "text", routes: [{ path: "/health", body: "not json" }] }),
      sb.sim({ id: "refused", routes: [{ path: "/health", status: 500, json: { error: "down", protocol: 9 } }] }),
      sb.sim({ id: "gone", routes: [{ path: "/health", action: "close" }] }),
    ]);
    const r = await sb.run(["version"]);
    expect(r.stdout).toBe("vorn 0.2.0\n" + byPid(sims).map((s) => line(s, "unknown")).join(""));
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);

    const j = await sb.run(["version", "-o", "json"]);
    expect(JSON.parse(j.stdout)).toEqual({ cli: "0.2.0", instances: byPid(sims).map((s) => ({ id: s.id, protocol: null })) });
  });

  test("a selector narrows the list; its errors stand", async () => {
    const [a, b] = await Promise.all([sb.sim({ id: "sel-a" }), sb.sim({ id: "sel-b", protocol: 2 })]);
    const i = await sb.run(["version", "-i", "sel-b"]);
    expect([i.stdout, i.stderr, i.code]).toEqual(["vorn 0.2.0\n" + line(b, "2"), "", 0]);
    const p = await sb.run(["version", "--pid", String(a.pid)]);
    expect(p.stdout).toBe("vorn 0.2.0\n" + line(a, "1"));
    const n = await sb.run(["version", "--pid", "42"]);
    expect([n.stdout, n.stderr, n.code]).toEqual(["", "vorn: no instance matches pid 42\n", 1]);
    const nj = await sb.run(["version", "--pid", "42", "-o", "json"]);
    expect(JSON.parse(nj.stderr)).toEqual({ error: "no instance matches pid 42", code: 1 });
    expect(nj.stdout).toBe("");
  });

  test("inside a checkout whose dev app runs, only that app; -a lists every instance", async () => {
    const co = checkout(sb, "co");
    const [other, mine] = await Promise.all([sb.sim({ id: "other" }), sb.sim({ id: "mine", vornRoot: co, protocol: 4 })]);
    sb.file("co/.cache/vorn/dev-app.json", JSON.stringify({ pid: mine.pid, socketPath: mine.sock }));
    const r = await sb.run(["version"], { cwd: sb.dir("co/src") });
    expect([r.stdout, r.stderr, r.code]).toEqual(["vorn 0.2.0\n" + line(mine, "4"), "", 0]);
    expect(other.requests()).toEqual([]);

    const all = await sb.run(["version", "-a"], { cwd: co });
    expect(all.stdout).toBe("vorn 0.2.0\n" + byPid([other, mine]).map((s) => line(s, s === mine ? "4" : "1")).join(""));

    // Without a dev app every live instance counts, even inside the checkout.
    fs.rmSync(sb.path("co/.cache/vorn/dev-app.json"));
    const none = await sb.run(["version"], { cwd: co });
    expect(none.stdout).toBe(all.stdout);
  });
});

describe("vorn version: a health reply of 1 GB", () => {
  test("reads as an unknown protocol, like any unreadable reply", async () => {
    const [a, b] = byPid(await sb.sims(2, (i) => ({ id: `v-${i}`, protocol: 4 })));
    await a.addRoute({ method: "GET", path: "/health", jsonStringBytes: 1 << 30, chunks: [4096] });
    const r = await sb.run(["version", "-a"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["vorn 0.2.0\n" + line(a, "unknown") + line(b, "4"), "", 0]);
  });
});
