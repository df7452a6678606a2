// What a person at a terminal sees beyond the output: a status line while a command waits for
// something outside itself, and "did you mean ...?" after a mistyped word. The commands run on
// a pseudo-terminal (util-linux `script`), standard output to a file, so that standard error is
// the terminal; what the terminal finally shows is worked out from the bytes (carriage return,
// erase to the end of the line) and must be exactly what the same command prints without a
// terminal. Without a terminal, with TERM=dumb and with -o json nothing changes.

import { afterEach, describe, expect, setDefaultTimeout, test } from "bun:test";
import fs from "node:fs";
import { vornBin, type Sandbox, type Sim } from "./harness";
import { eventually, instanceTable, onPath, useSandbox } from "./support";

setDefaultTimeout(60000);

let sb: Sandbox;
useSandbox((fresh) => (sb = fresh));

// Instances stopped by a test are let go again before the sandbox ends them.
const stopped = new Set<number>();
afterEach(() => {
  for (const pid of stopped) {
    try {
      process.kill(pid, "SIGCONT");
    } catch {}
  }
  stopped.clear();
});

function stop(sim: Sim): void {
  process.kill(sim.pid, "SIGSTOP");
  stopped.add(sim.pid);
}

function resume(sim: Sim): void {
  process.kill(sim.pid, "SIGCONT");
  stopped.delete(sim.pid);
}

