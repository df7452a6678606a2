# Sourced by the scripts that check Mach-O binaries built here (macos-build.sh, dist-check.sh).
# LLVM's Mach-O tools: Debian keeps them beside its LLVM, outside PATH.
for llvm_bin in /usr/lib/llvm-*/bin; do [ -d "$llvm_bin" ] && PATH="$PATH:$llvm_bin"; done
otool=$(command -v llvm-otool || command -v otool || true)

#   check_macho FILE ARCH MINIMUM
# Fails (returns 1, saying why) unless FILE is a thin 64-bit Mach-O executable for ARCH (aarch64
# or x86_64) that records MINIMUM as its minimum macOS and links no library but the system's.
# (Take a slice out of a universal binary with lipo -thin first.)
check_macho() {
  local file=$1 arch=$2 minimum=$3 cputype
  [ -n "$otool" ] || { echo "llvm-otool not found (apt-get install llvm)" >&2; return 1; }
  case $arch in
    aarch64) cputype=ARM64 ;;
    x86_64) cputype=X86_64 ;;
    *) echo "unknown architecture '$arch'" >&2; return 1 ;;
  esac
  local header
  header=$("$otool" -hv "$file" | tail -1)
  grep -qE "^ *MH_MAGIC_64 +$cputype .* EXECUTE " <<<"$header" ||
    { echo "$file is not a Mach-O executable for $arch: $header" >&2; return 1; }
  local minos
  minos=$("$otool" -l "$file" | awk '$1 == "minos" { print $2; exit }')
  [ "$minos" = "$minimum" ] ||
    { echo "$file ($arch) records minimum macOS '$minos', not $minimum" >&2; return 1; }
  local libraries
  libraries=$("$otool" -L "$file" | tail -n +2 | awk '{ print $1 }' | sort -u)
  [ "$libraries" = "/usr/lib/libSystem.B.dylib" ] ||
    { echo "$file ($arch) links more than the system library: $(echo $libraries)" >&2; return 1; }
  echo "$file: Mach-O $arch executable, minimum macOS $minos, libSystem only"
}
