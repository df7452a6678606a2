// Tests of the simulated instance and of the harness itself.

import { afterEach, beforeEach, describe, expect, test } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import { exchange, request, requestBytes, sandbox, type Sandbox } from "./harness";
import { parseReply } from "../sim/http";

const BUN = process.execPath;
const SIM_DIR = path.join(import.meta.dir, "..", "sim");

let sb: Sandbox;
beforeEach(async () => {
  sb = await sandbox();
});
afterEach(async () => {
  await sb.cleanup();
});

function exists(p: string): boolean {
  try {
    fs.lstatSync(p);
    return true;
  } catch {
    return false;
  }
}

async function waitGone(p: string, ms = 5000): Promise<boolean> {
  const deadline = Date.now() + ms;
  while (Date.now() < deadline) {
    if (!exists(p)) return true;
    await Bun.sleep(10);
  }
  return !exists(p);
}

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

describe("built-in endpoints", () => {
  test("health, focus and unknown routes", async () => {
    const s = await sb.sim({ id: "h", protocol: 3 });
    expect((await request(s.sock, "GET", "/health")).json).toEqual({ ok: true, protocol: 3, id: "h" });
    expect((await request(s.sock, "POST", "/focus")).json).toEqual({ ok: true });
    const nf = await request(s.sock, "GET", "/nope");
    expect(nf.status).toBe(404);
    expect(nf.json).toEqual({ error: "not found" });
    expect((await request(s.sock, "POST", "/health")).status).toBe(404);
    expect(nf.headers).toEqual([
      ["Content-Type", "application/json; charset=utf-8"],
      ["Content-Length", "21"],
      ["Connection", "close"],
    ]);
  });

  test("workspace show and open; the record follows the open", async () => {
    const ws = sb.dir("work/app");
    sb.file("work/app/go.mod", "module example.com/app\n\ngo 1.22\n");
    const s = await sb.sim({ workspace: ws });
    expect((await request(s.sock, "GET", "/workspace")).json).toEqual({
      open: true,
      root: ws,
      name: "app",
      goVersion: "go1.22.5",
      goos: "darwin",
      goarch: "arm64",
      gomod: path.join(ws, "go.mod"),
      module: "example.com/app",
    });
    const other = sb.dir("work/other");
    expect((await request(s.sock, "POST", "/workspace", { root: other })).json).toEqual({ ok: true, root: other });
    expect((await request(s.sock, "GET", "/instance")).json).toMatchObject({ workspace: other, workspaceName: "other" });
    const badRoot = await request(s.sock, "POST", "/workspace", { root: 3 });
    expect(badRoot.status).toBe(400);
    const notJson = await request(s.sock, "POST", "/workspace", "{oops");
    expect(notJson.json).toEqual({ error: "body is not JSON" });

    const none = await sb.sim();
    expect((await request(none.sock, "GET", "/workspace")).json).toEqual({ open: false, root: null, name: null });
  });

  test("listTree reflects the real folder", async () => {
    const ws = sb.dir("work/app");
    sb.file("work/app/main.go", "package main\n");
    sb.file("work/app/pkg/util/util.go", "package util\n");
    sb.file("work/app/.git/HEAD", "ref\n");
    const s = await sb.sim({ workspace: ws });
    expect((await request(s.sock, "POST", "/api/listTree")).json).toEqual([
      {
        name: "pkg",
        path: "pkg",
        type: "directory",
        children: [{ name: "util", path: "pkg/util", type: "directory", children: [{ name: "util.go", path: "pkg/util/util.go", type: "file" }] }],
      },
      { name: "main.go", path: "main.go", type: "file" },
    ]);
    const none = await sb.sim();
    expect((await request(none.sock, "POST", "/api/listTree")).json).toEqual([]);
  });

  test("openFile echoes what was sent", async () => {
    const s = await sb.sim();
    expect((await request(s.sock, "POST", "/openFile", { path: "/w/a.go", line: 3 })).json).toEqual({ ok: true, path: "/w/a.go", line: 3 });
    expect((await request(s.sock, "POST", "/openFile", { path: "/w/a.go", line: 3, col: 9 })).json).toEqual({
      ok: true,
      path: "/w/a.go",
      line: 3,
      col: 9,
    });
    expect((await request(s.sock, "POST", "/openFile", {})).status).toBe(400);
  });

  test("read returns workspace files and refuses others", async () => {
    const ws = sb.dir("work/app");
    sb.file("work/app/dir with space/a.txt", "hello\n");
    sb.file("work/secret.txt", "no\n");
    const s = await sb.sim({ workspace: ws });
    const r = await request(s.sock, "GET", "/read?path=dir%20with%20space%2Fa.txt");
    expect(r.json).toEqual({ path: "dir with space/a.txt", content: "hello\n", size: 6 });
    const abs = await request(s.sock, "GET", "/read?path=" + encodeURIComponent(path.join(ws, "dir with space/a.txt")));
    expect((abs.json as { content: string }).content).toBe("hello\n");
    expect((await request(s.sock, "GET", "/read?path=..%2Fsecret.txt")).status).toBe(403);
    expect((await request(s.sock, "GET", "/read?path=missing")).status).toBe(404);
    expect((await request(s.sock, "GET", "/read")).status).toBe(400);
  });

  test("commands: list, run, confirmation, unknown", async () => {
    const s = await sb.sim();
    const list = (await request(s.sock, "GET", "/command")).json as { commands: { id: string }[] };
    expect(list.commands.map((c) => c.id)).toContain("go-mod-tidy");
    expect((await request(s.sock, "POST", "/command", { id: "go-test-workspace", args: ["a", "b"] })).json).toEqual({
      ok: true,
      id: "go-test-workspace",
      args: ["a", "b"],
      result: null,
    });
    const tidy = await request(s.sock, "POST", "/command", { id: "go-mod-tidy" });
    expect(tidy.json).toMatchObject({ ok: false, detail: "go-mod-tidy asks for confirmation" });
    expect((await request(s.sock, "POST", "/command", { id: "go-mod-tidy", confirmed: true })).json).toMatchObject({ ok: true });
    expect((await request(s.sock, "POST", "/command", { id: "workbench.toggleSidebar" })).json).toMatchObject({ ok: true, async: true });
    const unknown = await request(s.sock, "POST", "/command", { id: "nope" });
    expect(unknown.status).toBe(404);
    expect(unknown.json).toEqual({ ok: false, error: "unknown command: nope" });
  });

  test("diagnostics with a source filter, and nogo", async () => {
    const diagnostics = [
      { source: "gopls", message: "a" },
      { source: "nogo", severity: "error", message: "b" },
      { source: "go test", message: "c" },
    ];
    const s = await sb.sim({ diagnostics });
    expect((await request(s.sock, "GET", "/diagnostics")).json).toEqual({ diagnostics, analyzers: { nogo: { state: "idle" } } });
    expect(((await request(s.sock, "GET", "/diagnostics?source=go%20test")).json as { diagnostics: unknown[] }).diagnostics).toEqual([
      diagnostics[2],
    ]);
    expect((await request(s.sock, "POST", "/nogo", {})).json).toEqual({ ok: false, diagnostics: [diagnostics[1]] });
    const clean = await sb.sim({ diagnostics: [] });
    expect((await request(clean.sock, "POST", "/nogo", {})).json).toEqual({ ok: true, diagnostics: [] });
  });

  test("search looks through the real files", async () => {
    const ws = sb.dir("work/app");
    sb.file("work/app/a.go", "package a\n\nfunc Foo() { foo := 1 }\n");
    sb.file("work/app/b/b.go", "package b // FOO\n");
    sb.file("work/app/c.txt", "foobar\n");
    sb.file("work/app/node_modules/x.go", "foo\n");
    const s = await sb.sim({ workspace: ws });
    const all = (await request(s.sock, "GET", "/search?q=foo")).json;
    expect(all).toEqual({
      files: [
        {
          path: "a.go",
          matches: [
            { line: 3, col: 6, preview: "func Foo() { foo := 1 }" },
            { line: 3, col: 14, preview: "func Foo() { foo := 1 }" },
          ],
        },
        { path: "b/b.go", matches: [{ line: 1, col: 14, preview: "package b // FOO" }] },
        { path: "c.txt", matches: [{ line: 1, col: 1, preview: "foobar" }] },
      ],
      matchCount: 4,
      fileCount: 3,
      engine: "sim",
      limitHit: false,
    });
    const cased = (await request(s.sock, "GET", "/search?q=foo&case=1&word=1")).json as { matchCount: number };
    expect(cased.matchCount).toBe(1);
    const inc = (await request(s.sock, "GET", "/search?q=foo&include=*.go&exclude=b%2F")).json as { files: { path: string }[] };
    expect(inc.files.map((f) => f.path)).toEqual(["a.go"]);
    const capped = (await request(s.sock, "GET", "/search?q=foo&max=2")).json as { matchCount: number; limitHit: boolean };
    expect(capped).toMatchObject({ matchCount: 2, limitHit: true });
    const re = (await request(s.sock, "GET", "/search?q=F%5Bo%5D%2B%5C(&regex=1&case=1")).json as { matchCount: number };
    expect(re.matchCount).toBe(1);
    expect((await request(s.sock, "GET", "/search?q=(&regex=1")).status).toBe(400);
    expect((await request(s.sock, "GET", "/search")).status).toBe(400);
  });

  test("tests: run, status, rerun, cancel", async () => {
    const s = await sb.sim({ tests: { passed: 2, failed: 1, failures: [{ test: "TestX" }] } });
    expect((await request(s.sock, "GET", "/test")).json).toEqual({ summary: null });
    const rerunFirst = await request(s.sock, "POST", "/test", { rerun: "failed" });
    expect(rerunFirst.json).toMatchObject({ ok: false, detail: "no previous test run" });
    const run = await request(s.sock, "POST", "/test", { path: "/w/app/...", cover: true });
    expect(run.json).toEqual({
      ok: false,
      summary: {
        runId: 1,
        target: "/w/app/...",
        status: "failed",
        passed: 2,
        failed: 1,
        skipped: 0,
        durationMs: 120,
        failures: [{ test: "TestX" }],
        coverage: { total: 78.4, packages: { "example.com/app": 78.4 } },
      },
    });
    expect((await request(s.sock, "GET", "/test")).json).toEqual({ summary: (run.json as { summary: unknown }).summary });
    const again = await request(s.sock, "POST", "/test", { rerun: "last", wait: false });
    expect(again.json).toEqual({ ok: true, summary: { runId: 2, target: "/w/app/...", rerun: "last", started: true } });
    expect((await request(s.sock, "POST", "/test/cancel", {})).json).toEqual({ ok: true, cancelled: 1 });
    expect((await request(s.sock, "POST", "/test", { line: "x" })).status).toBe(400);
    const passing = await sb.sim();
    expect((await request(passing.sock, "POST", "/test", {})).json).toMatchObject({ ok: true, summary: { target: "./...", passed: 3 } });
  });

  test("language status and position queries", async () => {
    const ws = sb.dir("work/app");
    const s = await sb.sim({ workspace: ws });
    expect((await request(s.sock, "GET", "/language/status")).json).toEqual({ languageId: "go", ready: true, detail: "gopls v0.16.2" });
    const range = { start: { line: 9, character: 4 }, end: { line: 9, character: 5 } };
    expect((await request(s.sock, "POST", "/api/languageHover", { path: "main.go", line: 9, character: 4 })).json).toEqual({
      contents: { kind: "markdown", value: "sim hover at main.go:9:4" },
      range,
    });
    expect((await request(s.sock, "POST", "/api/languageDefinition", { path: "main.go", line: 9, character: 4 })).json).toEqual([
      { uri: "file://" + path.join(ws, "main.go"), range },
    ]);
    expect((await request(s.sock, "POST", "/api/languageTypeDefinition", { path: "/x/y.go", line: 9, character: 4 })).json).toEqual([
      { uri: "file:///x/y.go", range },
    ]);
    expect((await request(s.sock, "POST", "/api/languageHover", { path: "a.go", line: -1, character: 0 })).json).toEqual({
      error: "position out of range",
    });
  });
});

