// The scenario: everything that shapes one simulated instance, as read from a
// JSON file and/or command-line flags, checked strictly so that a typo in a
// test's scenario fails loudly instead of silently doing nothing.

import fs from "node:fs";

export type Headers = Record<string, string> | [string, string][];

// One scripted route. A route that sets none of action, status, json, body,
// bodyBase64, bodyFile, jsonStringBytes, raw or rawBase64 only modifies the
// built-in reply of that endpoint (delay, headers, chunking, split writes) and
// keeps its side effects.
export interface Route {
  method?: string; // any method when absent or "*"
  path: string; // matched against the target when it holds "?", else against the path alone
  times?: number; // answer this many matching requests, then fall through
  delayMs?: number; // wait before replying
  action?: "reply" | "close" | "hang"; // close: drop without reply; hang: never answer
  status?: number;
  reason?: string;
  json?: unknown; // body as JSON text (any JSON value, including null)
  body?: string; // body as UTF-8 text
  bodyBase64?: string;
  // Large bodies, sent in pieces as the client reads them and never built whole in one reply:
  bodyFile?: string; // the bytes of this file (read once, on first use; it must be readable at start)
  jsonStringBytes?: number; // a JSON string ("xx...x") of exactly this many bytes, quotes included
  headers?: Headers; // extra headers; one named like a default header replaces it
  contentLength?: number | false; // lie about the length, or send none
  chunks?: number[]; // chunked transfer with these chunk sizes
  chunkEnd?: boolean; // false: stop without the zero-size chunk
  raw?: string; // the whole reply, byte for byte (UTF-8 text)
  rawBase64?: string;
  writes?: number[]; // split the reply bytes into separate writes of these sizes
  writeGapMs?: number; // pause between those writes
  keepOpen?: boolean; // after the reply, leave the connection open
  crashAfter?: boolean; // after the reply, end the process as a crash does (folder and dead socket stay)
}

export interface TestResults {
  passed?: number;
  failed?: number;
  skipped?: number;
  failures?: unknown[];
  coverage?: unknown;
}

export interface Scenario {
  runtime?: string; // base folder; the instance lives in <runtime>/vorn/<pid>/
  id?: string;
  workspace?: string | null; // "" or null: no folder open
  vornRoot?: string;
  platform?: string;
  mode?: string | null;
  startedAt?: number;
  dirName?: string; // folder name instead of the pid; "{pid}" is replaced by the pid
  sock?: "listen" | "none" | "file"; // none: folder only; file: a regular file named fs.sock
  bindAt?: string; // bind here and make <dir>/fs.sock a symbolic link to it
  instance?: Record<string, unknown>; // fields of the /instance record to set or add
  instanceOmit?: string[]; // fields of the /instance record to leave out
  ignoreQuit?: boolean; // answer /quit but stay alive
  quitDelayMs?: number; // stay alive this long after answering /quit
  keepDirOnExit?: boolean; // leave the folder behind when exiting (like a crash)
  protocol?: unknown; // the "protocol" of /health
  commands?: unknown[]; // the list of GET /command
  diagnostics?: unknown[]; // the rows of GET /diagnostics
  tests?: TestResults; // outcome of POST /test runs
  language?: Record<string, unknown>; // the GET /language/status reply
  routes?: Route[];
}

const ROUTE_KEYS = new Set([
  "method",
  "path",
  "times",
  "delayMs",
  "action",
  "status",
  "reason",
  "json",
  "body",
  "bodyBase64",
  "bodyFile",
  "jsonStringBytes",
  "headers",
  "contentLength",
  "chunks",
  "chunkEnd",
  "raw",
  "rawBase64",
  "writes",
  "writeGapMs",
  "keepOpen",
  "crashAfter",
]);

const SCENARIO_KEYS = new Set([
  "runtime",
  "id",
  "workspace",
  "vornRoot",
  "platform",
  "mode",
  "startedAt",
  "dirName",
  "sock",
  "bindAt",
  "instance",
  "instanceOmit",
  "ignoreQuit",
  "quitDelayMs",
  "keepDirOnExit",
  "protocol",
  "commands",
  "diagnostics",
  "tests",
  "language",
  "routes",
]);

// Keys that may change while the instance runs (through the control channel).
export const LIVE_KEYS = new Set([
  "id",
  "workspace",
  "vornRoot",
  "platform",
  "mode",
  "startedAt",
  "instance",
  "instanceOmit",
  "ignoreQuit",
  "quitDelayMs",
  "keepDirOnExit",
  "protocol",
  "commands",
  "diagnostics",
  "tests",
  "language",
  "routes",
]);

export class ScenarioError extends Error {}

