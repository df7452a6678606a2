// Writes the "## Benchmarks" section of bench/RESULTS.md from one run of `make bench`: the
// whole-command figures of bench/cli_bench.ts beside their yardsticks and goals, and the JSON
// throughput of the Google Benchmark run beside memcpy. Other sections of the file are kept.
//
//   bun bench/results.ts --cli FILE --json FILE --peers FILE --results FILE [--command TEXT]
import { existsSync, readFileSync, writeFileSync } from "node:fs";
import os from "node:os";
import type { Figure } from "./cli_bench";

function flag(name: string): string {
  const i = process.argv.indexOf(name);
  if (i < 0 || i + 1 >= process.argv.length) {
    console.error("usage: bun bench/results.ts --cli FILE --json FILE --peers FILE --results FILE [--command TEXT]");
    process.exit(2);
  }
  return process.argv[i + 1];
}

const figures: Figure[] = JSON.parse(readFileSync(flag("--cli"), "utf8"));
const gbench = JSON.parse(readFileSync(flag("--json"), "utf8"));
const peers = JSON.parse(readFileSync(flag("--peers"), "utf8"));
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

// vorn's peak memory over the size of the reply it held.
function replyShare(f: Figure): number {
  return (f.vorn.rssKiB.median * 1024) / (f.replyBytes ?? 1);
}

