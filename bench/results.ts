// Writes the "## Benchmarks" section of bench/RESULTS.md from one run of `make bench`: the
// whole-command figures of bench/cli_bench.ts beside their yardsticks and goals, and the JSON
// throughput of the Google Benchmark run beside memcpy. Other sections of the file are kept.
//
//   bun bench/results.ts --cli FILE --json FILE --results FILE [--command TEXT]
import { existsSync, readFileSync, writeFileSync } from "node:fs";
import os from "node:os";
import type { Figure } from "./cli_bench";

function flag(name: string): string {
  const i = process.argv.indexOf(name);
  if (i < 0 || i + 1 >= process.argv.length) {
    console.error("usage: bun bench/results.ts --cli FILE --json FILE --results FILE [--command TEXT]");
    process.exit(2);
  }
  return process.argv[i + 1];
}

const figures: Figure[] = JSON.parse(readFileSync(flag("--cli"), "utf8"));
const gbench = JSON.parse(readFileSync(flag("--json"), "utf8"));
const resultsFile = flag("--results");
const command = process.argv.includes("--command") ? flag("--command") : "make bench";

function cpuModel(): string {
  if (process.platform === "darwin") {
    const r = Bun.spawnSync(["sysctl", "-n", "machdep.cpu.brand_string"]);
    if (r.exitCode === 0) return r.stdout.toString().trim();
  }
  return os.cpus()[0]?.model?.trim() || "unknown CPU";
}

function osName(): string {
  let name = `${os.type()} ${os.release()}`;
  if (existsSync("/etc/os-release")) {
    const m = /^PRETTY_NAME="?([^"\n]*)"?/m.exec(readFileSync("/etc/os-release", "utf8"));
    if (m) name = `${m[1]}, ${name}`;
  } else if (process.platform === "darwin") {
    const r = Bun.spawnSync(["sw_vers", "-productVersion"]);
    if (r.exitCode === 0) name = `macOS ${r.stdout.toString().trim()}, ${name}`;
  }
  return name;
}

const ms = (x: number) => (x >= 100 ? x.toFixed(0) : x >= 10 ? x.toFixed(1) : x.toFixed(2));
const timing = (s: Figure["vorn"]) => `${ms(s.ms.median)} ms (${ms(s.ms.min)}–${ms(s.ms.max)})`;
const withCpu = (s: Figure["vorn"]) => `${timing(s)}; CPU ${ms(s.cpuMs.median)} ms`;
const mib = (kib: number) => `${(kib / 1024).toFixed(1)} MiB`;
const times = (x: number) => `${x.toFixed(x >= 10 ? 1 : 2)}×`;
const verdict = (ok: boolean) => (ok ? "met" : "**missed**");

interface Row {
  figure: string;
  runs: string;
  vorn: string;
  yardstick: string;
  ratio: string;
  goal: string;
  met: string;
}

function row(f: Figure, goal?: { text: string; ok: boolean }, ratio?: string): Row {
  return {
    figure: f.title,
    runs: String(f.runs),
    vorn: withCpu(f.vorn),
    yardstick: `\`${f.yardstick.command}\` ${timing(f.yardstick)}`,
    ratio: ratio ?? times(f.pairRatio),
    goal: goal?.text ?? "—",
    met: goal ? verdict(goal.ok) : "",
  };
}

function rows(): Row[] {
  const out: Row[] = [];
  for (const f of figures) {
    const v = f.vorn.ms.median;
    const ratio = f.pairRatio;
    switch (f.key) {
      case "startup":
        out.push(row(f, { text: "≤ 1.5×", ok: ratio <= 1.5 }));
        break;
      case "discovery-8":
        out.push(row(f, { text: "< 10 ms", ok: v < 10 }));
        break;
      case "discovery-32":
        out.push(row(f, { text: "< 25 ms", ok: v < 25 }));
        break;
      case "fanout":
        out.push(row(f, { text: "< 70 ms", ok: v < 70 }));
        break;
      case "tree": {
        const faster = 1 / f.pairRatio;
        out.push(row(f, { text: "≥ 10× faster", ok: faster >= 10 }, `${times(faster)} faster`));
        const share = (f.vorn.rssKiB.median * 1024) / (f.replyBytes ?? 1);
        out.push({
          figure: `…its peak memory (reply ${((f.replyBytes ?? 0) / 1e6).toFixed(1)} MB)`,
          runs: String(f.runs),
          vorn: mib(f.vorn.rssKiB.median),
          yardstick: `jq ${mib(f.yardstick.rssKiB.median)}`,
          ratio: `${share.toFixed(2)}× the reply`,
          goal: "≤ 1.5× the reply",
          met: verdict(share <= 1.5),
        });
        break;
      }
      case "tree-json":
      case "tree-chunked": {
        const share = (f.vorn.rssKiB.median * 1024) / (f.replyBytes ?? 1);
        const r = row(f, undefined, `${times(1 / f.pairRatio)} faster`);
        out.push({ ...r, vorn: `${r.vorn}; peak ${mib(f.vorn.rssKiB.median)} (${share.toFixed(2)}× the reply)` });
        break;
      }
      case "search":
        out.push(row(f, undefined, `${times(1 / f.pairRatio)} faster`));
        break;
      default:
        out.push(row(f));
    }
  }
  return out;
}

