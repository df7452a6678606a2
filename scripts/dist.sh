#!/usr/bin/env bash
# Builds what ships into dist/ (make dist):
#   vorn-<version>-macos-universal.tar.gz   one Mach-O binary for Apple silicon and Intel Macs
#   vorn-<version>-linux-x86_64.tar.gz      a fully static binary (musl)
#   vorn-<version>-linux-aarch64.tar.gz     the same for 64-bit Arm
#   SHA256SUMS
# Each archive unpacks into a prefix as make install lays it out (bin/vorn, share/...), with the
# README under share/doc/vorn. The archives are reproducible: files in name order, owned by
# root, dated at the commit, gzip without a name or time; so the same commit gives the same bytes.
#   scripts/dist.sh HOST_BUILD [OUT]    (OUT: dist by default)
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/zig-tree.sh
host=${1:?usage: scripts/dist.sh HOST_BUILD [OUT]}
out=${2:-dist}
jobs=${JOBS:-$(nproc 2>/dev/null || echo 2)}
fail() { echo "dist: $*" >&2; exit 1; }
for dir in /usr/lib/llvm-*/bin; do [ -d "$dir" ] && PATH="$PATH:$dir"; done
lipo=$(command -v llvm-lipo || command -v lipo || true)
[ -n "$lipo" ] || fail "llvm-lipo not found (apt-get install llvm)"

# The one version: the constant that `vorn version` prints.
version=$(sed -n 's/^constexpr const char\* cliVersion = "\([^"]*\)";$/\1/p' cli/core/command_table.h)
[ -n "$version" ] || fail "no cliVersion in cli/core/command_table.h"
# The archives' date: the commit's, or the epoch outside a git checkout.
epoch=${SOURCE_DATE_EPOCH:-$(git log -1 --format=%ct 2>/dev/null || echo 0)}

# The binary of one Zig target, built in HOST_BUILD-<name>.
build_vorn() {
  local target=$1 dir=$2
  zig_tree "$target" "$dir" "$host" -DVORN_TESTS=OFF
  cmake --build "$dir" --target vorn -j "$jobs" >&2
  echo "$dir/vorn"
}

# Lays out one archive's files under a staging folder and packs them; the binary given.
pack() {
  local name=$1 binary=$2 stage
  stage=$(mktemp -d)
  install -d "$stage/bin" "$stage/share/bash-completion/completions" \
    "$stage/share/zsh/site-functions" "$stage/share/fish/vendor_completions.d" \
    "$stage/share/man/man1" "$stage/share/doc/vorn"
  install -m 0755 "$binary" "$stage/bin/vorn"
  local gen=$host/generated/share
  install -m 0644 "$gen/bash-completion/completions/vorn" "$stage/share/bash-completion/completions/vorn"
  install -m 0644 "$gen/zsh/site-functions/_vorn" "$stage/share/zsh/site-functions/_vorn"
  install -m 0644 "$gen/fish/vendor_completions.d/vorn.fish" "$stage/share/fish/vendor_completions.d/vorn.fish"
  install -m 0644 "$gen/man/man1/vorn.1" "$stage/share/man/man1/vorn.1"
  install -m 0644 README.md "$stage/share/doc/vorn/README.md"
  (cd "$stage" && find . -type f | sed 's|^\./||' | LC_ALL=C sort >"$stage.list")
  tar -C "$stage" --format=gnu --owner=0 --group=0 --numeric-owner --mtime="@$epoch" \
    --no-recursion -cf - -T "$stage.list" | gzip -9 -n >"$out/$name.tar.gz"
  rm -rf "$stage" "$stage.list"
  echo "dist: $out/$name.tar.gz"
}

rm -rf "$out"
mkdir -p "$out"
arm=$(build_vorn aarch64-macos "$host-macos-aarch64")
intel=$(build_vorn x86_64-macos "$host-macos-x86_64")
linux_x86_64=$(build_vorn x86_64-linux-musl "$host-linux-x86_64")
linux_aarch64=$(build_vorn aarch64-linux-musl "$host-linux-aarch64")

# The static binary of this machine's kind must say the version the archives are named after.
runtime=$(mktemp -d)
said=$(XDG_RUNTIME_DIR=$runtime "$linux_x86_64" version) || fail "the built vorn cannot say its version"
rm -rf "$runtime"
[ "$said" = "vorn $version" ] || fail "the built vorn says '$said', not 'vorn $version'"

universal=$(mktemp -d)/vorn
"$lipo" -create -output "$universal" "$arm" "$intel"
pack "vorn-$version-macos-universal" "$universal"
rm -rf "$(dirname "$universal")"
pack "vorn-$version-linux-x86_64" "$linux_x86_64"
pack "vorn-$version-linux-aarch64" "$linux_aarch64"
(cd "$out" && sha256sum vorn-"$version"-*.tar.gz >SHA256SUMS)
echo "dist: $out/SHA256SUMS"
