#!/usr/bin/env bash
# Usage: header_list.sh FOLDER HEADER...
#
# The headers of the folder are those that are installed, and ptz.h includes every other of them.
set -euo pipefail
folder=$1
shift
failures=0
expect() {
  "${@:2}" || { echo "$1" && failures=1; }
}
for path in "$folder"/*.h; do
  name=${path##*/}
  expect "$name is not in include/meson.build" grep --quiet --word-regexp --fixed-strings -- "$name" <<<"$*"
  [[ $name == ptz.h ]] || expect "ptz.h does not include $name" grep --quiet --fixed-strings "#include \"$name\"" "$folder/ptz.h"
done
exit "$failures"
