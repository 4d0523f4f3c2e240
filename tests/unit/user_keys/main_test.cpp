/// The program that sshd runs to look up a user's key, run as sshd runs it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "key_samples.h"
#include "linux/host/key_store_internal.h"
#include "unit/linux/datastore/datastore_fixture.h"
#include "unit/linux/host/import_support.h"
#include "unit/linux/platform_test_support.h"
#include "user_keys/key_file.h"

namespace {

using testing::HasSubstr;

struct outcome {
    int status;
    std::string output;
    std::string errors;
};

outcome run(const std::string& arguments, const std::string& output = "/tmp/authorized_keys.out") {
    const int status = system(
        (std::string(AUTHORIZED_KEYS_PROGRAM) + ' ' + arguments + " > " + output + " 2> /tmp/authorized_keys.err")
            .c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output == "/dev/full" ? "" : key_test::contents(output),
            key_test::contents("/tmp/authorized_keys.err")};
}

class authorized_keys_program : public testing::Test {
  protected:
    void SetUp() override {
        datastore_configure(nullptr, "/var/lib/ssh_cfg_agent/datastore.db");
        ASSERT_EQ(datastore_open(), PLATFORM_OK);
        key_test::start_imports();
        ASSERT_EQ(key_test::import_key("alice", key + " her own comment"), PLATFORM_OK);
    }
    void TearDown() override { datastore_close(); }

    std::string key = key_test::key_of(key_test::usual(), key_test::modulus(2048));
};

TEST_F(authorized_keys_program, prints_a_users_keys_as_lines) {
    const outcome result = run("alice");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, key + " her own comment\n");
    EXPECT_EQ(result.errors, "");
    const std::string lines = "from=\"10.0.0.0/8\",restrict " + key_test::ed25519_of('a') + "\n" + key + " me\n";
    ASSERT_EQ(key_test::import_key("alice", lines), PLATFORM_OK);
    EXPECT_EQ(run("alice").output, lines);
}

TEST_F(authorized_keys_program, prints_only_approved_keys_in_fips_mode) {
    const std::string ecdsa = key_test::new_key("/tmp/key", "-t ecdsa -b 384");
    const std::string restricted = "command=\"ls \\\"a b\\\"\",restrict " + key + " me";
    ASSERT_EQ(key_test::import_key("alice", key_test::ed25519_of('a') + "\n" + restricted + "\n" + ecdsa), PLATFORM_OK);
    EXPECT_EQ(run("--fips alice").output, restricted + "\n" + ecdsa + "\n");
    ASSERT_EQ(key_test::import_key("alice", key_test::ed25519_of('a')), PLATFORM_OK);
    EXPECT_EQ(run("--fips alice").output, "");
    EXPECT_EQ(run("--fips alice").status, 0);
    EXPECT_EQ(run("--fips bob").output, "");
    EXPECT_EQ(run("--fips").status, 1);
    EXPECT_EQ(run("alice --fips").status, 1);
}

TEST_F(authorized_keys_program, prints_nothing_for_a_user_without_a_key) {
    const outcome result = run("bob");
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "");
    EXPECT_EQ(result.errors, "");
}

TEST_F(authorized_keys_program, works_while_the_agent_is_down) {
    datastore_close();
    EXPECT_EQ(run("alice").output, key + " her own comment\n");
}

TEST_F(authorized_keys_program, refuses_unusual_names) {
    for (const char* name : {"''", "../alice", "-alice", "'alice bob'", "'alice%'", "\"$(printf 'a\\nb')\""}) {
        const outcome result = run(std::string("-- ") + name);
        EXPECT_EQ(result.status, 1) << name;
        const outcome alone = run(name);
        EXPECT_EQ(alone.status, 1) << name;
        EXPECT_EQ(alone.output, "") << name;
        EXPECT_THAT(alone.errors, testing::StartsWith("authorized_keys: invalid user name: expected 1 to 64")) << name;
    }
    EXPECT_THAT(run("").errors, HasSubstr("usage: authorized_keys [--fips] USER"));
    EXPECT_EQ(run("alice bob").status, 1);
}

TEST_F(authorized_keys_program, reports_errors_in_one_line) {
    EXPECT_EQ(run("alice", "/dev/full").status, 1);
    EXPECT_EQ(run("alice", "/dev/full").errors, "authorized_keys: standard output: No space left on device\n");
    const std::string file = std::string(key_file_directory) + "/alice";
    std::filesystem::remove(file);
    std::filesystem::create_symlink("/etc/passwd", file);
    const outcome link = run("alice");
    EXPECT_EQ(link.status, 1);
    EXPECT_EQ(link.output, "");
    EXPECT_EQ(link.errors, "authorized_keys: " + file + ": Too many levels of symbolic links\n");
}

}  // namespace
