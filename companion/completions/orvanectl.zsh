#compdef orvanectl
# Completion of orvanectl for zsh.

# Hosts of the list. Without a word where the list may not be read.
_orvanectl_hosts() {
  local -a hosts
  local list=${opt_args[--list]:-$before[--list]}
  hosts=(${(f)"$(orvanectl ${list:+--list} ${list:+"$list"} export --hosts 2>/dev/null)"})
  _wanted hosts expl 'host of the list' compadd -a hosts
}

_orvanectl_commands() {
  local -a list service browsers extension
  list=(
    'block:block sites, from now on and after every start'
    'unblock:take sites off the list'
    'list:print the list'
    'suspend:leave sites unblocked for a while'
    'resume:block suspended sites again at once'
    'import:add the names of a file to the list'
    'export:print the list as import takes it back'
  )
  service=(
    'status:show whether the list is in force'
    'try:tell whether a host is blocked now, and why'
    'keep:keep the list in the extension'
    'doctor:look for what keeps hosts from being blocked'
  )
  browsers=('browsers:settings of browsers')
  extension=(
    'ping:ask whether the extension answers'
    "state:print the application filter's state"
    'changes:print how many edits the extension has received'
    'start:send the start command'
    'stop:send the stop command'
    'add:block hosts until the extension ends'
    'remove:stop blocking hosts'
    'set:block the hosts of a list, and no others'
    "properties:replace a host's properties"
    'watch:print the count of edits whenever it has moved'
    'call:send one message of the protocol'
  )
  _describe -t list-commands 'list' list
  _describe -t service-commands 'service' service
  _describe -t browser-commands 'browsers' browsers
  _describe -t extension-commands 'running extension' extension
}

_orvanectl_browsers() {
  local -a commands
  case $CURRENT in
    2)
      commands=('policy:managed policies that switch off what the filter cannot see')
      _describe -t commands 'command' commands
      ;;
    3)
      commands=(
        'install:switch off HTTP/3'
        'remove:remove what install wrote'
        'show:print what policies say'
      )
      _describe -t commands 'command' commands
      ;;
    *)
      shift 2 words
      (( CURRENT -= 2 ))
      if [[ $words[1] == install ]]; then
        _arguments $common '--no-doh[switch off DNS over HTTPS, too]'
      else
        _arguments $common
      fi
      ;;
  esac
}

_orvanectl() {
  local context state state_descr line curcontext=$curcontext
  local -A opt_args
  local -a common www
  common=(
    '(- *)'{-h,--help}'[explain]'
    '--json[print results as JSON]'
    '--list=[the file of the list]:file:_files'
    "--service=[the extension's service name]:name:"
    "--socket=[the extension's socket]:socket:_files"
    '--state=[the file with the state of the keeper]:file:_files'
  )
  www=('(--no-www)--www[under the usual names, too]' '(--www)--no-www[under the very names alone]')

  _arguments -C $common '(- *)--version[print the version]' '(-): :_orvanectl_commands' \
    '(-)*:: :->arguments' && return
  [[ $state == arguments ]] || return
  local -A before=("${(@kv)opt_args}") # options that stand before the command
  case $words[1] in
    block) _arguments $common $www '*:host:' ;;
    unblock) _arguments $common '*:host:_orvanectl_hosts' ;;
    resume) _arguments $common '--all[all sites on the list]' '*:host:_orvanectl_hosts' ;;
    try) _arguments $common ':host:_orvanectl_hosts' ;;
    suspend)
      _arguments $common '--all[all sites on the list]' '(--until)--for=[how long]:duration:(15m 30m 1h 2h 1d)' \
        '(--for)--until=[until when]:time:(tomorrow)' '*:host:_orvanectl_hosts'
      ;;
    import) _arguments $common $www '--replace[take everything else off the list]' ':file:_files' ;;
    export) _arguments $common "--hosts[the sites' names alone]" ;;
    browsers) _orvanectl_browsers ;;
    add | remove) _arguments $common '*:host:' ;;
    set) _arguments $common ':file:_files' ;;
    properties) _arguments $common '--dont-block-until=[suspend until a time]:time:' ':host:' ':JSON:' ;;
    watch) _arguments $common '--interval=[seconds between two looks]:seconds:' ;;
    call)
      _arguments $common ':method:(pingWithReply getAppFilterStateWithReply start stop addApplicationIdentifier
        removeApplicationIdentifier setApplicationIdentifiers addHostname removeHostname setHostnames setProperties
        getChangesCount)' '*:argument:'
      ;;
    *) _arguments $common ;;
  esac
}

_orvanectl "$@"
