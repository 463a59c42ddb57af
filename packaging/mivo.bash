# bash completion for mivo(8).

_mivo() {
  local word=${COMP_WORDS[COMP_CWORD]} at last value=0 option= words
  COMPREPLY=()
  # Not COMP_WORDS: bash splits these at ":" as well, so that localhost:8080 would count as three words.
  read -ra words <<<"${COMP_LINE:0:COMP_POINT}|" # the mark keeps an empty last word
  last=$((${#words[@]} - 1))
  # An option takes the words after it as its values, even if they look like options.
  for ((at = 2; at < last; at++)); do
    if ((value > 0)); then
      ((value--))
    else
      option=${words[at]}
      case $option in
        -ssl) value=3 ;;
        -map) value=2 ;;
      esac
    fi
  done
  if ((last < 2)); then
    mapfile -t COMPREPLY < <(compgen -W "80 8080 0" -- "$word")
  elif ((value == 0)); then
    mapfile -t COMPREPLY < <(compgen -W "-ssl -map" -- "$word")
  elif [[ $option == -ssl ]] && ((value < 3)); then
    compopt -o filenames 2>/dev/null
    mapfile -t COMPREPLY < <(compgen -f -- "$word")
  elif [[ $option == -map && $word == -* ]] && ((value == 1)); then
    # Only after "-", because Tab would insert -1 in place of a port that is still to be written.
    mapfile -t COMPREPLY < <(compgen -W "-1" -- "$word")
  fi
}

complete -F _mivo mivo
