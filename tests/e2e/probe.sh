#!/bin/sh
# Stands in for a program that vorn hands over to or starts (bun): records how it was started,
# then becomes the real program when asked to.
#
#   VORN_PROBE_OUT=DIR    record into DIR/<pid>/: argv ($0 first), env (NAME=VALUE), both
#                         NUL-separated; cwd; sigpipe ("default" or "ignored", from /proc or,
#                         where there is none, ps); and on Linux fds (`ls -l` of
#                         /proc/<pid>/fd) and stat (/proc/<pid>/stat)
#   VORN_PROBE_THEN=PROG  afterwards run PROG with the same arguments, in this same process
#   VORN_PROBE_EXIT=N     otherwise exit with N (default 0)
set -u
# The environment under test may have any PATH (or none); the probe's own tools come from here.
given_path=${PATH-}
PATH=/usr/bin:/bin
out="${VORN_PROBE_OUT:?VORN_PROBE_OUT is not set}/$$"
mkdir -p "$out.tmp"

printf '%s\0' "$0" "$@" >"$out.tmp/argv"
if [ -r "/proc/$$/environ" ]; then
  cat "/proc/$$/environ" >"$out.tmp/env"
else
  (PATH=$given_path && env) | tr '\n' '\0' >"$out.tmp/env"
fi
pwd -P >"$out.tmp/cwd"

# The mask of ignored signals, in hex: from /proc on Linux, from ps where there is no /proc.
mask=
if [ -r "/proc/$$/status" ]; then
  while read -r key value; do
    [ "$key" = "SigIgn:" ] && mask=$value
  done <"/proc/$$/status"
else
  mask=$(ps -o sigignore= -p $$ 2>/dev/null | tr -d ' ')
fi
sigpipe=unknown
# SIGPIPE is signal 13: bit 12 of the mask.
if [ -n "$mask" ]; then
  if [ $((0x$mask & 0x1000)) -ne 0 ]; then sigpipe=ignored; else sigpipe=default; fi
fi
if [ -r "/proc/$$/status" ]; then
  # Listed by a child shell that redirects its own output: this shell's table stays as it was.
  /bin/sh -c 'ls -l "/proc/$1/fd" >"$2"' sh "$$" "$out.tmp/fds"
  cat "/proc/$$/stat" >"$out.tmp/stat"
fi
echo "$sigpipe" >"$out.tmp/sigpipe"
# Complete records only: a reader never sees a half-written folder.
mv "$out.tmp" "$out"

PATH=$given_path
if [ -n "${VORN_PROBE_THEN:-}" ]; then exec "$VORN_PROBE_THEN" "$@"; fi
exit "${VORN_PROBE_EXIT:-0}"
