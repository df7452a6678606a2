// The simulator's line to whoever started it: "ready <pid> <socket>" and the answers to control
// commands on stdout; with --stdin-control, one JSON command a line on stdin, each answered
// "ok <n>" (with the state after it for "state") or "err <n> <message>".

import fs from "node:fs";
import path from "node:path";
import type { State } from "./endpoints";
import type { RouteTable } from "./routes";
import { checkRoute, checkScenario, ScenarioError, type Route } from "./scenario";

/** Writes a line on stdout, unless nobody reads it any more. */
export function say(line: string): void {
  try {
    fs.writeSync(1, line + "\n");
  } catch {
    // nobody listens any more
  }
}

function control(line: string, st: State, routes: RouteTable): void {
  let cmd: Record<string, unknown>;
  try {
    cmd = JSON.parse(line);
  } catch {
    say("err 0 control line is not JSON");
    return;
  }
  const n = typeof cmd.n === "number" ? cmd.n : 0;
  try {
    switch (cmd.op) {
      case "ping":
        break;
      case "update": {
        const set = checkScenario(cmd.set, "update", true);
        for (const [k, v] of Object.entries(set)) {
          if (k === "id") st.id = v as string;
          else if (k === "workspace") st.workspace = v ? path.resolve(v as string) : "";
          else if (k === "vornRoot") st.vornRoot = v as string;
          else if (k === "platform") st.platform = v as string;
          else if (k === "mode") st.mode = (v as string | null) ?? null;
          else if (k === "startedAt") st.startedAt = v as number;
          else if (k === "routes") routes.replace(v as Route[]);
          else (st.scenario as Record<string, unknown>)[k] = v;
        }
        break;
      }
      case "addRoute": {
        const route = checkRoute(cmd.route, "addRoute");
        routes.add(route, cmd.last === true);
        break;
      }
      case "state":
        say(
          `ok ${n} ` +
            JSON.stringify({
              id: st.id,
              workspace: st.workspace,
              focusCount: st.focusCount,
              lastTest: st.lastTest,
              routes: routes.summary(),
            }),
        );
        return;
      default:
        throw new ScenarioError(`unknown op ${JSON.stringify(cmd.op)}`);
    }
    say(`ok ${n}`);
  } catch (e) {
    say(`err ${n} ${(e as Error).message}`);
  }
}

/** Follows the commands on stdin; `onEnd` runs when stdin ends or fails (the parent is gone). */
export function listenToStdin(st: State, routes: RouteTable, onEnd: () => void): void {
  let pending = "";
  process.stdin.setEncoding("utf8");
  process.stdin.on("data", (chunk: string) => {
    pending += chunk;
    for (let nl = pending.indexOf("\n"); nl >= 0; nl = pending.indexOf("\n")) {
      const line = pending.slice(0, nl).trim();
      pending = pending.slice(nl + 1);
      if (line !== "") control(line, st, routes);
    }
  });
  // The parent is gone: never outlive it.
  process.stdin.on("end", onEnd);
  process.stdin.on("error", onEnd);
}
