#include "config_files/line_editor.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <vector>

#include "../account.h"
#include "../agent_test.h"
#include "call_faults.h"
#include "core/debug.h"
#include "core/trace.h"
#include "scratch_root.h"
#include "syscall_faults.h"
#include "usage.h"

namespace {

using line_editor_test = agent_test;
using syscall_faults::fault;
using testing::Contains;
using testing::ElementsAre;

constexpr char edited_file[] = "/var/opt/norvo/norvossh/sshd_config";
constexpr char temporary_file[] = "/var/opt/norvo/norvossh/temp_sshd_config";

int edit(const char* keyword, int add, const char* new_line, uint32_t* change) {
    return update_string_in_file(edited_file, keyword, add, new_line, change);
}

/// The multi-line editor modifies its new line, so it gets a copy.
int edit_multiple(const char* keyword, int add, const char* new_line, uint32_t* change) {
    std::string copy = new_line != nullptr ? new_line : "";
    return update_multiple_strings_in_file(edited_file, keyword, add, new_line != nullptr ? copy.data() : nullptr,
                                           change);
}

using editor = int (*)(const char* keyword, int add, const char* new_line, uint32_t* change);

// --- Edited files ----------------------------------------------------------------------------------------------------

/// An edit of golden/line_editor/NAME.in, whose result is NAME.ok.
struct golden_case {
    const char* name;
    editor edit;
    const char* keyword;
    int add;
    const char* new_line;
    uint32_t change;
};

const golden_case golden_cases[] = {
    {"replace", edit, "MaxAuthTries", 1, "MaxAuthTries 5", 1},
    {"replace_same", edit, "MaxAuthTries", 1, "MaxAuthTries 5", 0},
    {"replace_only_the_first", edit, "MaxAuthTries", 1, "MaxAuthTries 5", 1},
    {"same_first_then_other", edit, "MaxAuthTries", 1, "MaxAuthTries 5", 0},
    {"replace_by_prefix", edit, "Log", 1, "Log on", 1},
    {"replace_not_inside_a_line", edit, "Port", 0, "Port 22", 1},
    {"append", edit, "Banner", 1, "Banner /var/opt/norvo/norvossh/banner", 1},
    {"append_to_empty", edit, "UsePAM", 1, "UsePAM yes", 1},
    {"append_after_open_end", edit, "UsePAM", 1, "UsePAM yes", 1},
    {"same_at_open_end", edit, "UsePAM", 1, "UsePAM yes", 0},
    {"replace_at_open_end", edit, "UsePAM", 1, "UsePAM yes", 1},
    {"delete", edit, "Banner", 0, nullptr, 1},
    {"delete_absent", edit, "Banner", 0, nullptr, 0},
    {"delete_only_the_first", edit, "Banner", 0, nullptr, 1},
    {"delete_the_last_line", edit, "Banner", 0, nullptr, 1},
    {"delete_ignores_new_line", edit, "Banner", 0, "Banner other", 1},
    {"port_add_second", edit, "Port", 1, "Port 830", 1},
    {"port_add_present", edit, "Port", 1, "Port 830", 0},
    {"port_delete_named", edit, "Port", 0, "Port 830", 1},
    {"port_delete_by_beginning", edit, "Port", 0, "Port 83", 1},
    {"port_delete_absent", edit, "Port", 0, "Port 830", 0},
    {"port_delete_unnamed", edit, "Port", 0, nullptr, 0},
    {"host_key_is_no_host_key_algorithms", edit, "HostKey ", 0, nullptr, 1},
    {"odd_bytes", edit, "UsePAM", 1, "UsePAM yes", 1},
    {"long_lines", edit, "Ciphers", 1, "Ciphers aes128-ctr", 1},
    {"multiple_add_first", edit_multiple, "HostKey ", 1, "HostKey  /pkg/rsa,/pkg/dsa,/pkg/ed25519", 1},
    {"multiple_add_same", edit_multiple, "HostKey ", 1, "HostKey  /pkg/rsa,/pkg/dsa,/pkg/ed25519", 0},
    {"multiple_add_fewer", edit_multiple, "HostKey ", 1, "HostKey  /pkg/ed25519", 1},
    {"multiple_add_other_order", edit_multiple, "HostKey ", 1, "HostKey  /pkg/dsa,/pkg/rsa", 1},
    {"multiple_add_one_more", edit_multiple, "HostKey ", 1, "HostKey  /pkg/rsa,/pkg/dsa", 1},
    {"multiple_add_to_empty", edit_multiple, "HostKey ", 1, "HostKey  /pkg/rsa", 1},
    {"multiple_add_after_open_end", edit_multiple, "HostKey ", 1, "HostKey  /pkg/rsa,/pkg/dsa", 1},
    {"multiple_add_over_one_list_line", edit_multiple, "HostKey ", 1, "HostKey  /pkg/rsa,/pkg/dsa", 0},
    {"multiple_add_over_valueless_line", edit_multiple, "HostKey ", 1, "HostKey  /pkg/rsa", 1},
    {"multiple_add_without_values", edit_multiple, "HostKey", 1, "HostKey", 1},
    {"multiple_delete", edit_multiple, "HostKey ", 0, nullptr, 1},
    {"multiple_delete_absent", edit_multiple, "HostKey ", 0, nullptr, 0},
    {"multiple_delete_valueless", edit_multiple, "HostKey ", 0, nullptr, 1},
};

std::string golden_path(const golden_case& golden, const char* extension) {
    return std::string("config_files/golden/line_editor/") + golden.name + extension;
}

class line_editor_golden_test : public agent_test, public testing::WithParamInterface<golden_case> {};

TEST_P(line_editor_golden_test, makes_the_file) {
    const golden_case& golden = GetParam();
    write_file(edited_file, read_file(std::string(TEST_SOURCE_DIR "/") + golden_path(golden, ".in")));
    uint32_t change = 0;
    ASSERT_EQ(golden.edit(golden.keyword, golden.add, golden.new_line, &change), 0);
    expect_golden(golden_path(golden, ".ok"), read_file(edited_file));
    EXPECT_EQ(change, golden.change);
    EXPECT_FALSE(path_exists(temporary_file));
}

INSTANTIATE_TEST_SUITE_P(cases, line_editor_golden_test, testing::ValuesIn(golden_cases),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST_F(line_editor_test, adding_a_line_again_changes_nothing) {
    write_file(edited_file, "MaxAuthTries 20\n");
    uint32_t change = 0;
    EXPECT_EQ(edit("MaxAuthTries", 1, "MaxAuthTries 5", &change), 0);
    EXPECT_EQ(change, 1u);
    change = 0;
    EXPECT_EQ(edit("MaxAuthTries", 1, "MaxAuthTries 5", &change), 0);
    EXPECT_EQ(change, 0u);
    EXPECT_EQ(read_file(edited_file), "MaxAuthTries 5\n");
}

TEST_F(line_editor_test, an_unchanged_list_of_host_keys_changes_nothing) {
    constexpr char list[] = "HostKey  /pkg/rsa,/pkg/dsa";
    write_file(edited_file, "UsePAM yes\n");
    uint32_t change = 0;
    EXPECT_EQ(edit_multiple("HostKey ", 1, list, &change), 0);
    EXPECT_EQ(change, 1u);
    EXPECT_EQ(read_file(edited_file), "UsePAM yes\nHostKey   /pkg/rsa\nHostKey  /pkg/dsa\n");
    change = 0;
    EXPECT_EQ(edit_multiple("HostKey ", 1, list, &change), 0);
    EXPECT_EQ(change, 0u);
    EXPECT_EQ(read_file(edited_file), "UsePAM yes\nHostKey   /pkg/rsa\nHostKey  /pkg/dsa\n");
}

TEST_F(line_editor_test, the_change_flag_is_never_reset) {
    write_file(edited_file, "UsePAM yes\n");
    uint32_t change = 7;
    EXPECT_EQ(edit("UsePAM", 1, "UsePAM yes", &change), 0);
    EXPECT_EQ(change, 7u);
    EXPECT_EQ(edit_multiple("HostKey ", 0, nullptr, &change), 0);
    EXPECT_EQ(change, 7u);
}

TEST_F(line_editor_test, a_line_longer_than_any_buffer_is_copied_whole) {
    for (const size_t length : {4095, 4096, 4097, 100000}) {
        const std::string line(length, 'x');
        write_file(edited_file, line + "\nUsePAM no\n" + line + "\n");
        uint32_t change = 0;
        EXPECT_EQ(edit("UsePAM", 1, "UsePAM yes", &change), 0);
        EXPECT_EQ(read_file(edited_file), line + "\nUsePAM yes\n" + line + "\n") << length;
    }
}

TEST_F(line_editor_test, a_file_of_any_size_is_read_completely) {
    for (size_t size = 16380; size <= 16390; size++) {
        for (const size_t factor : {1, 2, 4}) {
            const std::string old = std::string(size * factor - 8, '#') + "\nUsePAM ";
            write_file(edited_file, old);
            uint32_t change = 0;
            EXPECT_EQ(edit("MaxSessions", 1, "MaxSessions 1", &change), 0);
            EXPECT_EQ(read_file(edited_file), old + "\nMaxSessions 1\n") << size * factor;
        }
    }
}

TEST_F(line_editor_test, a_longer_line_of_the_keyword_is_replaced_completely) {
    write_file(edited_file, "Ciphers " + std::string(9000, 'c') + "\nUsePAM no\n");
    uint32_t change = 0;
    EXPECT_EQ(edit("Ciphers", 1, "Ciphers aes128-ctr", &change), 0);
    EXPECT_EQ(read_file(edited_file), "Ciphers aes128-ctr\nUsePAM no\n");
}

TEST_F(line_editor_test, bytes_are_copied_unaltered) {
    const std::string bytes("a\0b\r\n\xff\n\n", 8);
    write_file(edited_file, bytes);
    uint32_t change = 0;
    EXPECT_EQ(edit("UsePAM", 1, "UsePAM yes", &change), 0);
    EXPECT_EQ(read_file(edited_file), bytes + "UsePAM yes\n");
}

TEST_F(line_editor_test, the_multi_line_editor_modifies_the_new_line) {
    write_file(edited_file, "");
    std::string line = "HostKey  /pkg/rsa,/pkg/dsa";
    uint32_t change = 0;
    EXPECT_EQ(update_multiple_strings_in_file(edited_file, "HostKey ", 1, line.data(), &change), 0);
    EXPECT_STREQ(line.c_str(), "HostKey");
}

TEST_F(line_editor_test, a_replaced_value_is_printed) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    write_file(edited_file, "MaxAuthTries 20\n");
    uint32_t change = 0;
    EXPECT_EQ(edit("MaxAuthTries", 1, "MaxAuthTries 5", &change), 0);
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("update_string_in_file, Old-val:=MaxAuthTries 20, New-val=MaxAuthTries 5,Config value has "
                            "changed"));
}

