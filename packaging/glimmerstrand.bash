# bash completion for glimmerstrand
_glimmerstrand() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}
  local commands="do query status doctor ping skill mcp stop restart desktop help"
  if [[ $prev == --app || $prev == --http ]]; then
    return 0  # an application name, an address: nothing to offer
  fi
  if [[ $prev == --token-file ]]; then
    COMPREPLY=($(compgen -f -- "$cur"))
    return 0
  fi
  local word command=
  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    [[ " $commands " == *" $word "* ]] && { command=$word; break; }
  done
  if [[ $cur == -* ]]; then
    local options="--help --version"
    case $command in
      do|query) options+=" --app --json" ;;
      status|doctor|ping|skill) options+=" --json" ;;
      mcp) options+=" --http --token-file" ;;
      '') options+=" --app --json" ;;
    esac
    COMPREPLY=($(compgen -W "$options" -- "$cur"))
  elif [[ -z $command ]]; then
    COMPREPLY=($(compgen -W "$commands" -- "$cur"))
  elif [[ $command == desktop && $prev == desktop ]]; then
    COMPREPLY=($(compgen -W "start stop status" -- "$cur"))
  elif [[ $command == desktop && $prev == --wayland ]]; then
    COMPREPLY=($(compgen -W "sway" -- "$cur"))
  elif [[ $command == desktop && $cur == -* ]]; then
    COMPREPLY=($(compgen -W "--no-wm --wayland" -- "$cur"))
  elif [[ $command == help ]]; then
    COMPREPLY=($(compgen -W "$commands" -- "$cur"))
  fi
}
complete -F _glimmerstrand glimmerstrand
