#include "config_files/restart_record.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <ctime>
#include <string>

#include "../account.h"
#include "../agent_test.h"
#include "call_faults.h"
#include "config_files/config_writer.h"
#include "config_files/vrf_node.h"
#include "core/text.h"
#include "scratch_root.h"
#include "usage.h"

namespace {

constexpr uint64_t long_ago = 1;
constexpr uint64_t just_now = UINT64_MAX;

class restart_record_test : public agent_test {
  protected:
    restart_record_test() {
        for (const char* name : {"red", "blue"}) {
            vrf_node& node = nodes_[count_++];
            copy_text(node.name, sizeof node.name, name);
            node.reference_count = 1;
            node.next = server_config.nodes;
            server_config.nodes = &node;
        }
    }

    ~restart_record_test() override { server_config.nodes = nullptr; }

    static std::string file_of(const std::string& vrf) { return paths::vrf_server_file_prefix + vrf; }

    /// The lines of the record after the time.
    static std::vector<std::string> recorded() {
        std::vector<std::string> lines = file_lines(paths::restart_record);
        EXPECT_FALSE(lines.empty());
        lines.erase(lines.begin(), lines.begin() + (lines.empty() ? 0 : 1));
        return lines;
    }

    static uint64_t microseconds_now() {
        timespec now = {};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
    }

    /// The process dies and another one starts.
    void die() {
        for (vrf_node& node : nodes_) {
            node.restart_due = 0;
        }
        take_over_restart_record();
    }

