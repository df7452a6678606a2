// The fault matrix's shared parts (tests/FAULTS.md): the verb families, each with the command
// that stands for it and the request of instance `a` that a fault hits; what that command
// prints when the exchange fails or brings a body that is not JSON; and the checks every cell
// makes besides its output (no signal, no hang, nothing left behind).
//
//   const fleet = await startFleet(sb);           // instances a and b, each with a workspace
//   const base = await baseline(fleet, family);   // the command's outcome without a fault
//   await fleet.a.setRoutes([{ method: family.method, path: family.path, ...fault }]);
//   expect(outcome(await runCell(fleet, family.args(fleet)))).toEqual(family.expect(fleet, effect, base));
//   expectNothingLeft(fleet);

import { expect } from "bun:test";
import path from "node:path";
import type { Route, RunOptions, RunResult, Sandbox, Sim } from "./harness";
import { parse, render, type Row } from "./doctor";
import { processesMentioning } from "./hosts";
import { DASH, instanceTable, pretty } from "./support";

/** Two instances, each with its own workspace: `a` takes the faults, `b` stays well. */
export interface Fleet {
  sb: Sandbox;
  a: Sim;
  b: Sim;
}

export async function startFleet(sb: Sandbox): Promise<Fleet> {
  sb.file("work/a/main.go", "package main\n\n// needle\n");
  sb.file("work/b/main.go", "package main\n");
  const [a, b] = await Promise.all(["a", "b"].map((id) => sb.sim({ id, workspace: sb.path("work", id) })));
  return { sb, a, b };
}

/** What a command did: its output (with the clock taken out) and its exit status. */
export interface Outcome {
  stdout: string;
  stderr: string;
  code: number | null;
}

/**
 * What a fault does to a's exchange, as the command sees it: it fails with a transport error
 * (on every request to `a` when `every`), or a's reply has status 200 and a body that is not
 * JSON (which the command reads as {"error": text}), or nothing shows at all.
 */
export type Effect = { kind: "failed"; message: string; every?: boolean } | { kind: "notJSON"; text: string } | { kind: "none" };

export const failed = (message: string, every = false): Effect => ({ kind: "failed", message, every });
export const notJSON = (text: string): Effect => ({ kind: "notJSON", text });
export const none: Effect = { kind: "none" };

export interface Family {
  name: string; // the column of tests/FAULTS.md
  args(f: Fleet): string[];
  method: string; // the request to `a` that a fault hits
  path: string;
  // The outcome with that effect, given the outcome without it.
  expect(f: Fleet, effect: Effect, base: Outcome): Outcome;
}

// `text` with `from` replaced; `from` must be there, so a derived expectation cannot miss.
function replaced(text: string, from: string, to: string): string {
  expect(text).toContain(from);
  return text.replace(from, to);
}

// a's error text for a fault, as a reply body would carry it.
function errorOf(effect: Effect): string {
  if (effect.kind === "none") throw new Error("no error without a fault");
  return effect.kind === "failed" ? effect.message : effect.text;
}

// The {"results": [...]} text of a fan-out with a's row replaced.
function withRow(stdout: string, id: string, row: Record<string, unknown>): string {
  const value = JSON.parse(stdout) as { results: { id: string }[] };
  const at = value.results.findIndex((r) => r.id === id);
  expect(at).toBeGreaterThanOrEqual(0);
  value.results[at] = row as { id: string };
  return pretty(value);
}

/** The doctor's outcome with its rows changed by `edit`; it exits 1 exactly when a row failed. */
export function doctorEdited(base: Outcome, edit: (rows: Row[]) => Row[]): Outcome {
  const rows = parse(base.stdout);
  expect(render(rows)).toBe(base.stdout); // the rendering is the doctor's own
  const changed = edit(rows);
  return { stdout: render(changed), stderr: "", code: changed.some(([s]) => s === "fail") ? 1 : 0 };
}

/** The doctor's rows with an unreachable folder reported just before the "instances" row. */
export function withStaleRow(rows: Row[], dir: string): Row[] {
  const at = rows.findIndex(([, name]) => name === "instances");
  expect(at).toBeGreaterThan(0);
  return [...rows.slice(0, at), ["warn", "runtime.stale", `${dir} (unreachable) ${DASH} run vorn instance prune`], ...rows.slice(at)];
}

/** What `instance list` prints on stderr for one unreachable folder named `pid`. */
export function unreachableWarning(pid: number): string {
  return `vorn: 1 unreachable instance dir(s): ${pid} (unreachable) ${DASH} run vorn instance prune\n`;
}

/** The instance table of `sims`, each showing the workspace its id names. */
export function tableOf(f: Fleet, sims: Sim[]): string {
  return instanceTable(sims, { workspace: (s) => f.sb.path("work", s.id) }) + "\n";
}

const COMMAND = "workbench.toggleSidebar";

