#!/usr/bin/env bash
# Removes exactly the files that the last `make install` (cmake --install) put in place, as
# listed in the build's install manifest, and nothing else. The manifest names the files
# without DESTDIR: give the same DESTDIR as to the install. Folders are left, even when empty:
# they may have been there before. The manifest goes last, once everything in it is gone.
set -euo pipefail
manifest=${1:?usage: scripts/uninstall.sh BUILD/install_manifest.txt}

if [ ! -f "$manifest" ]; then
  echo "make uninstall: no $manifest — nothing was installed from this build (make install writes it)" >&2
  exit 1
fi

status=0
while IFS= read -r file || [ -n "$file" ]; do
  [ -n "$file" ] || continue
  file=${DESTDIR:-}$file
  if [ -L "$file" ] || [ -f "$file" ]; then
    rm -f -- "$file"
    echo "removed $file"
  elif [ -e "$file" ]; then
    echo "make uninstall: $file is not a file; left alone" >&2
    status=1
  fi
done <"$manifest"

[ "$status" = 0 ] && rm -f -- "$manifest"
exit "$status"