TEST_F(line_editor_test, an_edit_leaves_nothing_behind) {
    fake_platform::set_recording(false);
    write_file(edited_file, "UsePAM no\n");
    const size_t descriptors = open_descriptors();
    for (const char* failing : {"realloc", "fopen", "stdio_read", "fflush", "rename"}) {
        const auto run = [failing] {
            uint32_t change = 0;
            edit("UsePAM", 1, "UsePAM yes", &change);
            edit_multiple("UsePAM", 1, "UsePAM no", &change);
            call_faults::fail_call(failing, EIO, call_faults::once);
            edit("UsePAM", 1, "UsePAM yes", &change);
            call_faults::clear();
        };
        EXPECT_EQ(bytes_left_by(run), 0u) << failing;
        EXPECT_EQ(open_descriptors(), descriptors) << failing;
    }
}

// --- Modes -----------------------------------------------------------------------------------------------------------

TEST_F(line_editor_test, the_file_keeps_its_mode_but_is_never_writable_for_others) {
    const struct {
        mode_t before;
        mode_t after;
    } modes[] = {{0644, 0644}, {0600, 0600}, {0666, 0644}, {0777, 0755}, {0400, 0600}, {0640, 0640}};
    for (const auto& mode : modes) {
        write_file(edited_file, "UsePAM no\n");
        chmod(edited_file, mode.before);
        uint32_t change = 0;
        EXPECT_EQ(edit("UsePAM", 1, "UsePAM yes", &change), 0);
        EXPECT_EQ(mode_of(edited_file), mode.after) << std::oct << mode.before;
    }
}

