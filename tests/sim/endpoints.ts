// Built-in replies of the simulated instance: a plausible, deterministic
// answer for every endpoint the command line uses. Replies never contain the
// clock or other run-to-run noise, so tests can compare output exactly.

import fs from "node:fs";
import path from "node:path";
import type { Scenario, TestResults } from "./scenario";

export interface State {
  pid: number;
  id: string;
  workspace: string; // "" when no folder is open
  vornRoot: string;
  platform: string;
  mode: string | null;
  startedAt: number;
  socketPath: string; // the path the instance reports (where it bound)
  scenario: Scenario;
  lastTest: Record<string, unknown> | null;
  testRuns: number;
  focusCount: number;
}

export interface BuiltinReply {
  status: number;
  json?: unknown;
  effect?: "quit";
}

export interface Call {
  method: string;
  path: string;
  query: URLSearchParams;
  bodyText: string;
}

const notFound: BuiltinReply = { status: 404, json: { error: "not found" } };

function bad(message: string, status = 400): BuiltinReply {
  return { status, json: { error: message } };
}

// Parses a JSON object body; an empty body counts as {}.
function objectBody(call: Call): Record<string, unknown> | BuiltinReply {
  if (call.bodyText.trim() === "") return {};
  let v: unknown;
  try {
    v = JSON.parse(call.bodyText);
  } catch {
    return bad("body is not JSON");
  }
  if (typeof v !== "object" || v === null || Array.isArray(v)) return bad("body must be a JSON object");
  return v as Record<string, unknown>;
}

function isReply(v: unknown): v is BuiltinReply {
  return typeof v === "object" && v !== null && "status" in v && typeof (v as BuiltinReply).status === "number";
}

export function instanceRecord(st: State): Record<string, unknown> {
  const rec: Record<string, unknown> = {
    id: st.id,
    pid: st.pid,
    socketPath: st.socketPath,
    workspace: st.workspace,
    workspaceName: st.workspace === "" ? "" : path.basename(st.workspace),
    vornRoot: st.vornRoot,
    startedAt: st.startedAt,
    platform: st.platform,
    transport: "af_unix",
  };
  if (st.mode !== null) rec.mode = st.mode;
  // Overrides replace a key in place or add it at the end; omissions drop it.
  for (const [k, v] of Object.entries(st.scenario.instance ?? {})) rec[k] = v;
  for (const k of st.scenario.instanceOmit ?? []) delete rec[k];
  return rec;
}

export const DEFAULT_COMMANDS = [
  { id: "go-mod-tidy", title: "Go: Tidy go.mod", target: "host", confirm: true },
  { id: "go-mod-vendor", title: "Go: Vendor Dependencies", target: "host", confirm: true },
  { id: "go-clean-modcache", title: "Go: Clean Module Cache", target: "host", confirm: true },
  { id: "go-test-workspace", title: "Go: Test Workspace", target: "host" },
  { id: "workbench.toggleSidebar", title: "View: Toggle Sidebar", target: "webview", keybinding: "cmd+b" },
  { id: "editor.formatDocument", title: "Format Document", target: "webview", keybinding: "shift+alt+f" },
];

export const DEFAULT_DIAGNOSTICS = [
  { source: "gopls", severity: "warning", path: "main.go", line: 3, col: 2, message: "declared and not used: x" },
  { source: "go test", severity: "error", path: "main_test.go", line: 12, col: 1, message: "TestMain failed" },
];

const SKIP_DIRS = new Set([".git", "node_modules", ".cache", ".hg", ".svn", "bazel-out"]);

function workspaceGo(root: string): Record<string, unknown> {
  let gomod = "";
  let module = "";
  try {
    const text = fs.readFileSync(path.join(root, "go.mod"), "utf8");
    gomod = path.join(root, "go.mod");
    module = /^module\s+(\S+)/m.exec(text)?.[1] ?? "";
  } catch {
    // no go.mod: not a Go module
  }
  return { goVersion: "go1.22.5", goos: "darwin", goarch: "arm64", gomod, module };
}

interface TreeNode {
  name: string;
  path: string;
  type: "directory" | "file";
  children?: TreeNode[];
}

