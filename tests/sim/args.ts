// The simulator's command line: the usage text, and the flags merged over a scenario file
// (flags win) into one checked scenario.

import fs from "node:fs";
import { checkScenario, ScenarioError, type Scenario } from "./scenario";

export const USAGE = `usage: bun instance.ts --runtime DIR [options]

  --runtime DIR       base folder: the instance lives in DIR/vorn/<pid>/fs.sock
  --id ID             instance id (default sim-<pid>)
  --workspace DIR     folder the instance has open ("" for none; default none)
  --platform NAME     reported platform (default darwin)
  --mode MODE         reported mode: app, headless, remote, ... (default: none reported)
  --vorn-root DIR     reported vornRoot
  --started-at MS     reported startedAt (default: now)
  --scenario FILE     JSON scenario (routes, record overrides, ...); flags win over it
  --record FILE       append one JSON line per request received
  --dir-name NAME     folder name instead of the pid ({pid} is replaced by the pid)
  --bind-at PATH      bind there; <dir>/fs.sock becomes a symbolic link to it
  --no-sock           create the folder only, no socket
  --sock-file         create a regular file named fs.sock instead of a socket
  --ignore-quit       answer POST /quit but keep running
  --stdin-control     read control commands from stdin; exit when stdin closes

Prints "ready <pid> <socket path>" on stdout once it accepts connections.`;

export class UsageError extends Error {}

/** What the command line asks for: the scenario, plus what only the process itself uses. */
export type SimArgs = Scenario & { record?: string; stdinControl?: boolean; help?: boolean };

export function parseArgs(argv: string[]): SimArgs {
  const flags: Record<string, unknown> = {};
  let scenarioFile: string | undefined;
  const valueFlags: Record<string, string> = {
    "--runtime": "runtime",
    "--id": "id",
    "--workspace": "workspace",
    "--platform": "platform",
    "--mode": "mode",
    "--vorn-root": "vornRoot",
    "--started-at": "startedAt",
    "--record": "record",
    "--dir-name": "dirName",
    "--bind-at": "bindAt",
  };
  for (let i = 0; i < argv.length; i++) {
    let arg = argv[i];
    let inline: string | undefined;
    const eq = arg.indexOf("=");
    if (arg.startsWith("--") && eq > 0) {
      inline = arg.slice(eq + 1);
      arg = arg.slice(0, eq);
    }
    const take = () => {
      if (inline !== undefined) return inline;
      if (i + 1 >= argv.length) throw new UsageError(`${arg} needs a value`);
      return argv[++i];
    };
    if (arg === "--help" || arg === "-h") return { help: true };
    else if (arg === "--scenario") scenarioFile = take();
    else if (arg in valueFlags) flags[valueFlags[arg]] = take();
    else if (arg === "--no-sock") flags.sock = "none";
    else if (arg === "--sock-file") flags.sock = "file";
    else if (arg === "--ignore-quit") flags.ignoreQuit = true;
    else if (arg === "--stdin-control") flags.stdinControl = true;
    else throw new UsageError(`unknown argument: ${argv[i]}`);
  }
  if (flags.startedAt !== undefined) {
    const n = Number(flags.startedAt);
    if (!Number.isFinite(n) || String(flags.startedAt).trim() === "") throw new UsageError("--started-at needs a number");
    flags.startedAt = n;
  }
  let scenario: Scenario = {};
  if (scenarioFile !== undefined) {
    let text: string;
    try {
      text = fs.readFileSync(scenarioFile, "utf8");
    } catch (e) {
      throw new ScenarioError(`cannot read scenario ${scenarioFile}: ${(e as Error).message}`);
    }
    let v: unknown;
    try {
      v = JSON.parse(text);
    } catch (e) {
      throw new ScenarioError(`scenario ${scenarioFile} is not JSON: ${(e as Error).message}`);
    }
    scenario = checkScenario(v, `scenario ${scenarioFile}`);
  }
  const { record, stdinControl, ...rest } = flags;
  const merged = checkScenario({ ...scenario, ...rest }, "flags");
  return { ...merged, record: record as string | undefined, stdinControl: stdinControl === true };
}
