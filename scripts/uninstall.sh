#!/usr/bin/env bash
# Removes exactly the files that the last `make install` (cmake --install) put in place, as
# listed in the build's install manifest, and nothing else. The manifest names the files
# without DESTDIR: give the same DESTDIR as to the install. Folders are left, even when empty:
# they may have been there before. A listed file that is not there is named on stderr. The
# manifest goes last, once everything in it is gone; when nothing at all was there to remove
# (another DESTDIR than the install's, say) it is kept and the exit status is 1.
set -euo pipefail
manifest=${1:?usage: scripts/uninstall.sh BUILD/install_manifest.txt}

if [ ! -f "$manifest" ]; then
  echo "make uninstall: no $manifest — nothing was installed from this build (make install writes it)" >&2
  exit 1
fi

status=0
removed=0
while IFS= read -r file || [ -n "$file" ]; do
  [ -n "$file" ] || continue
  file=${DESTDIR:-}$file
  if [ -L "$file" ] || [ -f "$file" ]; then
    rm -f -- "$file"
    echo "removed $file"
    removed=$((removed + 1))
  elif [ -e "$file" ]; then
    echo "make uninstall: $file is not a file; left alone" >&2
    status=1
  else
    echo "make uninstall: $file is not there" >&2
  fi
done <"$manifest"

if [ "$removed" = 0 ]; then
  echo "make uninstall: nothing removed${DESTDIR:+ under DESTDIR $DESTDIR}; $manifest is kept (give the DESTDIR of the install)" >&2
  exit 1
fi
[ "$status" = 0 ] && rm -f -- "$manifest"
exit "$status"
