/// Simulates the SSH processes that session queries address: sockets named after process ids, served by one child
/// process.
///
/// The test chooses the process ids, and lists them with a stub of ps. The faults of call_faults.h do not affect any of
/// this.
#ifndef SUPPORT_SESSION_PEERS_H
#define SUPPORT_SESSION_PEERS_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <vector>

#include "oper/session_snapshot.h"

class session_peers {
  public:
    /// Makes the answer to the `query`th query (from 0) of one process. Runs in the child process.
    using answer_maker = std::function<std::string(uint32_t query, std::string_view request)>;

    session_peers() = default;
    ~session_peers();
    session_peers(const session_peers&) = delete;
    session_peers& operator=(const session_peers&) = delete;

    // Peers to add before start(): one that answers, one that never does, one that hangs up as soon as a query
    // connects.
    void answer(int pid, std::string bytes);
    void answer(int pid, const session_snapshot& snapshot);
    void answer(int pid, answer_maker maker);
    void keep_silent(int pid);
    void hang_up(int pid);

    /// Starts to serve.
    void start();

    /// Stops the serving process with SIGSTOP: its sockets accept connections, but do not answer.
    void stop();

    /// The output of `ps -ef` for the processes, with the titles of servers' monitors or of clients.
    static std::string listing_of_servers(const std::vector<int>& pids);
    static std::string listing_of_clients(const std::vector<int>& pids);

  private:
    struct peer {
        std::string path;
        int listener;
        answer_maker maker;  ///< none if it hangs up
        uint32_t queries;
    };

    void listen_at(int pid, answer_maker maker, bool served);
    static void serve(peer& served);
    [[noreturn]] void serve_all();

    std::vector<peer> served_;
    std::vector<peer> silent_;
    pid_t process_ = -1;
};

/// The bytes of a snapshot, as a process sends them.
std::string bytes_of(const session_snapshot& snapshot);

/// A snapshot with every field filled: session `id`, two open channels, "vty 3" in slot 1 and none in slot 4.
session_snapshot usual_snapshot(uint32_t id);

#endif
