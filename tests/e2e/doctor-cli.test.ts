// `vorn doctor check`: the rows of the CLI's installation (the checkout, Bun, Homebrew) and of the
// PATH shim in every state.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import type { RunOptions, Sandbox } from "./harness";
import { doctor, fresh, row, skipped, useDoctorSandbox } from "./doctor";
import { brewVorn, nativeBuild, scriptCheckout, shimPath } from "./installs";
import { DASH } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
useDoctorSandbox((fresh) => (sb = fresh));

describe("cli rows", () => {
  test("a VORN_REPO_ROOT that is no checkout fails", async () => {
    const rows = await doctor({ env: { VORN_REPO_ROOT: sb.dir("notacheckout") } });
    expect(row(rows, "cli.repo")).toEqual(["fail", "cli.repo", `VORN_REPO_ROOT=${sb.path("notacheckout")} is not a Vorn checkout`]);
  });

  test("no bun in a checkout without a native build warns; with the build it is fine", async () => {
    const root = scriptCheckout(sb, "work/repo");
    const rows = await doctor({ cwd: root });
    expect(row(rows, "cli.repo")).toEqual(["ok", "cli.repo", root]);
    expect(row(rows, "cli.bun")).toEqual([
      "warn",
      "cli.bun",
      `bun is not on PATH and there is no native CLI build at ${root}/cli/native/.build/debug/vorn ${DASH} the vorn shim needs one (make -C cli/native dev)`,
    ]);
    expect(row(rows, "languages")).toEqual(skipped("bun not on PATH (direnv allow)"));
    nativeBuild(sb, "work/repo");
    expect(row(await doctor({ cwd: root }), "cli.bun")).toEqual(fresh().bun);
  });

  test("Homebrew's vorn", async () => {
    const brew = brewVorn(sb);
    const rows = await doctor({ env: { HOMEBREW_PREFIX: brew.prefix } });
    expect(row(rows, "cli.brew")).toEqual(["ok", "cli.brew", `Homebrew links vorn at ${brew.link} \u2192 ${brew.target}`]);
    expect(row(rows, "cli.shim")).toEqual(["ok", "cli.shim", `${shimPath(sb)} not installed ${DASH} Homebrew links vorn at ${brew.link}`]);
  });
});

describe("cli.shim", () => {
  const withShim = () => ({ PATH: `${path.dirname(shimPath(sb))}:${sb.bin}` });
  const installShim = async (opts: RunOptions = {}) => {
    const r = await sb.run(["shell-command", "install"], opts);
    expect([r.stderr, r.code]).toEqual(["", 0]);
  };
  const shimRow = async (env: Record<string, string | undefined> = withShim()) => row(await doctor({ env }), "cli.shim");

  test("installed from a checkout: where it falls back", async () => {
    const root = scriptCheckout(sb, "work/repo");
    await installShim({ cwd: root });
    expect(await shimRow()).toEqual(["ok", "cli.shim", `${shimPath(sb)} \u2192 checkout of $PWD, else VORN_REPO_ROOT, else ${root}`]);
  });

  test("installed from nowhere: nothing to fall back to", async () => {
    await installShim();
    expect(await shimRow()).toEqual(["ok", "cli.shim", `${shimPath(sb)} \u2192 checkout of $PWD, else VORN_REPO_ROOT, else nothing`]);
  });

  test("a foreign file", async () => {
    sb.file("home/.local/bin/vorn", "#!/bin/sh\n", 0o755);
    expect(await shimRow()).toEqual(["warn", "cli.shim", `${shimPath(sb)} exists but is not Vorn-managed`]);
  });

  test("a directory", async () => {
    sb.dir("home/.local/bin/vorn");
    expect(await shimRow()).toEqual(["warn", "cli.shim", `${shimPath(sb)} is a directory`]);
  });

  test("a fallback that is gone, or has no CLI", async () => {
    const root = scriptCheckout(sb, "work/repo");
    await installShim({ cwd: root });
    fs.rmSync(path.join(root, "src/cli/vorn.ts"));
    expect(await shimRow()).toEqual(["warn", "cli.shim", `${shimPath(sb)} falls back to ${root}, which has no CLI ${DASH} reinstall`]);
    fs.rmSync(root, { recursive: true });
    expect(await shimRow()).toEqual(["warn", "cli.shim", `${shimPath(sb)} falls back to ${root}, which is gone ${DASH} reinstall`]);
  });

  test("a shim from before the current-directory search", async () => {
    await installShim();
    const text = fs.readFileSync(shimPath(sb), "utf8");
    fs.writeFileSync(shimPath(sb), text.replace('d="$PWD"\n', 'd=""\n'));
    expect(await shimRow()).toEqual([
      "warn",
      "cli.shim",
      `${shimPath(sb)} predates $PWD checkout detection ${DASH} reinstall (vorn shell-command install)`,
    ]);
  });

  test("not executable, or not on PATH", async () => {
    await installShim();
    fs.chmodSync(shimPath(sb), 0o644);
    expect(await shimRow()).toEqual(["warn", "cli.shim", `${shimPath(sb)} is not executable ${DASH} reinstall (vorn shell-command install)`]);
    fs.chmodSync(shimPath(sb), 0o755);
    expect(await shimRow({})).toEqual([
      "warn",
      "cli.shim",
      `${shimPath(sb)} is not on PATH ${DASH} add ${path.dirname(shimPath(sb))} to PATH`,
    ]);
  });

  test("another vorn first on PATH shadows it", async () => {
    await installShim();
    const other = sb.file("bin/vorn", "#!/bin/sh\n", 0o755);
    expect(await shimRow({ PATH: `${sb.bin}:${path.dirname(shimPath(sb))}` })).toEqual([
      "warn",
      "cli.shim",
      `vorn on PATH resolves to ${other}, shadowing ${shimPath(sb)}`,
    ]);
  });

  test("it shadows Homebrew's vorn", async () => {
    await installShim();
    const brew = brewVorn(sb);
    expect(await shimRow({ ...withShim(), HOMEBREW_PREFIX: brew.prefix })).toEqual([
      "warn",
      "cli.shim",
      `${shimPath(sb)} shadows Homebrew's ${brew.link} ${DASH} vorn shell-command uninstall`,
    ]);
  });
});
