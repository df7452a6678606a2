// Whole-command timings of the built CLI against simulated instances, each beside a yardstick
// timed in the same run (the two run in turn, so a drift in the machine's speed touches both).
//
//   bun bench/cli_bench.ts --bin DIR [--runs-scale X] [--out FILE]
//
// DIR is a bench build holding vorn, bench_timer (the whole-process timer) and bench_hello (the
// start-up yardstick). Prints a table; with --out also writes the figures as JSON for
// bench/results.ts.
import { mkdirSync, mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { basename, join, resolve } from "node:path";
import { startSim, type Sim } from "../tests/sim/launch";

function flag(name: string): string | undefined {
  const i = process.argv.indexOf(name);
  return i > 0 ? process.argv[i + 1] : undefined;
}

const binFlag = flag("--bin");
const bin = binFlag && resolve(binFlag);
if (!bin) {
  console.error("usage: bun bench/cli_bench.ts --bin DIR [--runs-scale X] [--out FILE]");
  process.exit(2);
}
const vorn = join(bin, "vorn");
const timer = join(bin, "bench_timer");
const hello = join(bin, "bench_hello");
const scale = Number(flag("--runs-scale") ?? "1");
const out = flag("--out");

interface Sample {
  ms: number;
  cpuMs: number;
  rssKiB: number;
  status: number;
}

export interface Stats {
  median: number;
  min: number;
  max: number;
}

export interface Side {
  command: string;
  ms: Stats;
  cpuMs: Stats;
  rssKiB: Stats;
}

export interface Figure {
  key: string;
  title: string;
  runs: number;
  vorn: Side;
  yardstick: Side;
  // The median of vorn / yardstick taken run by run: the two ran in turn, so each pair saw the
  // same state of the machine.
  pairRatio: number;
  replyBytes?: number; // for big replies: the size of the reply body
  sameOutput?: boolean; // whether vorn and the yardstick printed the same text
}

function median(xs: number[]): number {
  const s = [...xs].sort((a, b) => a - b);
  return s.length % 2 ? s[(s.length - 1) / 2] : (s[s.length / 2 - 1] + s[s.length / 2]) / 2;
}

function stats(xs: number[]): Stats {
  return { median: median(xs), min: Math.min(...xs), max: Math.max(...xs) };
}

// The command as the results show it: without this run's temporary folders.
function shown(cmd: string[]): string {
  return cmd
    .map((w) => {
      if (w === vorn) return "vorn";
      if (w === hello) return "bench_hello";
      if (!w.startsWith(tmpdir())) return w;
      return w.endsWith("/vorn") ? "$XDG_RUNTIME_DIR/vorn" : basename(w);
    })
    .join(" ");
}

// Runs the command once with its output kept, so that a broken set-up fails loudly instead of
// timing an error message.
function check(cmd: string[], env: Record<string, string>, cwd: string, anyStatus = false): string {
  const r = Bun.spawnSync(cmd, { env, cwd, stdout: "pipe", stderr: "pipe" });
  if (r.exitCode !== 0 && !(anyStatus && r.exitCode === 1 && r.stderr.length < 10000)) {
    throw new Error(`${shown(cmd)} exited ${r.exitCode}: ${r.stderr.toString().slice(0, 400)}`);
  }
  return r.stdout.toString();
}

function side(cmd: string[], samples: Sample[], anyStatus = false): Side {
  const bad = samples.find((s) => s.status !== 0 && !(anyStatus && s.status === 1));
  if (bad) throw new Error(`${shown(cmd)} exited ${bad.status} while timed`);
  return {
    command: shown(cmd),
    ms: stats(samples.map((s) => s.ms)),
    cpuMs: stats(samples.map((s) => s.cpuMs)),
    rssKiB: stats(samples.map((s) => s.rssKiB)),
  };
}

function measure(
  key: string,
  title: string,
  cmd: string[],
  yard: string[],
  env: Record<string, string>,
  cwd: string,
  runs: number,
  compare = false,
  warmup = 2,
  anyStatus = false, // the command's exit status is not the point (doctor reports a bad row)
): Figure {
  const a = check(cmd, env, cwd, anyStatus);
  const b = check(yard, env, cwd);
  const n = Math.max(3, Math.round(runs * scale));
  const r = Bun.spawnSync([timer, "--runs", String(n), "--warmup", String(warmup), "--", ...cmd, "--vs", ...yard], {
    env,
    cwd,
    stdout: "pipe",
    stderr: "pipe",
  });
  if (r.exitCode !== 0) throw new Error(`bench_timer failed: ${r.stderr.toString()}`);
  const samples = JSON.parse(r.stdout.toString()) as { a: Sample[]; b: Sample[] };
  const figure: Figure = {
    key,
    title,
    runs: n,
    vorn: side(cmd, samples.a, anyStatus),
    yardstick: side(yard, samples.b),
    pairRatio: median(samples.a.map((s, i) => s.ms / samples.b[i].ms)),
  };
  if (compare) figure.sameOutput = a === b;
  const v = figure.vorn.ms.median;
  const y = figure.yardstick.ms.median;
  console.log(
    `${title.padEnd(46)} ${v.toFixed(2).padStart(8)} ms (cpu ${figure.vorn.cpuMs.median.toFixed(2).padStart(6)})  ${(figure.vorn.rssKiB.median / 1024).toFixed(1).padStart(6)} MiB` +
      `   | ${figure.yardstick.command.slice(0, 28).padEnd(28)} ${y.toFixed(2).padStart(8)} ms  ${(figure.yardstick.rssKiB.median / 1024).toFixed(1).padStart(6)} MiB`,
  );
  return figure;
}

// A private runtime directory with `count` simulated instances, torn down afterwards.
async function withFleet<T>(
  count: number,
  scenario: (i: number) => object,
  body: (env: Record<string, string>, runtime: string, sims: Sim[]) => T | Promise<T>,
): Promise<T> {
  const runtime = mkdtempSync(join(tmpdir(), "vorn-bench-"));
  const sims: Sim[] = [];
  try {
    // Started a few at a time: 32 Bun processes at once would only slow each other down.
    for (let i = 0; i < count; i += 8) {
      const batch = Array.from({ length: Math.min(8, count - i) }, (_, k) =>
        startSim({ runtime, id: `bench-${i + k + 1}`, record: false, ...scenario(i + k) }),
      );
      sims.push(...(await Promise.all(batch)));
    }
    return await body({ PATH: "/usr/bin:/bin", HOME: runtime, XDG_RUNTIME_DIR: runtime }, runtime, sims);
  } finally {
    await Promise.all(sims.map((s) => s.stop()));
    rmSync(runtime, { recursive: true, force: true });
  }
}

// `count` instances that answer at once (bench/quick_instances.ts), torn down afterwards.
async function withQuickFleet<T>(count: number, body: (env: Record<string, string>, runtime: string) => T): Promise<T> {
  const runtime = mkdtempSync(join(tmpdir(), "vorn-bench-"));
  const proc = Bun.spawn([process.execPath, join(import.meta.dir, "quick_instances.ts"), runtime, String(count)], {
    stdin: "pipe",
    stdout: "pipe",
    stderr: "inherit",
  });
  try {
    const reader = (proc.stdout as ReadableStream<Uint8Array>).getReader();
    const first = await reader.read();
    if (!new TextDecoder().decode(first.value ?? new Uint8Array()).startsWith("ready")) {
      throw new Error("bench/quick_instances.ts did not start");
    }
    return body({ PATH: "/usr/bin:/bin", HOME: runtime, XDG_RUNTIME_DIR: runtime }, runtime);
  } finally {
    proc.stdin.end();
    await proc.exited;
    rmSync(runtime, { recursive: true, force: true });
  }
}

// A workspace tree reply of at least `bytes` bytes, shaped like a large repository: modules of
// nested folders, each with files whose names mix scripts, and now and then a quote, a backslash
// or a tab to escape. Deterministic: the same bytes on every run.
function treeReply(bytes: number): string {
  const stems = ["main", "handler", "server", "données", "数据", "ñandú", "emoji 😀", "util", 'say "hi"', "back\\slash", "tab\there", "config", "Ελληνικά", "внутренний"];
  const exts = [".go", ".md", ".txt", ".json", ".png", "_test.go", ""];
  let seed = 17;
  const next = (n: number) => {
    seed = (Math.imul(seed, 1103515245) + 12345) >>> 0;
    return (seed >>> 8) % n;
  };
  const folder = (path: string, name: string, depth: number): object => {
    const children: object[] = [];
    const files = 5 + next(40);
    for (let i = 0; i < files; i++) {
      const child = `${stems[next(stems.length)]}_${i}${exts[next(exts.length)]}`;
      children.push({ name: child, path: `${path}/${child}`, type: "file", size: next(200000) });
    }
    const folders = depth < 4 ? 1 + next(4) : 0;
    for (let i = 0; i < folders; i++) {
      const child = `${i % 3 ? "pkg" : "模块"}_${i}`;
      children.push(folder(`${path}/${child}`, child, depth + 1));
    }
    return { name, path, type: "directory", children };
  };
  const parts: string[] = [];
  let size = 2;
  for (let m = 0; size < bytes; m++) {
    const text = JSON.stringify(folder(`/Users/dev/src/project/module_${m}`, `module_${m}`, 0));
    size += Buffer.byteLength(text) + 1;
    parts.push(text);
  }
  return "[" + parts.join(",") + "]";
}

// The worst case for a reply read as a value: one array of one-digit numbers, `bytes` long.
function zerosReply(bytes: number): string {
  return "[" + "0,".repeat(Math.floor(bytes / 2) - 1) + "0]";
}

// A search reply of 10,000 matches in 1,000 files.
function searchReply(): string {
  const files = Array.from({ length: 1000 }, (_, f) => ({
    path: `pkg/module${f % 37}/file_${f}.go`,
    matches: Array.from({ length: 10 }, (_, m) => ({
      line: m * 7 + 1,
      col: (m % 5) + 1,
      preview: `\tresult := compute${m}(ctx, "needle \\"quoted\\" value", ${f * m})`,
    })),
  }));
  return JSON.stringify({ files, matchCount: 10000, fileCount: 1000, engine: "ripgrep", limitHit: false });
}

const figures: Figure[] = [];
const work = mkdtempSync(join(tmpdir(), "vorn-bench-data-"));
try {
  console.log(`vorn: ${vorn}\n${"".padEnd(46)} vorn median, own cpu             peak   | yardstick median\n`);

  // Start-up: nothing to find, so the figure is the cost of being started at all.
  const empty = join(work, "empty-runtime");
  mkdirSync(empty);
  const quiet = { PATH: "/usr/bin:/bin", HOME: empty, XDG_RUNTIME_DIR: empty };
  figures.push(measure("startup", "vorn version, no instance", [vorn, "version"], [hello], quiet, work, 100));
  figures.push(measure("help", "vorn help", [vorn, "help"], [hello], quiet, work, 100));

  for (const count of [1, 8, 32]) {
    await withFleet(
      count,
      () => ({}),
      (env, runtime) => {
        figures.push(
          measure(`discovery-${count}`, `instance list -q, ${count} instance(s)`, [vorn, "instance", "list", "-q"], ["ls", join(runtime, "vorn")], env, work, 30),
        );
      },
    );
  }

  // The same scan against instances that answer at once: the part of the above that is vorn's.
  await withQuickFleet(32, (env, runtime) => {
    figures.push(
      measure("discovery-quick", "instance list -q, 32 quick instances", [vorn, "instance", "list", "-q"], ["ls", join(runtime, "vorn")], env, work, 30),
    );
  });

  await withFleet(
    8,
    () => ({ routes: [{ path: "/health", delayMs: 50 }] }),
    (env) => {
      figures.push(measure("fanout", "version -a, 8 instances x 50 ms", [vorn, "version", "-a"], ["sleep", "0.05"], env, work, 15));
    },
  );

  const treeFile = join(work, "tree.json");
  const tree = treeReply(44 * 2 ** 20);
  writeFileSync(treeFile, tree);
  const treeBytes = Buffer.byteLength(tree);
  const searchFile = join(work, "search.json");
  const search = searchReply();
  writeFileSync(searchFile, search);
  console.log(`\ntree reply ${(treeBytes / 2 ** 20).toFixed(2)} MiB; search reply ${(search.length / 1e6).toFixed(2)} MB (10,000 matches)`);
  await withFleet(
    1,
    () => ({
      workspace: work,
      routes: [
        { method: "POST", path: "/api/listTree", bodyFile: treeFile },
        { method: "GET", path: "/search", bodyFile: searchFile },
      ],
    }),
    (env, _runtime, sims) => {
      const jq = ["jq", ".", treeFile];
      const t = measure("tree", "workspace tree, 44 MiB reply", [vorn, "workspace", "tree"], jq, env, work, 5, true, 1);
      t.replyBytes = treeBytes;
      figures.push(t);
      // The floor: the same reply read off the same socket by curl, to /dev/null.
      const curl = ["curl", "-sS", "--fail", "--unix-socket", sims[0].sock, "-X", "POST", "-H", "Content-Type: application/json", "-d", "{}", "-o", "/dev/null", "http://localhost/api/listTree"];
      const c = measure("tree-curl", "workspace tree, 44 MiB reply, beside curl", [vorn, "workspace", "tree"], curl, env, work, 9, false, 1);
      c.replyBytes = treeBytes;
      figures.push(c);
      const j = measure("tree-json", "workspace tree -o json, 44 MiB reply", [vorn, "-o", "json", "workspace", "tree"], jq, env, work, 3, false, 1);
      j.replyBytes = treeBytes;
      figures.push(j);
      const s = measure("search", "search run, 10,000 matches", [vorn, "search", "run", "needle"], ["jq", ".", searchFile], env, work, 15);
      s.replyBytes = search.length;
      figures.push(s);
    },
  );
  // The same reply without a length: in chunks, as a streaming server sends it.
  await withFleet(
    1,
    () => ({ routes: [{ method: "POST", path: "/api/listTree", bodyFile: treeFile, chunks: [65536] }] }),
    (env) => {
      const c = measure("tree-chunked", "workspace tree, 44 MiB reply in 64 KiB chunks", [vorn, "workspace", "tree"], ["jq", ".", treeFile], env, work, 3, false, 1);
      c.replyBytes = treeBytes;
      figures.push(c);
    },
  );

  // Peak memory against the largest reply a command holds, for the worst case of a value (one
  // array of one-digit numbers) and for the tree, each served where the command reads it.
  const zerosFile = join(work, "zeros.json");
  const zeros = zerosReply(63 * 2 ** 20);
  writeFileSync(zerosFile, zeros);
  for (const [name, file, bytes] of [["zeros", zerosFile, zeros.length], ["tree", treeFile, treeBytes]] as const) {
    const label = name === "zeros" ? "63 MiB of [0,0,...]" : "44 MiB tree";
    // Each command reads the large reply from one route; its other routes answer as usual.
    const cases: [string, string, string[], { method: string; path: string }][] = [
      ["inspect", "instance inspect (/workspace)", [vorn, "instance", "inspect"], { method: "GET", path: "/workspace" }],
      ["command", "command run (/command)", [vorn, "command", "run", "x"], { method: "POST", path: "/command" }],
      ["doctor", "doctor check (/language/status)", [vorn, "doctor", "check"], { method: "GET", path: "/language/status" }],
    ];
    for (const [key, what, cmd, route] of cases) {
      await withFleet(
        1,
        () => ({ routes: [{ ...route, bodyFile: file }] }),
        (env) => {
          const f = measure(`memory-${key}-${name}`, `${what}, ${label}`, cmd, ["cat", file], env, work, 3, false, 1, true);
          f.replyBytes = bytes;
          figures.push(f);
        },
      );
    }
  }
} finally {
  rmSync(work, { recursive: true, force: true });
}

if (out) writeFileSync(out, JSON.stringify(figures, null, 2));
