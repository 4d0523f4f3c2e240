#include "acl/nft_files.h"

#include <cerrno>

#include "../account.h"
#include "acl/load_failure.h"
#include "acl_test.h"
#include "call_faults.h"
#include "usage.h"
#include "vrf/acl_types.h"

namespace {

class nft_files_test : public acl_test {
  protected:
    FILE* stream = nullptr;

    ~nft_files_test() override {
        if (stream != nullptr) {
            fclose(stream);
        }
    }
};

}  // namespace

TEST_F(nft_files_test, names_a_file_by_vrf_and_table) {
    EXPECT_STREQ(get_nft_file_name("mgmt", 3), "/tmp/norvo-ssh/access-list/vrf-mgmt_netconf_v6acl.nft");
    EXPECT_STREQ(get_nft_file_name("default", 0), "/tmp/norvo-ssh/access-list/vrf-default_norvossh_v4acl.nft");
    EXPECT_STREQ(get_nft_file_name("default", 4), "/tmp/norvo-ssh/access-list/vrf-default_norvossh_acl_all.nft");
    EXPECT_EQ(get_nft_file_name("default", 5), nullptr);
    EXPECT_TRUE(fake_platform::debugged("get_nft_file_name: Invalid ACL type"));
}

TEST_F(nft_files_test, truncates_a_name_to_a_hundred_characters) {
    EXPECT_EQ(std::string(get_nft_file_name(std::string(90, 'v').c_str(), 0)).size(), 99U);
}

TEST_F(nft_files_test, writes_the_header_and_the_closing_lines_of_each_table) {
    for (const uint32_t type : {acl_ssh_v4, acl_netconf_v4, acl_ssh_v6, acl_netconf_v6}) {
        ASSERT_EQ(norvossh_acl_init_table("red", &stream, type), 0);
        ssh_nft_fp_close(type, stream);
        fclose(stream);
        stream = nullptr;
        expect_golden("acl/golden/empty_" + std::to_string(type) + ".nft", read_file(get_nft_file_name("red", type)));
    }
}

TEST_F(nft_files_test, a_header_for_all_tables_is_refused_but_creates_the_file) {
    EXPECT_EQ(norvossh_acl_init_table("red", &stream, acl_all), -1);
    EXPECT_NE(stream, nullptr);
    EXPECT_EQ(read_file(rule_file("red", "norvossh_acl_all")), "");
    EXPECT_TRUE(fake_platform::debugged("norvossh_acl_init_table: Invalid ACL type"));
}

TEST_F(nft_files_test, the_closing_lines_of_all_tables_are_only_braces) {
    ASSERT_EQ(create_nft_file("red", &stream, acl_all), 0);
    ssh_nft_fp_close(acl_all, stream);
    EXPECT_EQ(read_file(rule_file("red", "norvossh_acl_all")), "        }\n}\n");
}

TEST_F(nft_files_test, creates_folders_and_file_with_their_modes) {
    const mode_t before = umask(0);
    ASSERT_EQ(create_nft_file("red", &stream, 0), 0);
    umask(before);
    EXPECT_EQ(mode_of("/tmp/norvo-ssh"), 0755U);
    EXPECT_EQ(mode_of("/tmp/norvo-ssh/access-list"), 0755U);
    EXPECT_EQ(mode_of(rule_file("red", "norvossh_v4acl")), 0744U);
}

TEST_F(nft_files_test, each_folder_that_cannot_be_created_has_its_own_message) {
    const char* texts[] = {"Failed to create NORVOSSH_NFT_DIR_0", "Failed to create NORVOSSH_NFT_DIR_1",
                           "Failed to create NORVOSSH_NFT_DIR_2"};
    for (uint32_t i = 0; i < 3; i++) {
        fake_platform::clear_reports();
        call_faults::clear();
        call_faults::fail_call("mkdir", EROFS, call_faults::once, i + 1);
        EXPECT_EQ(create_nft_file("red", &stream, 0), -1);
        EXPECT_EQ(fake_platform::log_texts(),
                  std::vector{std::string("ERR_ERRNO: Error:=Read-only file system(0x1e), ") + texts[i]});
    }
}

TEST_F(nft_files_test, a_file_that_cannot_be_created_is_reported) {
    call_faults::fail_call("creat", ENOSPC);
    EXPECT_EQ(create_nft_file("red", &stream, 0), -1);
    EXPECT_TRUE(
        fake_platform::logged("ERR_ERRNO", "Error:=No space left on device(0x1c), Failed to create NORVOSSH_NFT file"));
    EXPECT_TRUE(fake_platform::debugged(
        "create_nft_file - Failed to create NORVOSSH_NFT file, Error:=No space left on device(0x1c)"));
}

TEST_F(nft_files_test, a_file_is_not_created_whatever_the_reason) {
    call_faults::fail_call("creat", EEXIST);
    EXPECT_EQ(create_nft_file("red", &stream, 0), -1);
    EXPECT_TRUE(fake_platform::logged("ERR_ERRNO", "Error:=File exists(0x11), Failed to create NORVOSSH_NFT file"));
}

