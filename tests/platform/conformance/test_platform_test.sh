#!/usr/bin/env bash
# Usage: test_platform_test.sh SCRIPT PROGRAM OURS BROKEN LACKING - whether scripts/test-platform tells good platform
# libraries from bad ones.
set -euo pipefail

script=$1
program=$(realpath "$2") ours=$(realpath "$3") broken=$(realpath "$4") lacking=$(realpath "$5")
scratch=$(mktemp --directory)
trap 'rm -rf "$scratch"' EXIT

fail() {
  printf '%s\n' "$*"
  sed 's/^/   /' "$scratch/output"
  exit 1
}
# Usage: run EXPECTED_STATUS LIBRARY...
run() {
  local expected=$1 status=0
  shift
  "$script" --program "$program" "$@" >"$scratch/output" 2>&1 || status=$?
  ((status == expected)) || fail "status $status, not $expected, with $*"
}
ends_with() { [[ $(tail -n 1 "$scratch/output") =~ ^$1$ ]] || fail "the last line is not $1"; }
says() { grep --quiet --fixed-strings -- "$1" "$scratch/output" || fail "it does not say: $1"; }

run 0 "$ours"
ends_with '[1-9][0-9]* passed, 0 failed'
all=$(grep --count '^passed' "$scratch/output")
((all >= 80)) || fail "only $all tests"
ends_with "$all passed, 0 failed"

# Several libraries, by a path that is relative to the caller's folder.
(cd "$(dirname "$lacking")" && "$script" --program "$program" "./${lacking##*/}" "$ours") >"$scratch/output" 2>&1 || true
ends_with "$((all - 2)) passed, 2 failed"
says 'FAILED  FileUtil.ReplacedFileKeepsPermissionsAndOwner'
says 'FAILED  FileUtil.SymbolicLinkStaysAndItsTargetIsReplaced'

run 1 "$broken"
found=$(sed --quiet 's/^FAILED  //p' "$scratch/output" | sort)
expected='FileUtil.ReplacedFileKeepsPermissionsAndOwner
FileUtil.SymbolicLinkStaysAndItsTargetIsReplaced
KvConfig.CloseWithoutAnOpenFileHasNoEffect
KvConfig.MissingFileCannotBeOpened
ParamService.GetReturnsEveryValueAsItWasWritten
StatusStore.ExistingGroupIsNotCreatedAgain
StatusStore.ThisProcessReadsWhatAnotherOneWrote'
[[ $found == "$expected" ]] || fail "it finds $found"
ends_with "$((all - 7)) passed, 7 failed"
says 'it was ended by signal 6'
says 'it ended the process with status 0'

run 1 "$lacking"
ends_with '[1-9][0-9]* passed, [1-9][0-9]* failed'
says 'FAILED  Boundary.SymbolIsDefined/param_service_sync'
says 'passed  Boundary.SymbolIsDefined/file_util_set_contents_synced'
says 'the platform library lacks kv_config_close kv_config_get kv_config_open'

echo 'no library' >"$scratch/text.so"
run 1 "$scratch/text.so"
says 'the platform library cannot be loaded'
run 1 "$scratch/missing.so"
says 'there is no library'
run 1
says 'name the platform library'