TEST_F(line_editor_test, a_leftover_temporary_file_does_not_affect_the_edited_file) {
    write_file(edited_file, "UsePAM no\n");
    chmod(edited_file, 0640);
    write_file(temporary_file, std::string(10000, 'x'));
    chmod(temporary_file, 0777);
    uint32_t change = 0;
    EXPECT_EQ(edit("UsePAM", 1, "UsePAM yes", &change), 0);
    EXPECT_EQ(read_file(edited_file), "UsePAM yes\n");
    EXPECT_EQ(mode_of(edited_file), mode_t{0640});
}

// --- Refused requests ------------------------------------------------------------------------------------------------

struct refused_case {
    const char* file;
    const char* keyword;
    int add;
    const char* new_line;
    bool flag;
    const char* debug_line;  ///< after the editor's tag
};

const refused_case refused_cases[] = {
    {nullptr, "UsePAM", 1, "UsePAM yes", true, ", filename can't be NULL, exiting"},
    {edited_file, nullptr, 1, "UsePAM yes", true, ", search string can't be NULL, exiting"},
    {edited_file, "UsePAM", 1, "UsePAM yes", false, ", configChange variable shouldbe NULL"},
    {edited_file, "UsePAM", 1, nullptr, true,
     ", File:=/var/opt/norvo/norvossh/sshd_config, StrToFind:=UsePAM, add:=true, newStr should not be NULL"},
    {edited_file, "UsePAM", 1, "UsePAM yes\nPermitRootLogin yes", true,
     ", File:=/var/opt/norvo/norvossh/sshd_config, StrToFind:=UsePAM, newStr must not contain a line break"},
};

