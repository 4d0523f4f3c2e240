#include "host/pam_file.h"

#include <gmock/gmock.h>
#include <sys/inotify.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "../agent_test.h"
#include "call_faults.h"
#include "core/debug.h"
#include "scratch_root.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char directory[] = "/etc/pam.d";
constexpr char file[] = "/etc/pam.d/norvosshd";

/// The content is in the golden file; a test that changes the file contains its own text.
constexpr char other_content[] = "auth required pam_deny.so\n";

class pam_file_test : public agent_test {
  protected:
    pam_file_test() { fake_platform::preset_debug_flag(debug_cfg_agent, true); }

    static void expect_whole_file() { expect_golden("host/golden/norvosshd", read_file(file)); }
};

// --- The file --------------------------------------------------------------------------------------------------------

TEST_F(pam_file_test, a_missing_file_is_written) {
    write_pam_file();
    expect_whole_file();
    EXPECT_THAT(directory_names(directory), ElementsAre("norvosshd"));
    EXPECT_THAT(fake_platform::debug_texts(), IsEmpty());
}

TEST_F(pam_file_test, an_existing_file_is_left_alone_whatever_its_content) {
    for (const char* content : {other_content, "", "\n"}) {
        write_file(file, content);
        write_pam_file();
        EXPECT_EQ(read_file(file), content);
    }
}

TEST_F(pam_file_test, another_content_is_a_difference_and_can_be_replaced) {
    write_pam_file();
    const std::string whole = read_file(file);
    EXPECT_EQ(pam_file_difference(), nullptr);
    for (const std::string& content : {std::string(other_content), std::string(), whole + "\n", whole.substr(1)}) {
        write_file(file, content);
        EXPECT_STREQ(pam_file_difference(), "differs from the agent's") << content;
    }
    write_pam_file_again();
    EXPECT_EQ(pam_file_difference(), nullptr);
    expect_whole_file();
    std::filesystem::remove(file);
    EXPECT_STREQ(pam_file_difference(), "is missing");
}

TEST_F(pam_file_test, a_file_that_cannot_be_opened_is_reported) {
    scratch_root::set_read_only(directory, true);
    write_pam_file();
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("Failed to open file:=/etc/pam.d/norvosshd,error:=Read-only file system(0x1e)"));
    const auto trace = fake_platform::trace_lines_of("ssh/cfg-agent/error");
    ASSERT_EQ(trace.size(), 1u);
    EXPECT_THAT(trace.front().arguments, ElementsAre(file, "w", "30"));
}

TEST_F(pam_file_test, a_full_disk_leaves_no_partial_file) {
    for (const char* call : {"stdio_write", "fclose", "rename"}) {
        SCOPED_TRACE(call);
        call_faults::fail_call(call, ENOSPC, call_faults::always, 1,
                               call == std::string("rename") ? "" : paths::pam_temporary_file);
        write_pam_file();
        call_faults::clear();
        EXPECT_THAT(directory_names(directory), IsEmpty());
        EXPECT_TRUE(
            fake_platform::debugged("Failed to open file:=/etc/pam.d/norvosshd,error:=No space left on device(0x1c)"));
        fake_platform::clear_reports();
    }
    write_pam_file();
    expect_whole_file();
}

TEST_F(pam_file_test, after_a_kill_at_any_call_the_file_is_missing_or_complete) {
    const uint32_t kill_points = call_faults::for_each_kill_point(
        [] {
            remove_path(file);
            remove_path(paths::pam_temporary_file);
        },
        [] { write_pam_file(); },
        [] {
            if (path_exists(file)) {
                expect_whole_file();
            }
            write_pam_file();
            expect_whole_file();
            EXPECT_THAT(directory_names(directory), ElementsAre("norvosshd"));
        });
    EXPECT_GT(kill_points, 2u);
}

// --- The watch -------------------------------------------------------------------------------------------------------

class pam_watch_test : public pam_file_test {
  protected:
    pam_watch_test() {
        write_pam_file();
        EXPECT_EQ(create_pam_inotify(), 0);
        EXPECT_EQ(watch_pam_directory(), 0);
        event_manager_create(paths::device, &agent_handles.event_manager);
        event_manager_attach_fd(agent_handles.event_manager, agent_handles.pam_inotify, EVENT_MANAGER_READ,
                                pam_config_file_handler, nullptr);
        fake_platform::clear_reports();
    }