const BODY_KEYS = ["json", "body", "bodyBase64", "bodyFile", "jsonStringBytes"];

// Whether the route's body is produced while it is sent rather than built first.
export function isLarge(r: Route): boolean {
  return r.bodyFile !== undefined || r.jsonStringBytes !== undefined;
}

function isObject(v: unknown): v is Record<string, unknown> {
  return typeof v === "object" && v !== null && !Array.isArray(v);
}

function nonNegInt(v: unknown): boolean {
  return typeof v === "number" && Number.isInteger(v) && v >= 0;
}

function intList(v: unknown, positive: boolean): boolean {
  return Array.isArray(v) && v.every((n) => nonNegInt(n) && (!positive || (n as number) > 0));
}

// Why a file cannot be read as a body, or undefined when it can.
function unreadableFile(file: string): string | undefined {
  try {
    if (!fs.statSync(file).isFile()) return "not a file";
    fs.accessSync(file, fs.constants.R_OK);
    return undefined;
  } catch (e) {
    return (e as NodeJS.ErrnoException).code ?? String(e);
  }
}

export function checkRoute(r: unknown, where: string): Route {
  if (!isObject(r)) throw new ScenarioError(`${where}: must be an object`);
  for (const k of Object.keys(r)) if (!ROUTE_KEYS.has(k)) throw new ScenarioError(`${where}: unknown key "${k}"`);
  if (typeof r.path !== "string" || !r.path.startsWith("/")) throw new ScenarioError(`${where}: "path" must be a string starting with /`);
  if (r.method !== undefined && typeof r.method !== "string") throw new ScenarioError(`${where}: "method" must be a string`);
  if (r.times !== undefined && !nonNegInt(r.times)) throw new ScenarioError(`${where}: "times" must be a non-negative integer`);
  if (r.delayMs !== undefined && !nonNegInt(r.delayMs)) throw new ScenarioError(`${where}: "delayMs" must be a non-negative integer`);
  if (r.writeGapMs !== undefined && !nonNegInt(r.writeGapMs)) throw new ScenarioError(`${where}: "writeGapMs" must be a non-negative integer`);
  if (r.action !== undefined && !["reply", "close", "hang"].includes(r.action as string))
    throw new ScenarioError(`${where}: "action" must be "reply", "close" or "hang"`);
  if (r.status !== undefined && !(nonNegInt(r.status) && (r.status as number) <= 999))
    throw new ScenarioError(`${where}: "status" must be an integer 0..999`);
  for (const k of ["reason", "body", "bodyBase64", "bodyFile", "raw", "rawBase64"])
    if (r[k] !== undefined && typeof r[k] !== "string") throw new ScenarioError(`${where}: "${k}" must be a string`);
  if (r.jsonStringBytes !== undefined && !(nonNegInt(r.jsonStringBytes) && (r.jsonStringBytes as number) >= 2))
    throw new ScenarioError(`${where}: "jsonStringBytes" must be an integer of at least 2`);
  const bodies = BODY_KEYS.filter((k) => k in r);
  if (bodies.length > 1) throw new ScenarioError(`${where}: give only one of ${BODY_KEYS.map((k) => `"${k}"`).join(", ")}`);
  if (isLarge(r as unknown as Route) && r.writes !== undefined)
    throw new ScenarioError(`${where}: "writes" cannot shape a "bodyFile" or "jsonStringBytes" body`);
  if ("raw" in r && "rawBase64" in r) throw new ScenarioError(`${where}: give only one of "raw", "rawBase64"`);
  if (r.headers !== undefined) {
    const ok = Array.isArray(r.headers)
      ? r.headers.every((h) => Array.isArray(h) && h.length === 2 && typeof h[0] === "string" && typeof h[1] === "string")
      : isObject(r.headers) && Object.values(r.headers).every((v) => typeof v === "string");
    if (!ok) throw new ScenarioError(`${where}: "headers" must be an object of strings or a list of [name, value]`);
  }
  if (r.contentLength !== undefined && r.contentLength !== false && !nonNegInt(r.contentLength))
    throw new ScenarioError(`${where}: "contentLength" must be a non-negative integer or false`);
  if (r.chunks !== undefined && !intList(r.chunks, true)) throw new ScenarioError(`${where}: "chunks" must be a list of positive integers`);
  if (r.writes !== undefined && !intList(r.writes, true)) throw new ScenarioError(`${where}: "writes" must be a list of positive integers`);
  for (const k of ["chunkEnd", "keepOpen", "crashAfter"])
    if (r[k] !== undefined && typeof r[k] !== "boolean") throw new ScenarioError(`${where}: "${k}" must be a boolean`);
  if (r.crashAfter === true && r.action === "hang") throw new ScenarioError(`${where}: "crashAfter" needs a reply to follow ("hang" never ends)`);
  if (typeof r.bodyFile === "string") {
    const problem = unreadableFile(r.bodyFile);
    if (problem) throw new ScenarioError(`${where}: "bodyFile" must be a readable file: ${r.bodyFile} (${problem})`);
  }
  return r as unknown as Route;
}

