# bash completion for chronwarden: its commands, their subcommands and options.
# Installed as /usr/share/bash-completion/completions/chronwarden.
_chronwarden() {
  local cur prev words cword
  _init_completion || return
  local commands="clock history report reg os ntp config service resync install remove graph kr2 monitor exporter agent status server applet"
  if ((cword == 1)); then
    COMPREPLY=($(compgen -W "$commands --help" -- "$cur"))
    return
  fi
  local command=${words[1]} sub=${words[2]:-} opts="" subs=""
  case $prev in
    --machine)
      return ;;
    -o)
      _filedir
      return ;;
    --type)
      COMPREPLY=($(compgen -W "sz expand_sz multi_sz dword binary" -- "$cur"))
      return ;;
    --scale)
      COMPREPLY=($(compgen -W "auto 1 10 25 50 100 250 500 1000 2500 5000 10000 30000 60000 120000 300000 600000 1800000" -- "$cur"))
      return ;;
    --samples | --count | --timeout | --port | --interval | --first | --select | --size | --ticks | --after | \
      --variance | --reason | --source | --time | --machine-type | --poll | --listen | --max-probes | \
      --max-connections | --data)
      return ;;
  esac
  case $command in
    clock) opts="--samples --coarse --json" ;;
    history)
      if [[ $sub == append ]]; then
        opts="--variance --reason --source --time --set --machine-type"
      else
        subs="append"
        opts="--csv --json"
      fi ;;
    report) opts="--utc --local -o" ;;
    reg) subs="query set delete export check"; opts="--json --type --data --machine" ;;
    os) subs="identify"; opts="--json" ;;
    ntp) subs="query"; opts="--timeout --count --json" ;;
    config)
      subs="show set"
      case $sub in
        show) opts="--json --machine" ;;
        set)
          opts="--machine --no-apply"
          if [[ $cur != -* ]]; then
            local fields
            fields=$(chronwarden config show 2>/dev/null | awk 'NR > 1 && $0 !~ /read only/ { print $1 "=" }')
            COMPREPLY=($(compgen -W "$fields" -- "$cur"))
            compopt -o nospace
            return
          fi ;;
        *) opts="--json --machine --no-apply" ;;
      esac ;;
    service)
      subs="status start stop restart start-type"
      [[ $sub == start-type && $cword == 3 ]] && subs="automatic manual disabled"
      opts="--machine --json" ;;
    resync) opts="--machine --wait --hard" ;;
    install) opts="--machine --managers --quiet" ;;
    remove) opts="--machine --quiet" ;;
    graph) opts="-o --first --scale --select --size --utc --local --watch --ticks" ;;
    kr2)
      ((cword == 3)) && subs="identity status time localtime timezone products history clear resync"
      opts="--port --timeout --json"
      [[ ${words[3]:-} == history ]] && opts+=" --after --csv" ;;
    monitor) opts="--interval --count --port --timeout --json --openmetrics -o" ;;
    exporter) opts="--listen --timeout --max-probes --max-connections" ;;
    agent)
      subs="show set history clear"
      opts="--machine --no-apply --yes"
      if [[ $sub == set && $cur != -* ]]; then
        COMPREPLY=($(compgen -W "enabled= reference= interval= warn= error= threshold= managers=" -- "$cur"))
        compopt -o nospace
        return
      fi ;;
    status) opts="--machine --json --watch --count" ;;
    server) subs="test"; opts="--machine --json" ;;
    applet) opts="--machine --stdio" ;;
    *) return ;;
  esac
  if [[ $cur == -* ]]; then
    COMPREPLY=($(compgen -W "$opts --help" -- "$cur"))
  elif [[ -n $subs ]] && ((cword == 2)) || [[ $command == service && $sub == start-type && $cword == 3 ]] ||
       [[ $command == kr2 && $cword == 3 ]]; then
    COMPREPLY=($(compgen -W "$subs" -- "$cur"))
  else
    _filedir
  fi
} &&
  complete -F _chronwarden chronwarden
