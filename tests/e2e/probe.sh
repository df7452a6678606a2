#!/bin/sh
# Stands in for a program that vorn hands over to or starts (bun): records how it was started,
# then becomes the real program when asked to.
#
#   VORN_PROBE_OUT=DIR    record into DIR/<pid>/: argv ($0 first), env (NAME=VALUE), both
#                         NUL-separated; cwd; sigpipe ("default", "ignored", or "unknown" where
#                         /proc is missing); and on Linux fds (`ls -l` of /proc/<pid>/fd) and stat
#                         (/proc/<pid>/stat)
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

sigpipe=unknown
if [ -r "/proc/$$/status" ]; then
  mask=0
  while read -r key value; do
    [ "$key" = "SigIgn:" ] && mask=$value
  done <"/proc/$$/status"
  # SIGPIPE is signal 13: bit 12 of the mask.
  if [ $((0x$mask & 0x1000)) -ne 0 ]; then sigpipe=ignored; else sigpipe=default; fi
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