const quote = (word: string) => `'${word.replace(/'/g, `'\\''`)}'`;

interface TerminalRun {
  screen(): string; // every byte the terminal received so far, line ends as the program wrote them
  pid(): number | undefined; // vorn's pid, once it runs
  done: Promise<{ code: number | null; screen: string; stdout: string }>;
}

/**
 * Runs vorn with standard error (and, unless `stdoutToFile` is false, only standard error) on a
 * pseudo-terminal 200 columns wide.
 */
function onTerminal(args: string[], opts: { env?: Record<string, string | undefined>; stdoutToFile?: boolean } = {}): TerminalRun {
  const out = sb.path(`stdout-${Math.random().toString(36).slice(2)}.txt`);
  const pidFile = out + ".pid";
  const redirect = opts.stdoutToFile === false ? "" : ` >${quote(out)}`;
  // The shell's pid is vorn's once it execs.
  const command = `${quote(onPath("stty"))} cols 200; echo $$ >${quote(pidFile)}; exec ${[vornBin(), ...args].map(quote).join(" ")}${redirect}`;
  const proc = Bun.spawn([onPath("script"), "-qfec", command, "/dev/null"], {
    cwd: sb.work,
    env: sb.env({ TERM: "xterm", SHELL: "/bin/sh", ...opts.env }),
    stdin: "ignore",
    stdout: "pipe",
    stderr: "pipe",
  });
  let screen = "";
  const decoder = new TextDecoder();
  const reading = (async () => {
    for await (const chunk of proc.stdout as ReadableStream<Uint8Array>) screen += decoder.decode(chunk, { stream: true });
  })();
  const done = (async () => {
    const code = await proc.exited;
    await reading;
    // The terminal turns each line feed into carriage return and line feed.
    const text = screen.replace(/\r\n/g, "\n");
    return { code, screen: text, stdout: fs.existsSync(out) ? fs.readFileSync(out, "utf8") : "" };
  })();
  return {
    screen: () => screen.replace(/\r\n/g, "\n"),
    pid: () => {
      try {
        const pid = Number(fs.readFileSync(pidFile, "utf8").trim());
        return pid > 0 ? pid : undefined;
      } catch {
        return undefined;
      }
    },
    done,
  };
}

/** What a terminal shows after these bytes: carriage return, line feed and erase to end of line. */
function rendered(bytes: string): string {
  const lines: string[] = [""];
  let col = 0;
  for (let i = 0; i < bytes.length; i++) {
    const last = lines.length - 1;
    if (bytes[i] === "\r") {
      col = 0;
    } else if (bytes[i] === "\n") {
      lines.push("");
      col = 0;
    } else if (bytes.startsWith("\x1b[K", i)) {
      lines[last] = lines[last].slice(0, col);
      i += 2;
    } else {
      const line = lines[last].padEnd(col, " ");
      lines[last] = line.slice(0, col) + bytes[i] + line.slice(col + 1);
      col++;
    }
  }
  return lines.join("\n");
}

/** The status lines drawn in the bytes, without their timing. */
function statusLines(bytes: string): string[] {
  return [...bytes.matchAll(/\rvorn: ([^\r\n\x1b]*)\x1b\[K/g)].map((m) => m[1]);
}

describe("a stopped instance", () => {
  // Each command, run once with both instances answering (the output to match), then on a
  // terminal with one of them stopped until the status line names it.
  for (const args of [["instance", "list"], ["doctor", "check"], ["-a", "instance", "health"], ["instance", "prune"]]) {
    test(`vorn ${args.join(" ")} says what it waits for, then prints exactly what it always does`, async () => {
      const [a, b] = await Promise.all([sb.sim({ id: "stopped1" }), sb.sim({ id: "running2" })]);
      const plain = await sb.run(args);
      expect(plain.stderr).not.toContain("waiting");

      stop(a);
      const run = onTerminal(args);
      const named = `waiting for pid ${a.pid} (${a.sock}) to answer (`;
      expect(await eventually(() => run.screen().includes(named), 10000)).toBe(true);
      const line = statusLines(run.screen()).find((l) => l.includes(named))!;
      expect(line).toMatch(/ to answer \(\d+\.\ds\) - Ctrl-C to stop, VORN_TIMEOUT=<seconds> to bound waits$/);
      resume(a);

      const { code, screen, stdout } = await run.done;
      expect(code).toBe(plain.code);
      expect(stdout).toBe(plain.stdout);
      expect(rendered(screen)).toBe(plain.stderr);
      // The last line drawn was erased.
      expect(screen.lastIndexOf("\r\x1b[K")).toBeGreaterThan(screen.lastIndexOf("\rvorn: waiting"));
      void b;
    });
  }

  test("vorn instance quit -i <id> names the instance while it is stopped, then quits it", async () => {
    const [a] = await Promise.all([sb.sim({ id: "stopped1" }), sb.sim({ id: "running2" })]);
    stop(a);
    const run = onTerminal(["instance", "quit", "-i", a.id]);
    expect(await eventually(() => run.screen().includes(`waiting for pid ${a.pid} (`), 10000)).toBe(true);
    resume(a);
    const { code, screen, stdout } = await run.done;
    expect(code).toBe(0);
    expect(stdout).toBe(`Quit instance ${a.id}\n`);
    expect(rendered(screen)).toBe("");
  });

  test("with VORN_TIMEOUT set the line gives the limit instead of the advice", async () => {
    const a = await sb.sim({ id: "stopped1" });
    stop(a);
    const run = onTerminal(["instance", "list"], { env: { VORN_TIMEOUT: "2" } });
    expect(await eventually(() => statusLines(run.screen()).length > 0, 10000)).toBe(true);
    expect(statusLines(run.screen())[0]).toMatch(new RegExp(`^waiting for pid ${a.pid} \\(.*\\) to answer \\(\\d+\\.\\ds of 2s\\) - Ctrl-C to stop$`));
    const { code, screen, stdout } = await run.done;
    resume(a);
    // The scan leaves it out as unreachable, as without a terminal.
    expect(code).toBe(0);
    expect(stdout).toBe("No running Vorn instances.\n");
    expect(rendered(screen)).toBe(`vorn: 1 unreachable instance dir(s): ${a.pid} (unreachable) \u2014 run vorn instance prune\n`);
  });

  test("Ctrl-C while the line shows takes the line away", async () => {
    const a = await sb.sim({ id: "stopped1" });
    stop(a);
    const run = onTerminal(["instance", "list"]);
    expect(await eventually(() => statusLines(run.screen()).length > 0 && run.pid() !== undefined, 10000)).toBe(true);
    process.kill(run.pid()!, "SIGINT");
    const { screen } = await run.done;
    resume(a);
    expect(rendered(screen)).toBe("");
    expect(screen.endsWith("\r\x1b[K")).toBe(true);
  });

  test("output to the same terminal is never written over", async () => {
    const [a, b] = await Promise.all([sb.sim({ id: "stopped1" }), sb.sim({ id: "running2" })]);
    const plain = await sb.run(["instance", "list"]);
    stop(a);
    const run = onTerminal(["instance", "list"], { stdoutToFile: false });
    expect(await eventually(() => statusLines(run.screen()).length > 0, 10000)).toBe(true);
    resume(a);
    const { code, screen } = await run.done;
    expect(code).toBe(0);
    expect(rendered(screen)).toBe(plain.stdout);
    expect(plain.stdout).toBe(instanceTable([a, b].sort((x, y) => x.pid - y.pid), { mode: () => "app" }) + "\n");
  });
});

test("vorn instance quit says so while it waits for the instance to exit", async () => {
  const a = await sb.sim({ id: "lingers1", ignoreQuit: true });
  const run = onTerminal(["instance", "quit", "-i", a.id]);
  expect(await eventually(() => statusLines(run.screen()).length > 0, 10000)).toBe(true);
  expect(statusLines(run.screen())[0]).toMatch(new RegExp(`^waiting for instance lingers1 \\(pid ${a.pid}\\) to exit \\(\\d+\\.\\ds of 10s\\) - Ctrl-C to stop$`));
  await a.stop();
  const { code, screen, stdout } = await run.done;
  expect(code).toBe(0);
  expect(stdout).toBe("Quit instance lingers1\n");
  expect(rendered(screen)).toBe("");
});

describe("a fan-out", () => {
  test("counts the instances that have answered and names the one it waits for", async () => {
    const [slow, fast] = await Promise.all([
      sb.sim({ id: "slow1", routes: [{ method: "POST", path: "/test/cancel", delayMs: 1500 }] }),
      sb.sim({ id: "fast2" }),
    ]);
    const plain = await sb.run(["-a", "test", "cancel"]);
    const run = onTerminal(["-a", "test", "cancel"]);
    expect(await eventually(() => statusLines(run.screen()).length > 0, 10000)).toBe(true);
    expect(statusLines(run.screen())[0]).toMatch(/^1 of 2 answered; waiting for slow1 \(\d+\.\ds\) - Ctrl-C to stop, VORN_TIMEOUT=<seconds> to bound waits$/);
    const { code, screen, stdout } = await run.done;
    expect(code).toBe(plain.code);
    expect(stdout).toBe(plain.stdout);
    expect(rendered(screen)).toBe(plain.stderr);
    void fast;
  });
});

describe("without a terminal, or not for people", () => {
  test("a wait of more than a second adds nothing to standard error", async () => {
    const a = await sb.sim({ id: "slow1", routes: [{ method: "GET", path: "/instance", delayMs: 1500 }] });
    const r = await sb.run(["instance", "list"]);
    expect(r.stderr).toBe("");
    expect(r.stdout).toBe(instanceTable([a], { mode: () => "app" }) + "\n");
    expect(r.code).toBe(0);
  });

  test("TERM=dumb and -o json show no status line on a terminal", async () => {
    const a = await sb.sim({ id: "slow1", routes: [{ method: "GET", path: "/instance", delayMs: 1500 }] });
    const dumb = await onTerminal(["instance", "list"], { env: { TERM: "dumb" } }).done;
    expect(dumb.screen).toBe("");
    expect(dumb.stdout).toBe(instanceTable([a], { mode: () => "app" }) + "\n");
    const json = await onTerminal(["instance", "list", "-o", "json"]).done;
    expect(json.screen).toBe("");
    expect(JSON.parse(json.stdout).instances.map((i: { id: string }) => i.id)).toEqual(["slow1"]);
  });
});

describe("did you mean", () => {
  const typos: [string[], string, string][] = [
    [["instnace", "list"], "vorn: unknown command 'instnace' (vorn help)", "did you mean 'instance'?"],
    [["search", "TODO"], "vorn search: unknown verb 'TODO' (run)", "did you mean 'vorn search run TODO'?"],
    [["instance", "list", "--prnue"], "vorn: unknown flag --prnue", "did you mean '--prune'?"],
  ];
  for (const [args, message, suggestion] of typos) {
    test(`vorn ${args.join(" ")}`, async () => {
      const plain = await sb.run(args);
      expect(plain.stderr).toBe(message + "\n");
      expect(plain.code).toBe(2);

      const tty = await onTerminal(args).done;
      expect(tty.code).toBe(2);
      expect(tty.stdout).toBe("");
      expect(tty.screen).toBe(`${message}\n${suggestion}\n`);

      const dumb = await onTerminal(args, { env: { TERM: "dumb" } }).done;
      expect(dumb.screen).toBe(message + "\n");
    });
  }

  test("nothing close, nothing suggested; JSON errors stay as they are", async () => {
    expect((await onTerminal(["frobnicate"]).done).screen).toBe("vorn: unknown command 'frobnicate' (vorn help)\n");
    const json = await onTerminal(["-o", "json", "instnace"]).done;
    expect(json.screen).toBe(`{"error":"unknown command 'instnace' (vorn help)","code":2}\n`);
    expect(json.code).toBe(2);
  });
});
