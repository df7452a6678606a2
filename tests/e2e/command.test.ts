// `vorn command list|run` against simulated instances.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import type { Sandbox } from "./harness";
import { byPid, DASH, expectCalls, instanceTable, pretty, useSandbox } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

const COMMANDS = [
  { id: "go-mod-tidy", title: "Go: Tidy go.mod", target: "host", confirm: true },
  { id: "go-mod-vendor", title: "Go: Vendor Dependencies", target: "host", confirm: true },
  { id: "go-clean-modcache", title: "Go: Clean Module Cache", target: "host", confirm: true },
  { id: "go-test-workspace", title: "Go: Test Workspace", target: "host" },
  { id: "workbench.toggleSidebar", title: "View: Toggle Sidebar", target: "webview", keybinding: "cmd+b" },
  { id: "editor.formatDocument", title: "Format Document", target: "webview", keybinding: "shift+alt+f" },
];

describe("command run: usage", () => {
  test("no id fails with code 2 before any socket is touched", async () => {
    const s = await sb.sim({ id: "s" });
    const r = await sb.run(["command", "run"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn command run: missing command id (vorn command list)\n", 2]);
    const yes = await sb.run(["command", "run", "--yes", "-a"]);
    expect([yes.stdout, yes.stderr, yes.code]).toEqual(["", "vorn command run: missing command id (vorn command list)\n", 2]);
    expect(s.requests()).toEqual([]);
  });

  test("no id and no instance: still the usage error", async () => {
    const r = await sb.run(["command", "run"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn command run: missing command id (vorn command list)\n", 2]);
    const j = await sb.run(["command", "run", "-o", "json"]);
    expect(j.stdout).toBe("");
    expect(JSON.parse(j.stderr)).toEqual({ error: "vorn command run: missing command id (vorn command list)", code: 2 });
    expect(j.code).toBe(2);
  });

  test("--yes takes no value", async () => {
    const r = await sb.run(["command", "run", "go-mod-tidy", "--yes=true"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn: --yes takes no value\n", 2]);
  });

  test("no running instances", async () => {
    const r = await sb.run(["command", "run", "go-mod-tidy"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn command run: no running instances\n", 1]);
    const all = await sb.run(["command", "run", "go-mod-tidy", "-a"]);
    expect([all.stdout, all.stderr, all.code]).toEqual(["", "vorn command run: no running instances\n", 1]);
  });

  test("a selector that matches nothing: the resolver's error", async () => {
    const s = await sb.sim({ id: "s" });
    const r = await sb.run(["command", "run", "go-mod-tidy", "-i", "nosuch"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn: no instance matches nosuch\n", 1]);
    expectCalls(s, []);
  });
});

describe("command run: the body", () => {
  test("an id alone: {id}; the instance asks for confirmation, so the run fails with its detail", async () => {
    const s = await sb.sim({ id: "s" });
    const r = await sb.run(["command", "run", "go-mod-tidy"]);
    expect(r.stdout).toBe(pretty({ ok: false, id: "go-mod-tidy", detail: "go-mod-tidy asks for confirmation" }));
    expect(r.stderr).toBe("vorn command run: go-mod-tidy asks for confirmation\n");
    expect(r.code).toBe(1);
    expectCalls(s, [["POST", "/command", '{"id":"go-mod-tidy"}']]);
  });

  test("--yes adds confirmed: true", async () => {
    const s = await sb.sim({ id: "s" });
    const r = await sb.run(["command", "run", "go-mod-tidy", "--yes"]);
    expect(r.stdout).toBe('{\n  "ok": true,\n  "id": "go-mod-tidy",\n  "result": null\n}\n');
    expect([r.stderr, r.code]).toEqual(["", 0]);
    expectCalls(s, [["POST", "/command", '{"id":"go-mod-tidy","confirmed":true}']]);
  });

  test("more words become args, as strings, in order", async () => {
    const s = await sb.sim({ id: "s" });
    const r = await sb.run(["command", "run", "go-test-workspace", "a", "b"]);
    expect(r.stdout).toBe(pretty({ ok: true, id: "go-test-workspace", args: ["a", "b"], result: null }));
    expect([r.stderr, r.code]).toEqual(["", 0]);
    expectCalls(s, [["POST", "/command", '{"id":"go-test-workspace","args":["a","b"]}']]);
  });

  test("args that look like numbers, JSON or flags stay strings; --yes comes last", async () => {
    const s = await sb.sim({ id: "s" });
    const r = await sb.run(["command", "run", "editor.formatDocument", "12", "--yes", "-1", "true", '{"a":1}', "é ü", "--", "--yes"]);
    expect(r.stdout).toBe(pretty({ ok: true, id: "editor.formatDocument", args: ["12", "-1", "true", '{"a":1}', "é ü", "--yes"], async: true }));
    expect([r.stderr, r.code]).toEqual(["", 0]);
    expectCalls(s, [["POST", "/command", '{"id":"editor.formatDocument","args":["12","-1","true","{\\"a\\":1}","é ü","--yes"],"confirmed":true}']]);
  });

  test("an unknown id: the 404 body, then one failed target", async () => {
    const s = await sb.sim({ id: "s" });
    const r = await sb.run(["command", "run", "nosuch.command"]);
    expect(r.stdout).toBe('{\n  "ok": false,\n  "error": "unknown command: nosuch.command"\n}\n');
    expect(r.stderr).toBe("vorn command run: 1 target(s) failed\n");
    expect(r.code).toBe(1);
    expectCalls(s, [["POST", "/command", '{"id":"nosuch.command"}']]);
  });

  test("-o json with one instance prints the results wrapper", async () => {
    const s = await sb.sim({ id: "s" });
    const r = await sb.run(["command", "run", "workbench.toggleSidebar", "-o", "json"]);
    expect(r.stdout).toBe(pretty({ results: [{ id: "s", status: 200, body: { ok: true, id: "workbench.toggleSidebar", async: true } }] }));
    expect([r.stderr, r.code]).toEqual(["", 0]);
    expectCalls(s, [["POST", "/command", '{"id":"workbench.toggleSidebar"}']]);
  });
});

describe("command run: several instances", () => {
  test("two instances and no selector: the ambiguity error, nothing posted", async () => {
    const sims = byPid(await sb.sims(2, (i) => ({ id: `two-${i}` })));
    const r = await sb.run(["command", "run", "go-test-workspace"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(instanceTable(sims) + `\nvorn: 2 instances running ${DASH} pass -i ID (see vorn instance list)\n`);
    expect(r.code).toBe(2);
    for (const s of sims) expectCalls(s, []);

    const j = await sb.run(["command", "run", "go-test-workspace", "-o", "json"]);
    expect(j.stdout).toBe("");
    expect(JSON.parse(j.stderr)).toEqual({
      error: `2 instances running ${DASH} pass -i ID (see vorn instance list)`,
      instances: sims.map((s) => s.id),
      code: 2,
    });
    expect(j.code).toBe(2);
  });

  test("-i picks one of them", async () => {
    const [a, b] = byPid(await sb.sims(2, (i) => ({ id: `pick-${i}` })));
    const r = await sb.run(["command", "run", "go-test-workspace", "-i", b.id]);
    expect(r.stdout).toBe(pretty({ ok: true, id: "go-test-workspace", result: null }));
    expect([r.stderr, r.code]).toEqual(["", 0]);
    expectCalls(a, []);
    expectCalls(b, [["POST", "/command", '{"id":"go-test-workspace"}']]);
  });

  test("-a posts to both and prints {results: [...]}", async () => {
    const sims = byPid(await sb.sims(2, (i) => ({ id: `all-${i}` })));
    const r = await sb.run(["command", "run", "go-test-workspace", "x", "-a"]);
    expect(r.stdout).toBe(
      pretty({ results: sims.map((s) => ({ id: s.id, status: 200, body: { ok: true, id: "go-test-workspace", args: ["x"], result: null } })) }),
    );
    expect([r.stderr, r.code]).toEqual(["", 0]);
    for (const s of sims) expectCalls(s, [["POST", "/command", '{"id":"go-test-workspace","args":["x"]}']]);
  });

  test("-a where every target asks for confirmation: one detail line each, then the count", async () => {
    const sims = byPid(await sb.sims(2, (i) => ({ id: `conf-${i}` })));
    const r = await sb.run(["command", "run", "go-clean-modcache", "--all"]);
    const body = { ok: false, id: "go-clean-modcache", detail: "go-clean-modcache asks for confirmation" };
    expect(r.stdout).toBe(pretty({ results: sims.map((s) => ({ id: s.id, status: 200, body })) }));
    expect(r.stderr).toBe(
      sims.map((s) => `vorn command run [${s.id}]: go-clean-modcache asks for confirmation\n`).join("") + "vorn command run: 2 target(s) failed\n",
    );
    expect(r.code).toBe(1);
  });

  test("-a where one target fails without detail: counted, no detail line", async () => {
    const [a, b] = byPid(await sb.sims(2, (i) => ({ id: `mix-${i}` })));
    await b.addRoute({ method: "POST", path: "/command", status: 500, json: { error: "crashed" } });
    const r = await sb.run(["command", "run", "go-test-workspace", "-a"]);
    expect(r.stdout).toBe(
      pretty({
        results: [
          { id: a.id, status: 200, body: { ok: true, id: "go-test-workspace", result: null } },
          { id: b.id, status: 500, body: { error: "crashed" } },
        ],
      }),
    );
    expect(r.stderr).toBe("vorn command run: 1 target(s) failed\n");
    expect(r.code).toBe(1);
  });
});

describe("command list", () => {
  test("one instance: its reply", async () => {
    const s = await sb.sim({ id: "s" });
    const r = await sb.run(["command", "list"]);
    expect(r.stdout).toBe(pretty({ commands: COMMANDS }));
    expect([r.stderr, r.code]).toEqual(["", 0]);
    expectCalls(s, [["GET", "/command"]]);
  });

  test("two instances: every reply, in pid order", async () => {
    const sims = byPid(await sb.sims(2, (i) => ({ id: `l-${i}`, commands: [{ id: `only-${i}` }] })));
    const r = await sb.run(["command", "list"]);
    expect(r.stdout).toBe(
      pretty({ results: sims.map((s) => ({ id: s.id, ok: true, body: { commands: [{ id: `only-${s.id.slice(2)}` }] } })) }),
    );
    expect([r.stderr, r.code]).toEqual(["", 0]);
    for (const s of sims) expectCalls(s, [["GET", "/command"]]);
  });

  test("-o json with one instance: the wrapper", async () => {
    const s = await sb.sim({ id: "s", commands: [] });
    const r = await sb.run(["command", "list", "-o", "json"]);
    expect(r.stdout).toBe('{\n  "results": [\n    {\n      "id": "s",\n      "ok": true,\n      "body": {\n        "commands": []\n      }\n    }\n  ]\n}\n');
    expect([r.stderr, r.code]).toEqual(["", 0]);
    expectCalls(s, [["GET", "/command"]]);
  });

  test("no instances", async () => {
    const r = await sb.run(["command", "list"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn command list: no running instances\n", 1]);
  });

  test("a failing reply is printed, then exit 1 without more text", async () => {
    const s = await sb.sim({ id: "s", routes: [{ method: "GET", path: "/command", status: 503, json: { error: "registry not ready" } }] });
    const r = await sb.run(["command", "list"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(['{\n  "error": "registry not ready"\n}\n', "", 1]);
    expectCalls(s, [["GET", "/command"]]);
  });

  test("takes no options of its own", async () => {
    const r = await sb.run(["command", "list", "--yes"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn: unknown flag --yes\n", 2]);
  });
});

// A reply read as a value stops at 64 MiB: that target failed, with the error as its body.
describe("command run: a reply of 1 GB", () => {
  test("one failed target whose body names the limit", async () => {
    const s = await sb.sim({ id: "s", routes: [{ method: "POST", path: "/command", jsonStringBytes: 1 << 30 }] });
    const r = await sb.run(["command", "run", "workbench.toggleSidebar"]);
    expect(r.stdout).toBe(pretty({ error: "reply too large: over 64 MiB" }));
    expect([r.stderr, r.code]).toEqual(["vorn command run: 1 target(s) failed\n", 1]);
    expectCalls(s, [["POST", "/command", '{"id":"workbench.toggleSidebar"}']]);
  });
});
