# bash completion for fanctl(8)                                            -*- shell-script -*-

_fanctl() {
  local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]}
  local command='' each options
  for each in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
    case $each in check | hardware | link | curve | guard | notify | standby | status) command=$each && break ;; esac
  done

  COMPREPLY=()
  case $before in
    -c | --config-dir | --to)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -d -- "$word")
      return
      ;;
    --svg | --output)
      compopt -o filenames
      mapfile -t COMPREPLY < <(compgen -f -- "$word")
      return
      ;;
  esac

  if [[ $command == notify && $before == --test ]]; then
    options='fan_failed fan_working temperature_high temperature_critical temperature_normal'
    options+=' service_stopped service_started guard_acted'
    mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
    return
  fi

  case $command in
    '') options='check hardware link curve guard notify standby status --help --version' ;;
    link) options='--config-dir --to --sensor --at-boot --undo --help' ;;
    notify) options='--config-dir --test --help' ;;
    curve) options='--config-dir --json --svg --help' ;;
    guard) options='--config-dir --dry-run --no-disks --service-ended --help' ;;
    status) options='--config-dir --json --prometheus --output --watch --help' ;;
    standby) options='--config-dir --dry-run --end --help' ;;
    *) options='--config-dir --json --help' ;;
  esac
  if [[ $command == link && $word != -* ]]; then
    options=$(cat /sys/class/hwmon/*/name 2>/dev/null) # the chips of this machine
  fi
  mapfile -t COMPREPLY < <(compgen -W "$options" -- "$word")
}
complete -F _fanctl fanctl
