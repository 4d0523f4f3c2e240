#include "session_peers.h"

#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "core/paths.h"

namespace {

constexpr int backlog = 16;
constexpr size_t request_size = 64;

void require(bool holds, const char* what) {
    if (!holds) {
        perror(what);
        abort();
    }
}

/// Not the library's call, which a test may have made to fail.
void close_descriptor(int descriptor) {
    syscall(SYS_close, descriptor);
}

std::string listing(const std::vector<int>& pids, const char* line) {
    std::string lines = "UID          PID    PPID  C STIME TTY          TIME CMD\n";
    for (const int pid : pids) {
        char text[128];
        snprintf(text, sizeof text, line, pid);
        lines += text;
    }
    return lines;
}

}  // namespace

session_peers::~session_peers() {
    if (process_ > 0) {
        syscall(SYS_kill, process_, SIGKILL);
        waitpid(process_, nullptr, 0);
    }
    for (const auto* peers : {&served_, &silent_}) {
        for (const peer& peer : *peers) {
            close_descriptor(peer.listener);
            syscall(SYS_unlink, peer.path.c_str());
        }
    }
}

void session_peers::listen_at(int pid, answer_maker maker, bool served) {
    const std::string path = paths::session_socket_prefix + std::to_string(pid);
    const auto listener = static_cast<int>(syscall(SYS_socket, AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    require(listener >= 0, "socket");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    require(syscall(SYS_bind, listener, &address, sizeof address.sun_family + path.size()) == 0, "bind");
    require(listen(listener, backlog) == 0, "listen");
    (served ? served_ : silent_).push_back({path, listener, std::move(maker), 0});
}

void session_peers::answer(int pid, std::string bytes) {
    answer(pid, [bytes = std::move(bytes)](uint32_t, std::string_view) { return bytes; });
}

void session_peers::answer(int pid, const session_snapshot& snapshot) {
    answer(pid, bytes_of(snapshot));
}

void session_peers::answer(int pid, answer_maker maker) {
    listen_at(pid, std::move(maker), true);
}

void session_peers::keep_silent(int pid) {
    listen_at(pid, {}, false);
}

void session_peers::hang_up(int pid) {
    listen_at(pid, {}, true);
}

void session_peers::serve(peer& served) {
    const int connection = accept4(served.listener, nullptr, nullptr, SOCK_CLOEXEC);
    char request[request_size];
    if (served.maker) {
        const ssize_t size = recvfrom(connection, request, sizeof request, 0, nullptr, nullptr);
        if (size > 0) {
            const std::string answer = served.maker(served.queries++, {request, static_cast<size_t>(size)});
            sendto(connection, answer.data(), answer.size(), MSG_NOSIGNAL, nullptr, 0);
        }
    }
    close_descriptor(connection);
}

void session_peers::serve_all() {
    std::vector<pollfd> listeners;
    for (const peer& peer : served_) {
        listeners.push_back({peer.listener, POLLIN, 0});
    }
    while (poll(listeners.data(), listeners.size(), -1) > 0) {
        for (size_t i = 0; i < listeners.size(); i++) {
            if (listeners[i].revents != 0) {
                serve(served_[i]);
            }
        }
    }
    _exit(EXIT_FAILURE);
}

void session_peers::start() {
    process_ = fork();
    require(process_ >= 0, "fork");
    if (process_ == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        // An answer must arrive within 100 ms, also on a busy machine.
        setpriority(PRIO_PROCESS, 0, -20);
        serve_all();
    }
}

void session_peers::stop() {
    require(syscall(SYS_kill, process_, SIGSTOP) == 0, "kill");
    int status = 0;
    waitpid(process_, &status, WUNTRACED);
}

std::string session_peers::listing_of_servers(const std::vector<int>& pids) {
    return listing(pids, "root     %7d       1  0 10:00 ?        00:00:00 norvosshd: ann [priv]\n");
}

std::string session_peers::listing_of_clients(const std::vector<int>& pids) {
    return listing(pids, "ann      %7d       1  0 10:00 ?        00:00:00 /pkg/bin/ssh_csm ann@192.0.2.7\n");
}

std::string bytes_of(const session_snapshot& snapshot) {
    return {reinterpret_cast<const char*>(&snapshot), sizeof snapshot};
}

session_snapshot usual_snapshot(uint32_t id) {
    session_snapshot snapshot = {};
    snapshot.session_id = id;
    snapshot.session_state = 4;
    snapshot.protocol_version = 2;
    for (uint32_t slot = 0; slot < channel_slots; slot++) {
        snapshot.channel_id[slot] = 100 + slot;
        snapshot.connection_type[slot] = 200 + slot;
        strcpy(snapshot.line[slot], "XXXXX");
    }
    strcpy(snapshot.line[1], "vty 3");
    snapshot.channel_state[0] = 1;
    snapshot.channel_state[3] = 2;
    snapshot.channel_state[8] = 3;
    snapshot.open_channels = 2;
    snapshot.session_pid = 4000 + id;
    snapshot.node_id = 77;
    snapshot.rekey_count = 5;
    snapshot.data_to_rekey = 1572864;
    strcpy(snapshot.time_to_rekey, "90");
    strcpy(snapshot.user_id, "ann");
    strcpy(snapshot.remote_host, "2001:db8::7");
    strcpy(snapshot.authentication_method, "rsa-pubkey");
    strcpy(snapshot.kex_algorithm, "ecdh-sha2-nistp384");
    strcpy(snapshot.host_key_algorithm, "ssh-ed25519");
    strcpy(snapshot.in_cipher, "aes128-ctr");
    strcpy(snapshot.out_cipher, "aes256-gcm@openssh.com");
    strcpy(snapshot.in_mac, "hmac-sha2-256");
    strcpy(snapshot.out_mac, "aes-gcm");
    return snapshot;
}
