#!/bin/sh
# Runs for the lifetime of one SSH session as the leader of its process group, so that a reload finds each session once,
# as the group to be signalled, and sees when it has ended.
#
# Descriptor 3 passes the program of the session to session_start.
set -u

# The shell redirects the standard input of background commands to /dev/null, so the session's input is passed on
# another descriptor.
exec 4<&0
/usr/libexec/ssh_cfg_agent/session_start <&4 4<&- &
session=$!

# An interactive shell leads its own group, which signals to this one do not reach, and ignores SIGTERM: it ends with
# its terminal. Any process still in this group has received the signal and may have reasons to stay.
# shellcheck disable=SC2317 # Called by a trap, like hang_up.
end_session() {
    interrupted=1
    read -r state <"/proc/$session/stat" || return
    # After the name, which may contain anything: state, parent, group.
    group=${state##*) }
    group=${group#* }
    group=${group#* }
    [ "${group%% *}" = "$$" ] || hang_up
}

# The kernel reports a hang-up only to the session leader. A stopped process must be continued to receive it.
# shellcheck disable=SC2317
hang_up() {
    interrupted=1
    kill -s HUP "$session" && kill -s CONT "$session"
}

# From here on, since an earlier signal must end both. These are handlers, because ignored signals would be inherited.
trap 'interrupted=1' INT QUIT ABRT ALRM PIPE USR1 USR2
trap end_session TERM
if [ -t 4 ]; then trap hang_up HUP; else trap 'interrupted=1' HUP; fi

# The peer must see the session's input and output closed as soon as the session closes them.
exec </dev/null >/dev/null 2>&1 4<&-

# A signal interrupts the wait, not the session.
interrupted=1
while [ -n "$interrupted" ]; do
    interrupted=
    wait "$session"
    status=$?
done

# Only the shell's job status tells a command killed by a signal from one that exited with that status. The leader then
# kills itself with the same signal, without dumping core, for sshd to report.
if [ "$status" -gt 128 ]; then
    ending=
    jobs >/proc/self/fd/3
    read -r ending </proc/self/fd/3
    case $ending in
    *'Done('*) ;;
    *)
        # shellcheck disable=SC3045 # Supported by Debian's sh.
        ulimit -c 0
        trap - HUP INT QUIT ABRT ALRM PIPE TERM USR1 USR2
        kill -s "$((status - 128))" "$$"
        ;;
    esac
fi
exit "$status"
