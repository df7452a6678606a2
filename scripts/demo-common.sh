# The small editor checkout that `make demo` and `make sandbox` run their hosts from, and the
# folders they open. Sourced, not run.

# demo_checkout <checkout> <repo>: the three files that mark a checkout, a headless host that is
# the simulated instance (tests/sim/headless.ts), and the toolchain rows of its doctor script.
demo_checkout() {
  local checkout=$1 repo=$2
  mkdir -p "$checkout/tools" "$checkout/src/cli" "$checkout/src/bun"
  : >"$checkout/MODULE.bazel"
  : >"$checkout/tools/go.pin"
  : >"$checkout/src/cli/vorn.ts"
  printf 'import "%s";\n' "$repo/tests/sim/headless.ts" >"$checkout/src/bun/headless.ts"
  # Its language toolchain rows for the doctor, as a real checkout's script would report them.
  cat >"$checkout/src/cli/doctor-packs.ts" <<'PACKS'
console.log(JSON.stringify([
  { name: "go", status: "ok", detail: "go1.22.5 linux/amd64 (simulated)" },
  { name: "gopls", status: "warn", detail: "not on PATH (simulated) - install it with go install golang.org/x/tools/gopls@latest" },
]));
PACKS
}

# demo_projects <projects>: two small Go folders to open, hello and scratch.
demo_projects() {
  local projects=$1
  mkdir -p "$projects/hello" "$projects/scratch"
  printf 'module example.com/hello\n\ngo 1.22\n' >"$projects/hello/go.mod"
  printf 'package hello\n\n// TODO: say hello to more people\nfunc Hello() string { return "hello" }\n' >"$projects/hello/hello.go"
  printf 'package scratch\n\n// TODO: try things out here\n' >"$projects/scratch/scratch.go"
}

# demo_hosts <checkout> <runtime>: the pids of the hosts still running from this checkout (a
# host interrupted while starting is found too); without `ps`, those of the pids given after
# the two folders whose instance folder is still in the runtime dir.
demo_hosts() {
  local checkout=$1 runtime=$2
  shift 2
  if command -v ps >/dev/null 2>&1; then
    # Not this awk, whose own arguments hold the path too.
    ps -A -o pid= -o args= |
      awk -v script="$checkout/src/bun/headless.ts" 'index($0, script) && $2 !~ /(^|\/)awk$/ { print $1 }'
    return
  fi
  local pid
  for pid in "$@"; do
    [ -d "$runtime/vorn/$pid" ] && kill -0 "$pid" 2>/dev/null && echo "$pid"
  done
}

# demo_end_hosts <checkout> <runtime> [pids...]: ends them (a stopped one is let go first, so
# that it can take the signal), waiting up to five seconds before it kills those still there.
demo_end_hosts() {
  local pids
  pids=$(demo_hosts "$@")
  [ -z "$pids" ] && return 0
  kill -TERM $pids 2>/dev/null
  kill -CONT $pids 2>/dev/null
  for _ in $(seq 50); do
    pids=$(demo_hosts "$@")
    [ -z "$pids" ] && return 0
    sleep 0.1
  done
  kill -KILL $pids 2>/dev/null
  return 0
}
