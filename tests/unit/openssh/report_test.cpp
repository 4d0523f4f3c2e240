#include "openssh/report.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "common/text.h"
#include "openssh/text.h"

using namespace openssh;

namespace {

std::string read_everything(int fd) {
    char buffer[4096];
    const ssize_t length = read(fd, buffer, sizeof buffer);
    return {buffer, length > 0 ? static_cast<size_t>(length) : 0};
}

}  // namespace

TEST(launcher_report, names_the_server_file_in_every_line) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const reporter to{.server_file = "/a/sshd_config_red", .fd = ends[1]};
    report_words(to, severity::error, "sshd says: ", "one\r\n\ntwo\x1b\n");
    EXPECT_EQ(read_everything(ends[0]),
              "sshd: /a/sshd_config_red: sshd says: one\nsshd: /a/sshd_config_red: sshd says: two\\x1b\n");
    close(ends[0]);
    close(ends[1]);
}

TEST(launcher_report, marks_the_severity_for_the_journal) {
    const reporter to{.server_file = "/a", .way = report_way::marked_text};
    EXPECT_EQ(format_report(to, severity::error, "x"), "<3>/a: x\n");
    EXPECT_EQ(format_report(to, severity::warning, "x"), "<4>/a: x\n");
    EXPECT_EQ(format_report(to, severity::notice, "x"), "<5>/a: x\n");
}

TEST(launcher_report, a_file_name_cannot_forge_a_line) {
    EXPECT_EQ(format_report({.server_file = "/a\n<0>x", .way = report_way::marked_text}, severity::notice, "t"),
              "<5>/a\\x0a<0>x: t\n");
}

TEST(launcher_report, a_service_reports_to_the_journal) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    struct stat status;
    ASSERT_EQ(fstat(ends[1], &status), 0);
    const std::string stream = text_format("%llu:%llu", static_cast<unsigned long long>(status.st_dev),
                                           static_cast<unsigned long long>(status.st_ino));
    EXPECT_EQ(choose_report_way(ends[1], stream.c_str(), true), report_way::system_log);
    EXPECT_EQ(choose_report_way(ends[1], stream.c_str(), false), report_way::marked_text);
    close(ends[0]);
    // A service whose standard error was redirected is not connected to the journal, nor is its child.
    for (const std::string& other : {stream + "1", stream + "x", std::string("8"), std::string()}) {
        EXPECT_EQ(choose_report_way(ends[1], other.c_str(), true), report_way::text) << other;
    }
    EXPECT_EQ(choose_report_way(ends[1], nullptr, true), report_way::text);
    close(ends[1]);
    EXPECT_EQ(choose_report_way(-1, stream.c_str(), true), report_way::text);
}

TEST(launcher_report, tells_the_journal_which_service_it_is_about) {
    std::filesystem::create_directories("/run/systemd/journal");
    const int journal = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = {AF_UNIX, "/run/systemd/journal/socket"};
    ASSERT_EQ(bind(journal, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    report({.server_file = "/a", .way = report_way::system_log, .service = "sshd_service_red.service"}, severity::error,
           "not started");
    EXPECT_EQ(read_everything(journal),
              "MESSAGE=/a: not started\nPRIORITY=3\nSYSLOG_FACILITY=4\n"
              "SYSLOG_IDENTIFIER=norvosshd\nSYSLOG_PID=" +
                  std::to_string(getpid()) + "\nOBJECT_SYSTEMD_UNIT=sshd_service_red.service\n");
    close(journal);
}

TEST(launcher_report, goes_to_syslog_without_a_journal) {
    const int log = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = {AF_UNIX, "/dev/log"};
    std::filesystem::remove("/dev/log");
    ASSERT_EQ(bind(log, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    report({.server_file = "/a", .way = report_way::system_log, .service = "a.service"}, severity::error,
           "not started");
    const std::string line = read_everything(log);
    EXPECT_TRUE(line.starts_with("<11>")) << line;
    EXPECT_TRUE(line.ends_with(": /a: not started")) << line;
    close(log);
}
