#!/usr/bin/env bash
# Runs the whole-process benchmarks against simulated instances.
set -euo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
vorn=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
shift
exec "$repo/tests/node_modules/.bin/bun" "$repo/bench/cli_bench.ts" "$vorn" "$@"