describe("scripted replies", () => {
  test("status, JSON, text and extra headers", async () => {
    const s = await sb.sim({
      routes: [
        { method: "GET", path: "/health", status: 503, json: { error: "down" }, headers: { "X-Sim": "1", "Content-Type": "text/json" } },
        { path: "/text", body: "oops" },
        { path: "/empty", status: 204 },
        { path: "/reason", status: 299, reason: "Fine Thanks", json: null },
      ],
    });
    const h = await request(s.sock, "GET", "/health");
    expect(h.statusLine).toBe("HTTP/1.1 503 Service Unavailable");
    expect(h.headers).toEqual([
      ["Content-Type", "text/json"],
      ["Content-Length", "16"],
      ["Connection", "close"],
      ["X-Sim", "1"],
    ]);
    expect(h.json).toEqual({ error: "down" });
    const t = await request(s.sock, "GET", "/text");
    expect([t.status, t.text]).toEqual([200, "oops"]);
    const e = await request(s.sock, "POST", "/empty");
    expect([e.status, e.text]).toEqual([204, ""]);
    const r = await request(s.sock, "GET", "/reason");
    expect([r.statusLine, r.text]).toEqual(["HTTP/1.1 299 Fine Thanks", "null"]);
    expect(s.requests().map((q) => q.route)).toEqual([0, 1, 2, 3]);
  });

  test("a route matches by method, by path, or by the whole target", async () => {
    const s = await sb.sim({
      routes: [
        { method: "POST", path: "/focus", status: 500, json: { error: "no window" } },
        { path: "/diagnostics?source=nogo", json: { diagnostics: ["only nogo"] } },
        { method: "*", path: "/anything", json: "any" },
      ],
    });
    expect((await request(s.sock, "POST", "/focus")).status).toBe(500);
    expect((await request(s.sock, "GET", "/diagnostics?source=nogo")).json).toEqual({ diagnostics: ["only nogo"] });
    expect(((await request(s.sock, "GET", "/diagnostics")).json as { diagnostics: unknown[] }).diagnostics.length).toBe(2);
    expect((await request(s.sock, "PUT", "/anything")).json).toBe("any");
    expect((await request(s.sock, "DELETE", "/anything")).json).toBe("any");
  });

  test("times: a route answers n times, then the built-in reply returns", async () => {
    const s = await sb.sim({ routes: [{ path: "/health", times: 2, status: 500 }] });
    const statuses = [];
    for (let i = 0; i < 3; i++) statuses.push((await request(s.sock, "GET", "/health")).status);
    expect(statuses).toEqual([500, 500, 200]);
  });

  test("delay holds the reply back", async () => {
    const s = await sb.sim({ routes: [{ path: "/health", delayMs: 300 }] });
    const t0 = performance.now();
    const r = await request(s.sock, "GET", "/health");
    expect(performance.now() - t0).toBeGreaterThanOrEqual(290);
    expect(r.json).toMatchObject({ ok: true });
  });

  test("chunked replies with chosen chunk sizes, with and without the end chunk", async () => {
    const s = await sb.sim({
      routes: [
        { path: "/health", chunks: [3, 5] },
        { path: "/open", json: { a: "bcdefghij" }, chunks: [4], chunkEnd: false },
      ],
    });
    const r = await request(s.sock, "GET", "/health");
    expect(r.chunked).toBe(true);
    expect(r.chunkSizes).toEqual([3, 5, r.body.length - 8]);
    expect(r.chunkEnd).toBe(true);
    expect(r.json).toMatchObject({ ok: true });
    expect(r.raw.toString()).toContain("Transfer-Encoding: chunked\r\n");
    expect(r.raw.toString()).not.toContain("Content-Length");
    const open = await request(s.sock, "GET", "/open");
    expect(open.chunkSizes).toEqual([4, 13]);
    expect(open.chunkEnd).toBe(false);
    expect(open.raw.toString().endsWith('"bcdefghij"}\r\n')).toBe(true);
  });

  test("raw replies are sent byte for byte", async () => {
    const raw = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n10\r\nabcde";
    const s = await sb.sim({
      routes: [
        { path: "/health", raw },
        { path: "/bin", rawBase64: Buffer.from([0x48, 0x00, 0xff]).toString("base64") },
        { path: "/noblank", raw: "HTTP/1.1 200 OK\r\nX: y" },
      ],
    });
    const ex = await exchange(s.sock, requestBytes("GET", "/health"));
    expect(ex.closed).toBe(true);
    expect(ex.bytes.toString()).toBe(raw);
    expect(() => parseReply(ex.bytes)).toThrow("truncated chunk");
    expect([...(await exchange(s.sock, requestBytes("GET", "/bin"))).bytes]).toEqual([0x48, 0x00, 0xff]);
    const noblank = await exchange(s.sock, requestBytes("GET", "/noblank"));
    expect(() => parseReply(noblank.bytes)).toThrow("malformed HTTP reply");
  });

  test("Content-Length can lie or be left out", async () => {
    const s = await sb.sim({
      routes: [
        { path: "/short", json: { ok: true }, contentLength: 3 },
        { path: "/none", json: { ok: true }, contentLength: false },
      ],
    });
    const short = await exchange(s.sock, requestBytes("GET", "/short"));
    expect(short.bytes.toString()).toContain("Content-Length: 3\r\n");
    expect(short.bytes.toString().endsWith('{"ok":true}')).toBe(true);
    const none = await request(s.sock, "GET", "/none");
    expect(none.headers.map(([k]) => k)).toEqual(["Content-Type", "Connection"]);
    expect(none.json).toEqual({ ok: true });
  });

  test("split writes arrive whole", async () => {
    const s = await sb.sim({ routes: [{ path: "/health", writes: [1, 7, 20], writeGapMs: 20 }] });
    const r = await request(s.sock, "GET", "/health");
    expect(r.json).toMatchObject({ ok: true });
  });

  test("close drops the connection without a reply", async () => {
    const s = await sb.sim({ routes: [{ path: "/health", action: "close" }] });
    const ex = await exchange(s.sock, requestBytes("GET", "/health"));
    expect(ex).toMatchObject({ closed: true, timedOut: false });
    expect(ex.bytes.length).toBe(0);
    expect(s.requests().length).toBe(1);
  });

  test("hang accepts and never answers; keepOpen answers but never closes", async () => {
    const s = await sb.sim({
      routes: [
        { path: "/health", action: "hang" },
        { path: "/test", keepOpen: true },
      ],
    });
    const hung = await exchange(s.sock, requestBytes("GET", "/health"), { timeoutMs: 300 });
    expect(hung).toMatchObject({ closed: false, timedOut: true });
    expect(hung.bytes.length).toBe(0);
    const open = await exchange(s.sock, requestBytes("GET", "/test"), { timeoutMs: 300 });
    expect(open.timedOut).toBe(true);
    expect(parseReply(open.bytes).status).toBe(200);
    // Other connections are still served while one hangs.
    expect((await request(s.sock, "GET", "/instance")).status).toBe(200);
    expect(s.requests().map((q) => q.target)).toEqual(["/health", "/test", "/instance"]);
  });

  test("routes change while running", async () => {
    const ws = sb.dir("work/a");
    const s = await sb.sim({ routes: [{ path: "/health", status: 500 }] });
    expect((await request(s.sock, "GET", "/health")).status).toBe(500);
    await s.addRoute({ path: "/health", json: { patched: true } });
    expect((await request(s.sock, "GET", "/health")).json).toEqual({ patched: true });
    await s.setRoutes([]);
    expect((await request(s.sock, "GET", "/health")).status).toBe(200);
    await s.update({ workspace: ws, instance: { platform: "linux" } });
    expect((await request(s.sock, "GET", "/instance")).json).toMatchObject({ workspace: ws, workspaceName: "a", platform: "linux" });
    await expect(s.update({ sock: "none" } as never)).rejects.toThrow("cannot change while running");
    await expect(s.addRoute({ path: "no-slash" })).rejects.toThrow('"path" must be a string starting with /');
    const st = await s.state();
    expect(st.workspace).toBe(ws);
  });

  test("large bodies: a file's bytes, or a JSON string of a given size, in pieces", async () => {
    const file = sb.file("tmp/tree.json", '[{"name":"a"}]');
    const s = await sb.sim({
      routes: [
        { path: "/file", bodyFile: file },
        { path: "/small", jsonStringBytes: 10, chunks: [3] },
        { path: "/big", jsonStringBytes: 3 * 1024 * 1024 + 5, contentLength: false },
      ],
    });
    const f = await request(s.sock, "GET", "/file");
    expect([f.status, f.body.toString()]).toEqual([200, '[{"name":"a"}]']);
    expect(f.headers).toContainEqual(["Content-Length", "14"]);
    const small = await request(s.sock, "GET", "/small");
    expect([small.body.toString(), small.chunkSizes, small.chunkEnd]).toEqual(['"xxxxxxxx"', [3, 7], true]);
    const big = await request(s.sock, "GET", "/big");
    expect(big.body.length).toBe(3 * 1024 * 1024 + 5);
    expect(JSON.parse(big.body.toString())).toBe("x".repeat(3 * 1024 * 1024 + 3));
  });

  test("a client that stops reading a 1 GB body leaves the instance serving", async () => {
    const s = await sb.sim({ routes: [{ path: "/huge", jsonStringBytes: 1 << 30 }] });
    const net = await import("node:net");
    const first = await new Promise<Buffer>((resolve) => {
      const c = net.connect(s.sock, () => c.write(requestBytes("GET", "/huge")));
      c.once("data", (d: Buffer) => {
        c.destroy();
        resolve(d);
      });
    });
    expect(first.toString()).toStartWith("HTTP/1.1 200 OK\r\n");
    expect(first.toString()).toContain("Content-Length: 1073741824\r\n");
    expect((await request(s.sock, "GET", "/health")).json).toMatchObject({ ok: true });
  });

  test("a large body takes no second body key and no split writes", async () => {
    await expect(sb.sim({ routes: [{ path: "/x", jsonStringBytes: 10, body: "y" }] })).rejects.toThrow("give only one of");
    await expect(sb.sim({ routes: [{ path: "/x", jsonStringBytes: 1 }] })).rejects.toThrow('"jsonStringBytes" must be an integer of at least 2');
    await expect(sb.sim({ routes: [{ path: "/x", bodyFile: "/f", writes: [1] }] })).rejects.toThrow('"writes" cannot shape');
  });

  test("a scenario with a typo is refused at start", async () => {
    await expect(sb.sim({ routes: [{ path: "/health", stauts: 500 } as never] })).rejects.toThrow('unknown key "stauts"');
    await expect(sb.sim({ sock: "maybe" as never })).rejects.toThrow('"sock" must be');
  });
});