export const FAMILIES: Family[] = [
  {
    name: "scan/list",
    args: () => ["instance", "list"],
    method: "GET",
    path: "/instance",
    // The scan takes any failed probe for an unreachable folder; the others are listed.
    expect: (f, effect, base) => (effect.kind === "none" ? base : { stdout: tableOf(f, [f.b]), stderr: unreachableWarning(f.a.pid), code: 0 }),
  },
  {
    name: "selection",
    args: () => ["instance", "focus", "-i", "a"],
    method: "POST",
    path: "/focus",
    expect: (f, effect, base) =>
      effect.kind === "failed"
        ? { stdout: "", stderr: "vorn instance focus [a]: focus failed (unreachable)\nvorn instance focus: 1 target(s) failed\n", code: 1 }
        : base,
  },
  {
    name: "readEach, one",
    args: () => ["instance", "health", "-i", "a"],
    method: "GET",
    path: "/health",
    expect: (f, effect, base) => {
      if (effect.kind === "failed") return { stdout: "", stderr: `vorn: ${effect.message}\n`, code: 1 };
      if (effect.kind === "notJSON") return { stdout: pretty({ error: effect.text }), stderr: "", code: 0 };
      return base;
    },
  },
  {
    name: "readEach, all",
    args: () => ["workspace", "show"],
    method: "GET",
    path: "/workspace",
    expect: (f, effect, base) => {
      if (effect.kind === "none") return base;
      const row = effect.kind === "failed" ? { id: "a", ok: false, error: effect.message } : { id: "a", ok: true, body: { error: effect.text } };
      return { stdout: withRow(base.stdout, "a", row), stderr: "", code: 0 };
    },
  },
  {
    name: "postEach",
    args: () => ["command", "run", COMMAND, "-a"],
    method: "POST",
    path: "/command",
    expect: (f, effect, base) => {
      if (effect.kind === "failed") {
        const stdout = withRow(base.stdout, "a", { id: "a", status: 0, body: { error: effect.message } });
        return { stdout, stderr: "vorn command run: 1 target(s) failed\n", code: 1 };
      }
      // A 2xx reply without "ok": false counts as done, whatever its body.
      if (effect.kind === "notJSON") return { stdout: withRow(base.stdout, "a", { id: "a", status: 200, body: { error: effect.text } }), stderr: "", code: 0 };
      return base;
    },
  },
  {
    name: "inspect",
    args: () => ["instance", "inspect", "a"],
    method: "GET",
    path: "/health",
    expect: (f, effect, base) => {
      if (effect.kind === "none") return base;
      const [entry] = JSON.parse(base.stdout);
      const error = { error: errorOf(effect) };
      entry.health = error;
      if (effect.kind === "failed" && effect.every) {
        for (const key of ["workspace", "language"]) entry[key] = error;
        entry.diagnostics = { count: 0, bySource: {} };
      }
      return { stdout: pretty([entry]), stderr: "", code: 0 };
    },
  },
  {
    name: "version",
    args: () => ["version", "-a"],
    method: "GET",
    path: "/health",
    expect: (f, effect, base) =>
      effect.kind === "none" ? base : { ...base, stdout: replaced(base.stdout, "instance a: bridge protocol 1\n", "instance a: bridge protocol unknown\n") },
  },
  {
    name: "file open",
    args: (f) => ["file", "open", f.sb.path("work/a/main.go") + ":3"],
    method: "POST",
    path: "/openFile",
    expect: (f, effect, base) => (effect.kind === "none" ? base : { stdout: "", stderr: `vorn file open [a]: ${errorOf(effect)}\n`, code: 1 }),
  },
  {
    name: "search",
    args: () => ["search", "run", "needle", "-i", "a"],
    method: "GET",
    path: "/search",
    expect: (f, effect, base) => {
      if (effect.kind === "failed") return { stdout: "", stderr: `vorn search run: ${effect.message}\n`, code: 1 };
      // A 2xx reply: its (missing) counts are printed as they read, and no match is exit 1.
      if (effect.kind === "notJSON") return { stdout: "", stderr: "undefined matches in undefined files (undefined)\n", code: 1 };
      return base;
    },
  },
  {
    name: "doctor",
    args: () => ["doctor", "check"],
    method: "GET",
    path: "/health",
    expect: (f, effect, base) => {
      if (effect.kind === "none") return base;
      const detail = `pid ${f.a.pid} \u00b7 a: /health ${errorOf(effect)}`;
      return doctorEdited(base, (rows) => rows.map((row) => (row[1] === "instance.a" ? ["fail", "instance.a", detail] : row)));
    },
  },
];

export function family(name: string): Family {
  const found = FAMILIES.find((f) => f.name === name);
  if (!found) throw new Error(`no family ${name}`);
  return found;
}

// Inspect reports each instance's uptime, which moves between runs.
function withoutClock(text: string): string {
  return text.replace(/"uptimeMs": -?[0-9.e+]+/g, '"uptimeMs": 0');
}

export function outcome(r: RunResult): Outcome {
  return { stdout: withoutClock(r.stdout), stderr: r.stderr, code: r.code };
}

/** Runs vorn for a cell: it must end by itself (no signal), well within the time allowed. */
export async function runCell(f: Fleet, args: string[], opts: RunOptions = {}): Promise<RunResult> {
  const r = await f.sb.run(args, { timeoutMs: 20000, ...opts });
  expect(r.timedOut).toBe(false);
  expect(r.signal).toBe(null);
  return r;
}

/** The family's outcome without any fault, against the fleet as it is; every family succeeds. */
export async function baseline(f: Fleet, fam: Family): Promise<Outcome> {
  const base = outcome(await runCell(f, fam.args(f)));
  expect(base.code).toBe(0);
  return base;
}

/**
 * Checks that a cell left nothing behind: the runtime directory holds the folders of `kept`
 * (and those in `extra`) and nothing else, those instances still run, and no process but them
 * mentions the sandbox (Linux).
 */
export function expectNothingLeft(f: Fleet, kept: Sim[] = [f.a, f.b], extra: string[] = []): void {
  expect(f.sb.runtimeEntries()).toEqual([...kept.map((s) => path.basename(s.dir)), ...extra].sort());
  for (const s of kept) expect(s.alive()).toBe(true);
  expect(processesMentioning(f.sb.root).filter((pid) => !kept.some((s) => s.pid === pid))).toEqual([]);
}

/** The route that puts a fault on a family's request. */
export function faultOn(fam: Family, fault: Omit<Route, "path">): Route {
  return { method: fam.method, path: fam.path, ...fault };
}
