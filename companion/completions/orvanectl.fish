# Completes orvanectl in fish.

# Prints the hosts of the list: with an argument, those of the group that the command acts on, otherwise all. If the
# user may not read the list, prints no hosts and no error.
function __orvanectl_hosts
    set -l words (commandline -opc)
    set -l list
    set -l group
    set -q argv[1]; and set group --group default
    for i in (seq (count $words))
        switch $words[$i]
            case --list
                set list --list $words[(math $i + 1)]
            case '--list=*'
                set list $words[$i]
            case --group
                set group --group $words[(math $i + 1)]
            case '--group=*'
                set group $words[$i]
        end
    end
    command -q orvanectl; and command orvanectl $list export $group 2>/dev/null | string match -rv '^\[| = |^$' | string replace -r ' .*' ''
end

function __orvanectl_groups
    command -q orvanectl; and command orvanectl --json group list 2>/dev/null | string match -rag '"name": *"([^"]*)"'
end

# Prints the ids of the sites of the catalogue, or with the argument 2, their categories.
function __orvanectl_sites
    set -q argv[1]; or set argv 1
    command -q orvanectl; and command orvanectl sites list 2>/dev/null | awk -v column=$argv[1] '{ print $column }' | sort -u
end

function __orvanectl_subscriptions
    command -q orvanectl; and command orvanectl subscriptions 2>/dev/null | awk 'NR > 1 { print $1 }'
end

function __orvanectl_command -d 'Test whether the command is one of the arguments; without arguments, whether no command is typed yet'
    set -l options --drop-ins --fetched --list --service --socket --state --from --for --since --until --dont-block-until --interval --group --catalogue --site --category --name --every --key
    set -l words (commandline -opc)
    set -l skip
    for word in $words[2..]
        if set -q skip[1]
            set -e skip
        else if contains -- $word $options
            set skip 1
        else if not string match -q -- '-*' $word
            contains -- $word $argv
            return
        end
    end
    not set -q argv[1]
end

function __orvanectl_policy -d 'Test whether "browsers policy" still lacks its command'
    __fish_seen_subcommand_from policy; and not __fish_seen_subcommand_from install remove show
end

function __orvanectl_group -d 'Test whether "group" still lacks its command'
    __orvanectl_command group; and not __fish_seen_subcommand_from add remove list show enable disable schedule delay
end

function __orvanectl_catalogue -d 'Test whether "sites" still lacks its command'
    __orvanectl_command sites; and not __fish_seen_subcommand_from list show search
end

complete -c orvanectl -f
complete -c orvanectl -s h -l help -d 'Print help'
complete -c orvanectl -l json -d 'Print results as JSON'
complete -c orvanectl -l catalogue -rF -d 'The folder of the catalogue of sites'
complete -c orvanectl -l drop-ins -rF -d "The folder of the administrator's lists"
complete -c orvanectl -l fetched -rF -d 'The folder of the fetched lists'
complete -c orvanectl -l list -rF -d "The list's file"
complete -c orvanectl -l service -x -d "The extension's service name"
complete -c orvanectl -l socket -rF -d "The extension's socket"
complete -c orvanectl -l state -rF -d "The keeper's state file"
complete -c orvanectl -n __orvanectl_command -l version -d 'Print the version'