describe("life cycle", () => {
  test("POST /quit answers, exits and removes the folder", async () => {
    const s = await sb.sim();
    const r = await request(s.sock, "POST", "/quit", {});
    expect(r.json).toEqual({ ok: true });
    expect(await s.exited).toBe(0);
    expect(exists(s.dir)).toBe(false);
    expect(s.alive()).toBe(false);
    expect(s.requests().map((q) => q.target)).toEqual(["/quit"]);
  });

  test("ignoreQuit answers but stays; quitDelayMs exits later; keepDirOnExit leaves the folder", async () => {
    const stubborn = await sb.sim({ ignoreQuit: true });
    expect((await request(stubborn.sock, "POST", "/quit", {})).json).toEqual({ ok: true });
    expect((await request(stubborn.sock, "GET", "/health")).status).toBe(200);
    expect(stubborn.alive()).toBe(true);

    const slow = await sb.sim({ quitDelayMs: 300 });
    const t0 = performance.now();
    await request(slow.sock, "POST", "/quit", {});
    await slow.exited;
    expect(performance.now() - t0).toBeGreaterThanOrEqual(290);

    const crashy = await sb.sim({ keepDirOnExit: true });
    await request(crashy.sock, "POST", "/quit", {});
    await crashy.exited;
    expect(exists(crashy.sock)).toBe(true);
  });

  test("SIGTERM cleans up; SIGKILL leaves a dead folder with its socket", async () => {
    const a = await sb.sim();
    await a.stop();
    expect(exists(a.dir)).toBe(false);
    const b = await sb.sim();
    await b.kill();
    expect(fs.statSync(b.sock).isSocket()).toBe(true);
    const ex = await exchange(b.sock, requestBytes("GET", "/instance"));
    expect(ex.error).toBe("ECONNREFUSED");
  });

  test("the simulator exits when the harness's pipe closes", async () => {
    const proc = Bun.spawn([BUN, path.join(SIM_DIR, "instance.ts"), "--runtime", sb.runtime, "--stdin-control"], {
      stdin: "pipe",
      stdout: "pipe",
      stderr: "pipe",
    });
    const reader = (proc.stdout as ReadableStream<Uint8Array>).getReader();
    const first = new TextDecoder().decode((await reader.read()).value);
    const [, pid, sock] = first.trim().split(" ");
    expect(Number(pid)).toBe(proc.pid);
    expect(exists(sock)).toBe(true);
    proc.stdin.end();
    expect(await proc.exited).toBe(0);
    expect(exists(path.dirname(sock))).toBe(false);
  });

  test("folder-only, socket-file, symbolic-link and renamed-folder instances", async () => {
    const bare = await sb.sim({ sock: "none" });
    expect(fs.readdirSync(bare.dir)).toEqual([]);
    expect(bare.alive()).toBe(true);

    const file = await sb.sim({ sock: "file" });
    expect(fs.lstatSync(file.sock).isFile()).toBe(true);

    const target = sb.path("elsewhere/real.sock");
    const linked = await sb.sim({ bindAt: target });
    expect(fs.lstatSync(linked.sock).isSymbolicLink()).toBe(true);
    expect((await request(linked.sock, "GET", "/instance")).json).toMatchObject({ socketPath: target });

    const renamed = await sb.sim({ dirName: "0{pid}" });
    expect(path.basename(renamed.dir)).toBe("0" + renamed.pid);
    expect((await request(renamed.sock, "GET", "/instance")).json).toMatchObject({ pid: renamed.pid });

    await linked.stop();
    expect(exists(target)).toBe(false);
  });

  test("a runtime under TMPDIR (no XDG_RUNTIME_DIR) works the same", async () => {
    const s = await sb.sim({ runtime: sb.tmp });
    expect(s.dir).toBe(path.join(sb.tmp, "vorn", String(s.pid)));
    expect(sb.runtimeEntries(sb.tmp)).toEqual([String(s.pid)]);
  });

  test("32 simulators start in parallel and all bind", async () => {
    const t0 = performance.now();
    const sims = await sb.sims(32, (i) => ({ id: `s${i}` }));
    const elapsed = Math.round(performance.now() - t0);
    console.log(`32 simulators ready in ${elapsed} ms`);
    expect(new Set(sims.map((s) => s.pid)).size).toBe(32);
    expect(sb.runtimeEntries()).toEqual(sims.map((s) => String(s.pid)).sort());
    const records = await Promise.all(sims.map((s) => request(s.sock, "GET", "/instance")));
    records.forEach((r, i) => expect(r.json).toMatchObject({ id: `s${i}`, pid: sims[i].pid, socketPath: sims[i].sock }));
    await Promise.all(sims.map((s) => s.stop()));
    expect(sb.runtimeEntries()).toEqual([]);
  });
});

