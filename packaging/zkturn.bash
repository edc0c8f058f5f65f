# Completion of zkturn(1) for bash.

_zkturn() {
  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]} i
  local verb=${COMP_WORDS[1]-}
  COMPREPLY=()

  # Behind "--" stands somebody else's command.
  for ((i = 2; i < COMP_CWORD; i++)); do
    if [[ ${COMP_WORDS[i]} == -- ]]; then
      if declare -F _command_offset >/dev/null; then
        _command_offset $((i + 1))
      else
        mapfile -t COMPREPLY < <(compgen -c -- "$cur")
      fi
      return
    fi
  done
  if ((COMP_CWORD == 1)); then
    mapfile -t COMPREPLY < <(compgen -W "check serve run --help --version" -- "$cur")
    return
  fi
  case $prev in
    --pass-file | --log)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- "$cur")
      return
      ;;
    --user | --stun | --timeout | --count | --idle | --dns) return ;;
  esac
  local options="--user --pass-file --stun --timeout --via-default --help"
  case $verb in
    check) options+=" --count --idle --json" ;;
    run) options+=" --dns --log --private --quic --keep-bus --as-root --" ;;
  esac
  [[ $cur != -* ]] || mapfile -t COMPREPLY < <(compgen -W "$options" -- "$cur")
}
complete -F _zkturn zkturn
