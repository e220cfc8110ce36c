#!/usr/bin/env bash
# Every manual page the build made passes groff's checks without a warning.
# The pages are laid out as installed (manN/), so a page that includes
# another (.so man1/...) finds it.
#   man_pages_test.sh MAN_DIR PAGE...
set -uo pipefail
dir=$1
shift
tree=$(mktemp -d)
trap 'rm -rf "$tree"' EXIT
for page in "$@"; do
  mkdir -p "$tree/man${page##*.}"
  [ -s "$dir/$page" ] && cp "$dir/$page" "$tree/man${page##*.}/"
done
failed=0
for page in "$@"; do
  file=man${page##*.}/$page
  if [ ! -s "$tree/$file" ]; then
    echo "$page: not built"
    failed=1
    continue
  fi
  warnings=$(cd "$tree" && groff -man -ww -z "$file" 2>&1)
  if [ -n "$warnings" ]; then
    printf '%s:\n%s\n' "$page" "$warnings"
    failed=1
  fi
done
exit $failed
