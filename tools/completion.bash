# Completes ptzctl and ptz-compliance from what they say of themselves with --help.
_ptz_tools() {
  local current=${COMP_WORDS[COMP_CWORD]} help word
  local -a command=("${COMP_WORDS[0]}")
  help=$("${command[@]}" --help 2>/dev/null) || return
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    [[ $help == 'Usage: '*' SUBCOMMAND'* ]] || break
    grep --quiet "^  $word " <<<"$help" || return
    command+=("$word")
    help=$("${command[@]}" --help 2>/dev/null) || return
  done
  if [[ $current == -* ]]; then
    word=$(sed --quiet 's/^  \(-[a-z], \)\?\(--[a-z-]*\).*/\2/p' <<<"$help")
  elif [[ $help == 'Usage: '*' SUBCOMMAND'* ]]; then
    word=$(sed --quiet 's/^  \([a-z-]*\) .*/\1/p' <<<"$help")
  else
    word=
  fi
  mapfile -t COMPREPLY < <(compgen -W "$word" -- "$current")
}
complete -o default -F _ptz_tools ptzctl ptz-compliance
