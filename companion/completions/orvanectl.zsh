#compdef orvanectl
# Completes orvanectl in zsh.

# Completes hosts of the list: of the group that the command acts on, or with the argument "all", of all groups. If the
# user may not read the list, offers no hosts and prints no error.
_orvanectl_hosts() {
  local -a hosts group=(--group "${opt_args[--group]:-default}")
  local list=${opt_args[--list]:-$before[--list]}
  [[ $argv[-1] == all ]] && group=()
  hosts=(${(f)"$(orvanectl ${list:+--list} ${list:+"$list"} export $group 2>/dev/null)"})
  _wanted hosts expl 'host of the list' compadd - ${${hosts:#(\[*|* = *)}%% *}
}

# Completes groups of the list: with the argument "default", without the group of this name.
_orvanectl_group_names() {
  local -a groups
  local list=${opt_args[--list]:-$before[--list]}
  groups=(${(f)"$(orvanectl ${list:+--list} ${list:+"$list"} --json group list 2>/dev/null |
    grep -o '"name": *"[^"]*"' | cut -d '"' -f 4)"})
  [[ $argv[-1] == default ]] && groups=(${groups:#default})
  _wanted groups expl 'group of the list' compadd -a groups
}

_orvanectl_subscription_names() {
  local -a names
  local list=${opt_args[--list]:-$before[--list]}
  names=(${(f)"$(orvanectl ${list:+--list} ${list:+"$list"} subscriptions 2>/dev/null | awk 'NR > 1 { print $1 }')"})
  _wanted subscriptions expl subscription compadd -a names
}

# Completes the words in a column of the catalogue: 1 has the ids of sites, 2 their categories.
_orvanectl_catalogue_column() {
  local -a entries
  local catalogue=${opt_args[--catalogue]:-$before[--catalogue]}
  entries=(${(f)"$(orvanectl ${catalogue:+--catalogue} ${catalogue:+"$catalogue"} sites list 2>/dev/null |
    awk -v column=$1 '{ print $column }' | sort -u)"})
  _wanted names expl "$2" compadd -a entries
}
_orvanectl_site_names() { _orvanectl_catalogue_column 1 'site of the catalogue' }
_orvanectl_categories() { _orvanectl_catalogue_column 2 'category of sites' }

_orvanectl_commands() {
  local -a list service browsers extension help
  list=(
    'block:block sites, from now on and after every start'
    'unblock:remove sites from the list'
    'allow:do not block hosts that a blocked site covers'
    'disallow:remove exceptions from the list'
    'list:print the list'
    'suspend:unblock sites for a while'
    'resume:block suspended sites again at once'
    'import:add the names of a file to the list'
    'export:print the list in a form that import reads'
    'subscribe:add the list at a URL, and keep it up to date'
    'unsubscribe:remove a subscription and its names'
    'subscriptions:print the subscriptions'
    'refresh:fetch subscriptions now'
    'sites:the catalogue of sites'
    'group:groups of sites'
    'lock:forbid removals from a group for a while'
  )
  service=(
    'status:show whether the list is in force'
    'try:show whether a host is blocked now, and why'
    'keep:run the keeper, which sends the list to the extension'
    'doctor:check everything that blocking needs'
    'statistics:print how often which hosts were blocked'
  )
  browsers=('browsers:browser settings')
  extension=(
    'ping:check that the extension answers'
    "state:print the application filter's state"
    'changes:print how many edits the extension has received'
    'start:send the start command'
    'stop:send the stop command'
    'add:block hosts until the extension ends or the list changes'
    'remove:stop blocking hosts'
    'set:block the hosts of a file and no others'
    "properties:replace a host's properties"
    'watch:print the number of edits after each change'
    'call:send one message of the protocol'
  )
  help=('help:print the help of a command')
  _describe -t list-commands 'list' list
  _describe -t service-commands 'service' service
  _describe -t browser-commands 'browsers' browsers
  _describe -t extension-commands 'running extension' extension
  _describe -t help-commands 'help' help
}

_orvanectl_browsers() {
  local -a commands
  case $CURRENT in
    2)
      commands=('policy:policies that switch off what hides host names')
      _describe -t commands 'command' commands
      ;;
    3)
      commands=(
        'install:switch off what hides host names'
        'remove:remove the policies that install wrote'
        'show:print the policies'
      )
      _describe -t commands 'command' commands
      ;;
    *)
      shift 2 words
      (( CURRENT -= 2 ))
      _arguments $common
      ;;
  esac
}

_orvanectl_group() {
  local -a commands
  if (( CURRENT == 2 )); then
    commands=(
      'add:add a group'
      'remove:remove a group with its sites'
      'list:print the groups'
      'show:print one group'
      'enable:put a group in force'
      'disable:put a group out of force'
      'schedule:set when a group is in force'
      'delay:set when a removal has an effect'
    )
    _describe -t commands 'command' commands
    return
  fi
  shift words
  (( CURRENT -= 1 ))
  case $words[1] in
    add) _arguments $common ':group:' ;;
    remove) _arguments $common ':group:{_orvanectl_group_names default}' ;;
    show | enable | disable) _arguments $common ':group:_orvanectl_group_names' ;;
    schedule) _arguments $common ':group:_orvanectl_group_names' '*:span:(always)' ;;
    delay) _arguments $common ':group:_orvanectl_group_names' ':delay:(15m off)' ;;
    *) _arguments $common ;;
  esac
}

