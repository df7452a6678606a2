# Sourced by the scripts that cross-compile with Zig (macos-build.sh, dist.sh).
#   zig_tree TARGET DIR HOST_BUILD [CMAKE_ARG...]
# Configures DIR (once, then only the given CMAKE_ARGs again) as a Release build for the Zig target (aarch64-macos, x86_64-macos,
# x86_64-linux-musl, aarch64-linux-musl), taking the completion scripts and the manual page that
# the native build HOST_BUILD generated. The sources are compiled sixteen to a unit (a unity
# build), which takes a third of the time on a small machine; so names private to a source file
# must not repeat in another.
zig_tree() {
  local target=$1 dir=$2 host=$3
  shift 3
  [ -f "$host/generated/completion_scripts.cpp" ] || {
    echo "$host/generated is missing: build the vorn_generated target of $host first" >&2
    return 1
  }
  if [ -f "$dir/build.ninja" ]; then
    # Configured before, maybe by the other script: only this caller's options are set again.
    [ $# -eq 0 ] || cmake -B "$dir" "$@" >/dev/null
    return 0
  fi
  cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_TOOLCHAIN_FILE=cmake/zig-toolchain.cmake -DVORN_ZIG_TARGET="$target" \
    -DVORN_SANITIZED_TESTS=OFF -DVORN_GENERATED_FROM="$PWD/$host/generated" \
    -DCMAKE_UNITY_BUILD=ON -DCMAKE_UNITY_BUILD_BATCH_SIZE=16 "$@" >/dev/null
}
