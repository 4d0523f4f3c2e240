#include "linux/enforcement/server_files.h"

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "common/launch_record.h"
#include "unit/linux/enforcement/enforcement_test_support.h"
#include "unit/linux/platform_test_support.h"

namespace {

using enforcement_test::comparison_script;
using enforcement_test::register_comparison;
using enforcement_test::subjects;
using platform_test::write_file;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char directory[] = "/run/ssh_cfg_agent/openssh";
constexpr char words[] = "sshd rejects the file (exit status 255): line 2: Bad key types";

class server_files_test : public testing::Test {
  protected:
    server_files_test() { std::filesystem::remove_all(directory); }
    ~server_files_test() override { std::filesystem::remove_all(directory); }

    static void started(const std::string& vrf, launch_file in_use, pid_t process = getpid()) {
        launch_record record;
        record.in_use = in_use;
        record.process = process;
        record.reason = in_use == launch_file::last_good ? words : "";
        std::filesystem::create_directories(directory);
        write_file(std::string(directory) + "/sshd_config_" + vrf + "~launch", launch_record_format(record));
    }

    enforcement_test::reset_at_end reset;
};

TEST_F(server_files_test, without_records_nothing_differs) {
    EXPECT_THAT(server_file_differences(), IsEmpty());
    server_files_report();
    EXPECT_FALSE(enforcement_any_failed());
}

TEST_F(server_files_test, a_server_with_an_earlier_file_is_reported_with_sshds_message) {
    started("red", launch_file::last_good);
    started("blue", launch_file::current);
    const auto differences = server_file_differences();
    ASSERT_EQ(differences.size(), 1U);
    EXPECT_EQ(differences[0].subject, "server file red");
    EXPECT_EQ(differences[0].text, std::string("sshd rejected the file, the last good one is in use: ") + words);
    server_files_report();
    EXPECT_THAT(subjects(enforcement_list()), ElementsAre("server file red"));
    started("red", launch_file::current);
    server_files_report();
    EXPECT_FALSE(enforcement_any_failed());
}

TEST_F(server_files_test, the_record_of_a_server_that_has_ended_does_not_count) {
    const pid_t gone = fork();
    if (gone == 0) {
        _exit(0);
    }
    waitpid(gone, nullptr, 0);
    started("red", launch_file::last_good, gone);
    EXPECT_THAT(server_file_differences(), IsEmpty());
}

TEST_F(server_files_test, other_files_are_ignored) {
    std::filesystem::create_directories(directory);
    for (const char* name : {"sshd_config_red", "sshd_config_~launch", "ssh_config~launch", "sshd_config_red~launch"}) {
        write_file(std::string(directory) + "/" + name, "no record\n");
    }
    EXPECT_THAT(server_file_differences(), IsEmpty());
}

TEST_F(server_files_test, a_comparison_finds_it_and_a_repair_leaves_it) {
    comparison_script script;
    ASSERT_EQ(register_comparison(script), PLATFORM_OK);
    started("red", launch_file::last_good);
    for (const bool repair : {false, true}) {
        const enforcement_comparison comparison = enforcement_reconcile(repair);
        EXPECT_EQ(comparison.remaining, 1);
        ASSERT_EQ(comparison.differences.size(), 1U);
        EXPECT_EQ(comparison.differences[0].subject, "server file red");
    }
    EXPECT_THAT(subjects(enforcement_list()), ElementsAre("server file red"));
    script.remaining = -1;
    EXPECT_EQ(enforcement_reconcile(false).remaining, -1);
    script.remaining = 0;
    started("red", launch_file::current);
    EXPECT_EQ(enforcement_reconcile(true).remaining, 0);
    EXPECT_FALSE(enforcement_any_failed());
}

}  // namespace
