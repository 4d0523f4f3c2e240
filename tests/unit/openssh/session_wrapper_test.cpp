/// The wrapper with its hook, installed in the scratch root. A shell with the hook stands in for sshd.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "common/text.h"
#include "openssh/run_programs.h"
#include "openssh/wrapper/session_command.h"

using namespace openssh;
using testing::UnorderedElementsAre;

namespace {

void install(const char* built, const std::filesystem::path& installed) {
    std::filesystem::create_directories(installed.parent_path());
    std::filesystem::copy_file(built, installed, std::filesystem::copy_options::overwrite_existing);
}

class session_wrapper_program : public testing::Test {
  protected:
    void SetUp() override {
        install(BUILT_SESSION_HOOK, session_hook);
        install(BUILT_SESSION_WRAPPER, session_wrapper);
    }

    /// Runs a command as sshd does for a session, in a session of its own.
    static program_result run(const std::string& command) {
        const std::string preload = std::string("LD_PRELOAD=") + session_hook;
        return run_programs(
            {{"/usr/bin/setsid", "/usr/bin/env", "-i", "SSH_CLIENT=192.0.2.1 40000 22", "COMMAND=" + command, preload,
              "/bin/bash", "--norc", "-c", "exec -a sh /bin/sh -c \"$COMMAND\""}},
            std::chrono::seconds(20))[0];
    }
};

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

}  // namespace

TEST_F(session_wrapper_program, leads_the_process_group_of_its_session) {
    const program_result result =
        run("tr '\\0' ' ' </proc/$PPID/cmdline; ps -o pid=,pgid=,sid= -p $PPID | xargs; echo $PPID");
    const std::vector<std::string> lines = lines_of(result.output);
    ASSERT_EQ(lines.size(), 2U) << result.output << result.errors;
    const std::string& pid = lines[1];
    EXPECT_EQ(lines[0], std::string(session_wrapper) + " " + pid + " " + pid + " " + pid);
}

TEST_F(session_wrapper_program, has_its_own_environment_and_leaves_the_sessions_alone) {
    EXPECT_EQ(run("cat /proc/$PPID/environ && echo read").output, "read\n");
    const program_result result = run("unset COMMAND; exec env");
    EXPECT_THAT(lines_of(result.output),
                UnorderedElementsAre("SSH_CLIENT=192.0.2.1 40000 22", std::string("LD_PRELOAD=") + session_hook,
                                     testing::StartsWith("PWD="), "SHLVL=0"));
}

TEST_F(session_wrapper_program, passes_the_exit_status_on) {
    for (const int status : {0, 1, 7, 127, 128, 130, 137, 143, 255}) {
        EXPECT_EQ(run("exit " + std::to_string(status)).status, status);
    }
}

TEST_F(session_wrapper_program, ends_with_the_signal_that_ended_the_session) {
    for (const int number : {1, 2, 3, 6, 9, 10, 11, 13, 15}) {
        const program_result result = run("kill -" + std::to_string(number) + " $$; sleep 5");
        EXPECT_EQ(result.failure, "was killed by signal " + std::to_string(number));
    }
}

TEST_F(session_wrapper_program, survives_the_signals_that_its_session_ignores) {
    const program_result result =
        run("trap '' HUP INT QUIT TERM USR1; for s in HUP INT QUIT TERM USR1; do kill -$s 0; done; "
            "sleep 0.2; ps -o stat= -p $PPID | cut -c1; exit 6");
    EXPECT_EQ(result.output, "S\n");
    EXPECT_EQ(result.status, 6);
}

TEST_F(session_wrapper_program, waits_for_a_session_that_ends_slowly) {
    const program_result result = run("trap 'sleep 0.3; echo tidied; exit 8' TERM; kill -TERM 0; sleep 5");
    EXPECT_EQ(result.output, "tidied\n");
    EXPECT_EQ(result.status, 8);
}

TEST_F(session_wrapper_program, is_skipped_when_it_is_not_installed) {
    std::filesystem::remove(session_wrapper);
    const program_result result = run("tr '\\0' ' ' </proc/$$/cmdline; exit 3");
    EXPECT_EQ(result.output.substr(0, 6), "sh -c ");
    EXPECT_EQ(result.status, 3);
}

TEST_F(session_wrapper_program, reports_that_it_has_nothing_to_start) {
    // The caller of the tests may have left its descriptor open.
    const std::string command = text_format("exec %s %d<&-", session_wrapper, session_descriptor);
    const program_result result = run_programs({{"/bin/sh", "-c", command}}, std::chrono::seconds(20))[0];
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.errors, "cannot read the session's command: Bad file descriptor\n");
}
