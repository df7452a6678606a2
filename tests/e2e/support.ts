// Helpers the end-to-end tests share: a sandbox per test or per file, the exact bytes vorn
// sends for a request, views of what a simulated instance received, and texts vorn prints
// (pretty JSON, the instance table), whether a path is there, waiting for something to hold, and
// finding a program on this machine's PATH.
//
//   let sb: Sandbox;
//   useSandbox((fresh) => (sb = fresh));
//   ...
//   expect(r.stderr).toBe(instanceTable(byPid(sims)) + `\nvorn: 2 instances running ${DASH} ...`);
//   expectCalls(a, [["POST", "/openFile", '{"path":"main.go"}']]);

import { afterAll, afterEach, beforeAll, beforeEach, expect } from "bun:test";
import fs from "node:fs";
import { sandbox, type Sandbox, type Sim, type SimRequest } from "./harness";

/** The em dash of vorn's hints, as in "2 instances running — pass -i ID". */
export const DASH = "\u2014";

/**
 * Gives the tests of a file a private sandbox, removed afterwards: a fresh one for every test
 * (`scope` "test", the default) or one for the whole file ("file"). `use` gets each new sandbox
 * before the tests that run in it, to keep it and to set up more in it. The function returned
 * swaps the current sandbox for a fresh one mid-test (through `use` again), for a test that
 * needs a clean slate more than once.
 */
export function useSandbox(use: (sb: Sandbox) => unknown, scope: "test" | "file" = "test"): () => Promise<Sandbox> {
  const [before, after] = scope === "test" ? [beforeEach, afterEach] : [beforeAll, afterAll];
  let current: Sandbox | undefined;
  const open = async (): Promise<Sandbox> => {
    current = await sandbox();
    await use(current);
    return current;
  };
  const close = async (): Promise<void> => {
    const sb = current;
    current = undefined;
    await sb?.cleanup();
  };
  before(async () => {
    await open();
  });
  after(close);
  return async () => {
    await close();
    return open();
  };
}

/** Instances in ascending pid order: the order vorn lists them and answers for them in. */
export function byPid(sims: Sim[]): Sim[] {
  return [...sims].sort((a, b) => a.pid - b.pid);
}

/** A value as vorn prints JSON: indented by two spaces, one newline at the end. */
export function pretty(value: unknown): string {
  return JSON.stringify(value, null, 2) + "\n";
}

/**
 * The exact text vorn sends for one request: the request line, then Host, Connection and
 * Accept; with a body its Content-Type; Content-Length with a body and on every POST (0 when
 * there is none); an empty line and the body, as given (compact JSON text).
 */
export function wire(method: string, target: string, body?: string): string {
  let text = `${method} ${target} HTTP/1.1\r\nHost: unix\r\nConnection: close\r\nAccept: */*\r\n`;
  if (body !== undefined) text += "Content-Type: application/json\r\n";
  if (body !== undefined || method === "POST") text += `Content-Length: ${Buffer.byteLength(body ?? "")}\r\n`;
  return text + "\r\n" + (body ?? "");
}

/** One request as a test expects it: method, target and, when there is one, the body text. */
export type Call = [method: string, target: string, body?: string];

/** Every request an instance received, the scan's GET /instance probes included, as "METHOD target". */
export function requestLog(sim: Sim): string[] {
  return sim.requests().map((r) => `${r.method} ${r.target}`);
}

/** The requests an instance received other than the scan's GET /instance probes, in order. */
export function calls(sim: Sim): SimRequest[] {
  return sim.requests().filter((r) => r.target !== "/instance");
}

/** The one request with this method and target an instance received; fails unless there is exactly one. */
export function only(sim: Sim, method: string, target: string): SimRequest {
  const found = sim.requests().filter((r) => r.method === method && r.target === target);
  expect(found.length).toBe(1);
  return found[0];
}

/** Checks a received request byte for byte against `wire(method, target, body)`. */
export function expectWire(req: SimRequest, method: string, target: string, body?: string): void {
  const expected = wire(method, target, body);
  expect(req.rawText).toBe(expected); // readable on failure
  expect(req.raw.equals(Buffer.from(expected))).toBe(true); // and exact where the text is not valid UTF-8
}

/** Checks that an instance got exactly one request with this method and target, and its bytes. */
export function expectSent(sim: Sim, method: string, target: string, body?: string): void {
  expectWire(only(sim, method, target), method, target, body);
}

/** Checks every request an instance received besides the scan probes, in order, byte for byte. */
export function expectCalls(sim: Sim, expected: Call[]): void {
  const got = calls(sim);
  expect(got.map((r) => r.rawText)).toEqual(expected.map(([m, t, b]) => wire(m, t, b)));
  got.forEach((r, i) => expectWire(r, ...expected[i]));
}

/** What the MODE and WORKSPACE cells of an instance's row say; "app" and "(none)" unless given. */
export interface InstanceColumns {
  mode?: (sim: Sim) => string;
  workspace?: (sim: Sim) => string;
}

/**
 * The instance table vorn prints (instance list, and above an ambiguity error): the header
 * ID PID MODE WORKSPACE SOCK and a row per instance in the order given, every cell padded with
 * spaces to its column's width plus two, widths counted in characters. No newline at the end.
 */
export function instanceTable(sims: Sim[], columns: InstanceColumns = {}): string {
  const mode = columns.mode ?? (() => "app");
  const workspace = columns.workspace ?? (() => "(none)");
  const rows = [["ID", "PID", "MODE", "WORKSPACE", "SOCK"], ...sims.map((s) => [s.id, String(s.pid), mode(s), workspace(s), s.sock])];
  const width = rows[0].map((_, c) => Math.max(...rows.map((row) => [...row[c]].length)));
  return rows.map((row) => row.map((cell, c) => cell + " ".repeat(width[c] + 2 - [...cell].length)).join("")).join("\n");
}

/**
 * Makes the sandbox folder `rel` a source checkout, which vorn knows by three marker files
 * (MODULE.bazel, tools/go.pin, src/cli/vorn.ts), and returns its absolute path. The markers are
 * left empty: that they are there is what counts.
 */
export function checkout(sb: Sandbox, rel: string): string {
  for (const marker of ["MODULE.bazel", "tools/go.pin", "src/cli/vorn.ts"]) sb.file(`${rel}/${marker}`, "");
  return sb.path(rel);
}

/** Whether a path holds a file, folder or link, without following it. */
export function exists(p: string): boolean {
  try {
    fs.lstatSync(p);
    return true;
  } catch {
    return false;
  }
}

/** Polls `check` until it holds or `ms` pass; whether it held (checked once more at the end). */
export async function eventually(check: () => boolean, ms = 15000): Promise<boolean> {
  const deadline = Date.now() + ms;
  for (;;) {
    if (check()) return true;
    if (Date.now() > deadline) return false;
    await Bun.sleep(20);
  }
}

/** Where a program is on this machine's PATH; throws when it is not there. */
export function onPath(program: string): string {
  const found = Bun.which(program);
  if (!found) throw new Error(`${program} is not on this machine's PATH (scripts/ensure-deps.sh installs what the tests need)`);
  return found;
}
