#!/bin/sh
# Stands over one session of the SSH server: leads the session's process group for as long as its command runs, so that a
# reload finds each session once, as the group to be signalled, and sees when it has ended.
#
# What the session executes comes on descriptor 3, for session_start to take up.
set -u

# What is started without being waited for at once gets the null device as its standard input, so the session's own goes
# by another descriptor.
exec 4<&0
/usr/libexec/ssh_cfg_agent/session_start <&4 4<&- &
session=$!

# An interactive shell leads a group of its own, which signals to this one do not reach, and ignores SIGTERM besides: it
# ends with its terminal. Whatever stayed in this group has had the signal, and may have its reasons for staying.
# shellcheck disable=SC2317 # A trap calls it, and hang_up.
end_session() {
    interrupted=1
    read -r state <"/proc/$session/stat" || return
    # Behind the name, which may hold anything: state, parent, group.
    group=${state##*) }
    group=${group#* }
    group=${group#* }
    [ "${group%% *}" = "$$" ] || hang_up
}

# The kernel tells only the leader that the terminal has gone. What has stopped must be continued to hear of it.
# shellcheck disable=SC2317
hang_up() {
    interrupted=1
    kill -s HUP "$session" && kill -s CONT "$session"
}

# From here on, because a signal before this must end both. Handlers, because the session inherits what is ignored.
trap 'interrupted=1' INT QUIT ABRT ALRM PIPE USR1 USR2
trap end_session TERM
if [ -t 4 ]; then trap hang_up HUP; else trap 'interrupted=1' HUP; fi

# The other end must see the session's input and output closed when the session closes them.
exec </dev/null >/dev/null 2>&1 4<&-

# A signal ends the waiting, not the session.
interrupted=1
while [ -n "$interrupted" ]; do
    interrupted=
    wait "$session"
    status=$?
done

# A command that a signal has ended differs from one that ended with such a status in what the shell calls it only. The
# leader then ends by the same signal, without a core of its own, for sshd to report.
if [ "$status" -gt 128 ]; then
    ending=
    jobs >/proc/self/fd/3
    read -r ending </proc/self/fd/3
    case $ending in
    *'Done('*) ;;
    *)
        # shellcheck disable=SC3045 # Debian's sh knows it.
        ulimit -c 0
        trap - HUP INT QUIT ABRT ALRM PIPE TERM USR1 USR2
        kill -s "$((status - 128))" "$$"
        ;;
    esac
fi
exit "$status"
