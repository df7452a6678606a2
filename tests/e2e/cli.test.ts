// The command line as a user meets it: usage errors, JSON errors, exit statuses, pipes, dev.
import { describe, expect, test } from "bun:test";
import { spawnSync } from "node:child_process";
import { vornBin, type Sandbox } from "./harness";
import { useSandbox } from "./support";

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh), "file");

const instanceVerbs = "list, inspect, focus, quit, prune, health";

async function expectError(args: string[], stderr: string, code = 2) {
  const r = await sb.run(args);
  expect(r.stderr).toBe(stderr);
  expect(r.stdout).toBe("");
  expect(r.code).toBe(code);
}

describe("usage errors", () => {
  test("unknown command", async () => {
    await expectError(["nosuch"], "vorn: unknown command 'nosuch' (vorn help)\n");
    await expectError(["help", "nosuch"], "vorn: unknown command 'nosuch' (vorn help)\n");
    await expectError(["Instance", "list"], "vorn: unknown command 'Instance' (vorn help)\n");
  });

  test("unknown command in JSON form", async () => {
    await expectError(["-o", "json", "nosuch"], '{"error":"unknown command \'nosuch\' (vorn help)","code":2}\n');
    await expectError(["nosuch", "--output=json"], '{"error":"unknown command \'nosuch\' (vorn help)","code":2}\n');
  });

  test("missing verb prints the noun help on stderr first", async () => {
    const help = (await sb.run(["help", "instance"])).stdout;
    await expectError(["instance"], `${help}vorn instance: missing verb (${instanceVerbs})\n`);
  });

  test("unknown verb", async () => {
    await expectError(["instance", "frobnicate"], `vorn instance: unknown verb 'frobnicate' (${instanceVerbs})\n`);
    await expectError(
      ["language", "Hover"],
      "vorn language: unknown verb 'Hover' (status, hover, definition, type-definition)\n",
    );
  });

  test("flag errors", async () => {
    await expectError(["instance", "list", "-o", "yaml"], "vorn: -o takes json (got yaml)\n");
    await expectError(
      ["instance", "list", "-o", "out.json"],
      "vorn: -o takes json (got out.json): -o is the output format; this command takes no -o FILE\n",
    );
    await expectError(["instance", "list", "--json"], "vorn: unknown flag --json (JSON output is -o json)\n");
    await expectError(["instance", "list", "--prune=yes"], "vorn: --prune takes no value\n");
    await expectError(["instance", "list", "--instance"], "vorn: --instance needs a value (ID)\n");
    await expectError(["instance", "list", "-i"], "vorn: -i needs a value (ID)\n");
    for (const pid of ["0", "-3", "x"]) {
      await expectError(["instance", "list", "--pid", pid], `vorn: --pid needs a positive integer (got ${pid})\n`);
    }
    await expectError(["version", "--bogus"], "vorn: unknown flag --bogus\n");
  });

  test("flag errors in JSON form", async () => {
    await expectError(
      ["instance", "list", "-o", "json", "--prune=1"],
      '{"error":"--prune takes no value","code":2}\n',
    );
    await expectError(["-o", "json", "instance", "list", "--pid", "x"], '{"error":"--pid needs a positive integer (got x)","code":2}\n');
  });

  test("a line that names json after -- is not JSON", async () => {
    await expectError(["nosuch", "--", "-o", "json"], "vorn: unknown command 'nosuch' (vorn help)\n");
  });

  test("only a first word of version takes the version path", async () => {
    await expectError(["-o", "json", "version"], '{"error":"unknown command \'version\' (vorn help)","code":2}\n');
  });
});

describe("version", () => {
  test("prints the CLI line for every spelling", async () => {
    for (const word of ["version", "--version", "-V"]) {
      const r = await sb.run([word]);
      expect(r.stdout).toBe("vorn 0.2.0\n");
      expect(r.stderr).toBe("");
      expect(r.code).toBe(0);
    }
  });
});

describe("odd argument vectors", () => {
  test("never crash", async () => {
    const long = "x".repeat(100000);
    const lines = [[""], ["="], ["--"], ["-"], [long], ["--" + long], ["", "", ""], ["instance", ""], ["instance", "list", "="], ["é\u0000"].map((w) => w.replace("\u0000", ""))];
    for (const args of lines) {
      const r = await sb.run(args);
      expect(r.signal).toBeNull();
      expect([0, 1, 2]).toContain(r.code!);
      expect(r.stderr.length + r.stdout.length).toBeGreaterThan(0);
    }
  });

  test("-- alone is an unknown command", async () => {
    await expectError(["--"], "vorn: unknown command '--' (vorn help)\n");
  });
});

