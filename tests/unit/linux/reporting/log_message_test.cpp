#include "platform/log_message.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>

#include "linux/reporting/log_message_internal.h"
#include "unit/linux/platform_test_support.h"

using platform_test::datagram_listener;
using platform_test::journal_listener;

namespace {

constexpr log_message_entry entry = {"Error:=%s(0x%x), %s", "SSHD_CFG_AGT", "SECURITY", "ERR_ERRNO", 3, 0x1E000020};
constexpr char text[] = "Error:=No space left on device(0x1c), Failed";

TEST(log_message_test, goes_to_the_journal_with_the_entrys_fields) {
    journal_listener journal;
    log_message_send(&entry, text);
    auto fields = journal.receive_entry();
    EXPECT_EQ(text, fields["MESSAGE"]);
    EXPECT_EQ("3", fields["PRIORITY"]);
    EXPECT_EQ("ssh_cfg_agent", fields["SYSLOG_IDENTIFIER"]);
    EXPECT_EQ("ERR_ERRNO", fields["SSH_CFG_MESSAGE"]);
    EXPECT_EQ("0x1E000020", fields["SSH_CFG_NUMBER"]);
    EXPECT_EQ("3", fields["SSH_CFG_SEVERITY"]);
    EXPECT_EQ("SSHD_CFG_AGT", fields["SSH_CFG_FACILITY"]);
    EXPECT_EQ("SECURITY", fields["SSH_CFG_CATEGORY"]);
    EXPECT_EQ(0u, fields.count("CODE_FILE")) << "the platform's source line is not that of the message";
}

TEST(log_message_test, a_line_break_cannot_forge_a_field) {
    journal_listener journal;
    log_message_send(&entry, "first\nPRIORITY=0\nsecond");
    const std::string datagram = journal.receive();
    // The journal's protocol sends such a value with its length and without an equals sign.
    EXPECT_NE(std::string::npos, datagram.find(std::string("MESSAGE\n\x17\0\0\0\0\0\0\0first\nPRIORITY=0", 32)));
}

TEST(log_message_test, goes_to_syslog_without_a_journal) {
    std::filesystem::remove("/run/systemd/journal/socket");
    datagram_listener log("/dev/log");
    log_message_send(&entry, text);
    const std::string line = log.receive();
    EXPECT_EQ("<27>", line.substr(0, 4)) << "daemon facility, error";
    EXPECT_NE(std::string::npos, line.find(std::string("]: %SECURITY-SSHD_CFG_AGT-3-ERR_ERRNO : ") + text)) << line;
    EXPECT_NE(std::string::npos, line.find("ssh_cfg_agent[")) << line;
}

TEST(log_message_test, goes_to_syslog_while_the_journal_is_down) {
    // A socket without a listener, as while the journal restarts.
    std::filesystem::create_directories("/run/systemd/journal");
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {AF_UNIX, "/run/systemd/journal/socket"};
    ASSERT_EQ(0, bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    close(fd);
    datagram_listener log("/dev/log");
    log_message_send(&entry, text);
    EXPECT_NE(std::string::npos, log.receive().find(text));
    std::filesystem::remove("/run/systemd/journal/socket");
}

TEST(log_message_test, leaves_errno_alone) {
    std::filesystem::remove("/run/systemd/journal/socket");
    std::filesystem::remove("/dev/log");
    errno = ENOSPC;
    log_message_send(&entry, text);
    EXPECT_EQ(ENOSPC, errno);
    platform_log(LOG_ERR, "%s", text);
    EXPECT_EQ(ENOSPC, errno);
    journal_listener journal;
    errno = ENOSPC;
    log_message_send(&entry, text);
    EXPECT_EQ(ENOSPC, errno);
}

TEST(log_message_test, accepts_an_incomplete_entry) {
    journal_listener journal;
    const log_message_entry empty = {nullptr, nullptr, nullptr, nullptr, 99, 0};
    log_message_send(nullptr, text);
    log_message_send(&empty, nullptr);
    log_message_send(&empty, text);
    auto fields = journal.receive_entry();
    EXPECT_EQ(text, fields["MESSAGE"]);
    EXPECT_EQ("7", fields["PRIORITY"]) << "an invalid severity counts as the lowest";
    EXPECT_EQ("", fields["SSH_CFG_MESSAGE"]);
}

TEST(log_message_test, the_platforms_own_lines_are_truncated) {
    journal_listener journal;
    platform_log(LOG_WARNING, "%s", std::string(5000, 'x').c_str());
    auto fields = journal.receive_entry();
    EXPECT_EQ(std::string(1023, 'x'), fields["MESSAGE"]);
    EXPECT_EQ("4", fields["PRIORITY"]);
}

TEST(log_message_test, a_log_that_nobody_reads_costs_messages_and_no_time) {
    journal_listener journal;
    const auto begin = std::chrono::steady_clock::now();
    constexpr int all = 5000;
    for (int count = 0; count < all; count++) {
        platform_log(LOG_INFO, "message %d", count);
    }
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    std::string taken = journal.messages();
    const auto kept = std::count(taken.begin(), taken.end(), '\n');
    EXPECT_GT(kept, 0);
    EXPECT_LT(kept, all);
    EXPECT_EQ(taken.find("dropped"), std::string::npos);
    platform_log(LOG_INFO, "again");
    platform_log(LOG_INFO, "and again");
    EXPECT_EQ(std::to_string(all - kept) + " messages were dropped before this: the system's log did not take them\n" +
                  "again\nand again\n",
              journal.messages());
}

TEST(log_message_test, the_systems_log_does_not_make_the_agent_wait_either) {
    std::filesystem::remove("/run/systemd/journal/socket");
    datagram_listener log("/dev/log");
    for (int count = 0; count < 5000; count++) {
        log_message_send(&entry, text);
    }
    while (!log.receive(0).empty()) {
    }
    log_message_send(&entry, text);
    EXPECT_NE(std::string::npos, log.receive().find("messages were dropped"));
    EXPECT_NE(std::string::npos, log.receive().find(text));
}

TEST(log_message_test, standard_error_does_not_wait_where_it_is_a_socket) {
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    const int before = dup(STDERR_FILENO);
    ASSERT_EQ(STDERR_FILENO, dup2(ends[0], STDERR_FILENO));
    log_message_never_wait();
    const int flags = fcntl(STDERR_FILENO, F_GETFL);
    ASSERT_EQ(STDERR_FILENO, dup2(before, STDERR_FILENO));
    EXPECT_NE(0, flags & O_NONBLOCK);
    for (const int fd : {ends[0], ends[1], before}) {
        close(fd);
    }
}

}  // namespace
