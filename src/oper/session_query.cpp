#include "oper/session_query.h"

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/debug.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/shell_command.h"
#include "core/text.h"
#include "oper/trace_points.h"

namespace {

constexpr timeval peer_timeout = {.tv_sec = 0, .tv_usec = 100000};
constexpr size_t line_size = 4096;
constexpr size_t command_size = 300;

/// Differences between server and client processes.
struct session_peers {
    const char* routine;
    const char* collector;
    int (*query)(session_snapshot* snapshot, int pid);
    const char* command_format;  ///< lists the processes; at most one "%s"
    const char* program;         ///< replaces the "%s"
    const char* pid_file;
    bool accepts_short_answer;
    bool logs_receive_failure;  ///< otherwise a debug line
    const char* connected;
    const char* send_failed;
    const char* timed_out;
    const char* not_found;
};

constexpr session_peers server_peers = {
    .routine = "connectToSSHDaemon",
    .collector = "ssh_oper_collect_server_sessions",
    .query = connectToSSHDaemon,
    .command_format =
        "ps -ef | grep 'sshd:' | grep 'priv' | grep -v 'grep' | awk '{print $2}' > /tmp/norvo_ssh_oper_pid.txt",
    .program = nullptr,
    .pid_file = paths::server_session_pid_file,
    .accepts_short_answer = false,
    .logs_receive_failure = false,
    .connected = "connected to monitor process",
    .send_failed = "Error:=%s(0x%x), PID:=%d, send to ssh  process failed",
    .timed_out = "No data from SSH server within timeout",
    .not_found = "Error:=%s(0x%x), cannot find running monitor processess",
};

constexpr session_peers client_peers = {
    .routine = "connectToSSHClient",
    .collector = "ssh_oper_collect_client_sessions",
    .query = connectToSSHClient,
    .command_format = "ps -ef | grep '%s ' | grep -v 'grep' |awk '{print $2}' > /tmp/norvossh_client_oper_pid.txt",
    .program = paths::ssh_client_program,
    .pid_file = paths::client_session_pid_file,
    .accepts_short_answer = true,
    .logs_receive_failure = true,
    .connected = "connected to ssh client process",
    .send_failed = "Error:=%s(0x%x), PID:=%d, send to ssh  client failed",
    .timed_out = "No data from SSH client within timeout",
    .not_found = "Error:=%s(0x%x), cannot find running client processess",
};

unsigned error_number() {
    return static_cast<unsigned>(errno);
}

bool set_timeout(int descriptor, int option) {
    if (setsockopt(descriptor, SOL_SOCKET, option, &peer_timeout, sizeof(peer_timeout)) == 0) {
        return true;
    }
    debug_print("Error:=%s(0x%x), Option:=%d, socket option set failed", strerror(errno), error_number(), option);
    trace_error(oper_trace_socket_option, {errno, option});
    return false;
}

bool connect_to(int descriptor, int pid) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    format_text(address.sun_path, sizeof(address.sun_path), "%s%d", paths::session_socket_prefix, pid);
    debug_print("%s", address.sun_path);
    if (!set_timeout(descriptor, SO_RCVTIMEO) || !set_timeout(descriptor, SO_SNDTIMEO)) {
        return false;
    }
    // The family and the path count, without the terminating NUL.
    const auto length = static_cast<socklen_t>(strlen(address.sun_path) + sizeof(address.sun_family));
    if (connect(descriptor, reinterpret_cast<const sockaddr*>(&address), length) != 0) {
        debug_print("Error:=%s(0x%x), client socket connection failed", strerror(errno), error_number());
        return false;
    }
    return true;
}

/// Checks the length of an answer. `error` is the errno value of the receive call.
int judge_answer(const session_peers& peers, session_snapshot* snapshot, ssize_t length, int error) {
    const auto whole = static_cast<ssize_t>(sizeof(*snapshot));
    if (length == whole || (peers.accepts_short_answer && length > 0)) {
        debug_print("%s, data received sessionid:=%d, length:=%d open-channels:=%d", peers.routine,
                    static_cast<int>(snapshot->session_id), static_cast<int>(length),
                    static_cast<int>(snapshot->open_channels));
        return 0;
    }
    if (length == -1 && error == EAGAIN) {
        debug_print("%s", peers.timed_out);
        snapshot->session_id = no_session;
        return 0;
    }
    if (peers.logs_receive_failure) {
        log_status(ERR_ERRNO, static_cast<platform_status>(error), "receive data failed");
    } else {
        debug_print("Error:=%s(0x%x), receive data failed", strerror(error), static_cast<unsigned>(error));
    }
    return -1;
}

