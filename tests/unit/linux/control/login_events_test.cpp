#include "linux/control/login_events.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>

#include "linux/control/control.h"
#include "unit/linux/control/calls_support.h"
#include "unit/linux/control/control_test_support.h"

using control_test::client;
using control_test::frame_of;

namespace {

constexpr char control_path[] = "/tmp/login_events_control.sock";
constexpr char events_path[] = "/tmp/login_events.sock";

class control_login_events_test : public control_test::calls_test {
  protected:
    void SetUp() override {
        calls_test::SetUp();
        ASSERT_LE(0, sd_event_new(&loop));
        ASSERT_EQ(control_open(control_path), PLATFORM_OK);
        ASSERT_EQ(control_start(loop), PLATFORM_OK);
        login_events_start(loop, events_path);
    }
    void TearDown() override {
        control_close();
        EXPECT_NE(access(events_path, F_OK), 0) << "is removed with the control socket";
        sd_event_unref(loop);
        calls_test::TearDown();
    }

    static bool send(const std::string& datagram) {
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        std::string(events_path).copy(address.sun_path, sizeof address.sun_path - 1);
        const ssize_t count = sendto(fd, datagram.data(), datagram.size(), MSG_DONTWAIT,
                                     reinterpret_cast<const sockaddr*>(&address), sizeof address);
        close(fd);
        return count == static_cast<ssize_t>(datagram.size());
    }

    void run_loop(int turns) {
        for (int turn = 0; turn < turns; turn++) {
            ASSERT_LE(0, sd_event_run(loop, 1000));
        }
    }

    control_json answer_to(client& peer) {
        for (int turn = 0; turn < 3000 && !peer.has_answer() && !peer.is_ended(); turn++) {
            EXPECT_LE(0, sd_event_run(loop, 1000));
        }
        EXPECT_TRUE(peer.has_answer());
        return peer.has_answer() ? peer.answer() : control_json();
    }

    sd_event* loop = nullptr;
};

}  // namespace

TEST_F(control_login_events_test, reach_those_who_watch_sessions) {
    client watcher(control_path);
    watcher.put(frame_of(R"({"call":"watch","sessions":true})"));
    EXPECT_EQ(control_json_text(answer_to(watcher)["data"]), "[]");
    ASSERT_TRUE(
        send("MESSAGE=x\nSSH_CFG_EVENT=logout\nSSH_CFG_VRF=red\nSSH_CFG_PORT=5\nSSH_CFG_DURATION=7\nnothing\n"));
    const control_json event = answer_to(watcher)["data"][0];
    EXPECT_EQ(event["event"], "logout");
    EXPECT_EQ(event["vrf"], "red");
    EXPECT_EQ(event["port"], 5);
    EXPECT_EQ(event["duration"], 7);
    EXPECT_TRUE(event["user"].is_null());
}

TEST_F(control_login_events_test, do_not_reach_those_who_watch_telemetry) {
    client watcher(control_path);
    watcher.put(frame_of(R"({"call":"watch"})"));
    answer_to(watcher);
    ASSERT_TRUE(send("SSH_CFG_EVENT=login\n"));
    run_loop(20);
    EXPECT_FALSE(watcher.has_answer());
}

TEST_F(control_login_events_test, are_dropped_but_counted_for_a_watcher_that_does_not_read) {
    client watcher(control_path);
    watcher.put(frame_of(R"({"call":"watch","sessions":true})"));
    answer_to(watcher);
    const std::string event = "SSH_CFG_EVENT=login\nSSH_CFG_USER=" + std::string(1500, 'x') + "\n";
    for (int number = 0; number < 5000; number++) {
        ASSERT_TRUE(send(event));
        run_loop(1);
    }
    uint64_t coalesced = 0;
    for (bool goes_on = true; goes_on;) {
        run_loop(5);
        goes_on = watcher.has_answer();
        if (goes_on) {
            coalesced += watcher.answer().value("coalesced", uint64_t{0});
        }
    }
    EXPECT_GT(coalesced, 0U);
}

TEST_F(control_login_events_test, come_from_root_only) {
    struct stat status = {};
    ASSERT_EQ(stat(events_path, &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U);
    client watcher(control_path);
    watcher.put(frame_of(R"({"call":"watch","sessions":true})"));
    answer_to(watcher);
    // Even if somebody could open the socket.
    ASSERT_EQ(chmod(events_path, 0666), 0);
    const pid_t child = fork();
    if (child == 0) {
        _exit(setuid(65534) == 0 && send("SSH_CFG_EVENT=login\n") ? 0 : 1);
    }
    int result = -1;
    waitpid(child, &result, 0);
    EXPECT_EQ(result, 0);
    run_loop(20);
    EXPECT_FALSE(watcher.has_answer());
}

TEST_F(control_login_events_test, show_hostile_texts_harmlessly) {
    const login_event_fields fields =
        login_event_split("SSH_CFG_EVENT=login\nSSH_CFG_USER=\x1b[31m\xff=a\nSSH_CFG_PORT=x\n");
    const control_json event = login_event_json(fields, 0);
    EXPECT_EQ(event["user"], "\\x1b[31m\\xff=a");
    EXPECT_TRUE(event["port"].is_null());
}

TEST_F(control_login_events_test, need_a_flag_that_is_a_flag) {
    EXPECT_EQ(result(R"({"call":"watch","sessions":"x"})"), "usage");
}