// Checks a (possibly partial) scenario; `live` restricts it to the keys that
// may change while running.
export function checkScenario(s: unknown, where = "scenario", live = false): Scenario {
  if (!isObject(s)) throw new ScenarioError(`${where}: must be a JSON object`);
  for (const k of Object.keys(s)) {
    if (!SCENARIO_KEYS.has(k)) throw new ScenarioError(`${where}: unknown key "${k}"`);
    if (live && !LIVE_KEYS.has(k)) throw new ScenarioError(`${where}: "${k}" cannot change while running`);
  }
  const str = (k: string) => {
    if (s[k] !== undefined && typeof s[k] !== "string") throw new ScenarioError(`${where}: "${k}" must be a string`);
  };
  ["runtime", "id", "vornRoot", "platform", "dirName", "bindAt"].forEach(str);
  if (s.workspace !== undefined && s.workspace !== null && typeof s.workspace !== "string")
    throw new ScenarioError(`${where}: "workspace" must be a string or null`);
  if (s.mode !== undefined && s.mode !== null && typeof s.mode !== "string")
    throw new ScenarioError(`${where}: "mode" must be a string or null`);
  if (s.startedAt !== undefined && typeof s.startedAt !== "number") throw new ScenarioError(`${where}: "startedAt" must be a number`);
  if (s.dirName !== undefined && (s.dirName === "" || (s.dirName as string).includes("/")))
    throw new ScenarioError(`${where}: "dirName" must be a plain folder name`);
  if (s.sock !== undefined && !["listen", "none", "file"].includes(s.sock as string))
    throw new ScenarioError(`${where}: "sock" must be "listen", "none" or "file"`);
  if (s.instance !== undefined && !isObject(s.instance)) throw new ScenarioError(`${where}: "instance" must be an object`);
  if (s.instanceOmit !== undefined && !(Array.isArray(s.instanceOmit) && s.instanceOmit.every((k) => typeof k === "string")))
    throw new ScenarioError(`${where}: "instanceOmit" must be a list of strings`);
  for (const k of ["ignoreQuit", "keepDirOnExit"])
    if (s[k] !== undefined && typeof s[k] !== "boolean") throw new ScenarioError(`${where}: "${k}" must be a boolean`);
  if (s.quitDelayMs !== undefined && !nonNegInt(s.quitDelayMs)) throw new ScenarioError(`${where}: "quitDelayMs" must be a non-negative integer`);
  for (const k of ["commands", "diagnostics"])
    if (s[k] !== undefined && !Array.isArray(s[k])) throw new ScenarioError(`${where}: "${k}" must be a list`);
  if (s.tests !== undefined) {
    if (!isObject(s.tests)) throw new ScenarioError(`${where}: "tests" must be an object`);
    for (const k of Object.keys(s.tests)) {
      if (!["passed", "failed", "skipped", "failures", "coverage"].includes(k)) throw new ScenarioError(`${where}: tests: unknown key "${k}"`);
    }
    for (const k of ["passed", "failed", "skipped"])
      if (s.tests[k] !== undefined && !nonNegInt(s.tests[k])) throw new ScenarioError(`${where}: tests.${k} must be a non-negative integer`);
    if (s.tests.failures !== undefined && !Array.isArray(s.tests.failures)) throw new ScenarioError(`${where}: tests.failures must be a list`);
  }
  if (s.language !== undefined && !isObject(s.language)) throw new ScenarioError(`${where}: "language" must be an object`);
  if (s.routes !== undefined) {
    if (!Array.isArray(s.routes)) throw new ScenarioError(`${where}: "routes" must be a list`);
    s.routes.forEach((r, i) => checkRoute(r, `${where}: routes[${i}]`));
  }
  return s as Scenario;
}

// Whether a route replaces the built-in reply (as opposed to only shaping it).
export function routeReplaces(r: Route): boolean {
  return (
    r.action !== undefined ||
    r.status !== undefined ||
    "json" in r ||
    r.body !== undefined ||
    r.bodyBase64 !== undefined ||
    isLarge(r) ||
    r.raw !== undefined ||
    r.rawBase64 !== undefined
  );
}

export function headerPairs(h: Headers | undefined): [string, string][] {
  if (h === undefined) return [];
  return Array.isArray(h) ? h.map(([k, v]) => [k, v]) : Object.entries(h);
}
