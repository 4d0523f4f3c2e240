#include "ssh_cfg_ctl/watch.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>

#include <chrono>
#include <csignal>

#include "fake_agent.h"
#include "ssh_cfg_ctl/ctl.h"

namespace {

using testing::HasSubstr;

const ctl_connection_settings settings = {fake_agent::path(), 5, false};
const control_json request = {{"call", "watch"}};

const std::string first_answer = R"({"result":"done","data":[{"update":[{"val":1}]}],"watching":true})";
const std::string first_line = "{\"update\":[{\"val\":1}]}\n";

/// A pipe that the tool writes to and the test reads from.
class output_pipe {
  public:
    output_pipe() { EXPECT_EQ(0, pipe2(ends, O_CLOEXEC)); }
    ~output_pipe() {
        close_reader();
        close(ends[1]);
    }
    output_pipe(const output_pipe&) = delete;
    output_pipe& operator=(const output_pipe&) = delete;

    int writer() const { return ends[1]; }

    void close_reader() {
        if (ends[0] >= 0) {
            close(ends[0]);
        }
        ends[0] = -1;
    }

    /// Waits until there is something to read, and reads it.
    std::string read_some() const {
        char buffer[65536];
        const ssize_t count = read(ends[0], buffer, sizeof buffer);
        return {buffer, static_cast<size_t>(std::max<ssize_t>(count, 0))};
    }

    /// What has been written so far.
    std::string read_all() const {
        std::string all;
        for (pollfd entry = {ends[0], POLLIN, 0}; poll(&entry, 1, 0) > 0 && (entry.revents & POLLIN) != 0;) {
            all += read_some();
        }
        return all;
    }

  private:
    int ends[2] = {-1, -1};
};

std::string result_of(const control_json& answer) {
    return answer.value("result", "");
}

std::string lines_of(const std::string& frames) {
    fake_agent agent({frames});
    const output_pipe output;
    EXPECT_EQ(result_of(ctl_watch(settings, request, output.writer())), "unreachable");
    return output.read_all();
}

TEST(ctl_watch, writes_each_event_as_a_line_and_ends_with_the_agent) {
    fake_agent agent({first_answer + "\n" + R"({"data":[{"update":[{"val":2}]},{"update":[]}]})"});
    const output_pipe output;
    const control_json end = ctl_watch(settings, request, output.writer());
    EXPECT_EQ(result_of(end), "unreachable");
    EXPECT_EQ(end["message"], "the agent closed the connection");
    EXPECT_EQ(output.read_all(), first_line + "{\"update\":[{\"val\":2}]}\n{\"update\":[]}\n");
    EXPECT_THAT(agent.requests, testing::ElementsAre(R"({"call":"watch"})"));
}

TEST(ctl_watch, reports_how_many_events_were_dropped) {
    EXPECT_EQ(lines_of(first_answer + "\n" + R"({"data":[{"update":[{"val":2},{"val":3}]},{"update":[{"val":4}]}],)" +
                       R"("coalesced":17})"),
              first_line + R"({"update":[{"val":2,"duplicates":17},{"val":3,"duplicates":17}]})" + "\n" +
                  R"({"update":[{"val":4}]})" + "\n");
}

TEST(ctl_watch, skips_unknown_documents) {
    EXPECT_EQ(lines_of(first_answer + "\n" + R"({"data":7})" + "\n" + R"({"heartbeat":1})" + "\n" +
                       R"({"data":["x"],"coalesced":1})"),
              first_line + "\"x\"\n");
}

TEST(ctl_watch, prints_the_agents_reason_for_a_refusal) {
    fake_agent agent({R"({"result":"failed","message":"too many watchers: the limit is 16"})"});
    const output_pipe output;
    const control_json end = ctl_watch(settings, request, output.writer());
    EXPECT_EQ(result_of(end), "failed");
    EXPECT_THAT(end.value("message", ""), HasSubstr("the limit is 16"));
    EXPECT_EQ(output.read_all(), "");
}

TEST(ctl_watch, an_invalid_event_ends_the_watch) {
    fake_agent agent({first_answer + "\n{broken"});
    const output_pipe output;
    const control_json end = ctl_watch(settings, request, output.writer());
    EXPECT_EQ(result_of(end), "failed");
    EXPECT_THAT(end.value("message", ""), HasSubstr("cannot parse"));
    EXPECT_EQ(output.read_all(), first_line);
}

TEST(ctl_watch, reports_an_unreachable_agent) {
    const output_pipe output;
    EXPECT_EQ(result_of(ctl_watch({"/nowhere/at/all", 5, false}, request, output.writer())), "unreachable");
}

TEST(ctl_watch, ends_on_an_interrupt) {
    for (const int number : {SIGINT, SIGTERM}) {
        fake_agent agent({first_answer + "\n..."});
        const output_pipe output;
        const pthread_t watcher = pthread_self();
        std::thread operator_thread([&] {
            EXPECT_EQ(output.read_some(), first_line);
            pthread_kill(watcher, number);
        });
        EXPECT_EQ(result_of(ctl_watch(settings, request, output.writer())), "done");
        operator_thread.join();
    }
}

TEST(ctl_watch, restores_the_signal_handling) {
    const auto unused = [](int) {};
    ASSERT_NE(signal(SIGTERM, unused), SIG_ERR);
    ASSERT_NE(signal(SIGPIPE, SIG_DFL), SIG_ERR);
    lines_of(first_answer);
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGINT), 0);
    EXPECT_EQ(signal(SIGPIPE, SIG_DFL), SIG_DFL);
    EXPECT_EQ(signal(SIGTERM, SIG_DFL), static_cast<void (*)(int)>(unused));
}

