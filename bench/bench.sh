#!/usr/bin/env bash
# Runs every benchmark against its yardstick and rewrites the "## Benchmarks" section of
# bench/RESULTS.md: the JSON throughput (Google Benchmark, memcpy as the ceiling) and the
# whole-command timings against simulated instances.
#   bench/bench.sh BUILD_DIR [--cli-only] [--runs-scale X]
# BUILD_DIR is a build configured with -DVORN_BENCH=ON. With --cli-only only the command timings
# run, and they are printed, not written.
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$1" && pwd)
shift
cli_only=false
scale=1
while [ $# -gt 0 ]; do
  case "$1" in
    --cli-only) cli_only=true ;;
    --runs-scale) scale=$2; shift ;;
    *) echo "usage: bench/bench.sh BUILD_DIR [--cli-only] [--runs-scale X]" >&2; exit 2 ;;
  esac
  shift
done
bun="$repo/tests/node_modules/.bin/bun"
out=$(mktemp -d "${TMPDIR:-/tmp}/vorn-bench-out-XXXXXX")
trap 'rm -rf "$out"' EXIT

if $cli_only; then
  exec "$bun" "$repo/bench/cli_bench.ts" --bin "$build" --runs-scale "$scale"
fi

echo "== JSON throughput (json_bench)"
"$build/json_bench" --benchmark_out="$out/json.json" --benchmark_out_format=json
echo
echo "== JSON beside simdjson, RapidJSON and nlohmann/json (json_peers_bench)"
"$build/json_peers_bench" --benchmark_out="$out/peers.json" --benchmark_out_format=json
echo
echo "== whole commands against their yardsticks (cli_bench.ts)"
"$bun" "$repo/bench/cli_bench.ts" --bin "$build" --runs-scale "$scale" --out "$out/cli.json"
echo
"$bun" "$repo/bench/results.ts" --cli "$out/cli.json" --json "$out/json.json" --peers "$out/peers.json" \
  --results "$repo/bench/RESULTS.md" --command "make bench"
