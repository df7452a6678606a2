// The simulated instance as a headless host: what `vorn server start [dir]` runs when a
// checkout's src/bun/headless.ts (or an app's headless.js) is this script or imports it.
//
//   bun headless.ts [dir]
//
// It runs the simulator in this very process, so it lives in
// <XDG_RUNTIME_DIR>/vorn/<its own pid>/fs.sock, reports mode "headless" and the folder given
// (absolute; none without one) as its workspace, and ends cleanly on SIGINT, SIGTERM, SIGHUP
// and POST /quit. "ready <pid> <socket>" goes to stdout, as from the simulator.

import path from "node:path";

const dir = process.argv[2];
// The host's socket root is the XDG_RUNTIME_DIR it was started with, taken as it stands:
// an empty one means the current directory, as it does for vorn.
const runtime = process.env.XDG_RUNTIME_DIR ?? (process.env.TMPDIR || "/tmp");
// A host reports the folder it runs from (the checkout, or the app's script folder) as its root.
const args = ["--runtime", runtime === "" ? "." : runtime, "--mode", "headless", "--vorn-root", process.cwd()];
if (dir !== undefined) args.push("--workspace", path.resolve(dir));
process.argv.splice(2, process.argv.length - 2, ...args);

await import("./instance.ts");