TEST_F(nft_files_test, a_stream_that_cannot_be_opened_is_reported) {
    call_faults::fail_call("fdopen", ENOMEM);
    EXPECT_EQ(create_nft_file("red", &stream, 0), -1);
    EXPECT_TRUE(
        fake_platform::logged("ERR_ERRNO", "Error:=Cannot allocate memory(0xc), Failed to open NORVOSSH_NFT file"));
}

TEST_F(nft_files_test, a_file_can_have_the_descriptor_of_standard_input) {
    close(STDIN_FILENO);
    ASSERT_EQ(create_nft_file("red", &stream, 0), 0);
    EXPECT_EQ(fileno(stream), STDIN_FILENO);
    fclose(stream);
    stream = nullptr;
    call_faults::fail_call("fdopen", ENOMEM, call_faults::once);
    const size_t before = open_descriptors();
    EXPECT_EQ(create_nft_file("red", &stream, 0), -1);
    EXPECT_EQ(open_descriptors(), before);
}

TEST_F(nft_files_test, removes_the_table_of_a_type) {
    for (const uint32_t type : {acl_ssh_v4, acl_netconf_v4, acl_ssh_v6, acl_netconf_v6}) {
        EXPECT_EQ(remove_nft_table("red", type), 0);
        const std::string table = std::string(type < acl_ssh_v6 ? "ip " : "ip6 ") + nft_table_name(type);
        EXPECT_EQ(read_file(get_nft_file_name("red", type)), "table " + table + " {\n}\ndelete table " + table + "\n");
    }
    EXPECT_EQ(loads().size(), 4U);
}

TEST_F(nft_files_test, loads_a_file_inside_the_namespace) {
    EXPECT_EQ(ssh_apply_acl("red", 0), 0);
    EXPECT_EQ(loads(),
              std::vector<std::string>{"ip netns exec vrf-red /usr/sbin/nft -f " + rule_file("red", "norvossh_v4acl")});
}

TEST_F(nft_files_test, a_failed_load_counts_only_if_errno_is_set) {
    stub_commands::fail("ip netns exec", 1);
    errno = 0;
    EXPECT_EQ(ssh_apply_acl("red", 0), 0);
    EXPECT_TRUE(fake_platform::log_texts().empty());
    errno = EEXIST;
    EXPECT_EQ(ssh_apply_acl("red", 0), -1);
    EXPECT_TRUE(fake_platform::logged("ERR_ERRNO", "Error:=File exists(0x11), Failed to apply nft rules"));
    EXPECT_TRUE(fake_platform::debugged("Failed to apply nft rules = (17)File exists"));
}

TEST_F(nft_files_test, a_load_that_times_out_is_a_failure) {
    call_faults::limit_commands(200);
    stub_commands::set_delay("ip netns exec", 60000);
    errno = 0;
    EXPECT_EQ(ssh_apply_acl("red", 0), -1);
    EXPECT_TRUE(fake_platform::logged("ERR_ERRNO", "Error:=Connection timed out(0x6e), Failed to apply nft rules"));
}

TEST_F(nft_files_test, declares_the_four_tables) {
    EXPECT_EQ(create_nft_table("red"), 0);
    EXPECT_EQ(read_file(rule_file("red", "norvossh_acl_all")),
              "table ip norvossh_v4acl {\n}\ntable ip6 norvossh_v6acl {\n}\ntable ip netconf_v4acl {\n}\n"
              "table ip6 netconf_v6acl {\n}\n");
    EXPECT_EQ(loads().size(), 1U);
    EXPECT_EQ(create_nft_table(nullptr), -1);
    EXPECT_TRUE(fake_platform::debugged("create_nft_table: vrf name is NULL"));
}

TEST_F(nft_files_test, flushes_one_table_or_all) {
    EXPECT_EQ(ssh_flush_nft_table("red", acl_netconf_v6), 0);
    EXPECT_EQ(read_file(rule_file("red", "netconf_v6acl")), "flush table ip6 netconf_v6acl\n\n");
    EXPECT_EQ(ssh_flush_nft_table("red", acl_all), 0);
    EXPECT_EQ(read_file(rule_file("red", "norvossh_acl_all")),
              "flush table ip norvossh_v4acl\n\nflush table ip6 norvossh_v6acl\n\nflush table ip netconf_v4acl\n\n"
              "flush table ip6 netconf_v6acl\n\n");
    EXPECT_EQ(ssh_flush_nft_table("red", 5), -1);
    EXPECT_TRUE(fake_platform::debugged("ssh_flush_nft_table: Invalid ACL type"));
}

TEST_F(nft_files_test, a_flush_that_fails_is_reported) {
    stub_commands::fail("ip netns exec", 1);
    EXPECT_EQ(ssh_flush_nft_table("red", 0), -1);
    EXPECT_TRUE(fake_platform::debugged("ssh_flush_nft_table: Failed to apply nft rules"));
    call_faults::fail_call("creat", EIO);
    EXPECT_EQ(ssh_flush_nft_table("red", 0), -1);
    EXPECT_TRUE(fake_platform::debugged("ssh_flush_nft_table: Failed to create NFT file"));
}

