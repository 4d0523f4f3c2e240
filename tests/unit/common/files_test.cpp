#include "common/files.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "call_faults.h"
#include "files.h"
#include "scratch_root.h"
#include "syscall_faults.h"

namespace {

using syscall_faults::fault;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char folder[] = "/var/tmp/whole_files";
const std::string path = std::string(folder) + "/file";
const std::string temporary = path + ".new";

class whole_files : public testing::Test {
  protected:
    void SetUp() override {
        remove_path(folder);
        std::filesystem::create_directories(folder);
        call_faults::clear();
    }
    void TearDown() override { call_faults::clear(); }

    static platform_status read(size_t size_max, std::string& content, file_links links = file_links::followed) {
        return file_read(path, size_max, content, links);
    }

    static mode_t mode_of(const std::string& file) {
        struct stat status = {};
        EXPECT_EQ(stat(file.c_str(), &status), 0) << file;
        return status.st_mode & 07777;
    }

    /// The old content, and no other file in the folder.
    static void expect_untouched() {
        EXPECT_EQ(file_content(path), "old");
        EXPECT_THAT(directory_names(folder), ElementsAre("file"));
    }
};

TEST_F(whole_files, are_read_with_every_byte) {
    const std::string bytes("a\0b\n\xff", 5);
    write_file(path, bytes);
    std::string content = "before";
    EXPECT_EQ(read(5, content), PLATFORM_OK);
    EXPECT_EQ(content, bytes);
    write_file(path, "");
    EXPECT_EQ(read(0, content), PLATFORM_OK);
    EXPECT_EQ(content, "");
}

TEST_F(whole_files, larger_than_a_buffer_are_read_up_to_the_limit) {
    const std::string large(100'000, 'x');
    write_file(path, large);
    std::string content = "before";
    EXPECT_EQ(read(large.size() - 1, content), platform_status{EFBIG});
    EXPECT_EQ(content, "before");
    EXPECT_EQ(read(large.size(), content), PLATFORM_OK);
    EXPECT_EQ(content, large);
}

TEST_F(whole_files, that_cannot_be_read_return_the_reason_and_leave_the_content_alone) {
    std::string content = "before";
    EXPECT_EQ(read(9, content), platform_status{ENOENT});
    std::filesystem::create_directory(path);
    EXPECT_EQ(read(9, content), platform_status{EISDIR});
    remove_path(path);
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(read(9, content), platform_status{EINVAL});
    remove_path(path);
    write_file(path, "old");
    call_faults::fail_call("read", EIO);
    EXPECT_EQ(read(9, content), platform_status{EIO});
    call_faults::fail_call("fstat", EOVERFLOW);
    EXPECT_EQ(read(9, content), platform_status{EOVERFLOW});
    EXPECT_EQ(content, "before");
}

TEST_F(whole_files, are_read_through_links_only_where_allowed) {
    write_file(path + "~", "old");
    std::filesystem::create_symlink(path + "~", path);
    std::string content;
    EXPECT_EQ(read(9, content, file_links::refused), platform_status{ELOOP});
    EXPECT_EQ(read(9, content), PLATFORM_OK);
    EXPECT_EQ(content, "old");
}

TEST_F(whole_files, are_read_despite_short_and_interrupted_reads) {
    write_file(path, "content");
    std::string content;
    call_faults::cut_call("read", 2);
    EXPECT_EQ(read(9, content), PLATFORM_OK);
    EXPECT_EQ(content, "content");
    call_faults::clear();
    call_faults::fail_call("read", EINTR, 3);
    EXPECT_EQ(read(9, content), PLATFORM_OK);
    EXPECT_EQ(content, "content");
}

TEST_F(whole_files, read_to_the_end_may_be_pipes) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(::write(ends[1], "piped", 5), 5);
    ::close(ends[1]);
    std::string content;
    EXPECT_EQ(file_read_to_end(ends[0], 5, content), PLATFORM_OK);
    EXPECT_EQ(content, "piped");
    ::close(ends[0]);
    EXPECT_EQ(file_read_to_end(ends[0], 5, content), platform_status{EBADF});
}

TEST_F(whole_files, are_replaced_with_the_mode_regardless_of_the_umask) {
    write_file(path, "old");
    const mode_t before = umask(077);
    EXPECT_EQ(file_replace(path, "new", {.mode = 0644}), PLATFORM_OK);
    umask(0);
    EXPECT_EQ(file_replace(path + "2", "", {}), PLATFORM_OK);
    umask(before);
    EXPECT_EQ(file_content(path), "new");
    EXPECT_EQ(mode_of(path), 0644U);
    EXPECT_EQ(file_content(path + "2"), "");
    EXPECT_EQ(mode_of(path + "2"), 0600U);
    EXPECT_THAT(directory_names(folder), ElementsAre("file", "file2"));
}

TEST_F(whole_files, that_are_durable_are_synced_before_the_rename_and_their_folder_after_it) {
    call_faults::start_recording();
    EXPECT_EQ(file_replace(path, "new", {.durable = true}), PLATFORM_OK);
    EXPECT_THAT(call_faults::recorded_calls(),
                testing::IsSupersetOf(
                    {"fsync(" + temporary + ")", "rename(" + path + ")", "fsync(" + std::string(folder) + ")"}));
    std::vector<std::string> order;
    for (const std::string& call : call_faults::recorded_calls()) {
        if (call.starts_with("fsync") || call.starts_with("rename") || call.starts_with("write")) {
            order.push_back(call.substr(0, call.find('(')));
        }
    }
    EXPECT_THAT(order, ElementsAre("write", "fsync", "rename", "fsync"));
    call_faults::clear();
    EXPECT_EQ(file_replace(path, "newer", {}), PLATFORM_OK);
    EXPECT_EQ(call_faults::count_calls("fsync"), 0U);
}

TEST_F(whole_files, keep_the_old_content_on_a_full_or_read_only_disk) {
    write_file(path, "old");
    scratch_root::limit_space(folder, 64U * 1024);
    EXPECT_EQ(file_replace(path, std::string(1024U * 1024, 'x'), {}), platform_status{ENOSPC});
    expect_untouched();
    scratch_root::set_read_only(folder, true);
    EXPECT_EQ(file_replace(path, "new", {}), platform_status{EROFS});
    expect_untouched();
    scratch_root::set_read_only(folder, false);
}

TEST_F(whole_files, need_a_folder) {
    EXPECT_EQ(file_replace(std::string(folder) + "/none/file", "new", {}), platform_status{ENOENT});
    EXPECT_EQ(file_write_new(std::string(folder) + "/none/file", "new", {}), platform_status{ENOENT});
    EXPECT_EQ(file_sync_folder(std::string(folder) + "/none"), platform_status{ENOENT});
    write_file(path, "old");
    EXPECT_EQ(file_sync_folder(path), platform_status{ENOTDIR});
}

TEST_F(whole_files, are_not_written_through_a_link_at_the_temporary_name) {
    write_file(path, "old");
    write_file("/var/tmp/precious", "precious");
    std::filesystem::create_symlink("/var/tmp/precious", temporary);
    EXPECT_EQ(file_replace(path, "new", {}), PLATFORM_OK);
    EXPECT_EQ(file_content("/var/tmp/precious"), "precious");
    EXPECT_EQ(file_content(path), "new");
    EXPECT_FALSE(std::filesystem::is_symlink(path));
    EXPECT_THAT(directory_names(folder), ElementsAre("file"));
}

TEST_F(whole_files, replace_a_file_that_a_crash_left_at_the_temporary_name) {
    write_file(temporary, "a much longer left-over");
    EXPECT_EQ(file_replace(path, "new", {}), PLATFORM_OK);
    EXPECT_EQ(file_content(path), "new");
    EXPECT_THAT(directory_names(folder), ElementsAre("file"));
}

TEST_F(whole_files, keep_the_old_content_when_the_temporary_file_cannot_be_created) {
    write_file(path, "old");
    std::filesystem::create_directory(temporary);
    EXPECT_NE(file_replace(path, "new", {}), PLATFORM_OK);
    EXPECT_EQ(file_content(path), "old");
}

TEST_F(whole_files, may_have_a_temporary_name_chosen_by_the_caller) {
    const std::string chosen = std::string(folder) + "/.chosen";
    call_faults::start_recording();
    EXPECT_EQ(file_replace(path, "new", {}, chosen), PLATFORM_OK);
    EXPECT_THAT(call_faults::recorded_calls(), testing::Contains("open(" + chosen + ")"));
    EXPECT_THAT(directory_names(folder), ElementsAre("file"));
}

TEST_F(whole_files, cannot_replace_a_folder_and_leave_nothing_behind) {
    write_file(path + "/inside", "");
    EXPECT_EQ(file_replace(path, "new", {}), platform_status{EISDIR});
    EXPECT_THAT(directory_names(folder), ElementsAre("file"));
}

TEST_F(whole_files, keep_the_old_content_whichever_call_fails) {
    for (const char* call : {"open", "fchmod", "write", "fsync", "close", "rename"}) {
        SCOPED_TRACE(call);
        write_file(path, "old");
        call_faults::fail_call(call, EIO, call_faults::once);
        EXPECT_EQ(file_replace(path, "new", {.durable = true}), platform_status{EIO});
        expect_untouched();
        call_faults::clear();
    }
}

TEST_F(whole_files, are_replaced_although_their_folder_could_not_be_synced) {
    write_file(path, "old");
    call_faults::fail_call("fsync", EIO, call_faults::always, 1, folder);
    EXPECT_EQ(file_replace(path, "new", {.durable = true}), platform_status{EIO});
    EXPECT_EQ(file_content(path), "new");
    EXPECT_THAT(directory_names(folder), ElementsAre("file"));
}

TEST_F(whole_files, are_written_despite_short_and_interrupted_writes) {
    call_faults::cut_call("write", 3);
    EXPECT_EQ(file_replace(path, "0123456789", {}), PLATFORM_OK);
    EXPECT_EQ(file_content(path), "0123456789");
    call_faults::clear();
    call_faults::fail_call("write", EINTR, 3);
    EXPECT_EQ(file_replace(path, "9876543210", {}), PLATFORM_OK);
    EXPECT_EQ(file_content(path), "9876543210");
}

/// Fails every system call in turn, whichever library makes it.
class failing_system_calls : public whole_files, public testing::WithParamInterface<fault> {};

TEST_P(failing_system_calls, leave_the_old_content_or_the_new) {
    bool hit = true;
    uint32_t call = 1;
    for (; hit; ++call) {
        SCOPED_TRACE(call);
        remove_path(temporary);
        write_file(path, "old");
        const syscall_faults::outcome outcome =
            syscall_faults::run({.kind = GetParam(), .call = call, .error = EIO},
                                [] { return static_cast<int>(file_replace(path, "new", {.durable = true})); });
        hit = outcome.hit;
        SCOPED_TRACE(outcome.name);
        const std::string content = file_content(path).value_or("none");
        EXPECT_TRUE(content == "old" || content == "new") << content;
        if (!outcome.killed) {
            EXPECT_TRUE(content == "new" || outcome.status == EIO);
            EXPECT_TRUE(content == "old" || outcome.status == 0 || outcome.name == "fsync" || outcome.name == "open" ||
                        outcome.name == "openat")
                << "once the file is replaced, only syncing the folder can fail";
            EXPECT_FALSE(path_exists(temporary));
        }
    }
    EXPECT_GT(call, 7U);
}

INSTANTIATE_TEST_SUITE_P(each, failing_system_calls, testing::Values(fault::error, fault::short_write, fault::kill));

TEST_F(whole_files, that_are_created_replace_a_link_instead_of_following_it) {
    write_file("/var/tmp/precious", "precious");
    std::filesystem::create_symlink("/var/tmp/precious", path);
    EXPECT_EQ(file_write_new(path, "new", {.mode = 0640, .durable = true}), PLATFORM_OK);
    EXPECT_EQ(file_content("/var/tmp/precious"), "precious");
    EXPECT_EQ(file_content(path), "new");
    EXPECT_EQ(mode_of(path), 0640U);
}

TEST_F(whole_files, that_are_created_do_not_exist_when_writing_fails) {
    for (const char* call : {"open", "fchmod", "write", "fsync", "close"}) {
        SCOPED_TRACE(call);
        call_faults::fail_call(call, ENOSPC, call_faults::once);
        EXPECT_EQ(file_write_new(path, "new", {.durable = true}), platform_status{ENOSPC});
        EXPECT_THAT(directory_names(folder), IsEmpty());
        call_faults::clear();
    }
    call_faults::fail_call("fsync", EIO, call_faults::always, 1, folder);
    EXPECT_EQ(file_write_new(path, "new", {.durable = true}), platform_status{EIO});
    EXPECT_THAT(directory_names(folder), IsEmpty());
}

TEST_F(whole_files, are_in_the_folder_of_their_path) {
    EXPECT_EQ(file_folder("/a/b"), "/a");
    EXPECT_EQ(file_folder("/a"), "/");
    EXPECT_EQ(file_folder("a/b"), "a");
    EXPECT_EQ(file_folder("a"), ".");
}

}  // namespace