TEST_F(line_editor_test, an_invalid_request_is_refused) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    for (const refused_case& refused : refused_cases) {
        write_file(edited_file, "UsePAM no\n");
        fake_platform::clear_reports();
        uint32_t change = 0;
        errno = 0;
        EXPECT_EQ(update_string_in_file(refused.file, refused.keyword, refused.add, refused.new_line,
                                        refused.flag ? &change : nullptr),
                  -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_THAT(fake_platform::debug_texts(),
                    ElementsAre(std::string("update_string_in_file") + refused.debug_line));
        EXPECT_EQ(change, 0u);
        EXPECT_EQ(read_file(edited_file), "UsePAM no\n");
    }
}

TEST_F(line_editor_test, the_multi_line_editor_refuses_the_same_requests_under_its_own_tag) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    for (const refused_case& refused : refused_cases) {
        fake_platform::clear_reports();
        uint32_t change = 0;
        std::string line = refused.new_line != nullptr ? refused.new_line : "";
        errno = 0;
        EXPECT_EQ(update_multiple_strings_in_file(refused.file, refused.keyword, refused.add,
                                                  refused.new_line != nullptr ? line.data() : nullptr,
                                                  refused.flag ? &change : nullptr),
                  -1);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_THAT(fake_platform::debug_texts(),
                    ElementsAre(std::string("Update StringIn Multiple") + refused.debug_line));
    }
}