_orvanectl_sites() {
  local -a commands
  if (( CURRENT == 2 )); then
    commands=('list:print all sites' 'show:print the hosts of sites' 'search:print the sites with a word')
    _describe -t commands 'command' commands
    return
  fi
  shift words
  (( CURRENT -= 1 ))
  case $words[1] in
    list) _arguments $common '--category=[only a category]:category:_orvanectl_categories' ;;
    show) _arguments $common '*:site:_orvanectl_site_names' ;;
    *) _arguments $common ':word:' ;;
  esac
}

_orvanectl() {
  local context state state_descr line curcontext=$curcontext
  local -A opt_args
  local -a common
  common=(
    '(- *)'{-h,--help}'[print help]'
    '--json[print results as JSON]'
    '--catalogue=[the folder of the catalogue of sites]:folder:_files -/'
    "--drop-ins=[the folder of the administrator's lists]:folder:_files -/"
    '--fetched=[the folder of the fetched lists]:folder:_files -/'
    "--list=[the list's file]:file:_files"
    "--service=[the extension's service name]:name:"
    "--socket=[the extension's socket]:socket:_files"
    "--state=[the keeper's state file]:file:_files"
  )

  _arguments -C $common '(- *)--version[print the version]' '(-): :_orvanectl_commands' \
    '(-)*:: :->arguments' && return
  [[ $state == arguments ]] || return
  local -a group=('--group=[the group]:group:_orvanectl_group_names')
  local -a catalogued=(
    '*--site=[all hosts of a site]:site:_orvanectl_site_names'
    '*--category=[all sites of a category]:category:_orvanectl_categories'
  )
  local -a listed=(
    '--all[all sites of the group]' '--from=[the hosts of a file]:file:_files' '*:host:_orvanectl_hosts'
  )
  local -A before=("${(@kv)opt_args}") # options before the command
  case $words[1] in
    block) _arguments $common $group $catalogued '--exact[block the exact names only]' '*:host:' ;;
    allow) _arguments $common $group '*:host:' ;;
    unblock | resume) _arguments $common $group $catalogued $listed ;;
    disallow) _arguments $common $group $listed ;;
    try) _arguments $common $catalogued ':host:{_orvanectl_hosts all}' ;;
    suspend)
      _arguments $common $group $catalogued $listed '(--until)--for=[how long]:duration:(15m 30m 1h 2h 1d)' \
        '(--for)--until=[until when]:time:(18\:00 monday)'
      ;;
    import)
      _arguments $common $group '(--exact)--subdomains[block all sites with their subdomains]' \
        '(--subdomains)--exact[block the exact names only]' '--replace[remove all other sites of the groups]' \
        '--undo[take the last import back]' ':file:_files'
      ;;
    subscribe)
      _arguments $common $group "--name=[the subscription's name]:name:" \
        '--every=[the time between two fetches]:time:(1h 6h 12h 24h 7d)' \
        '--key=[the key that signs the copies, or its file]:key:_files' '--insecure[allow http]' ':URL:_urls'
      ;;
    unsubscribe) _arguments $common ':subscription:_orvanectl_subscription_names' ;;
    refresh) _arguments $common '--accept[accept a copy that has shrunk]' ':subscription:_orvanectl_subscription_names' ;;
    sites) _orvanectl_sites ;;
    group) _orvanectl_group ;;
    lock)
      _arguments $common $group '(--until)--for=[how long]:duration:(30m 1h 2h 1d)' '(--for)--until=[until when]:time:(18\:00 monday)'
      ;;
    list) _arguments $common $group '--from=[a read-only list]:name or file:_files' ;;
    export) _arguments $common $group '--hosts[print only the hosts]' ;;
    statistics)
      _arguments $common '--since=[from when]:time:(today yesterday monday)' '--until=[until when]:time:(today 18\:00)' \
        '--all[print all hosts]' '--plot[print a bar for each hour or day, too]'
      ;;
    browsers) _orvanectl_browsers ;;
    help) _arguments $common ':command:_orvanectl_commands' ;;
    add | remove) _arguments $common '*:host:' ;;
    set) _arguments $common ':file:_files' ;;
    properties) _arguments $common '--dont-block-until=[suspend until a time]:time:' ':host:' ':JSON:' ;;
    watch) _arguments $common '--interval=[seconds between two requests]:seconds:' ;;
    call)
      _arguments $common ':method:(pingWithReply getAppFilterStateWithReply start stop addApplicationIdentifier
        removeApplicationIdentifier setApplicationIdentifiers addHostname removeHostname setHostnames setProperties
        getChangesCount)' '*:argument:'
      ;;
    *) _arguments $common ;;
  esac
}

_orvanectl "$@"
