#!/usr/bin/env bash
# Runs one fuzz target of a fuzz build tree. The committed seeds in fuzz/corpus/<target> are
# read; inputs that reach new code go to a scratch corpus in the build tree, so the committed
# one only changes by hand. A crash, a broken invariant, a leak or a slow input fails the run
# and leaves the input in <build>/fuzz-artifacts/<target>/.
#
#   scripts/fuzz.sh BUILD TARGET                 # FUZZ_SECONDS (default 60) of fuzzing
#   FUZZ_RUNS=10000000 scripts/fuzz.sh BUILD TARGET   # a fixed number of executions instead
#   scripts/fuzz.sh --can-build CXX             # succeeds when CXX links a libFuzzer target
set -euo pipefail

if [ "${1:-}" = --can-build ]; then
  probe=$(mktemp -d)
  trap 'rm -rf "$probe"' EXIT
  echo 'extern "C" int LLVMFuzzerTestOneInput(const unsigned char*, unsigned long) { return 0; }' \
    >"$probe/probe.cpp"
  "${2:-clang++}" -fsanitize=fuzzer,address,undefined "$probe/probe.cpp" -o "$probe/probe" \
    >/dev/null 2>&1
  exit
fi

build=${1:?usage: fuzz.sh BUILD TARGET}
target=${2:?usage: fuzz.sh BUILD TARGET}
root=$(cd "$(dirname "$0")/.." && pwd)
binary="$build/fuzz_$target"
seeds="$root/fuzz/corpus/$target"
scratch="$build/fuzz-corpus/$target"
artifacts="$build/fuzz-artifacts/$target/"
[ -x "$binary" ] || { echo "fuzz.sh: $binary is not built (make fuzz builds it)" >&2; exit 2; }
[ -d "$seeds" ] || { echo "fuzz.sh: no seed corpus at $seeds" >&2; exit 2; }
mkdir -p "$scratch" "$artifacts"

# Longest input tried: enough for every seed that matters (the deepest JSON nesting is 512)
# and for any command line or word a person types.
case "$target" in
  json) max_len=8192 ;;
  http_reply) max_len=4096 ;;
  flags | file_target) max_len=256 ;;
  *) max_len=1024 ;;
esac

args=(-max_len="$max_len" -timeout=10 -rss_limit_mb=2048 -print_final_stats=1
  -artifact_prefix="$artifacts")
[ -f "$root/fuzz/dict/$target.dict" ] && args+=(-dict="$root/fuzz/dict/$target.dict")
if [ -n "${FUZZ_RUNS:-}" ]; then
  args+=(-runs="$FUZZ_RUNS")
else
  args+=(-max_total_time="${FUZZ_SECONDS:-60}")
fi

if [ -n "${FUZZ_RUNS:-}" ]; then
  echo "== fuzz_$target $FUZZ_RUNS runs"
else
  echo "== fuzz_$target ${FUZZ_SECONDS:-60}s"
fi
exec "$binary" "${args[@]}" "$scratch" "$seeds"
