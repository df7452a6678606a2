#!/usr/bin/env bash
# A short tour of vorn. It lays out a small editor checkout whose headless host is the
# simulated instance (tests/sim/headless.ts), starts two hosts the way a user would
# (`vorn server start --detach <dir>`), tours the verbs and ends the hosts with
# `vorn instance quit`. Everything lives in a private temporary folder, removed at the end.
set -uo pipefail

vorn=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
repo=$(cd "$(dirname "$0")/.." && pwd)

demo=$(mktemp -d "${TMPDIR:-/tmp}/vorn-demo.XXXXXX")
runtime="$demo/run"
checkout="$demo/vorn"
projects="$demo/projects"
hosts=() # pids of the hosts started

. "$repo/scripts/demo-common.sh"

stop() {
  trap '' INT TERM # a second Ctrl-C must not cut the clean-up short
  demo_end_hosts "$checkout" "$runtime" ${hosts[@]+"${hosts[@]}"}
  rm -rf "$demo"
}
trap stop EXIT
trap 'exit 130' INT TERM

# The checkout, with the simulated instance as its headless host, and two folders to open.
mkdir -p "$demo/bin" "$runtime"
demo_checkout "$checkout" "$repo"
demo_projects "$projects"

# The repository's Bun is the `bun` the checkout asks for.
ln -s "$repo/tests/node_modules/.bin/bun" "$demo/bin/bun"
export PATH="$demo/bin:$PATH"
export XDG_RUNTIME_DIR="$runtime"
export HOME="$demo/home" # the doctor reads the home folder; the demo keeps to its own
mkdir -p "$HOME"
unset VORN_REPO_ROOT VORN_APP VORN_EDITION VORN_PID
cd "$projects" || exit 1

bold='' dim='' plain=''
if [ -t 1 ]; then bold=$'\033[1m' dim=$'\033[2m' plain=$'\033[0m'; fi
step() {
  printf '\n%s$ vorn %s%s\n' "$bold" "$*" "$plain"
  "$vorn" "$@"
  printf '%s(exit %d)%s\n' "$dim" "$?" "$plain"
}
# Starts a detached host on a folder from the checkout, as its developer would, and remembers
# its pid (also when it fails to come up).
start() {
  printf '\n%s%s$ vorn server start --detach %s%s\n' "$bold" "${checkout/#$demo/...}" "$1" "$plain"
  local out status
  out=$(cd "$checkout" && "$vorn" server start --detach "$1" 2>&1)
  status=$?
  printf '%s\n%s(exit %d)%s\n' "$out" "$dim" "$status" "$plain"
  local pid
  pid=$(printf '%s\n' "$out" | sed -n 's/^vorn server \([0-9]*\) (headless).*/\1/p; s/.*the host (pid \([0-9]*\)).*/\1/p' | head -n 1)
  [ -n "$pid" ] && hosts+=("$pid")
  [ "$status" = 0 ] || exit 1
  started="sim-$pid"
}

echo "A small checkout in $checkout has the simulated editor instance as its headless host."
echo "Start two hosts from it, one per folder (both log to the same file when started in the same second):"
start "$projects/hello"
hello=$started
start "$projects/scratch"
scratch=$started
echo
echo "Now work from $projects:"

step instance list
echo
echo "Completion is generated from the same table as the help (eval it in ~/.bashrc):"
printf '\n%s$ vorn shell-command completion bash | head -n 3%s\n' "$bold" "$plain"
"$vorn" shell-command completion bash | head -n 3
echo
echo "The doctor needs no instance; from the checkout it also runs its toolchain script:"
(cd "$checkout" && step doctor check)
step instance inspect "$scratch"
step version
step instance health -o json
step file open "$projects/hello/hello.go:3:4"
step search run TODO -i "$hello"
echo
echo "A mutating verb with several instances and no selector refuses to guess:"
step instance focus
step -o json instance focus
step instance focus -i "$scratch"
echo
echo "Done: end both hosts."
step instance quit -a
step instance list
