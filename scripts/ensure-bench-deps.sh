#!/usr/bin/env bash
# Installs the JSON libraries that the benchmarks measure the program's parser and serializer
# against, when they are missing. They are linked into the benchmark binary only, never into vorn.
# Idempotent: a machine that has them is left alone.
set -euo pipefail

missing=()
[ -f /usr/include/simdjson.h ] || missing+=(libsimdjson-dev)
[ -f /usr/include/rapidjson/document.h ] || missing+=(rapidjson-dev)
[ -f /usr/include/nlohmann/json.hpp ] || missing+=(nlohmann-json3-dev)

if [ ${#missing[@]} -gt 0 ]; then
  if [ "$(uname)" != Linux ] || ! command -v apt-get >/dev/null 2>&1; then
    echo "missing: ${missing[*]} (install them with your package manager)" >&2
    exit 1
  fi
  sudo=""
  [ "$(id -u)" = 0 ] || sudo="sudo"
  echo "installing: ${missing[*]}"
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}"
fi
