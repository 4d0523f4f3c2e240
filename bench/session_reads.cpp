/// A read of 500 sessions, each with its own process and socket, compared with the same process listing and 500 plain
/// exchanges of a request and a snapshot; and the memory that such reads leave allocated.
#include <malloc.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "core/paths.h"
#include "fake/fake_platform.h"
#include "figures.h"
#include "files.h"
#include "oper/providers.h"
#include "oper/session_snapshot.h"
#include "scratch_root.h"
#include "session_peers.h"

namespace {

constexpr int session_count = 500;
constexpr int read_rounds = 15;
constexpr int memory_rounds = 50;
constexpr char list_servers[] =
    "ps -ef | grep 'sshd:' | grep 'priv' | grep -v 'grep' | awk '{print $2}' > /tmp/bench_servers.txt";
constexpr char list_clients[] =
    "ps -ef | grep '/pkg/bin/ssh_csm ' | grep -v 'grep' |awk '{print $2}' > "
    "/tmp/bench_clients.txt";

/// A read, and the process listings that its floor needs.
struct read_work {
    const char* name;
    const char* path;
    std::vector<const char*> listings;
};

const read_work reads[] = {
    {"session read, 500 sessions", "/oper/crypto-ssh/gl/sshddata/brief", {list_servers}},
    {"session read, 500 sessions, both directions in one record",
     "/oper/crypto-ssh/gl/session_xml/brief",
     {list_servers, list_clients}},
};

sockaddr_un address_of(pid_t pid, socklen_t* length) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    *length = static_cast<socklen_t>(sizeof address.sun_family + snprintf(address.sun_path, sizeof address.sun_path,
                                                                          "%s%d", paths::session_socket_prefix, pid));
    return address;
}

/// A server's monitor: answers each query with a snapshot until the benchmark ends.
[[noreturn]] void serve(char* title, size_t title_room, uint32_t id) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    memset(title, 0, title_room);
    snprintf(title, title_room, "sshd: a [priv]");
    socklen_t length = 0;
    const sockaddr_un address = address_of(getpid(), &length);
    const int listener = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    require(bind(listener, reinterpret_cast<const sockaddr*>(&address), length) == 0 && listen(listener, 1) == 0,
            "a peer has no socket");
    const std::string snapshot = bytes_of(usual_snapshot(id));
    for (;;) {
        const int connection = accept(listener, nullptr, nullptr);
        char request[16];
        if (recv(connection, request, sizeof request, 0) > 0) {
            send(connection, snapshot.data(), snapshot.size(), MSG_NOSIGNAL);
        }
        close(connection);
    }
}

std::vector<pid_t> start_peers(char* title) {
    const size_t title_room = strlen(title) + 1;
    std::vector<pid_t> peers;
    for (uint32_t id = 1; id <= session_count; id++) {
        const pid_t peer = fork();
        require(peer >= 0, "cannot start a peer");
        if (peer == 0) {
            serve(title, title_room, id);
        }
        peers.push_back(peer);
    }
    for (const pid_t peer : peers) {
        while (!path_exists(paths::session_socket_prefix + std::to_string(peer))) {
            usleep(1000);
        }
    }
    return peers;
}

/// A plain request and its answer.
void exchange(pid_t peer, session_snapshot* snapshot) {
    constexpr uint32_t request[3] = {0, 1, 0};
    socklen_t length = 0;
    const sockaddr_un address = address_of(peer, &length);
    const int connection = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    require(connect(connection, reinterpret_cast<const sockaddr*>(&address), length) == 0 &&
                send(connection, request, sizeof request, 0) == sizeof request &&
                recv(connection, snapshot, sizeof *snapshot, 0) == sizeof *snapshot,
            "a peer does not answer");
    close(connection);
}

void measure_read(const read_work& work, const std::vector<pid_t>& peers) {
    std::vector<session_snapshot> snapshots(peers.size());
    const timed_pair times = measure_in_turns(
        read_rounds, [&](int) { require(fake_platform::read(work.path).status == PLATFORM_OK, "the read failed"); },
        [&](int) {
            for (const char* listing : work.listings) {
                require(system(listing) == 0, "cannot list the processes");
            }
            for (size_t i = 0; i < peers.size(); i++) {
                exchange(peers[i], &snapshots[i]);
            }
        });
    print_row(work.name, times.own * 1000, times.floor * 1000, "ms", goal::at_most, 1.2);
}

/// The resident memory of the process in kilobytes.
double resident_memory() {
    std::ifstream file("/proc/self/statm");
    long pages = 0;
    file >> pages >> pages;
    return static_cast<double>(pages) * static_cast<double>(sysconf(_SC_PAGESIZE)) / 1024;
}

void measure_memory() {
    const size_t allocated = mallinfo2().uordblks;
    const double resident = resident_memory();
    for (int round = 0; round < memory_rounds; round++) {
        fake_platform::read(reads[static_cast<size_t>(round) % std::size(reads)].path);
    }
    const double kept = static_cast<double>(mallinfo2().uordblks) - static_cast<double>(allocated);
    print_row("  memory still allocated after 50 more reads", kept, 0, "bytes", goal::at_most, 0);
    print_row("  growth of resident memory", resident_memory() - resident, 0, "kB", goal::at_most, 256);
}

}  // namespace

int main(int, char** arguments) {
    scratch_root::enter({.readable = {}, .writable = {PROJECT_BINARY_DIR}});
    write_file(paths::datastore_library, "");
    fake_platform::set_recording(false);
    require(register_session_record_provider() == PLATFORM_OK && register_server_session_provider() == PLATFORM_OK,
            "the providers cannot be registered");
    const std::vector<pid_t> peers = start_peers(arguments[0]);
    const auto answered = fake_platform::read("/oper/crypto-ssh/gl/sshddata/brief").records.size();
    require(answered == session_count, "not all sessions were read");
    for (const read_work& work : reads) {
        measure_read(work, peers);
    }
    measure_memory();
    return 0;
}