    /// Runs the loop until nothing is left to read. Returns how often the handler ran.
    static size_t run_loop() {
        size_t count = 0;
        while (count < 1000 && fake_platform::dispatch_ready_fds() != 0) {
            count++;
        }
        return count;
    }

    static bool restored() { return fake_platform::debugged("Found Entry:=norvosshd"); }

    /// A directory that can be removed; the scratch root's own is a mount point.
    static void use_plain_directory() {
        ASSERT_EQ(umount2(directory, MNT_DETACH), 0);
        std::filesystem::remove_all(directory);
        std::filesystem::create_directory(directory);
        run_loop();
        fake_platform::clear_reports();
        write_pam_file();
        ASSERT_EQ(watch_pam_directory(), 0);
    }
};

TEST_F(pam_watch_test, watches_for_deletions_in_the_directory) {
    EXPECT_EQ(IN_DELETE, 0x200);
    const std::string info = read_file("/proc/self/fdinfo/" + std::to_string(agent_handles.pam_inotify));
    EXPECT_NE(info.find(" mask:200 "), std::string::npos) << info;
    EXPECT_EQ(info.find("inotify wd:2"), std::string::npos) << info;
}

TEST_F(pam_watch_test, a_deleted_file_is_restored) {
    remove_path(file);
    EXPECT_EQ(run_loop(), 1u);
    expect_whole_file();
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("Entered PAM Config File handler", "Mask:=0x200, Name:=norvosshd, event received",
                            "Found Entry:=norvosshd"));
    EXPECT_THAT(fake_platform::log_texts(), IsEmpty());
}

TEST_F(pam_watch_test, it_is_restored_each_time_it_is_deleted) {
    for (int i = 0; i < 50; i++) {
        remove_path(file);
        run_loop();
        ASSERT_TRUE(path_exists(file)) << i;
    }
}

TEST_F(pam_watch_test, other_files_are_ignored) {
    write_file(file, other_content);
    for (const char* name : {"norvosshd.bak", "norvossh", "norvosshd2", "Norvosshd", "sshd", "n",
                             "a_name_that_is_longer_than_the_one_in_question_and_ends_like_it_norvosshd"}) {
        const std::string path = std::string(directory) + "/" + name;
        write_file(path, "");
        remove_path(path);
    }
    EXPECT_GE(run_loop(), 1u);
    EXPECT_FALSE(restored());
    EXPECT_EQ(read_file(file), other_content);
    EXPECT_TRUE(fake_platform::debugged("Mask:=0x200, Name:=norvosshd.bak, event received"));
}

// If the file was moved away, the deletion of a similar name does not restore it.
TEST_F(pam_watch_test, a_prefix_of_the_name_does_not_match) {
    write_file(std::string(file) + ".bak", "");
    std::filesystem::rename(file, std::string(file) + ".moved");
    remove_path(std::string(file) + ".bak");
    run_loop();
    EXPECT_FALSE(path_exists(file));
}

TEST_F(pam_watch_test, a_change_or_a_rename_is_ignored) {
    write_file(file, other_content);
    write_file(file, "");
    std::filesystem::rename(file, std::string(directory) + "/renamed");
    EXPECT_EQ(run_loop(), 0u);
    EXPECT_FALSE(path_exists(file));
}

TEST_F(pam_watch_test, the_deletion_is_found_among_many_events) {
    for (int i = 0; i < 100; i++) {
        const std::string path = std::string(directory) + "/other" + std::to_string(i);
        write_file(path, "");
        remove_path(path);
        if (i == 60) {
            remove_path(file);
        }
    }
    // 32 bytes per event, 1024 per read.
    EXPECT_GE(run_loop(), 4u);
    EXPECT_TRUE(restored());
    expect_whole_file();
}

TEST_F(pam_watch_test, names_of_maximum_length_fit_the_buffer) {
    const std::string path = std::string(directory) + "/" + std::string(255, 'x');
    for (int i = 0; i < 10; i++) {
        write_file(path, "");
        remove_path(path);
    }
    remove_path(file);
    run_loop();
    EXPECT_TRUE(restored());
    expect_whole_file();
}

// After one match the rest of the buffer is skipped.
TEST_F(pam_watch_test, stops_at_its_own_file) {
    remove_path(file);
    write_file(std::string(directory) + "/later", "");
    remove_path(std::string(directory) + "/later");
    EXPECT_EQ(run_loop(), 1u);
    EXPECT_TRUE(restored());
    EXPECT_FALSE(fake_platform::debugged("Mask:=0x200, Name:=later, event received"));
}

