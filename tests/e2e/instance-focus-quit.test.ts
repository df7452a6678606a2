// `vorn instance focus|quit` against simulated instances: selecting them, and the failures of
// each.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import fs from "node:fs";
import type { Sandbox } from "./harness";
import { byPid, calls, expectCalls, expectWire, useSandbox } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

describe("instance focus", () => {
  test("with no instances it fails", async () => {
    const r = await sb.run(["instance", "focus"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn instance focus: no running instances\n", 1]);
  });

  test("focuses the one instance", async () => {
    const s = await sb.sim({ id: "win" });
    const r = await sb.run(["instance", "focus"]);
    expect(r.stdout).toBe("Focused instance win\n");
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expectCalls(s, [["POST", "/focus", "{}"]]);
    expect((await s.state()).focusCount).toBe(1);
  });

  test("-a focuses every instance in pid order", async () => {
    const sims = byPid(await sb.sims(2, (i) => ({ id: `f-${i}` })));
    const r = await sb.run(["instance", "focus", "-a"]);
    expect(r.stdout).toBe(sims.map((s) => `Focused instance ${s.id}\n`).join(""));
    expect(r.code).toBe(0);
    for (const s of sims) expect(calls(s).map((q) => q.target)).toEqual(["/focus"]);
  });

  test("failures: the reply's error, the status, or unreachable; successes still print", async () => {
    const [a, b, c, d] = byPid(await sb.sims(4, (i) => ({ id: `ff-${i}` })));
    await b.addRoute({ path: "/focus", status: 409, json: { error: "window minimised" } });
    await c.addRoute({ path: "/focus", status: 500, json: { detail: "no error key" } });
    await d.addRoute({ path: "/focus", action: "close" });
    const r = await sb.run(["instance", "focus", "-a"]);
    expect(r.stdout).toBe(`Focused instance ${a.id}\n`);
    expect(r.stderr).toBe(
      `vorn instance focus [${b.id}]: window minimised\n` +
        `vorn instance focus [${c.id}]: focus failed (500)\n` +
        `vorn instance focus [${d.id}]: focus failed (unreachable)\n` +
        "vorn instance focus: 3 target(s) failed\n",
    );
    expect(r.code).toBe(1);

    const j = await sb.run(["instance", "focus", "-a", "-o", "json"]);
    expect(j.code).toBe(1);
    const lines = j.stderr.trimEnd().split("\n");
    expect(JSON.parse(lines[lines.length - 1])).toEqual({ error: "vorn instance focus: 3 target(s) failed", code: 1 });
  });
});

describe("instance quit", () => {
  test("needs a selector even when exactly one instance runs", async () => {
    const s = await sb.sim({ id: "solo" });
    const r = await sb.run(["instance", "quit"]);
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("vorn instance quit: pass -i ID, --pid N, -a, or --sock (see vorn instance list)\n");
    expect(r.code).toBe(1);
    expect(s.requests()).toEqual([]); // not even a scan
    expect(s.alive()).toBe(true);
  });

  test("quits the selected instance, waits for it and its folder is gone", async () => {
    const [keep, go] = await Promise.all([sb.sim({ id: "keep" }), sb.sim({ id: "go" })]);
    const r = await sb.run(["instance", "quit", "-i", "go"]);
    expect(r.stdout).toBe("Quit instance go\n");
    expect(r.stderr).toBe("");
    expect(r.code).toBe(0);
    expect(await go.exited).toBe(0);
    expect(fs.existsSync(go.dir)).toBe(false);
    expect(sb.runtimeEntries()).toEqual([String(keep.pid)]);
    const posts = go.requests().filter((q) => q.method === "POST");
    expect(posts.length).toBe(1);
    expectWire(posts[0], "POST", "/quit", "{}");
    expect(calls(keep)).toEqual([]);
  });

  test("--sock and --pid select too", async () => {
    const [a, b] = await Promise.all([sb.sim({ id: "by-sock" }), sb.sim({ id: "by-pid" })]);
    const r1 = await sb.run(["instance", "quit", "--sock", a.sock]);
    expect([r1.stdout, r1.stderr, r1.code]).toEqual(["Quit instance by-sock\n", "", 0]);
    const r2 = await sb.run(["instance", "quit", "--pid", String(b.pid)]);
    expect([r2.stdout, r2.stderr, r2.code]).toEqual(["Quit instance by-pid\n", "", 0]);
    await Promise.all([a.exited, b.exited]);
    expect(sb.runtimeEntries()).toEqual([]);
  });

  test("-a with nothing running, or an id that matches nothing", async () => {
    const r = await sb.run(["instance", "quit", "-a"]);
    expect([r.stdout, r.stderr, r.code]).toEqual(["", "vorn instance quit: no matching instances\n", 1]);
    await sb.sim({ id: "there" });
    const n = await sb.run(["instance", "quit", "-i", "nope"]);
    expect([n.stdout, n.stderr, n.code]).toEqual(["", "vorn: no instance matches nope\n", 1]);
  });

  test("a refused quit reports the reply's error or its status, and a dropped connection its transport error", async () => {
    const [a, b, c, d] = byPid(await sb.sims(4, (i) => ({ id: `qq-${i}` })));
    await b.addRoute({ path: "/quit", status: 423, json: { error: "unsaved changes" } });
    await c.addRoute({ path: "/quit", status: 500, json: {} });
    await d.addRoute({ path: "/quit", action: "close" });
    const r = await sb.run(["instance", "quit", "-a"]);
    expect(r.stdout).toBe(`Quit instance ${a.id}\n`);
    expect(r.stderr).toBe(
      `vorn instance quit [${b.id}]: unsaved changes\n` +
        `vorn instance quit [${c.id}]: quit failed (500)\n` +
        `vorn instance quit [${d.id}]: malformed HTTP reply\n` +
        "vorn instance quit: 3 target(s) failed\n",
    );
    expect(r.code).toBe(1);
    for (const s of [b, c, d]) expect(s.alive()).toBe(true);
  });

  test("-a with an instance that ignores the quit reports it still running after 10s", async () => {
    const s = await sb.sim({ id: "stubborn", ignoreQuit: true });
    const started = Date.now();
    const r = await sb.run(["instance", "quit", "-a"]);
    const took = Date.now() - started;
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe("vorn instance quit [stubborn]: still running after 10s\nvorn instance quit: 1 target(s) failed\n");
    expect(r.code).toBe(1);
    expect(took).toBeGreaterThanOrEqual(10000);
    expect(s.alive()).toBe(true);
    expect(fs.existsSync(s.dir)).toBe(true);
  });
});