describe("command line of the simulator", () => {
  const run = (args: string[]) => Bun.spawnSync([BUN, path.join(SIM_DIR, "instance.ts"), ...args], { stdout: "pipe", stderr: "pipe" });

  test("bad arguments fail with a message and status 2", () => {
    const r = run(["--frob"]);
    expect(r.exitCode).toBe(2);
    expect(r.stderr.toString()).toStartWith("sim: unknown argument: --frob\n");
    const missing = run(["--id", "x"]);
    expect(missing.exitCode).toBe(2);
    expect(missing.stderr.toString()).toStartWith("sim: --runtime is required");
    const badScenario = run(["--runtime", sb.runtime, "--scenario", sb.file("bad.json", "{")]);
    expect(badScenario.exitCode).toBe(2);
    expect(badScenario.stderr.toString()).toContain("is not JSON");
    expect(sb.runtimeEntries()).toEqual([]);
  });

  test("--help prints the usage", () => {
    const r = run(["--help"]);
    expect(r.exitCode).toBe(0);
    expect(r.stdout.toString()).toContain("--runtime DIR");
  });
});

describe("harness", () => {
  test("run uses only the private environment", async () => {
    const r = await sb.run([], { bin: "/usr/bin/env" });
    expect(r.code).toBe(0);
    expect(r.stdout.trim().split("\n").sort()).toEqual(
      [`HOME=${sb.home}`, `PATH=${sb.bin}`, `TMPDIR=${sb.tmp}`, `XDG_RUNTIME_DIR=${sb.runtime}`].sort(),
    );
    const r2 = await sb.run([], { bin: "/usr/bin/env", env: { XDG_RUNTIME_DIR: undefined, VORN_PID: "7" } });
    expect(r2.stdout).not.toContain("XDG_RUNTIME_DIR");
    expect(r2.stdout).toContain("VORN_PID=7\n");
  });

  test("run passes stdin, cwd, exit status and stops a hung program", async () => {
    const cat = await sb.run([], { bin: "/bin/cat", stdin: "in\n" });
    expect([cat.stdout, cat.code]).toEqual(["in\n", 0]);
    const dir = sb.dir("work/sub");
    const pwd = await sb.run(["-c", "pwd; echo err >&2; exit 3"], { bin: "/bin/sh", cwd: dir });
    expect([pwd.stdout, pwd.stderr, pwd.code]).toEqual([dir + "\n", "err\n", 3]);
    const hung = await sb.run(["30"], { bin: "/bin/sleep", timeoutMs: 200 });
    expect(hung.timedOut).toBe(true);
    expect(hung.signal).toBe("SIGKILL");
  });

  test("run without VORN_BIN or bin explains itself", async () => {
    const saved = process.env.VORN_BIN;
    delete process.env.VORN_BIN;
    try {
      await expect(sb.run(["version"])).rejects.toThrow("VORN_BIN is not set");
    } finally {
      if (saved !== undefined) process.env.VORN_BIN = saved;
    }
  });

  test("stubs on PATH are found", async () => {
    sb.stub("open", 'echo "open $*"\n');
    const r = await sb.run(["-c", "open -a X"], { bin: "/bin/sh" });
    expect(r.stdout).toBe("open -a X\n");
  });

  test("deadPidDir names an exited process", async () => {
    const d = await sb.deadPidDir({ sockFile: true });
    expect(() => process.kill(d.pid, 0)).toThrow();
    expect(fs.statSync(d.dir).isDirectory()).toBe(true);
    expect(fs.lstatSync(d.sock).isFile()).toBe(true);
    expect(path.dirname(d.dir)).toBe(sb.runtimeRoot);
  });

  test("file helpers stay inside the sandbox; age sets the mtime back", () => {
    const f = sb.file("work/x/y.txt", "hi");
    expect(fs.readFileSync(f, "utf8")).toBe("hi");
    expect(() => sb.file("../escape.txt", "no")).toThrow("outside the sandbox");
    const l = sb.symlink(f, "work/link");
    expect(fs.realpathSync(l)).toBe(f);
    sb.age(f, 11000);
    expect(Date.now() - fs.statSync(f).mtimeMs).toBeGreaterThan(10500);
  });

  test("cleanup stops every simulator and removes the root", async () => {
    const other = await sandbox();
    const sims = await other.sims(3);
    await other.cleanup();
    for (const s of sims) expect(s.alive()).toBe(false);
    expect(exists(other.root)).toBe(false);
  });
});

