#!/usr/bin/env bash
# Installs the JSON libraries that the benchmarks measure the program's parser and serializer
# against, when they are missing. They are linked into the benchmark binary only, never into vorn.
# Idempotent: a machine that has them is left alone.
set -euo pipefail
. "$(dirname "$0")/install-missing.sh"

missing=()
[ -f /usr/include/simdjson.h ] || missing+=(libsimdjson-dev)
[ -f /usr/include/rapidjson/document.h ] || missing+=(rapidjson-dev)
[ -f /usr/include/nlohmann/json.hpp ] || missing+=(nlohmann-json3-dev)

install_missing ${missing[@]+"${missing[@]}"}