function table(header: string[], body: string[][]): string {
  const line = (cells: string[]) => `| ${cells.join(" | ")} |`;
  return [line(header), line(header.map(() => "---")), ...body.map(line)].join("\n");
}

interface GBench {
  name: string;
  run_type?: string;
  bytes_per_second?: number;
  real_time: number;
  time_unit: string;
  bytes?: number;
}

function throughput(): string {
  const runs = (gbench.benchmarks as GBench[]).filter((b) => b.run_type !== "aggregate");
  const find = (prefix: string) => runs.find((b) => b.name.startsWith(prefix));
  const ceiling = find("BM_Memcpy")?.bytes_per_second ?? 0;
  const names: [string, string][] = [
    ["BM_Memcpy", "memcpy of the same bytes (the ceiling)"],
    ["BM_Parse", "parse: text to value"],
    ["BM_SerializeIndent2", "serialize at indent 2 (as printed)"],
    ["BM_SerializeIndent0", "serialize at indent 0 (request bodies)"],
    ["BM_ReformatIndent2", "reformat reply text at indent 2 without a value"],
    ["BM_PrintInBlocks", "print a reply: check it parses, then reformat in blocks"],
  ];
  const body: string[][] = [];
  for (const [prefix, label] of names) {
    const b = find(prefix);
    if (!b?.bytes_per_second) continue;
    const rate = b.bytes_per_second;
    const shown = rate >= 2 ** 30 ? `${(rate / 2 ** 30).toFixed(1)} GiB/s` : `${(rate / 2 ** 20).toFixed(0)} MiB/s`;
    body.push([label, shown, `${((100 * rate) / ceiling).toFixed(1)}%`, `${b.real_time.toFixed(1)} ${b.time_unit}`]);
  }
  const size = find("BM_Parse")?.bytes ?? 0;
  return (
    `Google Benchmark in \`json_bench\`, on a generated reply of ${(size / 1e6).toFixed(0)} MB (objects, arrays, ` +
    "escaped and non-ASCII strings, integers and fractions). Throughput counts the bytes of the text read " +
    "(parse, reformat) or written (serialize) per second of CPU time; memcpy of as many bytes in the same " +
    "binary is the ceiling.\n\n" +
    table(["benchmark", "throughput", "of memcpy", "time per document"], body)
  );
}

// Whether vorn printed what jq printed for the tree reply.
function sameText(): string {
  const tree = figures.find((f) => f.key === "tree");
  if (!tree) return "";
  if (tree.sameOutput === false) return "\n**vorn and jq printed different text for the tree reply.**\n";
  return "\nvorn and jq printed the same text for the tree reply, byte for byte.\n";
}

const ctx = gbench.context ?? {};
const load = Array.isArray(ctx.load_avg) ? ctx.load_avg.map((x: number) => x.toFixed(2)).join(", ") : "unknown";
const section = `## Benchmarks

Written by \`${command}\` on ${new Date().toISOString().slice(0, 16).replace("T", " ")} UTC.
Machine: ${cpuModel()}, ${os.cpus().length} cores, ${(os.totalmem() / 2 ** 30).toFixed(0)} GiB; ${osName()};
${ctx.compiler ?? "unknown compiler"}, CMake Release build. Load average when the run began: ${load}.

### Whole commands against their yardsticks

Each figure is the wall time of a whole process, from just before it is started to just after it
is reaped (\`bench/timer.cpp\`): the median of the runs, with min–max, and the CPU time (user and
system) the process itself used. The command and its yardstick run in turn in the same call,
A B A B, after two warm-up runs each; the ratio is the median of the run-by-run ratios, so that
each pair saw the same state of a shared machine. Peak memory is the largest resident set the
system accounted to the process (\`wait4\`). Output goes to /dev/null.
The instances are simulated (\`tests/sim\`), one Bun process each, so their own reply time is in
every figure that talks to them: a wall time well above vorn's own CPU time is time spent
waiting for them; "quick instances" answer at once (\`bench/quick_instances.ts\`), which shows
the part of a discovery figure that is vorn's own. Ratios are vorn / yardstick unless they say
"faster".

${table(
  ["figure", "runs", "vorn", "yardstick", "ratio", "goal", ""],
  rows().map((r) => [r.figure, r.runs, r.vorn, r.yardstick, r.ratio, r.goal, r.met]),
)}
${sameText()}
### JSON throughput

${throughput()}
`;

// Replace our section (up to the next section of the same level) and keep everything else.
let text = existsSync(resultsFile) ? readFileSync(resultsFile, "utf8") : "# Benchmark results\n";
const start = text.search(/^## Benchmarks$/m);
if (start < 0) {
  text = text.trimEnd() + "\n\n" + section;
} else {
  const rest = text.slice(start + 1);
  const next = rest.search(/^## /m);
  text = text.slice(0, start) + section + (next < 0 ? "" : "\n" + rest.slice(next));
}
writeFileSync(resultsFile, text);
console.log(`updated ${resultsFile}`);
