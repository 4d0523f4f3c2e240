#include "linux/lockout/login_session.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "openssh/reporter/session_page.h"
#include "openssh/sessions/process_info.h"

namespace {

constexpr char ipv4_line[] =
    "   3: 010200C0:0016 070200C0:C350 01 00000000:00000000 02:000A7B3C 00000000     0        0 4711 2 0 20 4 1 10 -1";
constexpr char mapped_line[] =
    "   0: 0000000000000000FFFF0000010200C0:033E 0000000000000000FFFF0000070200C0:C350 01 00000000:00000000 "
    "00:00000000 00000000 0 0 4711 1";
constexpr char ipv6_line[] =
    "   0: B80D0120000000000000000001000000:0016 B80D0120000000000000000007000000:C350 01 00000000:00000000 "
    "00:00000000 00000000 0 0 4711 1";

TEST(login_connection_in, an_ipv4_connection) {
    const auto connection = login_connection_in(ipv4_line, {4711});
    ASSERT_TRUE(connection.has_value());
    EXPECT_FALSE(connection->is_ipv6);
    EXPECT_EQ(connection->source, (ip_octets{192, 0, 2, 7}));
    EXPECT_EQ(connection->destination, (ip_octets{192, 0, 2, 1}));
    EXPECT_EQ(connection->source_port, 50000);
    EXPECT_EQ(connection->destination_port, 22);
    EXPECT_FALSE(login_connection_in(ipv4_line, {4712}).has_value()) << "another process's socket";
}

TEST(login_connection_in, an_ipv4_connection_of_an_ipv6_socket) {
    const auto connection = login_connection_in(mapped_line, {4711});
    ASSERT_TRUE(connection.has_value());
    EXPECT_FALSE(connection->is_ipv6);
    EXPECT_EQ(connection->source, (ip_octets{192, 0, 2, 7}));
    EXPECT_EQ(connection->destination_port, 830);
}

TEST(login_connection_in, an_ipv6_connection) {
    const auto connection = login_connection_in(ipv6_line, {4711});
    ASSERT_TRUE(connection.has_value());
    EXPECT_TRUE(connection->is_ipv6);
    EXPECT_EQ(connection->source, (ip_octets{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7}));
}

TEST(login_connection_in, other_lines) {
    std::string listening = ipv4_line;
    listening.replace(listening.find(" 01 "), 4, " 0A ");
    for (const std::string& line :
         {listening, std::string(), std::string("  sl  local_address rem_address   st tx_queue rx_queue tr tm->when"),
          std::string("0: 010200C:0016 070200C0:C350 01 0 0 0 0 0 0 4711"),
          std::string("0: 010200C0:0016 070200C0 01 0 0 0 0 0 4711 4711"),
          std::string("0: 010200G0:0016 070200C0:C350 01 0 0 0 0 0 4711 4711")}) {
        EXPECT_FALSE(login_connection_in(line, {4711}).has_value()) << line;
    }
}

TEST(login_session_of, a_process_without_session_has_none) {
    EXPECT_FALSE(login_session_of(getpid()).has_value());
    EXPECT_FALSE(login_session_of(999999999).has_value());
}

class login_facts_test : public testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(openssh::read_process(getpid(), own));
        std::filesystem::create_directories(openssh::session_file_folder);
        path = std::string(openssh::session_file_folder) + '/' + std::to_string(getpid()) + '.' +
               std::to_string(own.start_time);
    }
    void TearDown() override { std::filesystem::remove(path); }

    /// Writes a page of this process.
    void write(uint64_t start_time, mode_t mode = 0600) const {
        openssh::session_page page;
        openssh::session_facts facts;
        facts.pid = getpid();
        facts.start_time = start_time;
        openssh::set_field(facts.user, "alice");
        openssh::write_page(page, facts);
        std::string content(openssh::server_file_size, '\0');
        content.replace(0, sizeof page, reinterpret_cast<const char*>(&page), sizeof page);
        std::ofstream(path, std::ios::binary) << content;
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
    }

    openssh::process_info own;
    std::string path;
};

TEST_F(login_facts_test, the_page_of_a_server_is_found_from_its_descendants) {
    write(own.start_time);
    const pid_t child = fork();
    if (child == 0) {
        const auto facts = login_facts_of(getpid(), own.program);
        _exit(facts.has_value() && std::string_view(facts->user) == "alice" && facts->pid == getppid() ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}

// A user can write a page, but can neither become sshd nor put the page into root's folder.
TEST_F(login_facts_test, a_forged_page_is_not_believed) {
    EXPECT_FALSE(login_facts_of(getpid(), own.program).has_value()) << "no page";
    write(own.start_time);
    EXPECT_FALSE(login_facts_of(getpid(), "/usr/sbin/sshd").has_value()) << "another program";
    write(own.start_time + 1);
    EXPECT_FALSE(login_facts_of(getpid(), own.program).has_value()) << "another process's page";
    write(own.start_time, 0622);
    EXPECT_FALSE(login_facts_of(getpid(), own.program).has_value()) << "others may write to it";
}

}  // namespace
