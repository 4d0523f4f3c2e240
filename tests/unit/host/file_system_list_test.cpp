#include "host/file_system_list.h"

#include <gmock/gmock.h>
#include <sys/stat.h>

#include <cerrno>

#include "../agent_test.h"
#include "call_faults.h"
#include "core/debug.h"
#include "scratch_root.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr char object[] = "/dev/shmem/shm_filesystem_list";
constexpr size_t object_size = 1024;

std::string zero_padded(std::string text) {
    text.resize(object_size);
    return text;
}

class file_system_list_test : public agent_test {
  protected:
    file_system_list_test() { fake_platform::preset_debug_flag(debug_cfg_agent, true); }
};

TEST_F(file_system_list_test, each_name_is_followed_by_a_space) {
    fake_platform::set_file_systems({"A", "B"});
    EXPECT_EQ(publish_filesystem_list(), 0);
    EXPECT_EQ(read_file(object), zero_padded("A B "));
    EXPECT_THAT(fake_platform::log_texts(), IsEmpty());
}

TEST_F(file_system_list_test, an_empty_list_is_an_empty_text) {
    fake_platform::set_file_systems({});
    EXPECT_EQ(publish_filesystem_list(), 0);
    EXPECT_EQ(read_file(object), std::string(object_size, '\0'));
}

TEST_F(file_system_list_test, everyone_can_read_and_write_the_object_regardless_of_the_umask) {
    for (const mode_t mask : {0, 022, 077}) {
        std::filesystem::remove(object);
        const mode_t before = umask(mask);
        EXPECT_EQ(publish_filesystem_list(), 0);
        umask(before);
        EXPECT_EQ(mode_of(object), mode_t{0666}) << mask;
    }
}

// 1023 characters and NUL fill the object.
TEST_F(file_system_list_test, a_list_of_1023_characters_is_the_longest) {
    fake_platform::set_file_systems({std::string(1000, 'a'), std::string(21, 'b')});
    EXPECT_EQ(publish_filesystem_list(), 0);
    EXPECT_EQ(read_file(object), zero_padded(std::string(1000, 'a') + " " + std::string(21, 'b') + " "));
}

TEST_F(file_system_list_test, a_longer_list_is_not_published_at_all) {
    const std::vector<std::vector<std::string>> lists = {
        {std::string(1000, 'a'), std::string(22, 'b')},
        {std::string(1023, 'a')},
        {std::string(5000, 'a')},
        {std::string(1023, 'a'), "b"},
        {std::string(1022, 'a'), "b"},
        std::vector<std::string>(600, "a"),
    };
    for (const auto& list : lists) {
        fake_platform::clear_reports();
        fake_platform::set_file_systems(list);
        EXPECT_EQ(publish_filesystem_list(), -1);
        EXPECT_FALSE(path_exists(object));
        EXPECT_THAT(fake_platform::log_texts(),
                    ElementsAre("INFO_GENERAL: Overflow detected while writing in filesystem array"));
    }
}

TEST_F(file_system_list_test, a_shorter_text_leaves_the_end_of_the_longer_one) {
    EXPECT_EQ(write_filesystem_list("harddisk: disk0: "), 0);
    EXPECT_EQ(write_filesystem_list("flash: "), 0);
    EXPECT_EQ(read_file(object), zero_padded(std::string("flash: \0: disk0: ", 17)));
}

TEST_F(file_system_list_test, an_object_of_another_size_is_resized) {
    write_file(object, std::string(5000, 'x'));
    EXPECT_EQ(write_filesystem_list("A "), 0);
    EXPECT_EQ(read_file(object), std::string("A \0", 3) + std::string(1021, 'x'));
    write_file(object, "");
    EXPECT_EQ(write_filesystem_list("A "), 0);
    EXPECT_EQ(read_file(object), zero_padded("A "));
}

TEST_F(file_system_list_test, a_text_that_is_too_long_is_truncated) {
    EXPECT_EQ(write_filesystem_list(std::string(3000, 'x').c_str()), 0);
    EXPECT_EQ(read_file(object), zero_padded(std::string(1023, 'x')));
}

TEST_F(file_system_list_test, a_platform_without_a_list_is_reported) {
    fake_platform::fail("file_system_list_get", EIO);
    EXPECT_EQ(publish_filesystem_list(), -1);
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre("ERR_GENERAL: Failed to get fslist"));
    EXPECT_TRUE(fake_platform::debugged("Failed to get fslist"));
    EXPECT_FALSE(path_exists(object));
}

TEST_F(file_system_list_test, a_missing_text_is_reported) {
    EXPECT_EQ(write_filesystem_list(nullptr), -1);
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre("ERR_GENERAL: NULL filesystem list"));
}

TEST_F(file_system_list_test, an_object_that_cannot_be_opened_is_reported) {
    scratch_root::set_read_only("/dev/shmem", true);
    EXPECT_EQ(publish_filesystem_list(), -1);
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre("ERR_ERRNO: Error:=Read-only file system(0x1e), Failed to open "
                                                        "shared memory for platform filesystem list"));
    EXPECT_TRUE(fake_platform::debugged("Failed to attach fslist in shared memory"));
}

// Others who may write to the directory must not redirect the agent's writes.
TEST_F(file_system_list_test, a_link_in_the_way_is_not_followed) {
    write_file("/tmp/target", "precious");
    std::filesystem::create_symlink("/tmp/target", object);
    EXPECT_EQ(publish_filesystem_list(), -1);
    EXPECT_EQ(read_file("/tmp/target"), "precious");
}

TEST_F(file_system_list_test, an_object_that_cannot_be_sized_or_mapped_is_reported_and_closed) {
    const size_t open_before = directory_names("/proc/self/fd").size();
    for (const char* call : {"ftruncate", "mmap"}) {
        fake_platform::clear_reports();
        call_faults::fail_call(call, ENOMEM, call_faults::once);
        EXPECT_EQ(write_filesystem_list("A "), -1);
        call_faults::clear();
        EXPECT_THAT(fake_platform::log_texts(),
                    ElementsAre("ERR_ERRNO: Error:=Cannot allocate memory(0xc), mmap failed "
                                "for platform filesystem list"));
    }
    EXPECT_EQ(directory_names("/proc/self/fd").size(), open_before);
}

// Writing to a mapping on a full file system would raise SIGBUS.
TEST_F(file_system_list_test, a_full_file_system_is_reported) {
    scratch_root::limit_space("/dev/shmem", 4096);
    write_file("/dev/shmem/filler", std::string(4096, 'x'));
    EXPECT_EQ(write_filesystem_list("A "), -1);
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre("ERR_ERRNO: Error:=No space left on device(0x1c), mmap failed "
                                                        "for platform filesystem list"));
}

}  // namespace
