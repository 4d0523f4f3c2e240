# Completion of ssh_cfg_ctl for bash. The tool knows its calls and options and asks the agent for paths, values and names; for
# users who may not query the agent, only calls and options are completed.
#
# Names come from others (access lists, network namespaces), so they are never expanded by the shell: candidates are lines,
# and one with a character that the shell would interpret is not offered.

_ssh_cfg_ctl() {
    local current=${COMP_WORDS[COMP_CWORD]} candidate
    case ${COMP_WORDS[COMP_CWORD - 1]} in
    --socket)
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
        return
        ;;
    --timeout) return ;;
    esac
    COMPREPLY=()
    while IFS= read -r candidate; do
        if [[ $candidate =~ ^[[:alnum:]_./:@%+,=-]+$ ]]; then
            COMPREPLY+=("$candidate")
        fi
    done < <(ssh_cfg_ctl complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null)
    ((${#COMPREPLY[@]})) || compopt -o default 2>/dev/null
    # A path continues after its slash.
    if ((${#COMPREPLY[@]} == 1)) && [[ ${COMPREPLY[0]} == */ ]]; then
        compopt -o nospace 2>/dev/null
    fi
}

complete -F _ssh_cfg_ctl ssh_cfg_ctl
