// The simulated instance's record (GET /instance) and what it records of every request it
// receives, down to the byte.

import { describe, expect, test } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import { exchange, request, requestBytes, type Sandbox } from "./harness";
import { useSandbox } from "./support";
import { parseReply } from "../sim/http";

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

describe("instance record", () => {
  test("GET /instance answers every key, in order", async () => {
    const ws = sb.dir("work/app");
    const s = await sb.sim({ id: "a1", workspace: ws, vornRoot: "/opt/vorn", mode: "app", startedAt: 1700000000000 });
    const r = await request(s.sock, "GET", "/instance");
    expect(r.status).toBe(200);
    expect(r.text).toBe(
      JSON.stringify({
        id: "a1",
        pid: s.pid,
        socketPath: s.sock,
        workspace: ws,
        workspaceName: "app",
        vornRoot: "/opt/vorn",
        startedAt: 1700000000000,
        platform: "darwin",
        transport: "af_unix",
        mode: "app",
      }),
    );
    expect(s.sock).toBe(path.join(sb.runtime, "vorn", String(s.pid), "fs.sock"));
    expect(fs.statSync(s.dir).mode & 0o777).toBe(0o700);
    expect(fs.statSync(s.sock).isSocket()).toBe(true);
  });

  test("defaults: no workspace, no mode, startedAt now", async () => {
    const before = Date.now();
    const s = await sb.sim();
    const r = (await request(s.sock, "GET", "/instance")).json as Record<string, unknown>;
    expect(r.id).toBe(s.id);
    expect(r.workspace).toBe("");
    expect(r.workspaceName).toBe("");
    expect("mode" in r).toBe(false);
    expect(typeof r.vornRoot).toBe("string");
    expect(r.startedAt as number).toBeGreaterThanOrEqual(before - 1000);
  });

  test("record fields can be overridden, added and omitted", async () => {
    const s = await sb.sim({
      id: "x",
      instance: { transport: "tcp", id: "", platform: "linux", socketPath: "/elsewhere/fs.sock", pid: "12", repoRoot: "/r" },
      instanceOmit: ["startedAt", "vornRoot"],
    });
    const r = await request(s.sock, "GET", "/instance");
    expect(Object.keys(r.json as object)).toEqual(["id", "pid", "socketPath", "workspace", "workspaceName", "platform", "transport", "repoRoot"]);
    expect(r.json).toMatchObject({ id: "", pid: "12", socketPath: "/elsewhere/fs.sock", platform: "linux", transport: "tcp" });
  });

  test("a scripted /instance reply wins over the record", async () => {
    const s = await sb.sim({ routes: [{ method: "GET", path: "/instance", status: 500, json: { error: "boom" } }] });
    const r = await request(s.sock, "GET", "/instance");
    expect(r.status).toBe(500);
    expect(r.json).toEqual({ error: "boom" });
  });
});

