# Completes orvanectl in bash. Uses the functions of bash-completion.

# Completes hosts of the list: of the sites of the group $1 or, without it, of all groups with their exceptions. If the
# user may not read the list, offers no hosts and prints no error.
_orvanectl_hosts() {
  mapfile -t COMPREPLY < <(orvanectl ${list:+--list "$list"} export ${1:+--group "$1"} 2>/dev/null |
    typed=$cur group=$1 awk 'NF > 0 && index($1, ENVIRON["typed"]) == 1 && !/^\[/ && $2 != "=" &&
      (ENVIRON["group"] == "" || $2 != "allowed") { print $1 }')
}

# Completes the hosts of the objects of "list --json" that match $1.
_orvanectl_hosts_with() {
  _orvanectl_words "$(orvanectl ${list:+--list "$list"} list --group "$group" --json 2>/dev/null | grep -F "$1" |
    grep -o '"host":"[^"]*"' | cut -d '"' -f 4)"
}

# Completes the names of the read-only lists, or a path.
_orvanectl_read_only_lists() {
  [[ $cur == */* ]] && { _filedir; return; }
  _orvanectl_words "$(cd "${dropins:-/etc/orvane-se/lists.d}" 2>/dev/null && compgen -G '*.list'
    cd "${fetched:-/var/lib/orvane-fetcher/lists}" 2>/dev/null && compgen -G '*.list')"
}

# Completes the groups of the list, without the group $1.
_orvanectl_groups() {
  _orvanectl_words "$(orvanectl ${list:+--list "$list"} --json group list 2>/dev/null | grep -o '"name": *"[^"]*"' |
    cut -d '"' -f 4 | grep -vxF "${1:-}")"
}

# Completes the ids of sites, or with the argument 2, their categories.
_orvanectl_sites() {
  _orvanectl_words "$(orvanectl ${catalogue:+--catalogue "$catalogue"} sites list 2>/dev/null |
    awk -v column="${1:-1}" '{ print $column }' | sort -u)"
}

_orvanectl_subscriptions() {
  _orvanectl_words "$(orvanectl ${list:+--list "$list"} subscriptions 2>/dev/null |
    awk 'NR > 1 { print $1 }')"
}

# Completes the words of $1. compgen -W would expand them, and so run a command that the name of a file contains. Words
# that the shell would expand on the command line are left out.
_orvanectl_words() {
  mapfile -t COMPREPLY < <(tr -s ' \t' '\n' <<<"$1" |
    cur=$cur awk 'index($0, ENVIRON["cur"]) == 1 && /^[A-Za-z0-9._:\/+-]+$/')
}

_orvanectl() {
  local cur prev words cword split
  _init_completion -s || return

  # Find the command (the words that are neither options nor values of options), the list, the group and the catalogue.
  local command='' list='' group=default catalogue='' dropins='' fetched='' i
  for ((i = 1; i < cword; i++)); do
    case ${words[i]} in
      --list) list=${words[++i]} ;;
      --list=*) list=${words[i]#*=} ;;
      --group) group=${words[++i]} ;;
      --group=*) group=${words[i]#*=} ;;
      --catalogue) catalogue=${words[++i]} ;;
      --catalogue=*) catalogue=${words[i]#*=} ;;
      --drop-ins) dropins=${words[++i]} ;;
      --drop-ins=*) dropins=${words[i]#*=} ;;
      --fetched) fetched=${words[++i]} ;;
      --fetched=*) fetched=${words[i]#*=} ;;
      --service | --socket | --state | --from | --for | --since | --until | --dont-block-until | --interval | --site | --category | --name | --every | --key)
        ((i++))
        ;;
      -*) ;;
      *)
        case $command in
          '') command=${words[i]} ;;
          browsers | 'browsers policy' | group | sites | help | help\ *) command+=" ${words[i]}" ;;
        esac
        ;;
    esac
  done

  [[ $command == list && $prev == --from ]] && { _orvanectl_read_only_lists; return; }
  case $prev in
    --list | --socket | --state | --from | --key) _filedir; return ;;
    --catalogue | --drop-ins | --fetched) _filedir -d; return ;;
    --site) _orvanectl_sites; return ;;
    --category) _orvanectl_sites 2; return ;;
    --group) _orvanectl_groups; return ;;
    --for) _orvanectl_words '15m 30m 1h 2h 1d'; return ;;
    --since) _orvanectl_words 'today yesterday monday'; return ;;
    --until) _orvanectl_words '18:00 monday'; return ;;
    --every) _orvanectl_words '1h 6h 12h 24h 7d'; return ;;
    --service | --dont-block-until | --interval | --name) return ;;
  esac
  $split && return

  if [[ $cur == -* ]]; then
    local options='--help --json --catalogue --drop-ins --fetched --list --service --socket --state'
    case $command in
      '') options+=' --version' ;;
      block) options+=' --exact --group --site --category' ;;
      try) options+=' --site --category' ;;
      allow) options+=' --group' ;;
      import) options+=' --subdomains --exact --group --replace --undo' ;;
      list) options+=' --from --group' ;;
      export) options+=' --group --hosts' ;;
      suspend) options+=' --all --from --group --site --category --for --until' ;;
      unblock | resume) options+=' --all --from --group --site --category' ;;
      disallow) options+=' --all --from --group' ;;
      subscribe) options+=' --name --group --every --key --insecure' ;;
      refresh) options+=' --accept' ;;
      'sites list') options+=' --category' ;;
      lock) options+=' --group --for --until' ;;
      statistics) options+=' --since --until --all --plot' ;;
      properties) options+=' --dont-block-until' ;;
      watch) options+=' --interval' ;;
    esac
    _orvanectl_words "$options"
    return
  fi

  local commands='block unblock allow disallow list suspend resume import export subscribe unsubscribe
    subscriptions refresh sites group lock status try keep doctor
    statistics browsers ping state changes start stop add remove set properties watch call help'
  case $command in
    '' | help) _orvanectl_words "$commands" ;;
    sites | 'help sites') _orvanectl_words 'list show search' ;;
    'sites show') _orvanectl_sites ;;
    group | 'help group') _orvanectl_words 'add remove list show enable disable schedule delay' ;;
    'group remove') [[ $prev == remove ]] && _orvanectl_groups default ;;
    'group show' | 'group enable' | 'group disable' | 'group schedule' | 'group delay')
      [[ $prev == "${command#group }" ]] && _orvanectl_groups
      ;;
    browsers | 'help browsers') _orvanectl_words 'policy' ;;
    'browsers policy' | 'help browsers policy') _orvanectl_words 'install remove show' ;;
    resume) _orvanectl_hosts_with '"suspended":true' ;;
    disallow) _orvanectl_hosts_with '"scope":"exception"' ;;
    unblock | suspend) _orvanectl_hosts "$group" ;;
    try) _orvanectl_hosts ;;
    unsubscribe | refresh) _orvanectl_subscriptions ;;
    import | set) _filedir ;;
    call)
      [[ $prev == call ]] && _orvanectl_words 'pingWithReply getAppFilterStateWithReply start stop
        addApplicationIdentifier removeApplicationIdentifier setApplicationIdentifiers addHostname removeHostname
        setHostnames setProperties getChangesCount'
      ;;
  esac
} && complete -F _orvanectl orvanectl