TEST_F(nft_files_test, a_flush_that_does_not_fit_on_the_disk_is_a_failure_and_loads_nothing) {
    call_faults::fail_call("fclose", ENOSPC, call_faults::once, 1, rule_file("red", "norvossh_v4acl"));
    EXPECT_EQ(ssh_flush_nft_table("red", acl_ssh_v4), -1);
    EXPECT_TRUE(loads().empty());
    EXPECT_TRUE(fake_platform::logged("ERR_ERRNO", "Error:=No space left on device(0x1c), Failed to apply nft rules"));
    EXPECT_TRUE(fake_platform::debugged("ssh_flush_nft_table: Failed to apply nft rules"));
}

// The C library may write at once if it has no memory for a buffer; closing the file then succeeds.
TEST_F(nft_files_test, a_file_that_could_not_be_written_is_not_loaded) {
    for (const auto& write_and_load :
         {+[] { return ssh_flush_nft_table("red", acl_ssh_v4); }, +[] { return remove_nft_table("red", acl_ssh_v4); },
          +[] { return create_nft_table("red"); }}) {
        call_faults::fail_call("stdio_write", ENOSPC, call_faults::once);
        EXPECT_EQ(write_and_load(), -1);
    }
    EXPECT_TRUE(loads().empty());
}

TEST_F(nft_files_test, tables_that_do_not_fit_on_the_disk_are_not_declared) {
    call_faults::fail_call("fflush", ENOSPC, call_faults::once, 1, rule_file("red", "norvossh_acl_all"));
    EXPECT_EQ(create_nft_table("red"), -1);
    EXPECT_TRUE(loads().empty());
    EXPECT_TRUE(fake_platform::logged("ERR_ERRNO", "Error:=No space left on device(0x1c), Failed to apply nft rules"));
}

// --- Everything that is asked, run and reported -----------------------------------------------------------------------

namespace {

int begin_and_close(uint32_t type) {
    FILE* opened = nullptr;
    const int result = norvossh_acl_init_table("red", &opened, type);
    if (opened != nullptr) {
        fclose(opened);
    }
    return result;
}

struct nft_operation {
    const char* name;
    int (*run)();
};
constexpr nft_operation nft_operations[] = {
    {"declare", [] { return create_nft_table("red"); }},
    {"flush one", [] { return ssh_flush_nft_table("red", acl_ssh_v4); }},
    {"flush all", [] { return ssh_flush_nft_table("red", acl_all); }},
    {"remove", [] { return remove_nft_table("red", acl_netconf_v6); }},
    {"begin", [] { return begin_and_close(acl_ssh_v4); }},
    {"begin all", [] { return begin_and_close(acl_all); }},
    {"begin another type", [] { return begin_and_close(acl_type_count); }},
    {"load a list", [] { return ssh_apply_acl("red", acl_ssh_v6); }},
    {"load a table", [] { return ssh_apply_acl("red", acl_netconf_v4); }},
    {"load another type", [] { return ssh_apply_acl("red", acl_type_count); }},
};

struct failing_call {
    const char* call;
    uint32_t number;
};
constexpr failing_call failing_calls[] = {{"", 0},       {"mkdir", 1},  {"mkdir", 2},  {"mkdir", 3},
                                          {"creat", 1},  {"fdopen", 1}, {"fflush", 1}, {"stdio_write", 1},
                                          {"fclose", 1}, {"command", 1}};

class nft_files_account_test : public nft_files_test {
  protected:
    std::string text;

    void run(const nft_operation& each, const std::string& failure) {
        clear_load_failure();
        const size_t descriptors = open_descriptors();
        const int result = each.run();
        call_faults::clear();
        text += "== " + std::string(each.name) + failure + ": " + std::to_string(result) + ", " + load_failure() +
                '\n' + account();
        EXPECT_EQ(open_descriptors(), descriptors) << each.name << failure;
    }
};

}  // namespace

TEST_F(nft_files_account_test, all_operations) {
    name(red->ssh_v6_acl, "6");
    account();
    for (const nft_operation& each : nft_operations) {
        for (const failing_call& failing : failing_calls) {
            if (failing.number == 0) {
                run(each, "");
                continue;
            }
            call_faults::fail_call(failing.call, EIO, call_faults::once, failing.number);
            run(each, std::string(" without ") + failing.call + ' ' + std::to_string(failing.number));
        }
        stub_commands::set_hook("ip netns exec", "printf 'f.nft:6:5-7: Error: wrong\\n  rule\\n  ^^^\\n' >&2");
        stub_commands::fail("ip netns exec", 1);
        run(each, " with an error of nft");
        stub_commands::clear_rules();
    }
    expect_golden("acl/golden/nft_files_account", text);
}
