#!/usr/bin/env bash
# A short tour of vorn against two simulated editor instances in a private runtime directory.
set -uo pipefail

vorn=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
repo=$(cd "$(dirname "$0")/.." && pwd)
bun="$repo/tests/node_modules/.bin/bun"

runtime=$(mktemp -d "${TMPDIR:-/tmp}/vorn-demo.XXXXXX")
scratch="$runtime/scratch"
mkdir -p "$scratch"
printf 'package scratch\n\n// TODO: say hello\nfunc Hello() string { return "hello" }\n' >"$scratch/hello.go"

stop() {
  "$bun" "$repo/tests/sim/fleet.ts" stop --runtime "$runtime" >/dev/null 2>&1
  rm -rf "$runtime"
}
trap stop EXIT

"$bun" "$repo/tests/sim/fleet.ts" start --runtime "$runtime" --count 2 --id-prefix demo- \
  --workspace "$repo" --workspace "$scratch" >/dev/null 2>&1 || exit 1

export XDG_RUNTIME_DIR="$runtime"
bold='' dim='' plain=''
if [ -t 1 ]; then bold=$'\033[1m' dim=$'\033[2m' plain=$'\033[0m'; fi
step() {
  printf '\n%s$ vorn %s%s\n' "$bold" "$*" "$plain"
  "$vorn" "$@"
  printf '%s(exit %d)%s\n' "$dim" "$?" "$plain"
}

echo "Two simulated editor instances run in $runtime/vorn: one has this repository open."
step instance list
step instance inspect demo-2
step version
step instance health -o json
step file open "$scratch/hello.go:3:4"
step search run TODO -i demo-2
echo
echo "A mutating verb with several instances and no selector refuses to guess:"
step instance focus
step -o json instance focus
step instance focus -i demo-1
