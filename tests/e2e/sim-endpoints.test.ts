// The simulated instance's built-in replies: a plausible answer for every endpoint the command
// line uses, drawn from the real files of its workspace where there is one.

import { describe, expect, test } from "bun:test";
import path from "node:path";
import { request, type Sandbox } from "./harness";
import { useSandbox } from "./support";

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

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