// The workspace tree, directories first, each level sorted by name. Bounded in
// depth and size so a test that points the instance at a big folder stays fast.
function listTree(root: string, maxDepth: number, budget = { left: 2000 }): TreeNode[] {
  const walk = (dir: string, rel: string, depth: number): TreeNode[] => {
    let entries: fs.Dirent[];
    try {
      entries = fs.readdirSync(dir, { withFileTypes: true });
    } catch {
      return [];
    }
    entries.sort((a, b) => {
      const da = a.isDirectory() ? 0 : 1;
      const db = b.isDirectory() ? 0 : 1;
      return da - db || (a.name < b.name ? -1 : a.name > b.name ? 1 : 0);
    });
    const out: TreeNode[] = [];
    for (const e of entries) {
      if (budget.left <= 0) break;
      if (e.isDirectory() && SKIP_DIRS.has(e.name)) continue;
      budget.left--;
      const p = rel === "" ? e.name : rel + "/" + e.name;
      if (e.isDirectory()) {
        const node: TreeNode = { name: e.name, path: p, type: "directory", children: [] };
        if (depth < maxDepth) node.children = walk(path.join(dir, e.name), p, depth + 1);
        out.push(node);
      } else {
        out.push({ name: e.name, path: p, type: "file" });
      }
    }
    return out;
  };
  return walk(root, "", 1);
}

// Every regular file under root (workspace-relative, "/"-separated, sorted).
function workspaceFiles(root: string, limit = 20000): string[] {
  const out: string[] = [];
  const walk = (dir: string, rel: string) => {
    let entries: fs.Dirent[];
    try {
      entries = fs.readdirSync(dir, { withFileTypes: true });
    } catch {
      return;
    }
    entries.sort((a, b) => (a.name < b.name ? -1 : a.name > b.name ? 1 : 0));
    for (const e of entries) {
      if (out.length >= limit) return;
      const p = rel === "" ? e.name : rel + "/" + e.name;
      if (e.isDirectory()) {
        if (!SKIP_DIRS.has(e.name)) walk(path.join(dir, e.name), p);
      } else if (e.isFile()) {
        out.push(p);
      }
    }
  };
  walk(root, "");
  return out;
}

function escapeRegExp(s: string): string {
  return s.replace(/[.*+?^${}()|[\]\\]/g, "\\$&");
}