TEST_F(pam_watch_test, a_failed_read_is_logged) {
    remove_path(file);
    call_faults::fail_call("read", EIO, call_faults::once);
    EXPECT_EQ(fake_platform::dispatch_ready_fds(), 1u);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_ERRNO: Error:=Input/output error(0x5), Read failed in inotifyevent notification for "
                            "norvossh_pam_config_fd"));
    EXPECT_TRUE(
        fake_platform::debugged("Read failed in inotify event notification fornorvossh_pam_config_fd "
                                "error:=Input/output error(0x5)"));
    EXPECT_FALSE(path_exists(file));
    // The event is still queued.
    run_loop();
    expect_whole_file();
}

// A wake-up without an event must not block the loop.
TEST_F(pam_watch_test, nothing_to_read_does_not_block) {
    pam_config_file_handler(agent_handles.pam_inotify, EVENT_MANAGER_READ, nullptr);
    EXPECT_THAT(fake_platform::log_texts(), Contains("ERR_ERRNO: Error:=Resource temporarily unavailable(0xb), Read "
                                                     "failed in inotifyevent notification for norvossh_pam_config_fd"));
}

/// Makes the handler read the given bytes.
void read_bytes(const std::string& bytes) {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(write(ends[1], bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    close(ends[1]);
    pam_config_file_handler(ends[0], EVENT_MANAGER_READ, nullptr);
    close(ends[0]);
}

std::string event_bytes(uint32_t mask, std::string name, size_t name_size, int watch = 1) {
    inotify_event header = {};
    header.wd = watch;
    header.mask = mask;
    header.len = static_cast<uint32_t>(name_size);
    std::string bytes(sizeof header, '\0');
    std::memcpy(bytes.data(), &header, sizeof header);
    name.resize(name_size);
    return bytes + name;
}

TEST_F(pam_watch_test, truncated_events_are_not_read_beyond_their_end) {
    std::filesystem::rename(file, std::string(file) + ".moved");
    const std::string whole = event_bytes(IN_DELETE, "norvosshd", 16);
    for (size_t size = 0; size < whole.size(); size++) {
        read_bytes(whole.substr(0, size));
        EXPECT_FALSE(path_exists(file)) << size;
    }
    // A length that extends beyond the bytes read, up to the largest possible.
    for (const uint32_t length : {17u, 1024u, 0x7fffffffu, 0xffffffffu}) {
        std::string bytes = whole;
        std::memcpy(bytes.data() + offsetof(inotify_event, len), &length, sizeof length);
        read_bytes(bytes);
        EXPECT_FALSE(path_exists(file)) << length;
    }
    read_bytes(event_bytes(IN_DELETE, "", 0) + event_bytes(IN_CREATE, "norvosshd", 16) + whole);
    EXPECT_TRUE(path_exists(file));
}

TEST_F(pam_watch_test, a_deletion_after_a_truncated_event_is_found_by_the_next_read) {
    std::filesystem::rename(file, std::string(file) + ".moved");
    read_bytes(event_bytes(IN_DELETE, "other", 16) + event_bytes(IN_DELETE, "norvosshd", 16).substr(0, 20));
    EXPECT_FALSE(path_exists(file));
    EXPECT_TRUE(fake_platform::debugged("Mask:=0x200, Name:=other, event received"));
}

// --- Events that are not delivered -----------------------------------------------------------------------------------

TEST_F(pam_watch_test, after_an_overflow_the_file_is_checked) {
    std::filesystem::rename(file, std::string(file) + ".moved");
    read_bytes(event_bytes(IN_Q_OVERFLOW, "", 0, -1));
    expect_whole_file();
}

// A real overflow: more deletions than the kernel queues, with the file's own lost at the end.
TEST_F(pam_watch_test, a_deletion_lost_by_the_queue_is_repaired) {
    const uint32_t kept = static_cast<uint32_t>(std::stoul(read_file("/proc/sys/fs/inotify/max_queued_events")));
    // Two alternating names, because the kernel merges identical events.
    const std::string names[] = {std::string(directory) + "/a", std::string(directory) + "/b"};
    for (uint32_t i = 0; i <= kept; i++) {
        close(open(names[i % 2].c_str(), O_WRONLY | O_CREAT, 0600));
        unlink(names[i % 2].c_str());
    }
    fake_platform::preset_debug_flag(debug_cfg_agent, false);
    remove_path(file);
    EXPECT_GT(run_loop(), 100u);
    while (run_loop() != 0) {
    }
    expect_whole_file();
    remove_path(file);
    run_loop();
    expect_whole_file();
}

TEST_F(pam_watch_test, a_recreated_directory_gets_its_file_and_its_watch_again) {
    use_plain_directory();
    for (int i = 0; i < 3; i++) {
        std::filesystem::remove_all(directory);
        run_loop();
        EXPECT_FALSE(path_exists(directory)) << "the agent does not create the directory";
        std::filesystem::create_directory(directory);
        run_loop();
        expect_whole_file();
        remove_path(file);
        run_loop();
        expect_whole_file();
    }
    // The parent's watch has been removed.
    const std::string info = read_file("/proc/self/fdinfo/" + std::to_string(agent_handles.pam_inotify));
    EXPECT_EQ(info.find("inotify wd:"), info.rfind("inotify wd:")) << info;
}

TEST_F(pam_watch_test, a_directory_moved_into_place_is_watched_again) {
    use_plain_directory();
    std::filesystem::create_directory("/etc/pam.new");
    std::filesystem::remove_all(directory);
    run_loop();
    std::filesystem::rename("/etc/pam.new", directory);
    run_loop();
    expect_whole_file();
    remove_path(file);
    run_loop();
    expect_whole_file();
}

// Both within one turn of the loop: the file's deletion is the first event, the loss of the watch the last.
TEST_F(pam_watch_test, a_directory_replaced_within_one_turn_is_watched_again) {
    use_plain_directory();
    std::filesystem::remove_all(directory);
    std::filesystem::create_directory(directory);
    run_loop();
    expect_whole_file();
    remove_path(file);
    run_loop();
    expect_whole_file();
}

TEST_F(pam_watch_test, a_directory_that_comes_with_a_file_keeps_it) {
    use_plain_directory();
    std::filesystem::create_directory("/etc/pam.new");
    write_file("/etc/pam.new/norvosshd", other_content);
    std::filesystem::remove_all(directory);
    run_loop();
    std::filesystem::rename("/etc/pam.new", directory);
    run_loop();
    EXPECT_EQ(read_file(file), other_content);
}

// Without a watch the next deletion goes unnoticed; the operator is informed, and this one is repaired.
TEST_F(pam_watch_test, a_watch_that_cannot_be_restored_is_logged) {
    use_plain_directory();
    std::filesystem::remove_all(directory);
    std::filesystem::create_directory(directory);
    call_faults::fail_call("inotify_add_watch", ENOSPC);
    run_loop();
    expect_whole_file();
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_ERRNO: Error:=No space left on device(0x1c), Failed to adda "
                            "watch for Norvossh PAM Config file"));
}

