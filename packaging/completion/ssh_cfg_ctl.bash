# Completion of ssh_cfg_ctl for bash. The agent is queried for paths, lists and debug flags; for users who may not query it,
# only calls and options are completed.
#
# Names come from others (access lists, network namespaces), so they are never expanded by the shell: candidates are lines,
# and one with a character that the shell would interpret is not offered.

_ssh_cfg_ctl_calls=(acl debug delete dump get key list load reload repair set show status trace verify vrf watch)
_ssh_cfg_ctl_options=(--json --progress --timeout --socket --help --version)
_ssh_cfg_ctl_records=(/oper/crypto-ssh/gl/session_xml/brief /oper/crypto-ssh/gl/session_xml/detail
    /oper/crypto-ssh/gl/server-params /oper/crypto-ssh/client/brief)

# Queries the agent. Prints nothing if it does not answer within two seconds.
_ssh_cfg_ctl_ask() {
    ssh_cfg_ctl --timeout 2 "$@" 2>/dev/null
}

# The VRFs that have a network namespace.
_ssh_cfg_ctl_vrfs() {
    local name
    for name in /run/netns/vrf-*; do
        [[ ! -e $name ]] || printf '%s\n' "${name#/run/netns/vrf-}"
    done
}

# The paths that continue a path by one component.
_ssh_cfg_ctl_paths() {
    local folder=${1%/*}/ name
    while IFS= read -r name; do
        [[ $name == \** ]] || printf '%s\n' "$folder$name"
    done < <(
        _ssh_cfg_ctl_ask list --all "$folder"
        case $folder in
        */sshd/vrf/ | */sshd/vrf-netconf/) _ssh_cfg_ctl_vrfs ;;
        esac
    )
}

# The members "name" of an answer in JSON.
_ssh_cfg_ctl_names() {
    _ssh_cfg_ctl_ask --json "$@" | tr ',{}[]' '\n' | sed -n 's/^"name":"\(.*\)"$/\1/p'
}

# Prints the candidates, one per line, for the argument that follows these words: the call and its arguments so far.
_ssh_cfg_ctl_arguments() {
    case "$*" in
    'set' | 'delete' | 'get' | 'list' | 'list --all') _ssh_cfg_ctl_paths "$current" ;;
    'show') printf '%s\n' "${_ssh_cfg_ctl_records[@]}" ;;
    'load') printf '%s\n' --check ;;
    'status') printf '%s\n' --check ;;
    'reload') printf '%s\n' --timeout ;;
    'acl') printf '%s\n' set show delete list ;;
    'acl set') printf '%s\n' --empty ipv4 ipv6 ;;
    'acl show' | 'acl delete' | 'acl set --empty') printf '%s\n' ipv4 ipv6 ;;
    'acl '*' ipv4' | 'acl '*' ipv6') _ssh_cfg_ctl_names acl list ;;
    'key') printf '%s\n' list import delete ;;
    'key import' | 'key delete') compgen -u ;;
    'vrf') printf '%s\n' list unblock ;;
    'vrf unblock') _ssh_cfg_ctl_vrfs ;;
    'debug') _ssh_cfg_ctl_names debug ;;
    'debug '*) printf '%s\n' on off ;;
    'trace') printf '%s\n' error event ;;
    esac
}

# Prints the candidates for the current word, one per line.
_ssh_cfg_ctl_candidates() { # WORD...
    if (($# == 0)); then
        [[ $current == -* ]] || printf '%s\n' "${_ssh_cfg_ctl_calls[@]}"
    else
        _ssh_cfg_ctl_arguments "$@"
    fi
    [[ $current != -* ]] || printf '%s\n' "${_ssh_cfg_ctl_options[@]}"
}

_ssh_cfg_ctl() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]} word words=() candidate
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
    COMPREPLY=()
    while IFS= read -r candidate; do
        if [[ $candidate == "$current"* && $candidate =~ ^[[:alnum:]_./:@%+,=-]+$ ]]; then
            COMPREPLY+=("$candidate")
        fi
    done < <(_ssh_cfg_ctl_candidates "${words[@]}" | sort -u)
    case ${words[0]-} in
    load | acl | key) ((${#COMPREPLY[@]})) || compopt -o default 2>/dev/null ;;
    esac
    # A path continues after its slash.
    if ((${#COMPREPLY[@]} == 1)) && [[ ${COMPREPLY[0]} == */ ]]; then
        compopt -o nospace 2>/dev/null
    fi
}

complete -F _ssh_cfg_ctl ssh_cfg_ctl