// Editor-style globs: "*.go" matches a file name anywhere, "pkg/" a folder and
// everything under it, a glob with "/" the whole relative path; "," separates.
function globMatcher(list: string): (rel: string) => boolean {
  const tests = list
    .split(",")
    .map((g) => g.trim())
    .filter((g) => g !== "")
    .map((g) => {
      if (g.endsWith("/")) {
        const dir = g.replace(/^\.?\//, "");
        return (rel: string) => rel.startsWith(dir) || rel.includes("/" + dir);
      }
      const re = new RegExp(
        "^" +
          g
            .replace(/^\.?\//, "")
            .split("**")
            .map((part) => part.split("*").map((p) => escapeRegExp(p).replace(/\\\?/g, "[^/]")).join("[^/]*"))
            .join(".*") +
          "$",
      );
      return g.includes("/") ? (rel: string) => re.test(rel) : (rel: string) => re.test(path.posix.basename(rel));
    });
  return (rel) => tests.some((t) => t(rel));
}

function search(st: State, q: URLSearchParams): BuiltinReply {
  const pattern = q.get("q");
  if (pattern === null || pattern === "") return bad("missing q");
  const flag = (k: string) => q.get(k) === "1" || q.get(k) === "true";
  const maxText = q.get("max");
  let max = 10000;
  if (maxText !== null) {
    if (!/^[0-9]+$/.test(maxText)) return bad("max must be a non-negative integer");
    max = Number(maxText);
  }
  let source = flag("regex") ? pattern : escapeRegExp(pattern);
  if (flag("word")) source = "\\b(?:" + source + ")\\b";
  let re: RegExp;
  try {
    re = new RegExp(source, flag("case") ? "g" : "gi");
  } catch (e) {
    return bad("invalid regex: " + (e as Error).message);
  }
  const include = q.get("include") ? globMatcher(q.get("include")!) : undefined;
  const exclude = q.get("exclude") ? globMatcher(q.get("exclude")!) : undefined;
  const files: { path: string; matches: { line: number; col: number; preview: string }[] }[] = [];
  let matchCount = 0;
  let limitHit = false;
  if (st.workspace !== "") {
    outer: for (const rel of workspaceFiles(st.workspace)) {
      if (include && !include(rel)) continue;
      if (exclude && exclude(rel)) continue;
      let buf: Buffer;
      try {
        const full = path.join(st.workspace, rel);
        if (fs.statSync(full).size > 2 * 1024 * 1024) continue;
        buf = fs.readFileSync(full);
      } catch {
        continue;
      }
      if (buf.includes(0)) continue; // binary
      const lines = buf.toString("utf8").split("\n");
      let entry: (typeof files)[number] | undefined;
      for (let i = 0; i < lines.length; i++) {
        const line = lines[i].replace(/\r$/, "");
        re.lastIndex = 0;
        for (let m = re.exec(line); m !== null; m = re.exec(line)) {
          if (matchCount >= max) {
            limitHit = true;
            break outer;
          }
          if (!entry) {
            entry = { path: rel, matches: [] };
            files.push(entry);
          }
          entry.matches.push({ line: i + 1, col: m.index + 1, preview: line });
          matchCount++;
          if (m[0] === "") re.lastIndex++;
        }
      }
    }
  }
  return { status: 200, json: { files, matchCount, fileCount: files.length, engine: "sim", limitHit } };
}

// Resolves a path sent by a client against the workspace; absolute paths
// must lie inside it.
function insideWorkspace(st: State, p: string): string | undefined {
  const full = path.resolve(st.workspace, p);
  const rel = path.relative(st.workspace, full);
  if (rel.startsWith("..") || path.isAbsolute(rel)) return undefined;
  return full;
}

function readFile(st: State, q: URLSearchParams): BuiltinReply {
  const p = q.get("path");
  if (p === null || p === "") return bad("missing path");
  if (st.workspace === "") return bad("no workspace open", 409);
  const full = insideWorkspace(st, p);
  if (full === undefined) return bad("outside the workspace: " + p, 403);
  let st2: fs.Stats;
  try {
    st2 = fs.statSync(full);
  } catch {
    return bad("no such file: " + p, 404);
  }
  if (!st2.isFile()) return bad("not a file: " + p);
  const content = fs.readFileSync(full, "utf8");
  return { status: 200, json: { path: path.relative(st.workspace, full), content, size: st2.size } };
}

function runTests(st: State, body: Record<string, unknown>): BuiltinReply {
  if (body.path !== undefined && typeof body.path !== "string") return bad("path must be a string");
  if (body.line !== undefined && typeof body.line !== "number") return bad("line must be a number");
  if (body.rerun !== undefined && body.rerun !== "last" && body.rerun !== "failed") return bad('rerun must be "last" or "failed"');
  if (body.cover !== undefined && typeof body.cover !== "boolean") return bad("cover must be a boolean");
  if (body.wait !== undefined && typeof body.wait !== "boolean") return bad("wait must be a boolean");
  const r: TestResults = st.scenario.tests ?? {};
  let target: unknown = body.path ?? "./...";
  let line: unknown = body.line;
  if (body.rerun !== undefined) {
    if (st.lastTest === null) return { status: 200, json: { ok: false, detail: "no previous test run", error: "no previous test run" } };
    target = st.lastTest.target;
    line = st.lastTest.line;
  }
  st.testRuns++;
  const summary: Record<string, unknown> = { runId: st.testRuns, target };
  if (line !== undefined) summary.line = line;
  if (body.rerun !== undefined) summary.rerun = body.rerun;
  if (body.wait === false) {
    summary.started = true;
    st.lastTest = { ...summary, status: "running" };
    return { status: 200, json: { ok: true, summary } };
  }
  const failed = r.failed ?? 0;
  summary.status = failed > 0 ? "failed" : "passed";
  summary.passed = r.passed ?? 3;
  summary.failed = failed;
  summary.skipped = r.skipped ?? 0;
  summary.durationMs = 120;
  summary.failures = r.failures ?? [];
  if (body.cover === true) summary.coverage = r.coverage ?? { total: 78.4, packages: { "example.com/app": 78.4 } };
  st.lastTest = summary;
  return { status: 200, json: { ok: failed === 0, summary } };
}

function positionQuery(st: State, kind: string, body: Record<string, unknown>): BuiltinReply {
  const { path: p, line, character } = body;
  if (typeof p !== "string" || p === "") return bad("path must be a non-empty string");
  if (typeof line !== "number" || typeof character !== "number" || !Number.isInteger(line) || !Number.isInteger(character))
    return bad("line and character must be integers");
  if (line < 0 || character < 0) return bad("position out of range");
  const abs = p.startsWith("/") ? p : st.workspace === "" ? p : path.join(st.workspace, p);
  const range = { start: { line, character }, end: { line, character: character + 1 } };
  if (kind === "languageHover") {
    return {
      status: 200,
      json: { contents: { kind: "markdown", value: `sim hover at ${p}:${line}:${character}` }, range },
    };
  }
  return { status: 200, json: [{ uri: "file://" + abs, range }] };
}

function commandRun(st: State, body: Record<string, unknown>): BuiltinReply {
  if (typeof body.id !== "string" || body.id === "") return bad("missing id");
  if (body.args !== undefined && !(Array.isArray(body.args) && body.args.every((a) => typeof a === "string")))
    return bad("args must be a list of strings");
  const list = (st.scenario.commands ?? DEFAULT_COMMANDS) as Record<string, unknown>[];
  const cmd = list.find((c) => typeof c === "object" && c !== null && c.id === body.id);
  if (!cmd) return { status: 404, json: { ok: false, error: "unknown command: " + body.id } };
  if (cmd.confirm === true && body.confirmed !== true)
    return { status: 200, json: { ok: false, id: body.id, detail: body.id + " asks for confirmation" } };
  const reply: Record<string, unknown> = { ok: true, id: body.id };
  if (body.args !== undefined) reply.args = body.args;
  if (cmd.target === "webview") reply.async = true;
  else reply.result = null;
  return { status: 200, json: reply };
}

export function builtin(st: State, call: Call): BuiltinReply {
  const { method, path: p, query } = call;
  const key = method + " " + p;
  const withBody = (f: (b: Record<string, unknown>) => BuiltinReply): BuiltinReply => {
    const b = objectBody(call);
    return isReply(b) ? b : f(b);
  };
  switch (key) {
    case "GET /instance":
      return { status: 200, json: instanceRecord(st) };
    case "GET /health":
      return { status: 200, json: { ok: true, protocol: st.scenario.protocol ?? 1, id: st.id } };
    case "GET /workspace":
      if (st.workspace === "") return { status: 200, json: { open: false, root: null, name: null } };
      return { status: 200, json: { open: true, root: st.workspace, name: path.basename(st.workspace), ...workspaceGo(st.workspace) } };
    case "POST /workspace":
      return withBody((b) => {
        if (typeof b.root !== "string" || b.root === "") return bad("root must be a non-empty string");
        st.workspace = b.root;
        return { status: 200, json: { ok: true, root: b.root } };
      });
    case "POST /api/listTree":
      return withBody((b) => {
        if (st.workspace === "") return { status: 200, json: [] };
        const depth = typeof b.depth === "number" && b.depth > 0 ? b.depth : 4;
        return { status: 200, json: listTree(st.workspace, depth) };
      });
    case "POST /openFile":
      return withBody((b) => {
        if (typeof b.path !== "string" || b.path === "") return bad("path must be a non-empty string");
        if (b.line !== undefined && typeof b.line !== "number") return bad("line must be a number");
        if (b.col !== undefined && typeof b.col !== "number") return bad("col must be a number");
        const reply: Record<string, unknown> = { ok: true, path: b.path };
        if (b.line !== undefined) reply.line = b.line;
        if (b.col !== undefined) reply.col = b.col;
        return { status: 200, json: reply };
      });
    case "GET /read":
      return readFile(st, query);
    case "GET /command":
      return { status: 200, json: { commands: st.scenario.commands ?? DEFAULT_COMMANDS } };
    case "POST /command":
      return withBody((b) => commandRun(st, b));
    case "GET /diagnostics": {
      const all = (st.scenario.diagnostics ?? DEFAULT_DIAGNOSTICS) as Record<string, unknown>[];
      const source = query.get("source");
      const rows = source === null ? all : all.filter((d) => d?.source === source);
      return { status: 200, json: { diagnostics: rows, analyzers: { nogo: { state: "idle" } } } };
    }
    case "POST /nogo":
      return withBody(() => {
        const all = (st.scenario.diagnostics ?? DEFAULT_DIAGNOSTICS) as Record<string, unknown>[];
        const rows = all.filter((d) => d?.source === "nogo");
        return { status: 200, json: { ok: !rows.some((d) => d.severity === "error"), diagnostics: rows } };
      });
    case "GET /search":
      return search(st, query);
    case "POST /test":
      return withBody((b) => runTests(st, b));
    case "POST /test/cancel":
      return withBody(() => {
        const running = st.lastTest?.status === "running";
        if (running) st.lastTest = { ...st.lastTest, status: "cancelled" };
        return { status: 200, json: { ok: true, cancelled: running ? 1 : 0 } };
      });
    case "GET /test":
      return { status: 200, json: { summary: st.lastTest } };
    case "GET /language/status":
      return { status: 200, json: st.scenario.language ?? { languageId: "go", ready: true, detail: "gopls v0.16.2" } };
    case "POST /api/languageHover":
    case "POST /api/languageDefinition":
    case "POST /api/languageTypeDefinition":
      return withBody((b) => positionQuery(st, p.slice("/api/".length), b));
    case "POST /focus":
      st.focusCount++;
      return { status: 200, json: { ok: true } };
    case "POST /quit":
      return { status: 200, json: { ok: true }, effect: "quit" };
    default:
      return notFound;
  }
}
