# Completes ptzctl and ptz-compliance from what they say of themselves.

# Usage: _ptz_paths TOOL BEGINNING - parameters and groups, one level further; groups end in a dot.
_ptz_paths() {
  local group=${2%"${2##*.}"}
  group=${group:-root.}
  "$1" param list "${group%.}" 2>/dev/null | sed "s/=.*//; $([[ $2 == root* ]] || echo 's/^root\.//')"
}

# Usage: _ptz_send_words TOOL driver send - the commands; behind one, its fields, to each of which a value follows.
_ptz_send_words() {
  local command=${COMP_WORDS[3]-}
  if ((COMP_CWORD == 3)); then
    "$@" --list | sed 's/ .*//'
  elif [[ ${COMP_WORDS[COMP_CWORD]} != = && ${COMP_WORDS[COMP_CWORD - 1]} != = ]]; then
    "$@" "$command" --list | sed 's/ .*/=/'
  fi
}

# Usage: _ptz_values OPTION BEGINNING COMMAND... - what may follow an option, or the words of a command.
_ptz_values() {
  local option=$1 beginning=$2 type
  shift 2
  case $option in
    --driver | -d) ptzctl driver list --json | sed --quiet '/"state":"dead"/!s/^{"name":"\([^"]*\)".*/\1/p' | sort --unique ;;
    --color) printf '%s\n' always auto never ;;
    --command) ptzctl driver send --list | sed 's/ .*//' ;;
    --sort) printf '%s\n' requests latency errors pending name ;;
    --only | --skip) ptz-compliance --list | sed 's/:.*//' ;;
    -*) ;;
    *)
      case "${*:2}" in
        'counter show') "$@" | sed 's/ .*//' ;;
        'driver move')
          for type in PTZMove PTZMoveCmd; do
            "$1" enum "$type" --json | sed 's/.*"nick":"\(.*\)"}/\1/; /none/d; y/ /-/'
          done
          ;;
        'driver send') _ptz_send_words "$@" ;;
        enum) "$@" ;;
        'param get' | 'param set') _ptz_paths "$1" "$beginning" ;;
        'param backup' | 'param restore') ;;  # files, as bash completes them
        'param '*) _ptz_paths "$1" "$beginning" | grep '\.$' ;;
        'status show') printf '%s\n' limit position various ;;
        'timing show') "$@" | sed '1d; s/ .*//' ;;
      esac
      ;;
  esac 2>/dev/null
}

_ptz_tools() {
  local current=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} help word words
  local -a command=("${COMP_WORDS[0]}")
  # "--color=al" is three words here.
  if [[ $current == = ]]; then
    current=
  elif [[ $before == = ]]; then
    before=${COMP_WORDS[COMP_CWORD - 2]}
  fi
  help=$("${command[@]}" --help 2>/dev/null) || return
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    [[ $help == 'Usage: '*' SUBCOMMAND'* ]] || break
    grep --quiet "^  $word " <<<"$help" || return
    command+=("$word")
    help=$("${command[@]}" --help 2>/dev/null) || return
  done
  if [[ $help == 'Usage: '*' SUBCOMMAND'* ]]; then
    words=$(echo --help && sed --quiet 's/^  \([a-z-]*\) .*/\1/p' <<<"$help")
    [[ -n $current ]] || words=${words#--help}
  elif [[ $current == -* ]]; then
    words=$(sed --quiet 's/^  \(-[a-z], \)\?\(--[a-z-]*\).*/\2/p' <<<"$help")
  else
    words=$(_ptz_values "$before" "$current" "${command[@]}")
  fi
  COMPREPLY=()
  while read -r word; do
    [[ -z $word || $word != "$current"* ]] || COMPREPLY+=("$word")
  done <<<"$words"
  # Behind a group, and behind a field's name, there is more.
  [[ ${COMPREPLY[*]-} != *[.=] ]] || compopt -o nospace 2>/dev/null || true
}
complete -o default -F _ptz_tools ptzctl ptz-compliance
