#compdef mivo
# zsh completion for mivo(8).

local -i at value=0
local option

# An option takes the words after it as its values, even if they look like options.
for ((at = 3; at < CURRENT; at++)); do
  if ((value > 0)); then
    ((value -= 1))
  else
    option=$words[at]
    case $option in
      -ssl) value=3 ;;
      -map) value=2 ;;
    esac
  fi
done

if ((CURRENT == 2)); then
  _message 'HTTP port'
elif ((value == 0)); then
  compadd -- -ssl -map
else
  case $option$value in
    -ssl3) _message 'HTTPS port' ;;
    -ssl2) _message 'key file (PEM)'; _files ;;
    -ssl1) _message 'certificate file (PEM)'; _files ;;
    -map2) _message 'Host header, with its port' ;;
    -map1)
      _message 'local port, or -1 for the echo page'
      # Only after "-", because Tab would insert -1 in place of a port that is still to be written.
      [[ $PREFIX == -* ]] && compadd -- -1
      ;;
  esac
fi
