#!/usr/bin/env bash
# Cross-compiles and links vorn and its unit tests for macOS with Zig, and checks what came out:
#   scripts/macos-build.sh HOST_BUILD [ARCH...]     (ARCH: aarch64, x86_64; both by default)
# HOST_BUILD is a native build tree whose generated completion scripts and manual page the cross
# builds take (they cannot run the generator). Each architecture builds in HOST_BUILD-macos-ARCH.
# Checks: each binary is a Mach-O executable of its architecture, records the minimum macOS of
# CMakeLists.txt, and depends on no library but the system's; and a call that Apple's toolchain
# refuses below that minimum is refused here too. The sources are compiled sixteen to a unit
# (a unity build), which takes a third of the time on a small machine; so names private to a
# source file must not repeat in another.
set -euo pipefail
cd "$(dirname "$0")/.."
host=${1:?usage: scripts/macos-build.sh HOST_BUILD [ARCH...]}
shift
archs=("$@")
[ ${#archs[@]} -gt 0 ] || archs=(aarch64 x86_64)
jobs=${JOBS:-$(nproc 2>/dev/null || echo 2)}
[ -f "$host/generated/completion_scripts.cpp" ] ||
  { echo "macos-build: $host/generated is missing: build the vorn_generated target first" >&2; exit 1; }

# LLVM's Mach-O tools: Debian keeps them beside its LLVM, outside PATH.
for dir in /usr/lib/llvm-*/bin; do [ -d "$dir" ] && PATH="$PATH:$dir"; done
otool=$(command -v llvm-otool || command -v otool || true)
[ -n "$otool" ] || { echo "macos-build: llvm-otool not found (apt-get install llvm)" >&2; exit 1; }

fail() { echo "macos-build: $*" >&2; exit 1; }

# A Mach-O executable of the architecture, for the minimum macOS, linked to libSystem only.
check_binary() {
  local file=$1 arch=$2 minimum=$3 cputype
  case $arch in aarch64) cputype=ARM64 ;; x86_64) cputype=X86_64 ;; esac
  "$otool" -hv "$file" | grep -qE "MH_MAGIC_64 +$cputype .* EXECUTE " ||
    fail "$file is not a Mach-O executable for $arch: $("$otool" -hv "$file" | tail -1)"
  local minos
  minos=$("$otool" -l "$file" | awk '$1 == "minos" { print $2; exit }')
  [ "$minos" = "$minimum" ] || fail "$file records minimum macOS '$minos', not $minimum"
  local libraries
  libraries=$("$otool" -L "$file" | tail -n +2 | awk '{ print $1 }' | sort -u)
  [ "$libraries" = "/usr/lib/libSystem.B.dylib" ] ||
    fail "$file links more than the system library: $(echo $libraries)"
  echo "macos-build: $file: Mach-O $arch executable, minimum macOS $minos, libSystem only"
}

for arch in "${archs[@]}"; do
  case $arch in aarch64 | x86_64) ;; *) fail "unknown architecture '$arch'" ;; esac
  dir="$host-macos-$arch"
  if [ ! -f "$dir/build.ninja" ]; then
    cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release \
      -DCMAKE_TOOLCHAIN_FILE=cmake/zig-toolchain.cmake -DVORN_ZIG_TARGET="$arch-macos" \
      -DVORN_SANITIZED_TESTS=OFF -DVORN_GTEST_SOURCE="${GTEST_SOURCE:-/usr/src/googletest}" \
      -DVORN_GENERATED_FROM="$PWD/$host/generated" \
      -DCMAKE_UNITY_BUILD=ON -DCMAKE_UNITY_BUILD_BATCH_SIZE=16 >/dev/null
  fi
  cmake --build "$dir" --target vorn vorn_tests -j "$jobs"
  minimum=$(sed -n 's/^CMAKE_OSX_DEPLOYMENT_TARGET:STRING=//p' "$dir/CMakeCache.txt")
  [ -n "$minimum" ] || fail "$dir has no CMAKE_OSX_DEPLOYMENT_TARGET"
  check_binary "$dir/vorn" "$arch" "$minimum"
  check_binary "$dir/vorn_tests" "$arch" "$minimum"

  # The availability check is live: what Apple refuses for the minimum macOS is refused here.
  canary_flags=(-target "$arch-macos.$minimum" -std=c++20 -fsyntax-only cmake/zig/availability-canary.cpp)
  cmake/zig/zig-c++ "${canary_flags[@]}" ||
    fail "the canary does not even compile without the availability marks"
  if out=$(cmake/zig/zig-c++ -include cmake/zig/apple-availability.h "${canary_flags[@]}" 2>&1); then
    fail "std::to_chars(double) compiled for macOS $minimum: availability is not checked"
  fi
  grep -q "'to_chars' is unavailable" <<<"$out" || fail "the canary failed for another reason: $out"
  echo "macos-build: $arch: std::to_chars(double) is refused for macOS $minimum, as Apple's toolchain does"
done
