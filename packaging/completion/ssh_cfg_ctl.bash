# Completion of ssh_cfg_ctl for bash. The agent answers which paths, lists and users there are; for somebody who may not
# ask, only calls and options are completed.

_ssh_cfg_ctl_calls='acl debug delete dump get key list load reload repair set show status trace verify vrf watch'
_ssh_cfg_ctl_options='--json --progress --timeout --socket --help --version'
_ssh_cfg_ctl_records='/oper/crypto-ssh/gl/session_xml/brief /oper/crypto-ssh/gl/session_xml/detail
    /oper/crypto-ssh/gl/server-params /oper/crypto-ssh/client/brief'

# What the agent answers, or nothing. It is not waited for.
_ssh_cfg_ctl_ask() {
    ssh_cfg_ctl --timeout 2 "$@" 2>/dev/null
}

# The names that continue a path, one component at a time. VRFs are the network namespaces.
_ssh_cfg_ctl_paths() {
    local folder=${1%/*}/ name
    for name in $(set -f; _ssh_cfg_ctl_ask list --all "$folder"); do
        [[ $name == \** ]] || printf '%s\n' "$folder$name"
    done
    case $folder in
    */sshd/vrf/ | */sshd/vrf-netconf/)
        for name in /run/netns/vrf-*; do
            [[ ! -e $name ]] || printf '%s\n' "$folder${name#/run/netns/vrf-}"
        done
        ;;
    esac
}

# The names in a table's column that begins its lines, without the header.
_ssh_cfg_ctl_column() {
    _ssh_cfg_ctl_ask "${@:2}" | awk -v column="$1" 'NR > 1 { print $column }'
}

# Candidates for the argument behind the call and the words so far.
_ssh_cfg_ctl_arguments() {
    case "$*" in
    'set' | 'delete' | 'get' | 'list' | 'list --all') _ssh_cfg_ctl_paths "$current" ;;
    'show') printf '%s\n' "$_ssh_cfg_ctl_records" ;;
    'load') printf '%s\n' --check ;;
    'status') printf '%s\n' --check ;;
    'reload') printf '%s\n' --timeout ;;
    'acl') printf '%s\n' set show delete list ;;
    'acl set') printf '%s\n' --empty ipv4 ipv6 ;;
    'acl show' | 'acl delete' | 'acl set --empty') printf '%s\n' ipv4 ipv6 ;;
    'acl '*' ipv4' | 'acl '*' ipv6') _ssh_cfg_ctl_ask --json acl list | tr ',{}' '\n' | sed -n 's/^"name":"\(.*\)"$/\1/p' ;;
    'key') printf '%s\n' list import delete ;;
    'key import' | 'key delete') compgen -u ;;
    'vrf') printf '%s\n' list unblock ;;
    'vrf unblock') for name in /run/netns/vrf-*; do printf '%s\n' "${name#/run/netns/vrf-}"; done ;;
    'debug') _ssh_cfg_ctl_ask --json debug | tr ',{}[]' '\n' | sed -n 's/^"name":"\(.*\)"$/\1/p' ;;
    'debug '*) printf '%s\n' on off ;;
    'trace') printf '%s\n' error event ;;
    esac
}

_ssh_cfg_ctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} word name words=()
    local -i index
    case $previous in
    --socket)
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
        ;;
    --timeout) return ;;
    esac
    for ((index = 1; index < COMP_CWORD; index++)); do
        word=${COMP_WORDS[index]}
        case $word in
        --json | --progress) ;;
        --socket | --timeout) index+=1 ;;
        *) words+=("$word") ;;
        esac
    done
    local candidates
    if ((${#words[@]} == 0)); then
        candidates=$_ssh_cfg_ctl_calls
        [[ $current != -* ]] || candidates=$_ssh_cfg_ctl_options
    else
        candidates=$(_ssh_cfg_ctl_arguments "${words[@]}")
        [[ $current != -* ]] || candidates+=" $_ssh_cfg_ctl_options"
    fi
    mapfile -t COMPREPLY < <(compgen -W "$candidates" -- "$current")
    case ${words[0]-} in
    load | acl | key) ((${#COMPREPLY[@]})) || compopt -o default 2>/dev/null ;;
    esac
    # A path goes on behind its slash.
    if ((${#COMPREPLY[@]} == 1)) && [[ ${COMPREPLY[0]} == */ ]]; then
        compopt -o nospace 2>/dev/null
    fi
}

complete -F _ssh_cfg_ctl ssh_cfg_ctl
