#!/usr/bin/env bash
# A sandbox to try vorn by hand. `scripts/sandbox.sh start <vorn>` lays out the demo's small
# editor checkout under one folder, starts three simulated hosts in it with
# `vorn server start --detach` (a private runtime directory, so nothing else sees them) and
# prints the lines that point a shell at them. `scripts/sandbox.sh stop` ends the hosts and
# removes the folder. Starting again replaces the earlier sandbox.
#
# The folder is $VORN_SANDBOX, by default vorn-sandbox-<uid> in $TMPDIR (or /tmp): short, since
# a socket path has room for about a hundred bytes.
set -uo pipefail

repo=$(cd "$(dirname "$0")/.." && pwd)
. "$repo/scripts/demo-common.sh"

sandbox=${VORN_SANDBOX:-${TMPDIR:-/tmp}/vorn-sandbox-$(id -u)}
sandbox=${sandbox%/}
marker="$sandbox/.vorn-sandbox" # only a folder that holds this is ours to remove
runtime="$sandbox/run"
checkout="$sandbox/vorn"
projects="$sandbox/projects"

usage() {
  echo "usage: scripts/sandbox.sh start <path of the vorn binary> | stop" >&2
  exit 2
}

stop_sandbox() {
  if [ ! -e "$sandbox" ] && [ ! -L "$sandbox" ]; then
    return 0
  fi
  if [ -L "$sandbox" ] || [ ! -d "$sandbox" ] || [ ! -f "$marker" ]; then
    echo "sandbox: $sandbox is not a vorn sandbox; leaving it alone" >&2
    return 1
  fi
  demo_end_hosts "$checkout" "$runtime"
  rm -rf "$sandbox"
  if [ -e "$sandbox" ]; then
    echo "sandbox: could not remove $sandbox" >&2
    return 1
  fi
}

# Starts a detached host on one folder, from the checkout, as its developer would.
start_host() {
  local out
  if ! out=$(cd "$checkout" && XDG_RUNTIME_DIR="$runtime" PATH="$sandbox/bin:$PATH" \
    "$sandbox/bin/vorn" server start --detach "$1" 2>&1); then
    printf '%s\n' "$out" >&2
    return 1
  fi
}

start_sandbox() {
  local vorn=$1
  [ -x "$vorn" ] || { echo "sandbox: no vorn binary at $vorn (run make first)" >&2; exit 1; }
  [ -x "$repo/tests/node_modules/.bin/bun" ] || {
    echo "sandbox: no Bun at tests/node_modules/.bin/bun (run npm ci in tests/)" >&2
    exit 1
  }
  vorn=$(cd "$(dirname "$vorn")" && pwd)/$(basename "$vorn")
  stop_sandbox || exit 1

  (umask 077 && mkdir -p "$sandbox") || exit 1
  : >"$marker"
  mkdir -p "$sandbox/bin" "$runtime"
  chmod 700 "$runtime"
  demo_checkout "$checkout" "$repo"
  demo_projects "$projects"
  mkdir -p "$projects/notes"
  printf '# Notes\n\nTODO: write down what vorn does at a terminal\n' >"$projects/notes/README.md"
  # The repository's Bun is the `bun` the checkout asks for; vorn is the one just built.
  ln -s "$repo/tests/node_modules/.bin/bun" "$sandbox/bin/bun"
  ln -s "$vorn" "$sandbox/bin/vorn"

  local folder
  for folder in hello scratch notes; do
    if ! start_host "$projects/$folder"; then
      echo "sandbox: the host for $folder did not start; removing the sandbox" >&2
      stop_sandbox
      exit 1
    fi
  done

  local ids
  ids=$(XDG_RUNTIME_DIR="$runtime" "$vorn" instance list -q | paste -sd ' ' -)
  local first=${ids%% *}
  ids=${ids// /, }
  local pid
  pid=$(XDG_RUNTIME_DIR="$runtime" "$vorn" instance list -o json |
    sed -n 's/^ *"pid": \([0-9]*\),*$/\1/p' | head -n 1)
  # The stop command as it works from any folder (and for a sandbox not in the default place).
  local stop="make -C $repo sandbox-stop"
  [ -n "${VORN_SANDBOX:-}" ] && stop="VORN_SANDBOX=$sandbox $repo/scripts/sandbox.sh stop"
  cat <<TEXT
A vorn sandbox runs in $sandbox: three simulated hosts ($ids) with the
folders hello, scratch and notes of $projects open.

Paste these lines into a shell to use it:

  export XDG_RUNTIME_DIR=$runtime
  export PATH="$sandbox/bin:\$PATH"
  cd $projects

Then try:

  vorn instance list
  vorn -a instance health
  vorn search run TODO -i $first
  vorn doctor check
  vorn instnace list          # a typo: at a terminal vorn says what was meant
  kill -STOP $pid; vorn instance list
                              # a host that does not answer: vorn says so (Ctrl-C stops it)
  kill -CONT $pid

When you are done (this ends the hosts and removes $sandbox):

  $stop
TEXT
}

case "${1:-}" in
  start)
    [ $# -eq 2 ] || usage
    start_sandbox "$2"
    ;;
  stop)
    [ $# -eq 1 ] || usage
    if stop_sandbox; then echo "The sandbox is gone: its hosts are ended and $sandbox is removed."; else exit 1; fi
    ;;
  *) usage ;;
esac
