#include "openssh/sessions/page_reader.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "scratch.h"
#include "session_test.h"

using namespace openssh;
using namespace openssh_test;

namespace {

/// Reads the page in a file with these bytes.
bool read_bytes(const std::string& bytes, session_facts& facts, size_t offset = 0) {
    const int file = make_client_file(bytes, 0);
    const bool is_read = read_page(file, offset, facts);
    close(file);
    return is_read;
}

bool page_is_refused(const std::string& bytes, size_t offset = 0) {
    session_facts facts = facts_of_session(1, "untouched");
    return !read_bytes(bytes, facts, offset) && text_of_field(facts.user) == "untouched";
}

template <typename number>
std::string with(std::string bytes, size_t offset, number value) {
    std::memcpy(bytes.data() + offset, &value, sizeof(value));
    return bytes;
}

/// Facts that are all derived from one number, so a mixture of two is recognised.
session_facts uniform_facts(uint32_t number) {
    session_facts facts = facts_of_session(static_cast<pid_t>(number + 1), std::to_string(number % 10).c_str());
    facts.rekey.count = number;
    facts.channels[most_channels - 1].id = number;
    set_field(facts.algorithms.out_mac, std::to_string(number % 10));
    return facts;
}

bool is_uniform(const session_facts& facts) {
    return facts.rekey.count == facts.channels[most_channels - 1].id &&
           facts.rekey.count + 1 == static_cast<uint32_t>(facts.pid) &&
           text_of_field(facts.user) == text_of_field(facts.algorithms.out_mac);
}

}  // namespace

TEST(session_page, is_read_as_it_was_written) {
    session_facts facts = facts_of_session(351);
    facts.channels[15] = {.state = channel_running, .id = 4, .type = connection_sftp, .login = 1, .terminal = 2};
    session_facts read;
    ASSERT_TRUE(read_bytes(page_of(facts), read));
    EXPECT_EQ(std::memcmp(&read, &facts, sizeof(facts)), 0);
    ASSERT_TRUE(read_bytes(std::string(session_page_size, '\0') + page_of(facts), read, reported_page));
    EXPECT_STREQ(read.user, "operator");
}

TEST(session_page, of_another_kind_is_refused) {
    const std::string page = page_of(facts_of_session(351));
    EXPECT_TRUE(page_is_refused(std::string(session_page_size, '\0'))) << "nothing was written yet";
    EXPECT_TRUE(page_is_refused(with(page, offsetof(session_page, magic), 1U)));
    EXPECT_TRUE(page_is_refused(with(page, offsetof(session_page, version), session_page_version + 1)));
    EXPECT_TRUE(page_is_refused(with(page, offsetof(session_page, facts_size), uint32_t{sizeof(session_facts) - 4})));
}

TEST(session_page, of_the_first_version_lacks_the_login) {
    session_facts facts = facts_of_session(351);
    facts.channels[most_channels - 1] = {.state = channel_running, .id = 4, .type = connection_sftp};
    std::string page = with(page_of(facts), offsetof(session_page, version), 1U);
    page = with(page, offsetof(session_page, facts_size), static_cast<uint32_t>(first_session_facts_size));
    page = with(page, offsetof(session_page, facts) + offsetof(session_facts, login), uint64_t{77});
    session_facts read;
    ASSERT_TRUE(read_bytes(page, read));
    EXPECT_STREQ(read.user, "operator");
    EXPECT_EQ(read.channels[most_channels - 1].id, 4U);
    EXPECT_EQ(read.login.time, 0U);
    EXPECT_STREQ(read.login.key_type, "");
    EXPECT_TRUE(page_is_refused(with(page, offsetof(session_page, version), 2U))) << "version 2 is longer";
}

TEST(session_page, that_is_truncated_is_refused) {
    const std::string page = page_of(facts_of_session(351));
    for (const size_t size : {size_t{0}, size_t{1}, size_t{15}, size_t{16}, sizeof(session_page) - 1}) {
        EXPECT_TRUE(page_is_refused(page.substr(0, size))) << size;
    }
    EXPECT_TRUE(page_is_refused(page, reported_page));
}

