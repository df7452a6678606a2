// The text of the shim. It must run under the oldest bash a Mac ships (3.2): `${1+"$@"}`
// instead of a bare "$@", which that bash calls unbound under `set -u` when there are no
// arguments.
#include <utility>

#include "json/json.h"
#include "paths/paths.h"
#include "shell/shim.h"

namespace vorn {

namespace {

// {{NAME}} marks what is filled in; FALLBACK and APP arrive as JSON string literals.
constexpr std::string_view shimTemplate = R"shim(#!/usr/bin/env bash
# {{MARKER}} {{DASH}} do not edit
set -euo pipefail
FALLBACK={{FALLBACK}}
APP={{APP}}

# Prints those of the paths that someone else could have put there: owned by neither us nor
# root, or writable by group or others (a link is judged by what it leads to). Nothing printed:
# every one of them may be trusted.
untrusted() {
  find -H "$@" -maxdepth 0 \( \( ! -user "$UID" ! -user 0 \) -o -perm -020 -o -perm -002 \) -print 2>/dev/null || echo "$1"
}

# The checkout holding the current directory, else VORN_REPO_ROOT, else the fallback. A folder
# with the marks of a checkout that is not ours (or root's) alone is passed over.
ROOT=""
{{SEARCH}}
while [ -n "$d" ]; do
  if [ -f "$d/MODULE.bazel" ] && [ -f "$d/tools/go.pin" ] && [ -f "$d/{{ENTRY}}" ] &&
    [ -z "$(untrusted "$d" "$d/MODULE.bazel" "$d/tools/go.pin" "$d/{{ENTRY}}")" ]; then
    ROOT="$d"
    break
  fi
  [ "$d" = / ] && break
  d="$(dirname "$d")"
done
ROOT="${ROOT:-${VORN_REPO_ROOT:-}}"
ROOT="${ROOT:-$FALLBACK}"
NATIVE="$ROOT/{{NATIVE}}"
CLI="$ROOT/{{ENTRY}}"

# A native build older than its sources gives way to the script CLI when bun can run it.
STALE=""
if [ -n "$ROOT" ] && [ -f "$NATIVE" ] && [ -x "$NATIVE" ]; then
  STALE="$(find "$ROOT/{{MANIFEST}}" "$ROOT/{{SOURCES}}" -newer "$NATIVE" -print -quit 2>/dev/null || true)"
  if [ -n "$STALE" ] && ! command -v bun >/dev/null 2>&1; then
    echo "vorn: the native CLI build is older than its sources ($STALE); using it anyway {{DASH}} run direnv allow, or rebuild it: make -C $ROOT/cli/native dev" >&2
    STALE=""
  fi
fi

if [ -n "$ROOT" ] && [ -f "$NATIVE" ] && [ -x "$NATIVE" ] && [ -z "$STALE" ]; then
  export VORN_REPO_ROOT="$ROOT"
  exec "$NATIVE" ${1+"$@"}
fi
if [ -n "$ROOT" ] && [ -f "$CLI" ] && command -v bun >/dev/null 2>&1; then
  export VORN_REPO_ROOT="$ROOT"
  exec bun "$CLI" ${1+"$@"}
fi
if [ -n "$APP" ] && [ -x "$APP" ]; then
  exec "$APP" ${1+"$@"}
fi
if [ ! -f "$CLI" ]; then
  echo "vorn: CLI not found at $CLI (set VORN_REPO_ROOT or reinstall via Omnibar)" >&2
  exit 1
fi
echo "vorn: bun not on PATH {{DASH}} it runs the CLI at $CLI; install it (direnv allow), or build the native CLI: make -C $ROOT/cli/native dev" >&2
exit 1
)shim";

}  // namespace

bool shimCanCarry(std::string_view value) {
  for (unsigned char c : value) {
    if (c < 0x20 || c == 0x7f || c == '$' || c == '`') return false;
  }
  // Ill-formed UTF-8 would be written as U+FFFD, another path.
  JSON back = JSON::parse(JSON::quote(value));
  return back.string() && *back.string() == value;
}

std::string shimBody(const std::string& fallback, const std::string& appBin) {
  const std::pair<std::string_view, std::string> fills[] = {
      {"MARKER", std::string(shimMarker)},
      {"DASH", "\u2014"},
      {"FALLBACK", JSON::quote(fallback)},
      {"APP", JSON::quote(appBin)},
      {"SEARCH", std::string(shimCheckoutSearch)},
      {"ENTRY", std::string(Paths::checkoutScriptEntry)},
      {"NATIVE", std::string(NativeBuild::executable)},
      {"MANIFEST", std::string(NativeBuild::manifest)},
      {"SOURCES", std::string(NativeBuild::sources)},
  };
  std::string text;
  size_t at = 0;
  while (true) {
    size_t open = shimTemplate.find("{{", at);
    if (open == std::string_view::npos) break;
    size_t close = shimTemplate.find("}}", open);
    std::string_view name = shimTemplate.substr(open + 2, close - open - 2);
    text.append(shimTemplate.substr(at, open - at));
    for (const auto& [key, value] : fills) {
      if (key == name) text += value;
    }
    at = close + 2;
  }
  text.append(shimTemplate.substr(at));
  return text;
}

}  // namespace vorn
