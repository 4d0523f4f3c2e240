/// Helpers for the tests of the control socket: a server with its own loop, and clients that run this loop while they
/// wait.
#ifndef UNIT_LINUX_CONTROL_TEST_SUPPORT_H
#define UNIT_LINUX_CONTROL_TEST_SUPPORT_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <thread>

#include "control_protocol/answer.h"
#include "control_protocol/frame.h"
#include "linux/control/connection.h"
#include "linux/control/server.h"

namespace control_test {

inline constexpr char socket_path[] = "/tmp/control_test.sock";

inline std::string header_announcing(uint32_t length) {
    const auto header = control_frame_header(length);
    return {header.begin(), header.end()};
}

inline std::string frame_of(const std::string& document) {
    return header_announcing(static_cast<uint32_t>(document.size())) + document;
}

inline constexpr uid_t somebody = 12345;  ///< an ordinary user
inline constexpr gid_t operators = 23456;

/// Whether a test can become another user. A user namespace created by an ordinary user contains only one.
inline bool other_users_exist() {
    std::ifstream map("/proc/self/uid_map");
    uint64_t first = 0;
    uint64_t outside = 0;
    uint64_t count = 0;
    while (map >> first >> outside >> count) {
        if (first <= somebody && first + count > operators) {
            return true;
        }
    }
    return false;
}

inline size_t open_descriptors() {
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        count += entry.path().empty() ? 0 : 1;
    }
    return count;
}

inline void allow_descriptors(rlim_t count) {
    const rlimit limit = {count, count};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
}

/// The "sleep" calls that were carried out.
inline unsigned sleeps = 0;

/// Answers of the server under test: repeats the request, or misbehaves on request.
inline control_json answer_test_call(const control_json& request, const control_peer& peer) {
    const std::string call = request["call"];
    if (call == "large") {
        control_json answer = control_answer(control_result::done);
        answer["data"] = std::string(request["size"].get<size_t>(), 'x');
        return answer;
    }
    if (call == "sleep") {
        std::this_thread::sleep_for(std::chrono::milliseconds(request["milliseconds"].get<int>()));
        ++sleeps;
    }
    if (call == "watch") {
        control_json answer = control_answer(control_result::done);
        answer["data"] = {"snapshot"};
        answer["watching"] = true;
        return answer;
    }
    if (call == "throw") {
        throw std::bad_alloc();
    }
    control_json answer = control_answer(control_result::done);
    answer["data"] = request;
    answer["uid"] = peer.uid;
    return answer;
}

inline int listen_at(const char* path) {
    unlink(path);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    EXPECT_EQ(0, bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address)) << strerror(errno);
    EXPECT_EQ(0, listen(fd, 4096));
    return fd;
}

/// A client that never blocks.
class client {
  public:
    explicit client(const char* path = socket_path) {
        descriptor = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        strncpy(address.sun_path, path, sizeof address.sun_path - 1);
        connected = connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~client() { hang_up(); }
    client(client&& other) noexcept : descriptor(std::exchange(other.descriptor, -1)), connected(other.connected) {}
    client(const client&) = delete;
    client& operator=(const client&) = delete;

    bool is_connected() const { return connected; }
    int fd() const { return descriptor; }

    /// The number of bytes that the socket has accepted.
    size_t put(std::string_view bytes) {
        const ssize_t count = send(descriptor, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        return count < 0 ? 0 : static_cast<size_t>(count);
    }

    void end_output() { shutdown(descriptor, SHUT_WR); }

    void hang_up() {
        if (descriptor >= 0) {
            close(descriptor);
        }
        descriptor = -1;
    }

    /// Reads what has arrived; at most `bytes`.
    void take(size_t bytes = SIZE_MAX) {
        static char buffer[65536];
        while (bytes > 0 && control_frame_progress(frame) == control_frame_state::incomplete) {
            const size_t wanted = std::min({control_frame_missing(frame), sizeof buffer, bytes});
            const ssize_t count = recv(descriptor, buffer, wanted, MSG_DONTWAIT);
            if (count <= 0) {
                ended = ended || count == 0 || errno == ECONNRESET;
                return;
            }
            control_frame_take(frame, std::string_view(buffer, static_cast<size_t>(count)));
            bytes -= static_cast<size_t>(count);
        }
    }

    bool has_answer() {
        take();
        return control_frame_progress(frame) == control_frame_state::complete;
    }

    /// The answer that has arrived; the next one may follow.
    control_json answer() {
        std::string error;
        const auto document = control_json_parse(std::exchange(frame, {}).document, error);
        EXPECT_TRUE(document.has_value()) << error;
        return document.value_or(control_json());
    }

    /// Whether the server has closed the connection, after everything before was read.
    bool is_ended() {
        take();
        return ended;
    }

  private:
    int descriptor;
    bool connected;
    bool ended = false;
    control_frame_reader frame;
};

class server_test : public testing::Test {
  protected:
    control_limits limits;

    void start() {
        ASSERT_LE(0, sd_event_new(&loop));
        server = control_server_create(listen_at(socket_path), {}, limits, {answer_test_call});
        ASSERT_EQ(0U, control_server_start(server, loop));
    }

    void TearDown() override {
        control_server_free(server);
        sd_event_unref(loop);
        unlink(socket_path);
    }

    void run_once(uint64_t microseconds = 1000) { ASSERT_LE(0, sd_event_run(loop, microseconds)); }

    bool run_until(const std::function<bool()>& done, int milliseconds = 60'000) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
        while (!done() && std::chrono::steady_clock::now() < end) {
            run_once();
        }
        return done();
    }

    /// Sends all bytes, however often the socket is full.
    void put_all(client& peer, std::string_view bytes) {
        run_until([&] {
            bytes.remove_prefix(peer.put(bytes));
            return bytes.empty();
        });
    }

    control_json answer_to(client& peer) {
        const bool answered = run_until([&] { return peer.has_answer(); });
        EXPECT_TRUE(answered);
        return answered ? peer.answer() : control_json();
    }

    control_json ask(client& peer, const std::string& document) {
        put_all(peer, frame_of(document));
        return answer_to(peer);
    }

    /// Another client is served normally.
    void expect_others_are_answered() {
        client other;
        EXPECT_EQ(ask(other, R"({"call":"echo"})").value("result", ""), "done");
    }

    bool is_dropped(client& peer) {
        return run_until([&] { return peer.is_ended(); });
    }

    sd_event* loop = nullptr;
    control_server* server = nullptr;
};

}  // namespace control_test

#endif
