// `vorn doctor check`: the toolchain rows a checkout's or the app's script prints, and each way
// the script can fail.

import { describe, expect, setDefaultTimeout, test } from "bun:test";
import fs from "node:fs";
import path from "node:path";
import { vornBin, type Sandbox } from "./harness";
import { doctor, fresh, goRows, packsCheckout, parse, render, row, skipped, useDoctorSandbox } from "./doctor";
import { REAL_BUN } from "./hosts";
import { eventually } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
useDoctorSandbox((fresh) => (sb = fresh));

describe("toolchain rows", () => {
  test("a script that succeeds gives its rows, in order, after the CLI rows", async () => {
    const { opts } = packsCheckout(`console.log(${JSON.stringify(goRows)})`);
    const rows = await doctor(opts);
    expect(rows.slice(-3)).toEqual([fresh().shim, ["ok", "go", "go1.23.4 (tools/go.pin)"], ["ok", "go.gopls", "gopls v0.16.0"]]);
  });

  test("the script runs in the checkout root", async () => {
    const { root, opts } = packsCheckout(
      `console.log(JSON.stringify([{ name: "cwd", status: "warn", detail: process.cwd() }, { name: "bazel", status: "fail", detail: "not found" }]))`,
    );
    const rows = await doctor({ ...opts, cwd: sb.dir("work/repo/pkg") });
    expect(rows.slice(-2)).toEqual([
      ["warn", "cwd", root],
      ["fail", "bazel", "not found"],
    ]);
  });

  test("a script that fails", async () => {
    const { script, opts } = packsCheckout(`console.log("[]"); process.exit(3)`);
    expect((await doctor(opts)).at(-1)).toEqual(skipped(`${script} exited 3`));
  });

  test("a script that prints garbage", async () => {
    const { script, opts } = packsCheckout(`console.log("go: ok")`);
    expect((await doctor(opts)).at(-1)).toEqual(skipped(`${script} printed no JSON (bad number at offset 0)`));
    sb.file("work/repo/src/cli/doctor-packs.ts", `console.log(JSON.stringify({ go: "ok" }))`);
    expect((await doctor(opts)).at(-1)).toEqual(
      skipped(`${script} printed something other than an array of rows with name, status (ok, warn or fail) and detail`),
    );
  });

  test("a script that prints megabytes", async () => {
    const { script, opts } = packsCheckout(`try { await Bun.write(Bun.stdout, " ".repeat(3_000_000) + "[]"); } catch {}`);
    expect((await doctor(opts)).at(-1)).toEqual(skipped(`${script} printed more than 1 MiB`));
  });

  test("a missing script", async () => {
    const { script, opts } = packsCheckout();
    expect((await doctor(opts)).at(-1)).toEqual(skipped(`no script at ${script}`));
  });

  test("the app's own script and Bun, outside any checkout", async () => {
    const app = sb.path("apps/Vorn.app");
    sb.symlink(REAL_BUN, "apps/Vorn.app/Contents/MacOS/bun");
    sb.file(
      "apps/Vorn.app/Contents/Resources/app/bun/doctor-packs.js",
      `console.log(JSON.stringify([{ name: "go", status: "ok", detail: process.cwd() }]))`,
    );
    const rows = await doctor({ env: { VORN_APP: app } });
    expect(rows.at(-1)).toEqual(["ok", "go", path.join(app, "Contents/Resources/app")]);
    expect(row(rows, "cli.bun")).toEqual(fresh().bun);
  });

  test("a background process holding the output open is not waited for", async () => {
    const pidFile = sb.path("grandchild.pid");
    const { opts } = packsCheckout(
      `const child = Bun.spawn([${JSON.stringify(Bun.which("sleep"))}, "30"], { stdout: "inherit", stderr: "ignore" });
require("fs").writeFileSync(${JSON.stringify(pidFile)}, String(child.pid));
child.unref();
console.log(${JSON.stringify(goRows)});
process.exit(0);`,
    );
    const rows = await doctor(opts, true);
    expect(rows.at(-1)).toEqual(["ok", "go.gopls", "gopls v0.16.0"]);
    const pid = Number(fs.readFileSync(pidFile, "utf8"));
    // Still running: the doctor finished when the script did, not when the pipe closed.
    expect(() => process.kill(pid, 0)).not.toThrow();
    process.kill(pid, "SIGKILL");
  });

  test("a script that does not exit keeps the doctor waiting, silent, until it does", async () => {
    const started = sb.path("started");
    const release = sb.path("release");
    const { opts } = packsCheckout(
      `const fs = require("fs");
fs.writeFileSync(${JSON.stringify(started)}, "");
while (!fs.existsSync(${JSON.stringify(release)})) Bun.sleepSync(20);
console.log(${JSON.stringify(goRows)});`,
    );
    const proc = Bun.spawn([vornBin(), "doctor", "check"], { cwd: opts.cwd, env: sb.env(), stdout: "pipe", stderr: "pipe" });
    const output = new Response(proc.stdout).text();
    expect(await eventually(() => fs.existsSync(started), 30_000)).toBe(true);
    // The script cannot finish before it is released, so neither can the doctor.
    expect(proc.exitCode).toBeNull();
    fs.writeFileSync(release, "");
    expect(await proc.exited).toBe(0);
    const text = await output;
    expect(parse(text).at(-1)).toEqual(["ok", "go.gopls", "gopls v0.16.0"]);
    expect(text).toBe(render(parse(text)));
  });
});
