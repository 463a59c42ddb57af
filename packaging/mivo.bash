# bash completion for mivo(8).

_mivo() {
  local word=${COMP_WORDS[COMP_CWORD]} at value=0 option=
  COMPREPLY=()
  # An option takes the words after it as its values, even if they look like options.
  for ((at = 2; at < COMP_CWORD; at++)); do
    if ((value > 0)); then
      ((value--))
    else
      option=${COMP_WORDS[at]}
      case $option in
        -ssl) value=3 ;;
        -map) value=2 ;;
      esac
    fi
  done
  if ((COMP_CWORD < 2)); then
    mapfile -t COMPREPLY < <(compgen -W "80 8080 0" -- "$word")
  elif ((value == 0)); then
    mapfile -t COMPREPLY < <(compgen -W "-ssl -map" -- "$word")
  elif [[ $option == -ssl ]] && ((value < 3)); then
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
  fi
}

complete -F _mivo mivo