describe("fleet", () => {
  test("start, status and stop background simulators", async () => {
    const fleet = (args: string[]) => Bun.spawnSync([BUN, path.join(SIM_DIR, "fleet.ts"), ...args], { stdout: "pipe", stderr: "pipe" });
    const start = fleet(["start", "--runtime", sb.runtime, "--count", "4", "--workspace", sb.work, "--id-prefix", "f"]);
    expect(start.exitCode).toBe(0);
    const lines = fs.readFileSync(path.join(sb.runtime, "sim-fleet.pids"), "utf8").trim().split("\n");
    expect(lines.map((l) => l.split(" ")[1])).toEqual(["f1", "f2", "f3", "f4"]);
    const sock = lines[0].split(" ")[2];
    expect((await request(sock, "GET", "/instance")).json).toMatchObject({ id: "f1", workspace: sb.work });
    expect(fleet(["start", "--runtime", sb.runtime, "--count", "1"]).exitCode).toBe(2);
    const status = fleet(["status", "--runtime", sb.runtime]);
    expect(status.stdout.toString().trim().split("\n").length).toBe(4);
    const stop = fleet(["stop", "--runtime", sb.runtime]);
    expect(stop.exitCode).toBe(0);
    expect(stop.stderr.toString()).toBe("stopped 4 simulator(s)\n");
    expect(await waitGone(path.join(sb.runtime, "sim-fleet.pids"))).toBe(true);
    expect(sb.runtimeEntries()).toEqual([]);
  });
});