  private:
    vrf_node nodes_[2] = {};
    size_t count_ = 0;
};

TEST_F(restart_record_test, a_change_is_recorded_until_the_server_is_restarted) {
    EXPECT_EQ(note_file_change(file_of("red").c_str()), 0);
    EXPECT_THAT(recorded(), testing::ElementsAre("red"));
    EXPECT_TRUE(restart_is_due("red", just_now));
    EXPECT_FALSE(restart_is_due("blue", long_ago));
    note_restart_done("blue");
    EXPECT_THAT(recorded(), testing::ElementsAre("red"));
    errno = EEXIST;
    note_restart_done("red");
    EXPECT_FALSE(path_exists(paths::restart_record));
    EXPECT_FALSE(restart_is_due("red", long_ago));
    EXPECT_TRUE(fake_platform::trace_lines_of("ssh/cfg-agent/error").empty());
}

// systemd may have restarted the server between the changes.
TEST_F(restart_record_test, a_second_change_concerns_servers_started_since_the_first) {
    EXPECT_EQ(note_file_change(file_of("red").c_str()), 0);
    const uint64_t first = std::stoull(file_lines(paths::restart_record).front());
    EXPECT_EQ(note_file_change(file_of("red").c_str()), 0);
    die();
    EXPECT_TRUE(restart_is_due("red", first));
}

TEST_F(restart_record_test, each_server_is_recorded_separately) {
    EXPECT_EQ(note_file_change(file_of("red").c_str()), 0);
    EXPECT_EQ(note_file_change(file_of("blue").c_str()), 0);
    EXPECT_THAT(recorded(), testing::UnorderedElementsAre("blue", "red"));
    note_restart_done("blue");
    EXPECT_THAT(recorded(), testing::ElementsAre("red"));
}

TEST_F(restart_record_test, other_files_and_unknown_vrfs_are_not_recorded) {
    for (const std::string& path :
         {std::string(paths::server_file), std::string(paths::client_file), file_of("green")}) {
        EXPECT_EQ(note_file_change(path.c_str()), 0);
    }
    EXPECT_FALSE(path_exists(paths::restart_record));
}

TEST_F(restart_record_test, a_walk_is_recorded_as_a_whole_and_leaves_the_servers_not_restarted) {
    EXPECT_EQ(begin_restart_walk(), 0);
    EXPECT_THAT(recorded(), testing::ElementsAre("*"));
    EXPECT_EQ(note_file_change(file_of("blue").c_str()), 0);
    note_restart_done("blue");
    EXPECT_EQ(note_file_change(file_of("red").c_str()), 0);
    EXPECT_THAT(recorded(), testing::ElementsAre("*"));
    end_restart_walk();
    EXPECT_THAT(recorded(), testing::ElementsAre("red"));
}

TEST_F(restart_record_test, a_walk_that_restarted_everything_leaves_nothing) {
    EXPECT_EQ(begin_restart_walk(), 0);
    EXPECT_EQ(note_file_change(file_of("blue").c_str()), 0);
    note_restart_done("blue");
    end_restart_walk();
    EXPECT_FALSE(path_exists(paths::restart_record));
}

TEST_F(restart_record_test, the_next_process_restarts_servers_that_were_started_earlier) {
    EXPECT_EQ(note_file_change(file_of("red").c_str()), 0);
    die();
    EXPECT_TRUE(restart_is_due("red", long_ago));
    EXPECT_FALSE(restart_is_due("red", just_now));
    EXPECT_FALSE(restart_is_due("blue", long_ago));
}

TEST_F(restart_record_test, after_an_interrupted_walk_every_older_server_is_due) {
    EXPECT_EQ(begin_restart_walk(), 0);
    die();
    for (const char* vrf : {"red", "blue", "green"}) {
        EXPECT_TRUE(restart_is_due(vrf, long_ago)) << vrf;
        EXPECT_FALSE(restart_is_due(vrf, just_now)) << vrf;
    }
    EXPECT_EQ(note_file_change(file_of("red").c_str()), 0);
    EXPECT_THAT(recorded(), testing::ElementsAre("*", "red"));
}

TEST_F(restart_record_test, the_record_of_an_earlier_process_survives_until_it_is_dropped) {
    EXPECT_EQ(note_file_change(file_of("red").c_str()), 0);
    die();
    // Another VRF's file changes before the first restart, and the process dies again.
    EXPECT_EQ(note_file_change(file_of("blue").c_str()), 0);
    EXPECT_THAT(recorded(), testing::ElementsAre("red", "blue"));
    die();
    EXPECT_TRUE(restart_is_due("red", long_ago));
    EXPECT_TRUE(restart_is_due("blue", long_ago));
    drop_earlier_restarts();
    EXPECT_FALSE(restart_is_due("red", long_ago));
    EXPECT_FALSE(path_exists(paths::restart_record));
}

TEST_F(restart_record_test, without_a_record_nothing_is_due) {
    take_over_restart_record();
    EXPECT_FALSE(restart_is_due("red", long_ago));
}

TEST_F(restart_record_test, a_damaged_record_stands_for_every_server) {
    for (const char* content : {"", "red\n", "*\n"}) {
        write_file(paths::restart_record, content);
        const size_t descriptors = open_descriptors();
        fake_platform::clear_reports();
        take_over_restart_record();
        EXPECT_TRUE(restart_is_due("red", just_now - 1)) << content;
        EXPECT_EQ(open_descriptors(), descriptors);
        const auto traces = fake_platform::trace_lines_of("ssh/cfg-agent/error");
        ASSERT_EQ(traces.size(), 1u);
        EXPECT_STREQ(traces[0].point->name, "config_files.open");
        EXPECT_THAT(traces[0].arguments, testing::ElementsAre(paths::restart_record, "r", testing::_));
    }
}

TEST_F(restart_record_test, a_change_that_cannot_be_recorded_is_refused) {
    find_vrf_node("red")->restart_put_off = 1;
    scratch_root::set_read_only("/run", true);
    EXPECT_EQ(note_file_change(file_of("red").c_str()), -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(begin_restart_walk(), -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_FALSE(restart_is_due("red", long_ago));
    scratch_root::set_read_only("/run", false);
    EXPECT_EQ(note_file_change(file_of("red").c_str()), 0);
    EXPECT_THAT(recorded(), testing::ElementsAre("red"));
    find_vrf_node("red")->restart_put_off = 0;
    scratch_root::set_read_only("/run", true);
    EXPECT_EQ(note_file_change(file_of("red").c_str()), -1);
    EXPECT_TRUE(restart_is_due("red", just_now)) << "because of the first change";
    scratch_root::set_read_only("/run", false);
}

TEST_F(restart_record_test, a_file_is_not_replaced_before_the_restart_is_recorded) {
    write_file(paths::server_file, "UsePAM no\n");
    write_file(file_of("red"), "UsePAM no\n");
    scratch_root::set_read_only("/run", true);
    uint32_t change = 0;
    EXPECT_EQ(update_vrf_config_file(event_set_value, "red", "UsePAM", "yes", &change), -1);
    EXPECT_EQ(read_file(file_of("red")), "UsePAM no\n");
    EXPECT_EQ(update_config_files_restart(event_set_value, "UsePAM", "yes", 1), -1);
    EXPECT_EQ(read_file(file_of("red")), "UsePAM no\n");
    EXPECT_THAT(fake_platform::calls(), testing::Contains("enforcement_failed(file /run/norvossh_restart_record, "
                                                          "Read-only file system)"));
}

TEST_F(restart_record_test, an_unchanged_file_needs_no_record) {
    write_file(file_of("red"), "UsePAM no\n");
    uint32_t change = 0;
    EXPECT_EQ(update_vrf_config_file(event_set_value, "red", "UsePAM", "no", &change), 0);
    EXPECT_FALSE(path_exists(paths::restart_record));
}

TEST_F(restart_record_test, the_time_of_the_record_is_that_of_systemds_clock) {
    const uint64_t before = microseconds_now();
    EXPECT_EQ(note_file_change(file_of("red").c_str()), 0);
    const uint64_t after = microseconds_now();
    const uint64_t time = std::stoull(file_lines(paths::restart_record).front());
    EXPECT_LE(before, time);
    EXPECT_LE(time, after);
}

TEST_F(restart_record_test, a_server_started_at_the_time_of_the_record_has_its_file) {
    write_file(paths::restart_record, "1000\nred\n");
    take_over_restart_record();
    EXPECT_TRUE(restart_is_due("red", 999));
    EXPECT_FALSE(restart_is_due("red", 1000));
}

TEST_F(restart_record_test, the_record_of_an_earlier_process_survives_the_restart_of_an_unknown_vrf) {
    write_file(paths::restart_record, "1000\nred\n");
    take_over_restart_record();
    note_restart_done("green");
    EXPECT_THAT(recorded(), testing::ElementsAre("red"));
}

TEST_F(restart_record_test, a_restart_that_was_not_due_leaves_the_record_alone) {
    write_file(paths::restart_record, "1000\nred\n");
    take_over_restart_record();
    note_restart_done("blue");
    EXPECT_EQ(read_file(paths::restart_record), "1000\nred\n");
}

TEST_F(restart_record_test, only_the_last_record_counts) {
    write_file(paths::restart_record, "1000\nred\n");
    take_over_restart_record();
    std::filesystem::remove(paths::restart_record);
    take_over_restart_record();
    EXPECT_FALSE(restart_is_due("red", long_ago));
}

// --- Everything that is asked, run and reported -----------------------------------------------------------------------

TEST_F(restart_record_test, every_failure_is_accounted_for) {
    const struct {
        const char* name;
        int (*run)();
    } operations[] = {{"change", [] { return note_file_change(file_of("red").c_str()); }},
                      {"walk", begin_restart_walk},
                      {"end of the walk",
                       [] {
                           end_restart_walk();
                           return 0;
                       }},
                      {"restart", [] {
                           note_restart_done("red");
                           return 0;
                       }}};
    std::string text;
    account();
    for (const char* failing : {"fopen", "stdio_write", "fflush", "fclose", "rename", "remove"}) {
        for (const auto& operation : operations) {
            const size_t descriptors = open_descriptors();
            call_faults::fail_call(failing, EIO, call_faults::once);
            errno = EEXIST;
            const int result = operation.run();
            const std::string error = result != 0 ? strerror(errno) : "";
            EXPECT_TRUE(result != 0 || errno == EEXIST) << operation.name << " without " << failing;
            call_faults::clear();
            text += std::string("== ") + operation.name + " without " + failing + ": " + std::to_string(result) + ' ' +
                    error + (path_exists(paths::restart_record_temporary) ? ", temporary file" : "") +
                    (path_exists(paths::restart_record) ? ", record of" : "");
            for (const std::string& vrf :
                 path_exists(paths::restart_record) ? recorded() : std::vector<std::string>()) {
                text += ' ' + vrf;
            }
            text += '\n' + account();
            EXPECT_EQ(open_descriptors(), descriptors) << operation.name << " without " << failing;
        }
        end_restart_walk();
        note_restart_done("red");
        account();
    }
    expect_golden("config_files/golden/restart_record_account", text);
}

}  // namespace