TEST(ctl_watch, ends_when_the_reader_closes_the_pipe) {
    fake_agent agent({first_answer + "\n..."});
    output_pipe output;
    std::thread reader([&] {
        EXPECT_EQ(output.read_some(), first_line);
        output.close_reader();
    });
    EXPECT_EQ(result_of(ctl_watch(settings, request, output.writer())), "done");
    reader.join();
}

TEST(ctl_watch, ends_when_the_pipe_is_closed_from_the_beginning) {
    fake_agent agent({first_answer + "\n..."});
    output_pipe output;
    output.close_reader();
    EXPECT_EQ(result_of(ctl_watch(settings, request, output.writer())), "done");
}

TEST(ctl_watch, can_be_interrupted_while_the_reader_is_blocked) {
    std::string frames = first_answer;
    const std::string event = '"' + std::string(3000, 'x') + '"';
    for (int count = 0; count < 50; count++) {
        frames += "\n{\"data\":[" + event + "]}";
    }
    fake_agent agent({frames + "\n..."});
    const output_pipe output;
    const pthread_t watcher = pthread_self();
    std::thread operator_thread([&] {
        // The pipe is full when it is no longer writable.
        pollfd entry = {output.writer(), POLLOUT, 0};
        while (poll(&entry, 1, 0) > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        pthread_kill(watcher, SIGINT);
    });
    EXPECT_EQ(result_of(ctl_watch(settings, request, output.writer())), "done");
    operator_thread.join();
    const std::string lines = output.read_all();
    EXPECT_EQ(lines.back(), '\n') << "every line is complete";
}

TEST(ctl_watch, output_that_cannot_be_written_is_a_failure) {
    fake_agent agent({first_answer + "\n..."});
    const int full = open("/dev/full", O_WRONLY | O_CLOEXEC);
    const control_json end = ctl_watch(settings, request, full);
    EXPECT_EQ(result_of(end), "failed");
    EXPECT_EQ(end["message"], "standard output: No space left on device");
    close(full);
}

TEST(ctl_watch, is_run_by_the_tool) {
    fake_agent agent({first_answer});
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    EXPECT_EQ(ctl_run({"--socket", fake_agent::path(), "watch"}), 3);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), first_line);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ssh_cfg_ctl: the agent closed the connection\n");
    EXPECT_EQ(ctl_run({"--socket", fake_agent::path(), "watch", "it"}), 2);
}

}  // namespace
