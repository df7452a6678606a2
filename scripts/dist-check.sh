#!/usr/bin/env bash
# Checks what make dist wrote (make dist-check; make test runs it):
#   scripts/dist-check.sh HOST_BUILD [DIST]     (DIST: dist by default)
# - SHA256SUMS matches the three archives, and each holds exactly the listed files;
# - each unpacks into a fresh prefix where the manual page renders (man -l), and the Linux
#   binaries run `bin/vorn help` (the aarch64 one under QEMU's user-mode emulation);
# - the Linux binaries are static; the universal binary holds exactly arm64 and x86_64, each with
#   the minimum macOS of CMakeLists.txt and no library but the system's;
# - the static x86_64 binary passes the whole end-to-end suite, and the aarch64 one a subset
#   (help, version, instance list against a simulated instance, a fan-out) under QEMU;
# - packing again gives byte-identical archives, and so does a build of a static binary from
#   scratch in a fresh tree.
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/macho.sh
host=${1:?usage: scripts/dist-check.sh HOST_BUILD [DIST]}
dist=${2:-dist}
host_dir=$(cd "$host" && pwd)
fail() { echo "dist-check: $*" >&2; exit 1; }
say() { echo "dist-check: $*"; }
for dir in /usr/lib/llvm-*/bin; do [ -d "$dir" ] && PATH="$PATH:$dir"; done
lipo=$(command -v llvm-lipo || command -v lipo) || fail "llvm-lipo not found"
qemu=$(command -v qemu-aarch64-static || command -v qemu-aarch64) ||
  fail "qemu-aarch64-static not found (apt-get install qemu-user-static)"

version=$(sed -n 's/^constexpr const char\* cliVersion = "\([^"]*\)";$/\1/p' cli/core/command_table.h)
minimum=$(sed -n 's/^set(CMAKE_OSX_DEPLOYMENT_TARGET "\([^"]*\)".*/\1/p' CMakeLists.txt)
[ -n "$version" ] && [ -n "$minimum" ] || fail "cannot read the version or the minimum macOS"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

expected="bin/vorn
share/bash-completion/completions/vorn
share/doc/vorn/README.md
share/fish/vendor_completions.d/vorn.fish
share/man/man1/vorn.1
share/zsh/site-functions/_vorn"
names=(macos-universal linux-x86_64 linux-aarch64)

(cd "$dist" && sha256sum --quiet -c SHA256SUMS) || fail "SHA256SUMS does not match"
[ "$(awk '{ print $2 }' "$dist/SHA256SUMS" | sort)" = \
  "$(for n in "${names[@]}"; do echo "vorn-$version-$n.tar.gz"; done | sort)" ] ||
  fail "SHA256SUMS lists other files than the three archives"
say "SHA256SUMS matches the three archives"

for name in "${names[@]}"; do
  archive="$dist/vorn-$version-$name.tar.gz"
  listed=$(tar -tzf "$archive")
  [ "$listed" = "$expected" ] || fail "$archive holds:
$listed"
  owners=$(tar -tvzf "$archive" | awk '{ print $2 }' | sort -u)
  [ "$owners" = "0/0" ] || fail "$archive has files owned by $owners"
  prefix=$work/$name
  mkdir -p "$prefix"
  tar -C "$prefix" -xzf "$archive"
  page=$(MANPAGER=cat PAGER=cat MANWIDTH=80 man -l "$prefix/share/man/man1/vorn.1" 2>/dev/null |
    sed 's/.\x08//g')
  grep -q "vorn - command-line front end of the Vorn code editor" <<<"$page" ||
    fail "$archive: man -l does not render the manual page"
  say "$archive: exactly the listed files, owned by root; the manual page renders"
done

# The binaries.
linux_x86_64=$work/linux-x86_64/bin/vorn
linux_aarch64=$work/linux-aarch64/bin/vorn
universal=$work/macos-universal/bin/vorn
file -b "$linux_x86_64" | grep -q "x86-64.*static" || fail "not a static x86-64 binary: $(file -b "$linux_x86_64")"
file -b "$linux_aarch64" | grep -q "ARM aarch64.*static" || fail "not a static aarch64 binary: $(file -b "$linux_aarch64")"
help=$("$linux_x86_64" help) || fail "linux-x86_64: bin/vorn help fails"
[ "${help%%$'\n'*}" = "Vorn CLI $version" ] || fail "linux-x86_64: bin/vorn help says: ${help%%$'\n'*}"
help=$("$qemu" "$linux_aarch64" help) || fail "linux-aarch64: bin/vorn help fails under QEMU"
[ "${help%%$'\n'*}" = "Vorn CLI $version" ] || fail "linux-aarch64: bin/vorn help says: ${help%%$'\n'*}"
say "the Linux binaries are static and run bin/vorn help (aarch64 under QEMU)"
archs=$("$lipo" -archs "$universal" | tr ' ' '\n' | sort | xargs)
[ "$archs" = "arm64 x86_64" ] || fail "the universal binary holds '$archs', not arm64 and x86_64"
"$lipo" -thin arm64 "$universal" -output "$work/vorn-arm64"
"$lipo" -thin x86_64 "$universal" -output "$work/vorn-x86_64"
check_macho "$work/vorn-arm64" aarch64 "$minimum" >/dev/null || fail "the arm64 slice fails its check"
check_macho "$work/vorn-x86_64" x86_64 "$minimum" >/dev/null || fail "the x86_64 slice fails its check"
say "the universal binary holds arm64 and x86_64, minimum macOS $minimum, libSystem only"

# The end-to-end suite against the static binaries.
# The build's own files (generated scripts, install rules) come from HOST_BUILD.
(cd tests && VORN_BIN="$linux_x86_64" VORN_BUILD="$host_dir" node_modules/.bin/bun test --timeout 60000) ||
  fail "the static x86_64 binary fails the end-to-end suite"
say "the static x86_64 binary passes the end-to-end suite"
emulated=$work/vorn-aarch64
printf '#!/bin/sh\nexec "%s" "%s" "$@"\n' "$qemu" "$linux_aarch64" >"$emulated"
chmod +x "$emulated"
(cd tests && VORN_BIN="$emulated" node_modules/.bin/bun test --timeout 60000 \
  e2e/help.test.ts e2e/version.test.ts e2e/instance-list.test.ts \
  -t "lists every noun and verb usage|with nothing running only the CLI line|one line per instance, in pid order|prints the instance table in pid order") ||
  fail "the static aarch64 binary fails the end-to-end subset under QEMU"
say "the static aarch64 binary passes the end-to-end subset under QEMU"

# The same commit gives the same bytes: the archives packed again, and a static binary built
# from scratch.
scripts/dist.sh "$host" "$work/again" >/dev/null
cmp "$dist/SHA256SUMS" "$work/again/SHA256SUMS" || fail "packing again gives other archives"
. scripts/zig-tree.sh
zig_tree x86_64-linux-musl "$work/fresh" "$host" -DVORN_TESTS=OFF
cmake --build "$work/fresh" --target vorn >/dev/null
cmp "$work/fresh/vorn" "$linux_x86_64" || fail "a fresh build of the static x86_64 binary differs"
say "packing again and building again from scratch give the same bytes"
