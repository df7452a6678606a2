#!/usr/bin/env bash
# Installs the system packages the build and tests need, when they are missing: Debian's on
# Linux, Homebrew's formulae on macOS. Idempotent: a machine that has everything is left alone.
set -euo pipefail
. "$(dirname "$0")/install-missing.sh"

missing=()
need() { command -v "$1" >/dev/null 2>&1 || missing+=("$2"); }

if [ "$(uname)" = Darwin ]; then
  # Apple's command line tools bring clang, libc++ and make; the rest comes from Homebrew.
  command -v brew >/dev/null 2>&1 ||
    { echo "Homebrew is needed to install the build tools (https://brew.sh)" >&2; exit 1; }
  prefix=$(brew --prefix)
  need cmake cmake
  need ninja ninja
  need npm node
  need jq jq
  need zsh zsh
  need fish fish
  need groff groff
  [ -f "$prefix/include/gtest/gtest.h" ] || missing+=(googletest)
  [ -f "$prefix/include/benchmark/benchmark.h" ] || missing+=(google-benchmark)
  [ -f "$prefix/share/bash-completion/bash_completion" ] || missing+=(bash-completion@2)
  if [ ${#missing[@]} -gt 0 ]; then
    echo "installing: ${missing[*]}"
    brew install "${missing[@]}"
  fi
  exit 0
fi

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
elif [ ! -f "$(clang++ -print-resource-dir)/lib/linux/libclang_rt.fuzzer-$(uname -m).a" ]; then
  missing+=(libclang-rt-dev)
fi
# The libc++ build: LLVM's C++ library, and GoogleTest's source to build it against.
[ -f /usr/src/googletest/CMakeLists.txt ] || missing+=(googletest)
if ! echo '#include <vector>' | clang++ -stdlib=libc++ -x c++ -fsyntax-only - >/dev/null 2>&1; then
  missing+=(libc++-dev libc++abi-dev)
fi
# The macOS cross build is checked with LLVM's Mach-O tools.
compgen -G "/usr/lib/llvm-*/bin/llvm-otool" >/dev/null || missing+=(llvm)
# The release check: the static aarch64 binary runs under QEMU's user-mode emulation, and file
# tells a static binary.
need qemu-aarch64-static qemu-user-static
need file file

install_missing ${missing[@]+"${missing[@]}"}