complete -c orvanectl -n __orvanectl_command -a block -d 'Block sites, from now on and after every start'
complete -c orvanectl -n __orvanectl_command -a unblock -d 'Remove sites from the list'
complete -c orvanectl -n __orvanectl_command -a allow -d 'Do not block hosts that a blocked site covers'
complete -c orvanectl -n __orvanectl_command -a disallow -d 'Remove exceptions from the list'
complete -c orvanectl -n __orvanectl_command -a list -d 'Print the list'
complete -c orvanectl -n __orvanectl_command -a suspend -d 'Unblock sites for a while'
complete -c orvanectl -n __orvanectl_command -a resume -d 'Block suspended sites again at once'
complete -c orvanectl -n __orvanectl_command -a import -d 'Add the names of a file to the list'
complete -c orvanectl -n __orvanectl_command -a export -d 'Print the list in a form that import reads'
complete -c orvanectl -n __orvanectl_command -a subscribe -d 'Add the list at a URL, and keep it up to date'
complete -c orvanectl -n __orvanectl_command -a unsubscribe -d 'Remove a subscription and its names'
complete -c orvanectl -n __orvanectl_command -a subscriptions -d 'Print the subscriptions'
complete -c orvanectl -n __orvanectl_command -a refresh -d 'Fetch subscriptions now'
complete -c orvanectl -n __orvanectl_command -a sites -d 'The catalogue of sites'
complete -c orvanectl -n __orvanectl_command -a status -d 'Show whether the list is in force'
complete -c orvanectl -n __orvanectl_command -a try -d 'Show whether a host is blocked now, and why'
complete -c orvanectl -n __orvanectl_command -a group -d 'Groups of sites'
complete -c orvanectl -n __orvanectl_command -a lock -d 'Forbid removals from a group for a while'
complete -c orvanectl -n __orvanectl_command -a keep -d 'Run the keeper, which sends the list to the extension'
complete -c orvanectl -n __orvanectl_command -a doctor -d 'Check everything that blocking needs'
complete -c orvanectl -n __orvanectl_command -a statistics -d 'Print how often which hosts were blocked'
complete -c orvanectl -n __orvanectl_command -a browsers -d 'Browser settings'
complete -c orvanectl -n __orvanectl_command -a ping -d 'Check that the extension answers'
complete -c orvanectl -n __orvanectl_command -a state -d "Print the application filter's state"
complete -c orvanectl -n __orvanectl_command -a changes -d 'Print how many edits the extension has received'
complete -c orvanectl -n __orvanectl_command -a start -d 'Send the start command'
complete -c orvanectl -n __orvanectl_command -a stop -d 'Send the stop command'
complete -c orvanectl -n __orvanectl_command -a add -d 'Block hosts until the extension ends or the list changes'
complete -c orvanectl -n __orvanectl_command -a remove -d 'Stop blocking hosts until the extension ends or the list changes'
complete -c orvanectl -n __orvanectl_command -a set -d 'Block the hosts of a file and no others'
complete -c orvanectl -n __orvanectl_command -a properties -d "Replace a host's properties"
complete -c orvanectl -n __orvanectl_command -a watch -d 'Print the number of edits after each change'
complete -c orvanectl -n __orvanectl_command -a call -d 'Send one message of the protocol'
complete -c orvanectl -n __orvanectl_command -a help -d 'Print the help of a command'

