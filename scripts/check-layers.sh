#!/usr/bin/env bash
# Fails when a source file under cli/ includes a header from a layer above its own.
# The layers, bottom up; a folder may include its own layer and those below it.
set -euo pipefail
cd "$(dirname "$0")/../cli"

layer() {
  case "$1" in
    json | paths | terminal) echo 0 ;;
    transport | core | process) echo 1 ;;
    instances) echo 2 ;;
    hosts) echo 3 ;;
    verbs | doctor | shell) echo 4 ;;
    .) echo 5 ;;  # main.cpp and the handler tables
    *) echo "" ;;
  esac
}

status=0
while IFS= read -r file; do
  from=$(dirname "$file")
  from=${from%%/*}
  own=$(layer "$from")
  if [ -z "$own" ]; then
    echo "cli/$file: the folder '$from' has no layer (add it to scripts/check-layers.sh)"
    status=1
    continue
  fi
  while IFS= read -r header; do
    case "$header" in
      */*) to=${header%%/*} ;;
      *) to=. ;;
    esac
    theirs=$(layer "$to")
    if [ -z "$theirs" ]; then
      echo "cli/$file: includes \"$header\" from '$to', which has no layer"
      status=1
    elif [ "$theirs" -gt "$own" ]; then
      echo "cli/$file: includes \"$header\", a layer above its own ($from)"
      status=1
    fi
  done < <(sed -n 's/^[[:space:]]*#[[:space:]]*include[[:space:]]*"\([^"]*\)".*/\1/p' "$file")
done < <(find . -name '*.h' -o -name '*.cpp' | sed 's#^\./##' | sort)

[ "$status" = 0 ] && echo "layers: every include points down or sideways"
exit "$status"
