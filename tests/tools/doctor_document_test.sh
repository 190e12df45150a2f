#!/usr/bin/env bash
# Usage: doctor_document_test.sh DOCUMENT SOURCES TESTS - the document names each finding of the doctor and no other, and
# each finding of its section "The head stands still" is one of a test.
set -euo pipefail
document=$1 sources=$2 tests=$3
examinations='bus|clients|doctor|handshake|params|process|registry|runtime|settings|socket|state|status|timing|unit'

# Usage: ids TEXT - identifiers of findings in it.
ids() { grep --only-matching --extended-regexp "\b($examinations)\.[a-z-]+\b" <<<"$1" | grep --invert-match '\.service$' | sort --unique; }

# Those of folders and file systems are put together of two parts.
quoted=$(cat "$sources"/*.cpp | grep --only-matching '"[a-z]*\.[a-z-]*"' | tr --delete '"')
parts=$(cat "$sources"/folder_check.cpp "$sources"/parameters.cpp | grep --only-matching '"\.[a-z-]*"' | tr --delete '"' | sort --unique)
made=$quoted
for part in $parts; do
  case $part in
    .full | .nearly-full | .read-only) made+=$'\n'runtime$part$'\n'state$part ;;
    .db* | .old | .damaged-*) ;;
    *) made+=$'\n'registry$part$'\n'params$part ;;
  esac
done
made=$(ids "$made" | grep --invert-match '^params\.db')
described=$(ids "$(sed --quiet 's/`/ /g; /^## The head stands still/,/^## Which process/p' "$document")")
diff <(echo "$made") <(echo "$described") || { echo "the findings (<) are not those of $document (>)"; exit 1; }

section=$(ids "$(sed --quiet 's/`/ /g; /^## The head stands still/,/^## Other findings/p' "$document")")
status=0
for id in $section; do
  grep --quiet --fixed-strings --word-regexp "$id" "$tests"/doctor_*_test.cpp && continue
  echo "no test expects $id"
  status=1
done
exit $status