// --- Failures --------------------------------------------------------------------------------------------------------

TEST_F(line_editor_test, a_missing_file_sets_errno) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    std::filesystem::create_directories(paths::configuration_directory);
    uint32_t change = 0;
    EXPECT_EQ(edit("UsePAM", 1, "UsePAM yes", &change), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(edit_multiple("HostKey ", 1, "HostKey  /pkg/rsa", &change), -1);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("update_string_in_file, File-name:=/var/opt/norvo/norvossh/sshd_config, File-mode:=r, "
                            "Error:=No such file or directory(0x2), Config File open failed",
                            "Update StringIn Multiple, File-name:=/var/opt/norvo/norvossh/sshd_config, File-mode:=r, "
                            "Error:=No such file or directory(0x2), Config File open failed"));
    EXPECT_FALSE(path_exists(edited_file));
    EXPECT_FALSE(path_exists(temporary_file));
}

TEST_F(line_editor_test, a_temporary_file_that_cannot_be_opened_leaves_everything_unchanged) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    trace_initialise();
    write_file(edited_file, "UsePAM no\n");
    std::filesystem::create_directory(temporary_file);
    uint32_t change = 0;
    EXPECT_EQ(edit("UsePAM", 1, "UsePAM yes", &change), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("update_string_in_file, File-name:=/var/opt/norvo/norvossh/temp_sshd_config, "
                            "File-mode:=w+, Error:=Is a directory(0x15), File open failed"));
    EXPECT_EQ(fake_platform::trace_lines_of("ssh/cfg-agent/error").size(), 1u);
    EXPECT_EQ(read_file(edited_file), "UsePAM no\n");
    EXPECT_EQ(change, 0u);
}

TEST_F(line_editor_test, a_directory_is_not_an_empty_file) {
    std::filesystem::create_directories(edited_file);
    uint32_t change = 0;
    EXPECT_EQ(edit("UsePAM", 1, "UsePAM yes", &change), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(change, 0u);
    EXPECT_TRUE(std::filesystem::is_directory(edited_file));
}

TEST_F(line_editor_test, a_failed_rename_leaves_the_temporary_file) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    write_file("/var/opt/norvo/elsewhere", "UsePAM no\n");
    std::filesystem::create_directories("/mnt_point");
    scratch_root::limit_space("/mnt_point", 1 << 20);
    write_file("/mnt_point/file", "UsePAM no\n");
    std::filesystem::create_directories(paths::configuration_directory);
    uint32_t change = 0;
    EXPECT_EQ(update_string_in_file("/mnt_point/file", "UsePAM", 1, "UsePAM yes", &change), -1);
    EXPECT_EQ(errno, EXDEV);
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("Filename:=/mnt_point/file, Error:=Invalid cross-device link(0x12), Failed to rename file"));
    EXPECT_EQ(read_file("/mnt_point/file"), "UsePAM no\n");
    EXPECT_EQ(read_file(temporary_file), "UsePAM yes\n");
    EXPECT_EQ(change, 0u);
}

TEST_F(line_editor_test, only_a_temporary_file_that_cannot_be_closed_is_a_failure) {
    const struct {
        const char* file;
        int result;
        const char* text;
    } closings[] = {{temporary_file, -1, "UsePAM no\n"}, {edited_file, 0, "UsePAM yes\n"}};
    for (const auto& closing : closings) {
        write_file(edited_file, "UsePAM no\n");
        uint32_t change = 0;
        call_faults::fail_call("fclose", EIO, call_faults::once, 1, closing.file);
        EXPECT_EQ(edit("UsePAM", 1, "UsePAM yes", &change), closing.result);
        call_faults::clear();
        EXPECT_EQ(read_file(edited_file), closing.text);
        EXPECT_FALSE(path_exists(temporary_file));
    }
}

