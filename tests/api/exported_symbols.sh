#!/usr/bin/env bash
# Usage: exported_symbols.sh LIBRARY [LIST]
#
# Prints the names that the library exports, or compares them with the list.
set -euo pipefail

exported() { nm --dynamic --defined-only --format=posix "$1" | awk '{ print $1 }' | LC_ALL=C sort; }

if (($# == 1)); then
  exported "$1"
elif ! diff --unified --label kept --label exported "$2" <(exported "$1"); then
  echo "
Programs are linked with these names: none may go, and a new one must be meant. If it is, keep the new list:
  tests/api/exported_symbols.sh $1 >tests/api/${2##*/}"
  exit 1
fi
