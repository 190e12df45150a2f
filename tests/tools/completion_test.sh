#!/usr/bin/env bash
# Usage: completion_test.sh COMPLETION FOLDER... - what is completed, with the tools of these folders.
set -euo pipefail
source "$1"
shift
for folder; do PATH=$folder:$PATH; done

scratch=$(mktemp --directory)
trap 'rm -rf "$scratch"' EXIT
export PTZ_PLATFORM_STATE_DIR=$scratch PTZ_PLATFORM_RUNTIME_DIR=$scratch

# Usage: expect LINE EXPECTED - at the end of the line, whose words are divided as readline does.
expect() {
  local found
  read -ra COMP_WORDS <<<"${1//=/ = }"
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
expect 'ptzctl do' 'doctor'
expect 'ptzctl driver p' 'params position presets'
expect 'ptzctl driver presets ' 'goto list store'
expect 'ptzctl nonsense ' ''

# Every option of every help is completed.
options_of() {
  local name help
  help=$("$@" --help)
  if [[ $help != *SUBCOMMAND* ]]; then
    expect "$* -" "$(grep --only-matching '^  \(-[a-z], \)\?--[a-z-]*' <<<"$help" | sed 's/.*--/--/' | paste -sd' ')"
    return
  fi
  expect "$* --h" '--help'
  while read -r name; do options_of "$@" "$name"; done < <(sed --quiet 's/^  \([a-z]*\) .*/\1/p' <<<"$help")
}
options_of ptzctl
options_of ptz-compliance
expect 'ptzctl status show --j' '--json'
expect 'ptzctl report --se' '--seconds'
expect 'ptz-compliance --ht' '--html'
expect 'ptzctl driver move absolute --ti' '--tilt --timeout'

# Values, too.
expect 'ptzctl status show --color ' 'always auto never'
expect 'ptzctl status show --color=' 'always auto never'
expect 'ptzctl status show --color=a' 'always auto'
expect 'ptzctl status show --color=always ' 'limit position various'
expect 'ptzctl status show p' 'position'
expect 'ptzctl driver info --socket ' ''
expect 'ptzctl driver info --driver ' ''
two-axis-driver --socket "$scratch/driver.socket" 2>/dev/null &
driver=$!
trap 'kill "$driver"; wait "$driver" || true; rm -rf "$scratch"' EXIT
until ptzctl driver info --driver two-axis-driver >/dev/null 2>&1; do sleep 0.02; done
expect 'ptzctl driver info --driver ' 'two-axis-driver'
expect 'ptzctl driver info -d two' 'two-axis-driver'
expect 'ptz-compliance --driver=' 'two-axis-driver'
expect 'ptzctl tap --command goto_p' 'goto_preset'
expect 'ptzctl top --sort ' 'requests latency errors pending name'
expect 'ptzctl driver move ab' 'absolute'
expect 'ptzctl driver move up' 'up up-left up-right'
expect 'ptzctl driver send query_l' 'query_limit_ranges'
expect 'ptzctl driver send goto_preset ' 'number= speed='
expect 'ptzctl driver send move k' 'kind='
expect 'ptzctl driver send move kind=' ''
expect 'ptzctl driver send move kind=ab' ''
expect 'ptzctl driver send move kind=absolute sp' 'speed='
expect 'ptzctl enum PTZMove' 'PTZMove PTZMoveStatus PTZMoveCmd'
expect 'ptz-compliance --only socket.' 'socket.permissions'
expect 'ptz-compliance --skip process.r' 'process.restart-same-socket'
ptzctl param set PTZ.Head.H1.PanMax 9000
ptzctl param set PTZ.Name 'a=b'
expect 'ptzctl param get ' 'PTZ.'
expect 'ptzctl param get PTZ.' 'PTZ.Name PTZ.Head.'
expect 'ptzctl param get PTZ.N' 'PTZ.Name'
expect 'ptzctl param get root.PTZ.H' 'root.PTZ.Head.'
expect 'ptzctl param set PTZ.Head.H1.' 'PTZ.Head.H1.PanMax'
expect 'ptzctl param tree PTZ.' 'PTZ.Head.'
expect 'ptzctl param get Missing.' ''
expect 'ptzctl param ba' 'backup'
expect 'ptzctl param restore ' ''
expect 'ptzctl param backup P' ''