// The parent's watch remains, so each of its events retries the directory's.
TEST_F(pam_watch_test, a_watch_that_is_refused_for_a_while_is_restored_later) {
    use_plain_directory();
    std::filesystem::remove_all(directory);
    run_loop();
    call_faults::fail_call("inotify_add_watch", ENOSPC);
    std::filesystem::create_directory(directory);
    run_loop();
    call_faults::clear();
    write_file("/etc/anything", "");
    run_loop();
    remove_path(file);
    run_loop();
    expect_whole_file();
}

// --- Set-up ----------------------------------------------------------------------------------------------------------

TEST_F(pam_file_test, an_instance_or_a_watch_that_is_refused_is_traced) {
    call_faults::fail_call("inotify_init1", EMFILE);
    EXPECT_EQ(create_pam_inotify(), -1);
    EXPECT_EQ(errno, EMFILE);
    call_faults::clear();
    EXPECT_EQ(create_pam_inotify(), 0);
    call_faults::fail_call("inotify_add_watch", ENOSPC);
    EXPECT_EQ(watch_pam_directory(), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(fake_platform::trace_lines_of("ssh/cfg-agent/error").size(), 2u);
}

// The agent's shell commands must not inherit it.
TEST_F(pam_file_test, the_instance_is_closed_on_exec) {
    ASSERT_EQ(create_pam_inotify(), 0);
    EXPECT_EQ(fcntl(agent_handles.pam_inotify, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

}  // namespace
