/// Helpers for the tests of the Linux platform's services.
#ifndef UNIT_LINUX_PLATFORM_TEST_SUPPORT_H
#define UNIT_LINUX_PLATFORM_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <sstream>
#include <string>

#include "linux/process/event_manager_internal.h"
#include "linux/process/process_manager_internal.h"
#include "linux/reporting/log_message_internal.h"
#include "linux/vrf/mpp_internal.h"
#include "linux/vrf/namespace_watch.h"

namespace platform_test {

inline std::string read_file(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

inline void write_file(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::trunc) << text;
}

/// Runs a command and returns whether it succeeded.
inline bool run(const std::string& command) {
    return system(command.c_str()) == 0;
}

/// The output of a command.
inline std::string output_of(const std::string& command) {
    const std::string file = "/tmp/platform_test_output";
    run(command + " > " + file + " 2>&1");
    return read_file(file);
}

/// Keeps the process from opening descriptors during its lifetime.
class no_descriptors_left {
  public:
    no_descriptors_left() {
        EXPECT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
        const int next_fd = dup(0);
        close(next_fd);
        const rlimit none_left = {static_cast<rlim_t>(next_fd), before.rlim_max};
        EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &none_left));
    }
    ~no_descriptors_left() { setrlimit(RLIMIT_NOFILE, &before); }
    no_descriptors_left(const no_descriptors_left&) = delete;
    no_descriptors_left& operator=(const no_descriptors_left&) = delete;

  private:
    rlimit before = {};
};

/// Stands in for a system service that receives datagrams.
class datagram_listener {
  public:
    explicit datagram_listener(const std::string& path) : path(path) {
        std::filesystem::create_directories(std::filesystem::path(path).parent_path());
        std::filesystem::remove(path);
        fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(0, bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address)) << strerror(errno);
    }
    ~datagram_listener() {
        close(fd);
        std::filesystem::remove(path);
    }
    datagram_listener(const datagram_listener&) = delete;
    datagram_listener& operator=(const datagram_listener&) = delete;

    /// The next datagram; empty if none arrives within `milliseconds`.
    std::string receive(int milliseconds = 200) {
        pollfd waiting = {fd, POLLIN, 0};
        if (poll(&waiting, 1, milliseconds) != 1) {
            return {};
        }
        char buffer[8192];
        const ssize_t length = recv(fd, buffer, sizeof buffer, 0);
        return {buffer, static_cast<size_t>(length > 0 ? length : 0)};
    }

  private:
    std::string path;
    int fd;
};

class journal_listener : public datagram_listener {
  public:
    /// Logs a line to open the connection to the journal, so that tests may use up the descriptors.
    journal_listener() : datagram_listener("/run/systemd/journal/socket") {
        platform_log(LOG_DEBUG, "The way to the journal is open");
        EXPECT_NE("", receive());
    }

    /// The fields of the next entry whose values consist of one line.
    std::map<std::string, std::string> receive_entry(int milliseconds = 200) {
        std::map<std::string, std::string> fields;
        std::istringstream lines(receive(milliseconds));
        for (std::string line; std::getline(lines, line);) {
            const size_t equals = line.find('=');
            if (equals != std::string::npos) {
                fields[line.substr(0, equals)] = line.substr(equals + 1);
            }
        }
        return fields;
    }

    /// All messages that have arrived so far, one per line.
    std::string messages() {
        std::string all;
        for (auto entry = receive_entry(0); !entry.empty(); entry = receive_entry(0)) {
            all += entry["MESSAGE"] + "\n";
        }
        return all;
    }
};

/// Fixture with an event manager.
class loop_test : public testing::Test {
  protected:
    void SetUp() override { ASSERT_EQ(0, event_manager_create("/dev/ssh_cfg_agent", &manager)); }

    void TearDown() override {
        mpp_reset();
        event_manager_free(manager);
        process_manager_reset();
    }

    /// Runs the loop until `done`, for at most `milliseconds`. Returns whether it was done.
    bool run_until(const std::function<bool()>& done, uint64_t milliseconds = 30'000) {
        bool expired = false;
        sd_event_source* limit = nullptr;
        EXPECT_LE(0, sd_event_add_time_relative(
                         event_manager_sd_event(manager), &limit, CLOCK_MONOTONIC, milliseconds * 1000, 1,
                         [](sd_event_source*, uint64_t, void* data) {
                             *static_cast<bool*>(data) = true;
                             return 0;
                         },
                         &expired));
        while (!done() && !expired) {
            run_once();
        }
        sd_event_source_disable_unref(limit);
        return done();
    }

    /// Runs the loop for `milliseconds`.
    void run_for(uint64_t milliseconds) {
        run_until([] { return false; }, milliseconds);
    }

    void run_once() {
        event_manager_event event;
        ASSERT_EQ(0, event_manager_block(manager, &event));
        event_manager_dispatch(manager, &event);
    }

    struct event_manager* manager = nullptr;
};

}  // namespace platform_test

#endif
