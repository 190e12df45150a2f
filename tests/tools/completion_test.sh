#!/usr/bin/env bash
# Usage: completion_test.sh COMPLETION FOLDER... - what is completed, with the tools of these folders.
set -euo pipefail
source "$1"
shift
for folder; do PATH=$folder:$PATH; done

# Usage: expect WORDS EXPECTED - the last of the words is the one to complete.
expect() {
  local found
  read -ra COMP_WORDS <<<"$1"
  [[ $1 != *' ' ]] || COMP_WORDS+=('')
  COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
  COMPREPLY=()
  _ptz_tools || true
  found=${COMPREPLY[*]-}
  [[ $found == "$2" ]] || {
    printf 'after "%s": "%s" and not "%s"\n' "$1" "$found" "$2"
    exit 1
  }
}

expect 'ptzctl dr' 'driver'
expect 'ptzctl driver p' 'params position presets'
expect 'ptzctl driver presets ' 'goto list store'
expect 'ptzctl status show --j' '--json'
expect 'ptzctl driver move --p' '--pan'
expect 'ptzctl driver move absolute --ti' '--tilt --timeout'
expect 'ptzctl nonsense ' ''
expect 'ptz-compliance --ta' '--tap'
