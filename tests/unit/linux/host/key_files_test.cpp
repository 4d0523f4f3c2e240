#include "linux/host/key_files.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "linux/enforcement/enforcement_internal.h"
#include "linux/host/key_store_internal.h"
#include "scratch_root.h"
#include "unit/linux/datastore/datastore_fixture.h"
#include "unit/linux/enforcement/enforcement_test_support.h"
#include "unit/linux/host/import_support.h"
#include "unit/linux/platform_test_support.h"
#include "unit/user_keys/key_samples.h"
#include "user_keys/key_file.h"

namespace {

using key_test::key_of;
using key_test::modulus;
using key_test::usual;
using platform_test::write_file;
using testing::ElementsAre;
using testing::IsEmpty;

const std::string file = std::string(key_file_directory) + "/alice";

class key_files_test : public datastore_test::served_datastore_test {
  protected:
    void SetUp() override {
        served_datastore_test::SetUp();
        key_test::start_imports();
        ASSERT_EQ(key_test::import_key("alice", key_of(usual(), modulus(1024))), PLATFORM_OK);
    }
    void TearDown() override {
        std::filesystem::remove_all(key_file_directory);
        served_datastore_test::TearDown();
    }

    static std::vector<std::string> compare(bool repair, int expected_remaining) {
        std::vector<std::string> found;
        const auto sink = [](const char* subject, const char* text, void* context) {
            static_cast<std::vector<std::string>*>(context)->push_back(std::string(subject) + ": " + text);
        };
        EXPECT_EQ(key_files_compare(repair, sink, &found), expected_remaining);
        return found;
    }

    static void expect_repaired(const std::string& text) {
        EXPECT_THAT(compare(false, 1), ElementsAre(text));
        EXPECT_THAT(compare(true, 0), ElementsAre(text));
        EXPECT_THAT(compare(false, 0), IsEmpty());
    }

    enforcement_test::reset_at_end reset;
};

TEST_F(key_files_test, content_owner_and_mode_count) {
    EXPECT_THAT(compare(false, 0), IsEmpty());
    ASSERT_EQ(unlink(file.c_str()), 0);
    expect_repaired("key alice: the file that sshd reads is missing");
    write_file(file, "ssh-rsa AAAA\n");
    expect_repaired("key alice: the file that sshd reads has other keys");
    ASSERT_EQ(chmod(file.c_str(), 0644), 0);
    expect_repaired("key alice: the file that sshd reads has another owner or mode than root and 0600");
}

TEST_F(key_files_test, a_file_without_a_key_is_removed) {
    write_file(std::string(key_file_directory) + "/mallory", "ssh-rsa AAAA\n");
    expect_repaired("key mallory: there is a file for sshd, but no key is stored");
    EXPECT_FALSE(std::filesystem::exists(std::string(key_file_directory) + "/mallory"));
}

TEST_F(key_files_test, a_file_that_cannot_be_written_remains) {
    std::filesystem::remove(file);
    scratch_root::set_read_only(key_file_directory, true);
    EXPECT_THAT(compare(true, 1), ElementsAre("key alice: the file that sshd reads is missing"));
    ASSERT_EQ(enforcement_list().size(), 1U);
    EXPECT_EQ(enforcement_list()[0].reason, "the file that sshd reads is missing: Read-only file system");
    scratch_root::set_read_only(key_file_directory, false);
}

TEST_F(key_files_test, keys_that_cannot_be_read_are_a_difference_that_remains) {
    datastore_close();
    EXPECT_THAT(compare(false, 1), ElementsAre(testing::StartsWith("keys: they cannot be compared: ")));
    EXPECT_FALSE(enforcement_any_failed());
    EXPECT_THAT(compare(true, 1), ElementsAre(testing::StartsWith("keys: they cannot be compared: ")));
    EXPECT_TRUE(enforcement_any_failed());
    open();
}

}  // namespace