// The row under a big-reply figure: vorn's peak memory beside the yardstick's, against a limit.
function peakRow(f: Figure, figure: string, yardstick: string, limit: number): Row {
  const share = replyShare(f);
  return {
    figure,
    runs: String(f.runs),
    vorn: mib(f.vorn.rssKiB.median),
    yardstick: `${yardstick} ${mib(f.yardstick.rssKiB.median)}`,
    ratio: `${share.toFixed(2)}× the reply`,
    goal: `≤ ${limit}× the reply`,
    met: verdict(share <= limit),
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
        out.push(peakRow(f, `…its peak memory (reply ${((f.replyBytes ?? 0) / 1e6).toFixed(1)} MB)`, "jq", 1.5));
        break;
      }
      case "tree-json":
      case "tree-chunked": {
        const share = replyShare(f);
        const r = row(f, undefined, `${times(1 / f.pairRatio)} faster`);
        out.push({ ...r, vorn: `${r.vorn}; peak ${mib(f.vorn.rssKiB.median)} (${share.toFixed(2)}× the reply)` });
        break;
      }
      case "tree-curl": {
        out.push(row(f, { text: "≤ 3×", ok: ratio <= 3 }));
        out.push(peakRow(f, "…its peak memory", "curl", 1.1));
        break;
      }
      case "search":
        out.push(row(f, undefined, `${times(1 / f.pairRatio)} faster`));
        break;
      default:
        if (f.key.startsWith("memory-")) {
          const share = replyShare(f);
          out.push({
            figure: `${f.title}: peak memory`,
            runs: String(f.runs),
            vorn: `${mib(f.vorn.rssKiB.median)}; ${timing(f.vorn)}`,
            yardstick: `\`${f.yardstick.command}\` ${timing(f.yardstick)}`,
            ratio: `${share.toFixed(2)}× the reply`,
            goal: "≤ 12× the reply",
            met: verdict(share <= 12),
          });
          break;
        }
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

// The program's parser and serializer beside the peer libraries, document by document.
function peerTable(): string {
  const runs = (peers.benchmarks as (GBench & { value_ratio?: number })[]).filter((b) => b.run_type !== "aggregate");
  const rate = (name: string) => {
    const b = runs.find((r) => r.name.startsWith(name + "/"));
    return b?.bytes_per_second;
  };
  const shown = (x?: number) =>
    x === undefined ? "—" : x >= 2 ** 30 ? `${(x / 2 ** 30).toFixed(2)} GiB/s` : `${(x / 2 ** 20).toFixed(0)} MiB/s`;
  const docs = ["tree", "numbers", "strings", "nested", "zeros"];
  const libs = ["vorn", "simdjson", "rapidjson", "nlohmann"];
  const body: string[][] = [];
  const goals: string[] = [];
  for (const doc of docs) {
    const size = runs.find((r) => r.name.startsWith(`parse/${doc}/vorn`))?.bytes ?? 0;
    const ratio = runs.find((r) => r.name.startsWith(`parse/${doc}/vorn`))?.value_ratio;
    for (const op of ["parse", "compact", "indent2"]) {
      const cells = libs.map((lib) => shown(rate(`${op}/${doc}/${lib}`)));
      const ours = rate(`${op}/${doc}/vorn`) ?? 0;
      const ahead = ["rapidjson", "nlohmann"].every((lib) => (rate(`${op}/${doc}/${lib}`) ?? 0) <= ours);
      if (!ahead) goals.push(`${op} of ${doc}: behind ${["rapidjson", "nlohmann"].filter((lib) => (rate(`${op}/${doc}/${lib}`) ?? 0) > ours).join(" and ")}`);
      body.push([
        op === "parse" ? `${doc} (${(size / 2 ** 20).toFixed(1)} MiB)` : "",
        op === "parse" ? "parse" : op === "compact" ? "serialize, compact" : "serialize, indent 2",
        op === "parse" ? shown(rate(`memcpy/${doc}/memcpy`)) : "",
        ...cells,
        op === "parse" && ratio !== undefined ? `${ratio.toFixed(2)}×` : "",
      ]);
    }
  }
  const treeParse = rate("parse/tree/vorn") ?? 0;
  const treeWrite = Math.min(rate("compact/tree/vorn") ?? 0, rate("indent2/tree/vorn") ?? 0);
  const simd = rate("parse/tree/simdjson") ?? 0;
  const worst = Math.max(...runs.filter((r) => r.name.startsWith("parse/") && r.name.includes("/vorn")).map((r) => r.value_ratio ?? 0));
  const lines = [
    `- Parse the tree at 1 GiB/s or more: ${shown(treeParse)}, ${verdict(treeParse >= 2 ** 30)}.`,
    `- Serialize the tree at 1 GiB/s or more: ${shown(treeWrite)} (the slower of compact and indent 2), ${verdict(treeWrite >= 2 ** 30)}.`,
    `- Within 2× of simdjson's DOM parse on the tree: ${(simd / Math.max(treeParse, 1)).toFixed(1)}× slower, ${verdict(simd <= 2 * treeParse)}.`,
    `- Ahead of RapidJSON and nlohmann/json on every document and operation: ${goals.length ? "**missed**: " + goals.join("; ") : "met"}.`,
    `- A parsed value at most 8× its text: at most ${worst.toFixed(2)}× on these documents, ${verdict(worst <= 8)}.`,
  ];
  return (
    "Google Benchmark in `json_peers_bench`: each library parses the same generated document and " +
    "serializes its own parsed value, in the same binary (simdjson's DOM parser, reusing one parser as " +
    "its documentation advises; RapidJSON with its default flags; nlohmann/json). Throughput counts the " +
    "document's bytes for parse and the bytes written for serialize, per second of CPU time (the machine is shared); simdjson " +
    "3.0 has no indented output. \"value\" is the heap that vorn's parsed value holds, as the C library " +
    "accounts it, over the document's size. Documents: a workspace tree of nested folders with non-ASCII " +
    "names and escapes (compact, as an instance sends it), coordinates with all the digits of a double (like " +
    "canada.json), short strings with escapes and text in several scripts, values nested 400 deep, and " +
    "one array of zeros.\n\n" +
    table(["document", "operation", "memcpy", "vorn", "simdjson", "RapidJSON", "nlohmann/json", "value"], body) +
    "\n\n" +
    lines.join("\n")
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

### JSON beside its peers

${peerTable()}
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
