#!/usr/bin/env bash
# Cross-compiles and links vorn and its unit tests for macOS with Zig, and checks what came out:
#   scripts/macos-build.sh HOST_BUILD [ARCH...]     (ARCH: aarch64, x86_64; both by default)
# HOST_BUILD is a native build tree whose generated completion scripts and manual page the cross
# builds take (they cannot run the generator). Each architecture builds in HOST_BUILD-macos-ARCH.
# Checks: each binary is a Mach-O executable of its architecture, records the minimum macOS of
# CMakeLists.txt, and depends on no library but the system's; and a call that Apple's toolchain
# refuses below that minimum is refused here too.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/zig-tree.sh
. scripts/macho.sh
host=${1:?usage: scripts/macos-build.sh HOST_BUILD [ARCH...]}
shift
archs=("$@")
[ ${#archs[@]} -gt 0 ] || archs=(aarch64 x86_64)
jobs=${JOBS:-$(nproc 2>/dev/null || echo 2)}

fail() { echo "macos-build: $*" >&2; exit 1; }

for arch in "${archs[@]}"; do
  case $arch in aarch64 | x86_64) ;; *) fail "unknown architecture '$arch'" ;; esac
  dir="$host-macos-$arch"
  # Tests on: make dist configures the same trees without them.
  zig_tree "$arch-macos" "$dir" "$host" -DVORN_TESTS=ON \
    -DVORN_GTEST_SOURCE="${GTEST_SOURCE:-/usr/src/googletest}"
  cmake --build "$dir" --target vorn vorn_tests -j "$jobs"
  minimum=$(sed -n 's/^CMAKE_OSX_DEPLOYMENT_TARGET:STRING=//p' "$dir/CMakeCache.txt")
  [ -n "$minimum" ] || fail "$dir has no CMAKE_OSX_DEPLOYMENT_TARGET"
  for binary in "$dir/vorn" "$dir/vorn_tests"; do
    check_macho "$binary" "$arch" "$minimum" || fail "$binary fails its check"
  done

  # The availability check is live: what Apple refuses for the minimum macOS is refused here.
  canary_flags=(-target "$arch-macos.$minimum" -std=c++20 -c cmake/zig/availability-canary.cpp
    -o "$dir/availability-canary.o")
  cmake/zig/zig-c++ "${canary_flags[@]}" ||
    fail "the canary does not even compile without the availability marks"
  if out=$(cmake/zig/zig-c++ -include cmake/zig/apple-availability.h "${canary_flags[@]}" 2>&1); then
    fail "std::to_chars(double) compiled for macOS $minimum: availability is not checked"
  fi
  grep -q "'to_chars' is unavailable" <<<"$out" || fail "the canary failed for another reason: $out"
  echo "macos-build: $arch: std::to_chars(double) is refused for macOS $minimum, as Apple's toolchain does"
done