int exchange(const session_peers& peers, int descriptor, session_snapshot* snapshot, int pid) {
    const session_request request = {0, 1, 0};
    if (send(descriptor, &request, sizeof(request), 0) < 0) {
        debug_print(peers.send_failed, strerror(errno), error_number(), pid);
        close(descriptor);
        return -1;
    }
    const ssize_t length = recv(descriptor, snapshot, sizeof(*snapshot), MSG_TRUNC);
    const int error = errno;
    close(descriptor);
    return judge_answer(peers, snapshot, length, error);
}

int query_process(const session_peers& peers, session_snapshot* snapshot, int pid) {
    const int descriptor = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        debug_print("Error:=%s(0x%x), client socket creation failed", strerror(errno), error_number());
        return -1;
    }
    if (!connect_to(descriptor, pid)) {
        close(descriptor);
        return -1;
    }
    debug_print("%s", peers.connected);
    return exchange(peers, descriptor, snapshot, pid);
}

size_t count_lines(FILE* file) {
    char line[line_size];
    size_t lines = 0;
    while (fgets(line, sizeof(line), file) != nullptr) {
        ++lines;
    }
    rewind(file);
    return lines;
}

/// Queries the process on each line. Returns the number of snapshots that were filled in.
uint32_t query_all(const session_peers& peers, FILE* pid_file, session_snapshot* snapshots, size_t room) {
    char line[line_size];
    uint32_t filled = 0;
    while (filled < room && fgets(line, sizeof(line), pid_file) != nullptr) {
        int pid = 0;
        if (sscanf(line, "%d\n", &pid) == 1 && pid > 0 && peers.query(&snapshots[filled], pid) == 0) {
            end_texts(&snapshots[filled++]);
        }
    }
    return filled;
}

int collect_sessions(const session_peers& peers, uint32_t* count, session_snapshot** snapshots) {
    *count = 0;
    *snapshots = nullptr;
    char command[command_size] = {};
    format_text(command, sizeof(command), peers.command_format, peers.program);
    if (run_shell_command(command, listing_limit) != 0) {
        debug_print(peers.not_found, strerror(errno), error_number());
        return errno;
    }
    FILE* pid_file = fopen(peers.pid_file, "re");
    if (pid_file == nullptr) {
        debug_print("Error:=%s(0x%x), pid file open failed", strerror(errno), error_number());
        return errno;
    }
    const size_t lines = count_lines(pid_file);
    auto* found = static_cast<session_snapshot*>(calloc(lines != 0 ? lines : 1, sizeof(session_snapshot)));
    if (found != nullptr) {
        *count = query_all(peers, pid_file, found, lines);
        qsort(found, *count, sizeof(*found), ssh_oper_session_cmp);
        *snapshots = found;
    } else {
        log_location(ERR_MALLOC, ENOMEM, peers.collector);
        trace_error(oper_trace_allocation, {peers.collector, ENOMEM});
    }
    fclose(pid_file);
    if (remove(peers.pid_file) != 0) {
        trace_error(oper_trace_pid_file, {peers.pid_file, errno});
    }
    return found != nullptr ? 0 : ENOMEM;
}

}  // namespace

int connectToSSHDaemon(session_snapshot* snapshot, int pid) {
    return query_process(server_peers, snapshot, pid);
}

int connectToSSHClient(session_snapshot* snapshot, int pid) {
    return query_process(client_peers, snapshot, pid);
}

int ssh_oper_collect_server_sessions(uint32_t* count, session_snapshot** snapshots) {
    return collect_sessions(server_peers, count, snapshots);
}

int ssh_oper_collect_client_sessions(uint32_t* count, session_snapshot** snapshots) {
    return collect_sessions(client_peers, count, snapshots);
}

int ssh_oper_session_cmp(const void* one, const void* other) {
    const uint32_t first = static_cast<const session_snapshot*>(one)->session_id;
    const uint32_t second = static_cast<const session_snapshot*>(other)->session_id;
    return first < second ? -1 : static_cast<int>(first > second);
}
