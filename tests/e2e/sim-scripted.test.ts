// Replies a scenario scripts for the simulated instance: status, headers and body, chunking,
// split writes, raw bytes, dropped and hung connections, large bodies, and routes changed
// while it runs.

import { describe, expect, test } from "bun:test";
import { exchange, request, requestBytes, type Sandbox } from "./harness";
import { useSandbox } from "./support";
import { parseReply } from "../sim/http";

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

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

  test("a bodyFile that cannot be read is refused at start, and when added live", async () => {
    const missing = sb.path("tmp/missing.json");
    await expect(sb.sim({ routes: [{ path: "/x", bodyFile: missing }] })).rejects.toThrow(`"bodyFile" must be a readable file: ${missing} (ENOENT)`);
    const folder = sb.dir("tmp/folder.json");
    await expect(sb.sim({ routes: [{ path: "/x", bodyFile: folder }] })).rejects.toThrow(`"bodyFile" must be a readable file: ${folder} (not a file)`);
    const s = await sb.sim();
    await expect(s.addRoute({ path: "/x", bodyFile: missing })).rejects.toThrow(`addRoute: "bodyFile" must be a readable file: ${missing} (ENOENT)`);
    expect((await request(s.sock, "GET", "/x")).status).toBe(404);
  });

  test("a scenario with a typo is refused at start", async () => {
    await expect(sb.sim({ routes: [{ path: "/health", stauts: 500 } as never] })).rejects.toThrow('unknown key "stauts"');
    await expect(sb.sim({ sock: "maybe" as never })).rejects.toThrow('"sock" must be');
  });
});