TEST_F(line_editor_test, a_restart_is_recorded_before_a_vrfs_file_changes) {
    create_vrf_node("red");
    const std::string file = paths::vrf_server_file_prefix + std::string("red");
    uint32_t change = 0;
    write_file(file, "UsePAM no\n");
    EXPECT_EQ(update_string_in_file(file.c_str(), "UsePAM", 1, "UsePAM no", &change), 0);
    EXPECT_FALSE(path_exists(paths::restart_record));
    std::filesystem::create_directories(paths::restart_record_temporary);
    EXPECT_EQ(update_string_in_file(file.c_str(), "UsePAM", 1, "UsePAM yes", &change), -1);
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(read_file(file), "UsePAM no\n");
    EXPECT_FALSE(path_exists(temporary_file));
    std::filesystem::remove(paths::restart_record_temporary);
    EXPECT_EQ(update_string_in_file(file.c_str(), "UsePAM", 1, "UsePAM yes", &change), 0);
    EXPECT_THAT(file_lines(paths::restart_record), ElementsAre(testing::_, "red"));
    forget_vrf_nodes();
}

TEST_F(line_editor_test, a_full_disk_is_noticed_before_the_rename) {
    scratch_root::limit_space(paths::configuration_directory, 64 * 1024);
    const std::string old = "UsePAM no\n" + std::string(40 * 1024, '#') + "\n";
    write_file(edited_file, old);
    for (const editor run : {editor{edit}, editor{edit_multiple}}) {
        uint32_t change = 0;
        EXPECT_EQ(run("UsePAM", 1, "UsePAM yes", &change), -1);
        EXPECT_EQ(errno, ENOSPC);
        EXPECT_EQ(read_file(edited_file), old);
        EXPECT_EQ(change, 0u);
        EXPECT_FALSE(path_exists(temporary_file)) << "an incomplete file must not fill up the disk";
    }
}

// --- Every file operation of an edit fails, or the process is killed before it ---------------------------------------

struct matrix_case {
    const char* name;
    editor edit;
    const char* keyword;
    int add;
    const char* new_line;
    std::string before;
    std::string after;
};

// With the long file the edit needs several writes.
const std::string filling(20000, '#');
const matrix_case matrix_cases[] = {
    {"add", edit, "UsePAM", 1, "UsePAM yes", filling + "\nUsePAM no\n", filling + "\nUsePAM yes\n"},
    {"delete", edit, "UsePAM", 0, nullptr, "UsePAM no\n" + filling + "\n", filling + "\n"},
    {"multiple", edit_multiple, "HostKey ", 1, "HostKey  /a,/b", "HostKey /c\n" + filling + "\n",
     filling + "\nHostKey   /a\nHostKey  /b\n"},
};

class line_editor_fault_test : public agent_test, public testing::WithParamInterface<matrix_case> {
  protected:
    /// Runs the edit under the plan. The child exits with 0 or with the errno of the failed edit.
    syscall_faults::outcome run(const syscall_faults::plan& plan) {
        write_file(edited_file, GetParam().before);
        std::filesystem::remove_all(temporary_file);
        return syscall_faults::run(plan, [] {
            uint32_t change = 0;
            if (GetParam().edit(GetParam().keyword, GetParam().add, GetParam().new_line, &change) == 0) {
                return change == 1 ? 0 : 254;
            }
            return change == 0 ? errno : 255;
        });
    }

    uint32_t calls_of_an_edit() {
        const syscall_faults::outcome outcome = run({});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(read_file(edited_file), GetParam().after);
        return outcome.calls;
    }
};

