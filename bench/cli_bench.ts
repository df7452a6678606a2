// Whole-process benchmarks of the built CLI against simulated instances.
//   bun bench/cli_bench.ts <path to vorn> [--runs N]
// Prints the median wall time (and peak memory where it matters) of each scenario.
import { mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { startSim, type Sim } from "../tests/sim/launch";

const vorn = process.argv[2];
if (!vorn) {
  console.error("usage: bun bench/cli_bench.ts <vorn> [--runs N]");
  process.exit(2);
}
const runsFlag = process.argv.indexOf("--runs");
const runs = runsFlag > 0 ? Number(process.argv[runsFlag + 1]) : 30;

interface Sample {
  ms: number;
  maxRssKiB: number;
}

const timeTool = "/usr/bin/time"; // GNU time: the child's own peak resident set
const haveTime = Bun.spawnSync([timeTool, "-f", "%M", "true"], { stderr: "pipe" }).exitCode === 0;

function once(cmd: string[], env: Record<string, string>, cwd?: string): Sample {
  const start = performance.now();
  const r = Bun.spawnSync(cmd, { env, cwd, stdout: "pipe", stderr: "pipe" });
  const ms = performance.now() - start;
  if (r.exitCode !== 0 && r.exitCode !== 1) {
    throw new Error(`${cmd.join(" ")} exited ${r.exitCode}: ${r.stderr.toString().slice(0, 300)}`);
  }
  return { ms, maxRssKiB: 0 };
}

// Peak memory is measured in a separate run so that the wrapper costs no time above.
function peakRss(cmd: string[], env: Record<string, string>, cwd?: string): number {
  if (!haveTime) return 0;
  const out = join(tmpdir(), `vorn-bench-rss-${process.pid}`);
  Bun.spawnSync([timeTool, "-f", "%M", "-o", out, ...cmd], { env, cwd, stdout: "pipe", stderr: "pipe" });
  const kib = Number(require("node:fs").readFileSync(out, "utf8").trim().split("\n").pop());
  rmSync(out, { force: true });
  return kib;
}

function median(xs: number[]) {
  const s = [...xs].sort((a, b) => a - b);
  return s.length % 2 ? s[(s.length - 1) / 2] : (s[s.length / 2 - 1] + s[s.length / 2]) / 2;
}

function measure(label: string, cmd: string[], env: Record<string, string>, n = runs, cwd?: string) {
  once(cmd, env, cwd); // warm the page cache
  const samples = Array.from({ length: n }, () => once(cmd, env, cwd));
  const ms = median(samples.map((s) => s.ms));
  const rss = peakRss(cmd, env, cwd);
  console.log(`${label.padEnd(58)} median ${ms.toFixed(2).padStart(8)} ms   peak RSS ${(rss / 1024).toFixed(1)} MiB`);
  return { ms, rss };
}

async function withFleet<T>(count: number, scenario: (i: number) => object, body: (env: Record<string, string>, sims: Sim[]) => T | Promise<T>) {
  const runtime = mkdtempSync(join(tmpdir(), "vorn-bench-"));
  const sims = await Promise.all(
    Array.from({ length: count }, (_, i) => startSim({ runtime, id: `bench-${i + 1}`, record: false, ...scenario(i) })),
  );
  const env = { PATH: "/usr/bin:/bin", HOME: runtime, XDG_RUNTIME_DIR: runtime };
  try {
    return await body(env, sims);
  } finally {
    await Promise.all(sims.map((s) => s.stop()));
    rmSync(runtime, { recursive: true, force: true });
  }
}

console.log(`vorn: ${vorn}; ${runs} runs each\n`);
measure("vorn help", [vorn, "help"], { PATH: "/usr/bin:/bin" });

for (const count of [1, 8, 32]) {
  await withFleet(count, () => ({}), (env) => measure(`instance list -q, ${count} instance(s)`, [vorn, "instance", "list", "-q"], env));
}

const slow = () => ({ routes: [{ path: "/health", delayMs: 50 }] });
await withFleet(8, slow, (env) => {
  measure("instance health -a -o json, 8 x 50 ms (sequential read)", [vorn, "instance", "health", "-a", "-o", "json"], env, 10);
  measure("version -a, 8 x 50 ms (parallel fan-out)", [vorn, "version", "-a"], env, 10);
});

// Large replies, printed by vorn (socket round trip included) and by jq from a file.
const work = mkdtempSync(join(tmpdir(), "vorn-bench-data-"));
try {
  const files = Array.from({ length: 1000 }, (_, f) => ({
    path: `pkg/module${f % 37}/file_${f}.go`,
    matches: Array.from({ length: 10 }, (_, m) => ({
      line: m * 7 + 1,
      col: (m % 5) + 1,
      preview: `\tresult := compute${m}(ctx, "needle \\"quoted\\" value", ${f * m})`,
    })),
  }));
  const search = JSON.stringify({ files, matchCount: 10000, fileCount: 1000, engine: "ripgrep", limitHit: false });
  const searchFile = join(work, "search.json");
  writeFileSync(searchFile, search);

  const tree: unknown[] = [];
  let size = 2;
  for (let d = 0; size < 20 * 1024 * 1024; d++) {
    const children = Array.from({ length: 200 }, (_, c) => ({
      name: `file_${c}.go`,
      path: `/Users/dev/src/project/pkg/dir_${d}/file_${c}.go`,
      type: "file",
      size: c * 131 + d,
    }));
    const dir = { name: `dir_${d}`, path: `/Users/dev/src/project/pkg/dir_${d}`, type: "directory", children };
    size += JSON.stringify(dir).length + 1;
    tree.push(dir);
  }
  const treeText = JSON.stringify(tree);
  const treeFile = join(work, "tree.json");
  writeFileSync(treeFile, treeText);
  console.log(`\nsearch reply ${(search.length / 1e6).toFixed(2)} MB (10,000 matches); tree reply ${(treeText.length / 1e6).toFixed(2)} MB`);

  await withFleet(
    1,
    () => ({
      workspace: work,
      routes: [
        { method: "GET", path: "/search", bodyBase64: Buffer.from(search).toString("base64") },
        { method: "POST", path: "/api/listTree", bodyBase64: Buffer.from(treeText).toString("base64") },
      ],
    }),
    (env) => {
      const s = measure("search run (10,000 matches, text)", [vorn, "search", "run", "needle"], env, 15);
      const sj = measure("jq . on the same search reply", ["jq", ".", searchFile], env, 15);
      const t = measure("workspace tree (20 MB reply)", [vorn, "workspace", "tree"], env, 10);
      const tj = measure("jq . on the same tree reply", ["jq", ".", treeFile], env, 10);
      console.log(`\nsearch: jq / vorn = ${(sj.ms / s.ms).toFixed(1)}x`);
      console.log(`tree:   jq / vorn = ${(tj.ms / t.ms).toFixed(1)}x; vorn peak RSS / reply size = ${((t.rss * 1024) / treeText.length).toFixed(2)}`);
    },
  );
} finally {
  rmSync(work, { recursive: true, force: true });
}