complete -c orvanectl -n '__orvanectl_command block import' -l exact -d 'Block the exact names only'
complete -c orvanectl -n '__orvanectl_command import' -l subdomains -d 'Block all sites with their subdomains'
complete -c orvanectl -n '__orvanectl_command import' -l replace -d 'Remove all other sites of the groups'
complete -c orvanectl -n '__orvanectl_command import' -l undo -d 'Take the last import back'
complete -c orvanectl -n '__orvanectl_command import set' -F
complete -c orvanectl -n '__orvanectl_command export' -l hosts -d 'Print only the hosts'
complete -c orvanectl -n '__orvanectl_command subscribe' -l name -x -d "The subscription's name"
complete -c orvanectl -n '__orvanectl_command subscribe' -l every -x -a '1h 6h 12h 24h 7d' -d 'The time between two fetches'
complete -c orvanectl -n '__orvanectl_command subscribe' -l key -rF -d 'The key that signs the copies, or its file'
complete -c orvanectl -n '__orvanectl_command subscribe' -l insecure -d 'Allow http'
complete -c orvanectl -n '__orvanectl_command refresh' -l accept -d 'Accept a copy that has shrunk'
complete -c orvanectl -n '__orvanectl_command unsubscribe refresh' -a '(__orvanectl_subscriptions)'
complete -c orvanectl -n '__orvanectl_command unblock disallow suspend resume' -l all -d 'All sites of the group'
complete -c orvanectl -n '__orvanectl_command unblock disallow suspend resume' -l from -rF -d 'The hosts of a file'
complete -c orvanectl -n '__orvanectl_command list' -l from -rF -d 'A read-only list'
complete -c orvanectl -n '__orvanectl_command block unblock suspend resume try' -l site -x -a '(__orvanectl_sites)' -d 'All hosts of a site'
complete -c orvanectl -n '__orvanectl_command block unblock suspend resume try' -l category -x -a '(__orvanectl_sites 2)' -d 'All sites of a category'
complete -c orvanectl -n __orvanectl_catalogue -a list -d 'Print all sites'
complete -c orvanectl -n __orvanectl_catalogue -a show -d 'Print the hosts of sites'
complete -c orvanectl -n __orvanectl_catalogue -a search -d 'Print the sites with a word'
complete -c orvanectl -n '__orvanectl_command sites; and __fish_seen_subcommand_from show' -a '(__orvanectl_sites)'
complete -c orvanectl -n '__orvanectl_command sites; and __fish_seen_subcommand_from list' -l category -x -a '(__orvanectl_sites 2)' -d 'Only a category'
complete -c orvanectl -n __orvanectl_group -a add -d 'Add a group'
complete -c orvanectl -n __orvanectl_group -a remove -d 'Remove a group with its sites'
complete -c orvanectl -n __orvanectl_group -a list -d 'Print the groups'
complete -c orvanectl -n __orvanectl_group -a show -d 'Print one group'
complete -c orvanectl -n __orvanectl_group -a enable -d 'Put a group in force'
complete -c orvanectl -n __orvanectl_group -a disable -d 'Put a group out of force'
complete -c orvanectl -n __orvanectl_group -a schedule -d 'Set when a group is in force'
complete -c orvanectl -n __orvanectl_group -a delay -d 'Set when a removal has an effect'
complete -c orvanectl -n '__orvanectl_command group; and __fish_seen_subcommand_from show enable disable schedule delay' \
    -a '(__orvanectl_groups)'
complete -c orvanectl -n '__orvanectl_command group; and __fish_seen_subcommand_from remove' \
    -a '(__orvanectl_groups | string match -v default)'
complete -c orvanectl -n '__orvanectl_command block unblock allow disallow suspend resume list import export subscribe lock' -l group -x -a '(__orvanectl_groups)' -d 'The group'
complete -c orvanectl -n '__orvanectl_command suspend lock' -l for -x -a '15m 30m 1h 2h 1d' -d 'How long'
complete -c orvanectl -n '__orvanectl_command suspend lock' -l until -x -a '18:00 monday' -d 'Until when'
complete -c orvanectl -n '__orvanectl_command unblock disallow suspend resume' -a '(__orvanectl_hosts group)'
complete -c orvanectl -n '__orvanectl_command try' -a '(__orvanectl_hosts)'
complete -c orvanectl -n '__orvanectl_command statistics' -l since -x -a 'today yesterday monday' -d 'From when'
complete -c orvanectl -n '__orvanectl_command statistics' -l until -x -a 'today yesterday 18:00' -d 'Until when'
complete -c orvanectl -n '__orvanectl_command statistics' -l all -d 'Print all hosts'
complete -c orvanectl -n '__orvanectl_command statistics' -l plot -d 'Print a bar for each hour or day, too'
complete -c orvanectl -n '__orvanectl_command properties' -l dont-block-until -x -d 'Suspend until a time'
complete -c orvanectl -n '__orvanectl_command watch' -l interval -x -d 'Seconds between two requests'
complete -c orvanectl -n '__orvanectl_command call' -a 'pingWithReply getAppFilterStateWithReply start stop
    addApplicationIdentifier removeApplicationIdentifier setApplicationIdentifiers addHostname removeHostname
    setHostnames setProperties getChangesCount'
complete -c orvanectl -n '__orvanectl_command browsers; and not __fish_seen_subcommand_from policy' -a policy \
    -d 'Policies that switch off what hides host names'
complete -c orvanectl -n __orvanectl_policy -a install -d 'Switch off what hides host names'
complete -c orvanectl -n __orvanectl_policy -a remove -d 'Remove the policies that install wrote'
complete -c orvanectl -n __orvanectl_policy -a show -d 'Print the policies'
