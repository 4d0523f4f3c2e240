#include "linux/control/session_totals.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <thread>

namespace {

/// A responder that sends these bytes to the first client that connects.
class sending_responder {
  public:
    sending_responder(const std::string& path, std::string bytes) : bytes_(std::move(bytes)) {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof(address.sun_path) - 1);
        listener_ = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
        EXPECT_EQ(listen(listener_, 1), 0);
        thread_ = std::thread([this] {
            const int peer = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (!bytes_.empty()) {
                send(peer, bytes_.data(), bytes_.size(), MSG_NOSIGNAL);
            }
            close(peer);
        });
    }
    ~sending_responder() {
        thread_.join();
        close(listener_);
    }
    sending_responder(const sending_responder&) = delete;
    sending_responder& operator=(const sending_responder&) = delete;

  private:
    int listener_ = -1;
    std::string bytes_;
    std::thread thread_;
};

std::string bytes_of(const session_totals& totals) {
    return {reinterpret_cast<const char*>(&totals), sizeof(totals)};
}

constexpr char totals_path[] = "/tmp/totals.sock";
constexpr char silent_path[] = "/tmp/silent.sock";

}  // namespace

TEST(control_session_totals, are_the_responders) {
    const sending_responder responder(totals_path, bytes_of({.incoming = 3, .outgoing = 4}));
    const std::optional<session_totals> totals = control_ask_session_totals(totals_path);
    ASSERT_TRUE(totals.has_value());
    EXPECT_EQ(totals->incoming, 3U);
    EXPECT_EQ(totals->outgoing, 4U);
}

TEST(control_session_totals, are_not_known_without_a_whole_answer) {
    for (const std::string& bytes : {std::string(), bytes_of({}).substr(1), bytes_of({}) + "x"}) {
        const std::string another = totals_path + std::to_string(bytes.size());
        const sending_responder responder(another, bytes);
        EXPECT_FALSE(control_ask_session_totals(another).has_value()) << bytes.size();
    }
}

TEST(control_session_totals, are_not_known_without_a_responder) {
    EXPECT_FALSE(control_ask_session_totals("/tmp/nobody.sock").has_value());
    EXPECT_FALSE(control_ask_session_totals(std::string(200, 'x')).has_value());
}

TEST(control_session_totals, are_not_waited_for_for_ever) {
    const int silent = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    std::string(silent_path).copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(bind(silent, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(silent, 1), 0);
    EXPECT_FALSE(control_ask_session_totals(silent_path).has_value());
    // With its queue full, connecting would wait, too.
    int waiting = 0;
    do {
        waiting = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    } while (connect(waiting, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(control_ask_session_totals(silent_path).has_value());
    close(silent);
}
