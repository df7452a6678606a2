// Helpers the `vorn doctor check` tests share: a report's rows as text and back, a run that
// checks the text and JSON forms agree, the rows of a fresh sandbox, and a checkout whose toolchain
// script a test writes. They work in the sandbox that useDoctorSandbox keeps for each test.

import { expect } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import type { RunOptions, Sandbox } from "./harness";
import { useRealBun } from "./hosts";
import { scriptCheckout, shimPath } from "./installs";
import { DASH, pretty, useSandbox } from "./support";

let sb: Sandbox;

/** Gives every test of a file a fresh sandbox, as useSandbox does, and has these helpers use it. */
export function useDoctorSandbox(use: (sb: Sandbox) => unknown): void {
  useSandbox((fresh) => {
    sb = fresh;
    return use(fresh);
  });
}

export type Row = [status: string, name: string, detail: string];

/** The text vorn prints for these rows: aligned names, then the summary line. */
export function render(rows: Row[]): string {
  const width = Math.max(0, ...rows.map(([, name]) => [...name].length));
  const lines = rows.map(([status, name, detail]) => `[${status.padEnd(4)}] ${name}${" ".repeat(width - [...name].length)}  ${detail}\n`);
  const count = (s: string) => rows.filter(([status]) => status === s).length;
  return lines.join("") + `\n${count("fail")} failed, ${count("warn")} warning(s).\n`;
}

/** The rows of a text report. */
export function parse(text: string): Row[] {
  const body = text.slice(0, text.indexOf("\n\n"));
  return body.split("\n").map((line) => {
    const m = line.match(/^\[(ok  |warn|fail)\] (\S+) +(.*)$/);
    if (!m) throw new Error(`not a doctor row: ${JSON.stringify(line)}`);
    return [m[1].trim(), m[2], m[3]] as Row;
  });
}

/**
 * Runs `doctor check` and returns its rows, after checking the text is laid out exactly as
 * rendered, nothing went to stderr and the exit status is 1 exactly when a row failed; unless
 * `once`, also runs `-o json` and checks it holds the same rows.
 */
export async function doctor(opts: RunOptions = {}, once = false): Promise<Row[]> {
  const r = await sb.run(["doctor", "check"], opts);
  const rows = parse(r.stdout);
  expect(r.stdout).toBe(render(rows));
  expect(r.stderr).toBe("");
  const failed = rows.some(([status]) => status === "fail");
  expect(r.code).toBe(failed ? 1 : 0);
  if (!once) {
    const j = await sb.run(["doctor", "check", "-o", "json"], opts);
    expect(j.stdout).toBe(pretty({ ok: !failed, checks: rows.map(([status, name, detail]) => ({ name, status, detail })) }));
    expect([j.stderr, j.code]).toEqual(["", r.code]);
  }
  return rows;
}

export function row(rows: Row[], name: string): Row | undefined {
  return rows.find(([, n]) => n === name);
}

/** The rows of a fresh sandbox: nothing has run, no checkout, no bun, no shim, no app. */
export function fresh() {
  const shim = shimPath(sb);
  return {
    runtime: ["ok", "runtime.dir", `${sb.runtimeRoot} not created yet ${DASH} no instance has run ($XDG_RUNTIME_DIR)`] as Row,
    support: ["ok", "support.dir", `${sb.home}/Library/Application Support/Vorn`] as Row,
    instances: ["ok", "instances", "none running (vorn workspace open <dir> launches one)"] as Row,
    repo: ["ok", "cli.repo", `no checkout ${DASH} product verbs only (vorn dev needs one: run from it or set VORN_REPO_ROOT)`] as Row,
    bun: ["ok", "cli.bun", "bun is not on PATH; product verbs run in the native CLI (vorn dev needs bun)"] as Row,
    brew: ["ok", "cli.brew", "Homebrew does not link vorn (brew install --cask qor-labs/tap/vorn)"] as Row,
    shim: ["ok", "cli.shim", `${shim} not installed ${DASH} Omnibar "Install 'vorn' in PATH" or vorn shell-command install`] as Row,
    languages: [
      "warn",
      "languages",
      "toolchain rows skipped: no Vorn checkout or Vorn.app (run from a checkout, or set VORN_REPO_ROOT or VORN_APP)",
    ] as Row,
  };
}

export const skipped = (reason: string): Row => ["warn", "languages", `toolchain rows skipped: ${reason}`];

export const goRows = JSON.stringify([
  { name: "go", status: "ok", detail: "go1.23.4 (tools/go.pin)" },
  { name: "go.gopls", status: "ok", detail: "gopls v0.16.0", more: "ignored" },
]);

/** A checkout (the working directory of `run`) with bun on PATH and `packs` as its doctor-packs script. */
export function packsCheckout(packs?: string): { root: string; script: string; opts: RunOptions } {
  const root = scriptCheckout(sb, "work/repo");
  useRealBun(sb);
  const script = path.join(root, "src/cli/doctor-packs.ts");
  if (packs !== undefined) sb.file("work/repo/src/cli/doctor-packs.ts", packs);
  return { root, script, opts: { cwd: root } };
}

/** The runtime root made as a private folder. */
export function privateRoot(): void {
  fs.mkdirSync(sb.runtimeRoot, { mode: 0o700 });
  fs.chmodSync(sb.runtimeRoot, 0o700);
}
