// What a vorn installation is made of, built inside a sandbox for the doctor and shell-command
// tests: a checkout with a real script CLI and a stand-in native build, an app bundle, a
// Homebrew link, and the few system tools the shim calls.

import path from "node:path";
import type { Sandbox } from "./harness";
import { checkout, onPath } from "./support";

/**
 * A folder holding links to the system tools the shim calls (dirname, find) and nothing else,
 * to put on PATH after sb.bin: the shim finds its tools, and never a bun of this machine.
 */
export function shimTools(sb: Sandbox): string {
  for (const name of ["dirname", "find"]) sb.symlink(onPath(name), `tools/${name}`);
  return sb.path("tools");
}

/** A checkout's script CLI: says it ran, with VORN_REPO_ROOT and its arguments. */
export const scriptCli = `console.log(JSON.stringify({ via: "script", root: process.env.VORN_REPO_ROOT ?? null, args: process.argv.slice(2) }));\n`;

/** What scriptCli prints for a root and arguments. */
export function scriptSays(root: string, args: string[]): string {
  return JSON.stringify({ via: "script", root, args }) + "\n";
}

/** A checkout at `rel` whose src/cli/vorn.ts is a real script CLI. */
export function scriptCheckout(sb: Sandbox, rel: string): string {
  const root = checkout(sb, rel);
  sb.file(`${rel}/src/cli/vorn.ts`, scriptCli);
  return root;
}

export const nativeRel = "cli/native/.build/debug/vorn";

/**
 * A stand-in native build in the checkout at `rel` (it prints "native", VORN_REPO_ROOT and its
 * arguments) with its manifest and sources, all older than the build: a fresh build.
 */
export function nativeBuild(sb: Sandbox, rel: string, script = 'echo "native root=$VORN_REPO_ROOT args=$*"\n'): string {
  const manifest = sb.file(`${rel}/cli/native/CMakeLists.txt`, "project(vorn)\n");
  const source = sb.file(`${rel}/cli/native/cli/main.cpp`, "int main() {}\n");
  const exe = sb.file(`${rel}/${nativeRel}`, "#!/bin/sh\n" + script, 0o755);
  for (const p of [manifest, source, path.dirname(source)]) sb.age(p, 120_000);
  sb.age(exe, 60_000);
  return exe;
}

/** Makes the native build of the checkout at `rel` older than one of its sources. */
export function touchSource(sb: Sandbox, rel: string): string {
  const source = sb.file(`${rel}/cli/native/cli/changed.cpp`, "// newer than the build\n");
  sb.age(path.dirname(source), 120_000);
  return source;
}

/** An app bundle at `rel` whose CLI (Contents/Resources/app/bin/vorn) prints "app" and its arguments. */
export function fakeApp(sb: Sandbox, rel = "apps/Vorn.app"): { app: string; cli: string } {
  const cli = sb.file(`${rel}/Contents/Resources/app/bin/vorn`, '#!/bin/sh\necho "app args=$*"\n', 0o755);
  return { app: sb.path(rel), cli };
}

/** A Homebrew prefix at `rel` whose bin/vorn links to a program in its Cellar; returns the link. */
export function brewVorn(sb: Sandbox, rel = "brew"): { prefix: string; link: string; target: string } {
  const target = sb.file(`${rel}/Cellar/vorn/1.0/bin/vorn`, "#!/bin/sh\necho brew\n", 0o755);
  const link = sb.symlink(target, `${rel}/bin/vorn`);
  return { prefix: sb.path(rel), link, target };
}

/** The shim path of a sandbox. */
export function shimPath(sb: Sandbox): string {
  return path.join(sb.home, ".local/bin/vorn");
}