describe("recording", () => {
  test("records a request byte for byte, headers in order", async () => {
    const s = await sb.sim();
    const bytes = requestBytes("POST", "/openFile", { path: "/w/é.go", line: 12, col: 5 });
    await exchange(s.sock, bytes);
    const [q] = s.requests();
    expect(q.raw.equals(bytes)).toBe(true);
    expect(q.rawText).toBe(
      'POST /openFile HTTP/1.1\r\nHost: unix\r\nConnection: close\r\nAccept: */*\r\nContent-Type: application/json\r\nContent-Length: 37\r\n\r\n{"path":"/w/é.go","line":12,"col":5}',
    );
    expect(q.method).toBe("POST");
    expect(q.target).toBe("/openFile");
    expect(q.version).toBe("HTTP/1.1");
    expect(q.headerLines).toEqual(["Host: unix", "Connection: close", "Accept: */*", "Content-Type: application/json", "Content-Length: 37"]);
    expect(q.headers[4]).toEqual(["Content-Length", "37"]);
    expect(q.header("content-type")).toBe("application/json");
    expect(q.bodyText).toBe('{"path":"/w/é.go","line":12,"col":5}');
    expect(q.body.length).toBe(37);
    expect(q.json).toEqual({ path: "/w/é.go", line: 12, col: 5 });
    expect(q.lineEnding).toBe("\r\n");
    expect(q.extra.length).toBe(0);
    expect(q.route).toBeNull();
  });

  test("a GET carries its query; records keep arrival order", async () => {
    const s = await sb.sim();
    await request(s.sock, "GET", "/health");
    await request(s.sock, "GET", "/search?q=a+b&case=1&include=%2A.go");
    await request(s.sock, "GET", "/diagnostics?source=go%20test");
    const qs = s.requests();
    expect(qs.map((q) => q.target)).toEqual(["/health", "/search?q=a+b&case=1&include=%2A.go", "/diagnostics?source=go%20test"]);
    expect(qs[1].path).toBe("/search");
    expect(qs[1].query).toEqual([["q", "a b"], ["case", "1"], ["include", "*.go"]]);
    expect(qs[2].query).toEqual([["source", "go test"]]);
    expect(qs[0].body.length).toBe(0);
    expect(qs[0].json).toBeUndefined();
    expect(qs.map((q) => q.seq)).toEqual([1, 2, 3]);
  });

  test("bytes past the announced body, bare line feeds and cut-off requests are recorded", async () => {
    const s = await sb.sim();
    await exchange(s.sock, "POST /focus HTTP/1.1\r\nContent-Length: 2\r\n\r\n{}XYZ");
    await exchange(s.sock, "GET /health HTTP/1.1\nHost: unix\n\n");
    await exchange(s.sock, "POST /focus HTTP/1.1\r\nContent-Length: 10\r\n\r\n{}", { halfClose: true });
    const all = s.records();
    expect(all.length).toBe(3);
    expect(all[0].bodyText).toBe("{}");
    expect(all[0].extra.toString()).toBe("XYZ");
    expect(all[1].lineEnding).toBe("\n");
    expect(all[1].headerLines).toEqual(["Host: unix"]);
    expect(all[2].complete).toBe(false);
    expect(all[2].rawText).toBe("POST /focus HTTP/1.1\r\nContent-Length: 10\r\n\r\n{}");
    expect(s.requests().length).toBe(2);
  });

  test("a malformed request gets 400 and is recorded as such", async () => {
    const s = await sb.sim();
    const ex = await exchange(s.sock, "NONSENSE\r\n\r\n");
    expect(parseReply(ex.bytes).status).toBe(400);
    const [r] = s.records();
    expect(r.complete).toBe(false);
    expect(r.error).toBe("malformed request line");
  });

  test("a chunked request body is decoded", async () => {
    const s = await sb.sim();
    const ex = await exchange(
      s.sock,
      'POST /openFile HTTP/1.1\r\nTransfer-Encoding: chunked\r\n\r\n5\r\n{"pat\r\nb\r\nh":"/a.go"}\r\n0\r\n\r\n',
    );
    expect(JSON.parse(parseReply(ex.bytes).body.toString())).toEqual({ ok: true, path: "/a.go" });
    expect(s.requests()[0].json).toEqual({ path: "/a.go" });
  });

  test("clearRequests starts a fresh list", async () => {
    const s = await sb.sim();
    await request(s.sock, "GET", "/health");
    s.clearRequests();
    expect(s.requests()).toEqual([]);
    await request(s.sock, "GET", "/test");
    expect(s.requests().map((q) => q.target)).toEqual(["/test"]);
  });

  test("many requests in parallel are all answered and recorded", async () => {
    const s = await sb.sim();
    const replies = await Promise.all(Array.from({ length: 50 }, (_, i) => request(s.sock, "GET", `/health?n=${i}`)));
    expect(replies.every((r) => r.status === 200)).toBe(true);
    expect(s.requests().map((q) => q.target).sort()).toEqual(Array.from({ length: 50 }, (_, i) => `/health?n=${i}`).sort());
  });
});

test("large bodies travel whole in both directions", async () => {
  const big = { items: Array.from({ length: 20000 }, (_, i) => ({ path: `pkg/file${i}.go`, line: i, preview: "x".repeat(40) })) };
  const s = await sb.sim({ routes: [{ path: "/search", json: big }] });
  const r = await request(s.sock, "GET", "/search?q=x");
  expect(r.body.length).toBeGreaterThan(1_000_000);
  expect(r.json).toEqual(big);
  const payload = { root: "/w/" + "y".repeat(2_000_000) };
  const w = await request(s.sock, "POST", "/workspace", payload);
  expect(w.json).toEqual({ ok: true, root: payload.root });
  expect(s.requests()[1].body.length).toBe(JSON.stringify(payload).length);
});
