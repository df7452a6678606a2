#!/usr/bin/env bash
# Installs the system packages the build and tests need, when they are missing.
# Idempotent: a machine that has everything is left alone.
set -euo pipefail

missing=()
need() { command -v "$1" >/dev/null 2>&1 || missing+=("$2"); }
need cmake cmake
need ninja ninja-build
need g++ g++
need npm npm
need jq jq
need make make
need script bsdutils # the terminal tests run vorn on a pseudo-terminal
# The completion and installation tests drive the real shells and render the manual page.
need zsh zsh
need fish fish
need groff groff-base
need man man-db
[ -f /usr/share/bash-completion/bash_completion ] || missing+=(bash-completion)
[ -f /usr/include/gtest/gtest.h ] || missing+=(libgtest-dev)
[ -f /usr/include/benchmark/benchmark.h ] || missing+=(libbenchmark-dev)
# The fuzz targets: clang with its libFuzzer and sanitizer runtimes.
if ! command -v clang++ >/dev/null 2>&1; then
  missing+=(clang libclang-rt-dev)
elif [ "$(uname)" = Linux ] &&
  [ ! -f "$(clang++ -print-resource-dir)/lib/linux/libclang_rt.fuzzer-$(uname -m).a" ]; then
  missing+=(libclang-rt-dev)
fi

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