describe("pipes", () => {
  // The reader is gone before vorn writes: without SIGPIPE ignored the write would kill it (141).
  test("a closed pipe does not kill the program", () => {
    const script = 'exec {fd}> >(exec true); wait $!; "$1" help >&$fd; echo "vorn=$?"; cat /dev/null - <<<x >&$fd; echo "cat=$?"';
    const r = spawnSync("/bin/bash", ["-c", script, "bash", vornBin()], {
      env: { PATH: "/usr/bin:/bin" },
      encoding: "utf8",
    });
    expect(r.stdout).toBe("vorn=0\ncat=141\n");
  });
});

describe("dev hand-over", () => {
  function makeCheckout(rel: string, bunVersion = "1.2.3\n") {
    const root = sb.dir(rel);
    sb.file(`${rel}/MODULE.bazel`, "");
    sb.file(`${rel}/tools/go.pin`, "");
    sb.file(`${rel}/src/cli/vorn.ts`, "");
    sb.file(`${rel}/.bun-version`, bunVersion);
    sb.dir(`${rel}/pkg/deep`);
    return root;
  }

  test("outside a checkout it fails with exit 1", async () => {
    await expectError(
      ["dev", "app", "start"],
      "vorn dev: needs a Vorn checkout (run from one, or set VORN_REPO_ROOT) \u2014 the installed app ships only the product CLI\n",
      1,
    );
  });

  test("inside a checkout it becomes bun <root>/src/cli/vorn.ts dev <words...>", async () => {
    const root = makeCheckout("co1");
    sb.stub("bun", 'printf "%s\\n" "$@"; echo "root=$VORN_REPO_ROOT"; exit 7');
    const r = await sb.run(["dev", "anything", "--weird", "-o", "json", "-i", "x"], { cwd: `${root}/pkg/deep` });
    expect(r.stdout).toBe(`${root}/src/cli/vorn.ts\ndev\nanything\n--weird\n-o\njson\n-i\nx\nroot=${root}\n`);
    expect(r.stderr).toBe("");
    expect(r.code).toBe(7);
  });

  test("VORN_REPO_ROOT is the last resort", async () => {
    const root = makeCheckout("co2");
    const other = makeCheckout("co3");
    sb.stub("bun", 'echo "$1 $VORN_REPO_ROOT"');
    const fromEnv = await sb.run(["dev", "x"], { env: { VORN_REPO_ROOT: other } });
    expect(fromEnv.stdout).toBe(`${other}/src/cli/vorn.ts ${other}\n`);
    const fromCwd = await sb.run(["dev", "x"], { cwd: root, env: { VORN_REPO_ROOT: other } });
    expect(fromCwd.stdout).toBe(`${root}/src/cli/vorn.ts ${root}\n`);
    await expectError(
      ["dev", "x"],
      "vorn dev: needs a Vorn checkout (run from one, or set VORN_REPO_ROOT) \u2014 the installed app ships only the product CLI\n",
      1,
    );
  });

  test("without bun on PATH it prints the Bun hint and exits 127", async () => {
    const root = makeCheckout("co4", "  1.2.3\n");
    const r = await sb.run(["dev", "x"], { cwd: root, env: { PATH: sb.path("empty-path") } });
    expect(r.stdout).toBe("");
    expect(r.stderr).toBe(
      `vorn: bun not on PATH \u2014 run \`direnv allow\` in ${root}, or install Bun >= 1.2.3 (https://bun.sh puts it in ~/.bun/bin)\n`,
    );
    expect(r.code).toBe(127);
  });

  test("a bun that cannot run is named with the system's error", async () => {
    const root = makeCheckout("co5");
    const dir = sb.dir("noexec");
    sb.file("noexec/bun", "#!/bin/sh\n", 0o644);
    const r = await sb.run(["dev", "x"], { cwd: root, env: { PATH: dir } });
    expect(r.stderr).toBe("vorn: cannot run bun: Permission denied\n");
    expect(r.code).toBe(127);
  });
});