TEST(session_page, in_the_middle_of_a_change_is_refused) {
    const std::string page = page_of(facts_of_session(351));
    EXPECT_TRUE(page_is_refused(with(page, offsetof(session_page, sequence), 7U)));
}

TEST(session_page, is_whole_again_after_a_writer_that_died_in_the_middle) {
    session_page page;
    page.sequence = 7;
    write_page(page, facts_of_session(351));
    EXPECT_EQ(page.sequence, 8U);
    write_page(page, facts_of_session(351));
    EXPECT_EQ(page.sequence, 10U);
}

TEST(session_page, is_never_read_half_changed) {
    const int file = make_client_file(page_of(uniform_facts(0)), 0);
    auto* page =
        static_cast<session_page*>(mmap(nullptr, session_page_size, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
    ASSERT_NE(page, MAP_FAILED);
    std::atomic<bool> is_over = false;
    std::thread writer([&] {
        for (uint32_t number = 1; !is_over; ++number) {
            write_page(*page, uniform_facts(number));
        }
    });
    int whole = 0;
    for (int attempt = 0; whole < 2000 && attempt < 10'000'000; ++attempt) {
        session_facts facts;
        if (read_page(file, 0, facts)) {
            ++whole;
            EXPECT_TRUE(is_uniform(facts)) << facts.rekey.count;
        }
    }
    is_over = true;
    writer.join();
    EXPECT_EQ(whole, 2000);
    munmap(page, session_page_size);
    close(file);
}

TEST(session_page, with_hostile_content_is_cleaned) {
    session_facts facts = facts_of_session(351);
    std::memset(facts.user, 'x', sizeof(facts.user));
    set_field(facts.host, "10.0.0.7\n<0>forged");
    set_field(facts.algorithms.kex, "\x1b[2J");
    set_field(facts.login.key_type, "\x1b[2J");
    std::memset(facts.login.key_fingerprint, 'x', sizeof(facts.login.key_fingerprint));
    facts.login.port = 1U << 20U;
    std::memset(facts.algorithms.out_mac, 0xff, sizeof(facts.algorithms.out_mac));
    facts.state = 77;
    facts.channels[0] = {.state = 3, .id = 1, .type = connection_shell};
    facts.channels[1] = {.state = channel_running, .id = 2, .type = 7};
    facts.channels[2] = {.state = channel_running, .id = 3, .type = connection_shell};
    session_facts read;
    ASSERT_TRUE(read_bytes(page_of(facts), read));
    EXPECT_EQ(text_of_field(read.user), std::string(sizeof(facts.user) - 1, 'x'));
    EXPECT_EQ(text_of_field(read.host) + text_of_field(read.algorithms.kex) + text_of_field(read.algorithms.out_mac),
              "");
    EXPECT_STREQ(read.login.key_type, "");
    EXPECT_EQ(text_of_field(read.login.key_fingerprint), std::string(sizeof(facts.login.key_fingerprint) - 1, 'x'));
    EXPECT_LE(read.login.port, UINT16_MAX);
    EXPECT_EQ(read.state, session_established);
    EXPECT_EQ(read.channels[0].state + read.channels[1].state, channel_unused);
    EXPECT_EQ(read.channels[2].id, 3U);
}

TEST(reported_facts, do_not_alter_who_is_logged_in_and_how) {
    session_facts facts = facts_of_session(351);
    session_facts reported = facts_of_session(1, "root");
    set_field(reported.host, "192.0.2.1");
    set_field(reported.method, "rsa-pubkey");
    set_field(reported.algorithms.kex, "forged");
    reported.state = session_negotiating;
    set_field(reported.login.key_fingerprint, "forged");
    reported.channels[3] = {.state = channel_running, .id = 9, .type = connection_shell};
    reported.session_pid = 357;
    add_reported(facts, reported);
    EXPECT_STREQ(facts.user, "operator");
    EXPECT_STREQ(facts.host, "10.0.0.7");
    EXPECT_STREQ(facts.method, "password");
    EXPECT_STREQ(facts.login.key_fingerprint, "");
    EXPECT_STREQ(facts.algorithms.kex, "ecdh-sha2-nistp256") << "the algorithms of the login are the monitor's";
    EXPECT_EQ(facts.state, session_established);
    EXPECT_EQ(facts.pid, 351);
    EXPECT_EQ(facts.channels[3].id, 9U);
    EXPECT_EQ(facts.session_pid, 357);
}

TEST(reported_facts, include_the_algorithms_of_a_rekey) {
    session_facts facts = facts_of_session(351);
    session_facts reported = facts;
    reported.rekey.count = 1;
    set_field(reported.algorithms.kex, "curve25519-sha256");
    add_reported(facts, reported);
    EXPECT_STREQ(facts.algorithms.kex, "curve25519-sha256");
    EXPECT_EQ(facts.rekey.count, 1U);
}

TEST(server_file, is_private_and_of_its_size) {
    const scratch_directory folder;
    const auto is_accepted = [&](const std::string& path) {
        const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        const bool accepted = is_server_file(file);
        close(file);
        return accepted;
    };
    const std::string bytes = server_file_of(facts_of_session(351));
    EXPECT_TRUE(is_accepted(folder.write("good", bytes)));
    EXPECT_FALSE(is_accepted(folder.write("readable", bytes, 0640)));
    EXPECT_FALSE(is_accepted(folder.write("writable", bytes, 0602)));
    EXPECT_FALSE(is_accepted(folder.write("short", bytes.substr(1))));
    EXPECT_FALSE(is_accepted(folder.write("long", bytes + "x")));
    EXPECT_FALSE(is_accepted(folder.path()));
    ASSERT_EQ(link(folder.file("good").c_str(), folder.file("twin").c_str()), 0);
    EXPECT_FALSE(is_accepted(folder.file("good")));
    EXPECT_FALSE(is_server_file(-1));
}

TEST(client_file, is_sealed_and_of_its_size) {
    const auto is_accepted = [](const std::string& bytes, unsigned seals) {
        const int file = make_client_file(bytes, seals);
        const bool accepted = is_client_file(file);
        close(file);
        return accepted;
    };
    const std::string page = page_of(facts_of_session(539));
    EXPECT_TRUE(is_accepted(page, client_page_seals));
    EXPECT_TRUE(is_accepted(page, client_page_seals | F_SEAL_WRITE)) << "nobody changes it any more";
    for (const unsigned seal : {F_SEAL_SEAL, F_SEAL_SHRINK, F_SEAL_GROW, F_SEAL_FUTURE_WRITE}) {
        EXPECT_FALSE(is_accepted(page, client_page_seals & ~seal)) << seal;
    }
    EXPECT_FALSE(is_accepted(page.substr(1), client_page_seals));
    EXPECT_FALSE(is_accepted(page + page, client_page_seals));
    const scratch_directory folder;
    const int file = open(folder.write("file", page).c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_FALSE(is_client_file(file)) << "a file system of the user's could block the reader";
    close(file);
}

TEST(session_name, is_parsed_and_written) {
    session_process process;
    ASSERT_TRUE(parse_session_name("351.3510", process));
    EXPECT_EQ(process.pid, 351);
    EXPECT_EQ(process.start_time, 3510U);
    EXPECT_EQ(session_name(process), "351.3510");
    for (const char* name : {"", "351", "351.", ".3510", "0.1", "-1.2", "351.3510.new", "0351.3510", "351.03510",
                             "351.x", "99999999999.1", "../351.3510"}) {
        EXPECT_FALSE(parse_session_name(name, process)) << name;
    }
}