TEST_P(line_editor_fault_test, a_failed_file_operation_leaves_the_old_file_or_the_new) {
    const uint32_t calls = calls_of_an_edit();
    ASSERT_GE(calls, 8u);
    for (const int error : {ENOSPC, EIO, EROFS, EMFILE, ENOMEM, EINTR}) {
        for (const bool for_ever : {false, true}) {
            for (uint32_t call = 1; call <= calls; call++) {
                const auto outcome = run({fault::error, call, for_ever, error});
                SCOPED_TRACE(outcome.name + ", call " + std::to_string(call) + ", error " + std::to_string(error));
                ASSERT_TRUE(outcome.hit);
                if (outcome.status == 0) {
                    EXPECT_EQ(read_file(edited_file), GetParam().after);
                } else {
                    EXPECT_EQ(outcome.status, error);
                    EXPECT_EQ(read_file(edited_file), GetParam().before);
                }
            }
        }
    }
}

TEST_P(line_editor_fault_test, short_reads_and_writes_are_harmless) {
    const uint32_t calls = calls_of_an_edit();
    for (const bool for_ever : {false, true}) {
        for (uint32_t call = 1; call <= calls; call++) {
            const auto outcome = run({fault::short_write, call, for_ever});
            SCOPED_TRACE(outcome.name + ", call " + std::to_string(call));
            EXPECT_EQ(outcome.status, 0);
            EXPECT_EQ(read_file(edited_file), GetParam().after);
        }
    }
}

TEST_P(line_editor_fault_test, after_a_kill_at_any_call_the_file_is_the_old_one_or_the_new) {
    const uint32_t calls = calls_of_an_edit();
    bool renamed = false;
    for (uint32_t call = 1; call <= calls; call++) {
        const auto outcome = run({fault::kill, call});
        SCOPED_TRACE("killed before call " + std::to_string(call) + ", " + outcome.name);
        ASSERT_TRUE(outcome.killed);
        EXPECT_EQ(read_file(edited_file), renamed ? GetParam().after : GetParam().before);
        renamed = renamed || outcome.name.starts_with("rename");
        // The next start edits the file as if nothing had happened.
        uint32_t change = 0;
        EXPECT_EQ(GetParam().edit(GetParam().keyword, GetParam().add, GetParam().new_line, &change), 0);
        EXPECT_EQ(read_file(edited_file), GetParam().after);
    }
}

INSTANTIATE_TEST_SUITE_P(edits, line_editor_fault_test, testing::ValuesIn(matrix_cases),
                         [](const auto& instance) { return std::string(instance.param.name); });

// --- Everything that is asked, run and reported -----------------------------------------------------------------------

/// Wrong arguments, and each of the first calls of an edit fails.
TEST_F(line_editor_test, every_failure_is_accounted_for) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    std::string text;
    const auto note = [&text](const std::string& step, int result, uint32_t change) {
        text += "== " + step + ": " + std::to_string(result) + ", change " + std::to_string(change) + '\n' + account();
    };
    account();
    for (const editor each : {edit, edit_multiple}) {
        uint32_t change = 0;
        write_file(edited_file, "Port 22\nBanner /a\n");
        note("no keyword", each(nullptr, 1, "Port 22", &change), change);
        note("no line", each("Banner", 1, nullptr, &change), change);
        note("no change variable", each("Banner", 0, nullptr, nullptr), change);
        note("deletion", each("Banner", 0, nullptr, &change), change);
        note("addition", each("Banner", 1, "Banner /b", &change), change);
        note("replacement", each("Banner", 1, "Banner /c", &change), change);
        for (const char* call :
             {"fopen", "realloc", "stdio_read", "stdio_write", "fflush", "fclose", "rename", "fstat"}) {
            for (uint32_t number = 1; number <= 3; number++) {
                write_file(edited_file, "Port 22\nBanner /a\n");
                change = 0;
                call_faults::clear();
                call_faults::fail_call(call, EIO, call_faults::once, number);
                const int result = each("Banner", 1, "Banner /b", &change);
                call_faults::clear();
                note(std::string(call) + ' ' + std::to_string(number), result, change);
            }
        }
    }
    expect_golden("config_files/golden/line_editor/account", text);
}

}  // namespace
