#include "fips/fips_switch.h"

#include "../account.h"
#include "../algorithm_test.h"
#include "call_faults.h"
#include "config_files/algorithm_names.h"
#include "fips/list_filter.h"
#include "scratch_root.h"

namespace {

using fake_platform::remove;
using fake_platform::set_number;
using fake_platform::store;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

constexpr char no_memory_call[] = "_ZnwmRKSt9nothrow_t";

class fips_switch_test : public algorithm_test {
  protected:
    fips_switch_test() { fake_platform::preset_debug_flag(debug_cfg_agent, true); }

    static void expect_golden_files(const std::string& directory) {
        expect_golden("fips/golden/" + directory + "/sshd_config", read_file(paths::server_file));
        expect_golden("fips/golden/" + directory + "/ssh_config", read_file(paths::client_file));
    }

    static std::string server_line(const std::string& keyword) { return value(paths::server_file, keyword); }
    static std::string client_line(const std::string& keyword) { return value(paths::client_file, keyword); }

    static void start_in_fips_mode() {
        store(set_number(fips_item, 1));
        start();
    }
};

// --- Files -----------------------------------------------------------------------------------------------------------

TEST_F(fips_switch_test, a_normal_start_writes_no_cipher_and_key_exchange_lines) {
    EXPECT_EQ(start_agent(), START_UP_DONE);
    expect_golden("core/golden/fresh_start/sshd_config", read_file(paths::server_file));
    expect_golden("core/golden/fresh_start/ssh_config", read_file(paths::client_file));
    EXPECT_TRUE(fake_platform::debugged("Registering for FIPS mode notification"));
    EXPECT_TRUE(fake_platform::debugged("FIPS mode unset successfully"));
    for (const char* keyword : {"Ciphers", "KexAlgorithms", "NorvoSSHFipsMode"}) {
        EXPECT_EQ(server_line(keyword), "no line");
        EXPECT_EQ(client_line(keyword), "no line");
    }
}

TEST_F(fips_switch_test, a_start_in_fips_mode_filters_every_list) {
    store(set_number(fips_item, 1));
    EXPECT_EQ(start_agent(), START_UP_DONE);
    expect_golden_files("start_in_fips_mode");
    EXPECT_TRUE(fake_platform::debugged("norvossh_fips_register, FIPS mode is set"));
}

TEST_F(fips_switch_test, on_off_and_on_again_at_run_time) {
    start();
    turn_fips(true);
    expect_golden_files("on");
    turn_fips(false);
    expect_golden_files("on_off");
    EXPECT_EQ(server_line("Ciphers"), default_cipher_list);
    EXPECT_EQ(client_line("KexAlgorithms"), default_kex_list);
    turn_fips(true);
    expect_golden_files("on_off_on");
}

TEST_F(fips_switch_test, configured_lists_are_filtered_and_restored_completely) {
    start();
    for (const side_case& side : {server_case, client_case}) {
        commit_ok(kex_change(side, {"curve25519-sha256", "ecdh-sha2-nistp256"}));
        commit_ok(cipher_change(side, {"chacha20-poly1305@openssh.com", "aes256-ctr"}));
    }
    commit_ok(host_key_change({1, 0, 0, 1, 0, 1, 1, 0, 0, 0}));
    turn_fips(true);
    for (const char* file : {paths::server_file, paths::client_file}) {
        EXPECT_EQ(value(file, "KexAlgorithms"), "ecdh-sha2-nistp256,");
        EXPECT_EQ(value(file, "Ciphers"), "aes256-ctr,");
        EXPECT_EQ(value(file, "HostKeyAlgorithms"), "ecdsa-sha2-nistp256,rsa-sha2-512,rsa-sha2-256,");
    }
    EXPECT_THAT(values(paths::server_file, "HostKey"), ElementsAre("/pkg/ecdsa-sha2-nistp256", "/pkg/rsa", "/pkg/rsa"));
    EXPECT_EQ(server_line("NorvoSSHFipsMode"), "yes");
    EXPECT_STREQ(server_config.algorithms[SERVER_KEX_ALGORITHMS].current, "curve25519-sha256,ecdh-sha2-nistp256");
    EXPECT_STREQ(server_config.algorithms[SERVER_KEX_ALGORITHMS].second_current, "ecdh-sha2-nistp256,");
    turn_fips(false);
    for (const char* file : {paths::server_file, paths::client_file}) {
        EXPECT_EQ(value(file, "KexAlgorithms"), "curve25519-sha256,ecdh-sha2-nistp256");
        EXPECT_EQ(value(file, "Ciphers"), "chacha20-poly1305@openssh.com,aes256-ctr");
    }
    EXPECT_EQ(server_line("HostKeyAlgorithms"),
              "x509v3-ssh-rsa,ecdsa-sha2-nistp256,ssh-ed25519,rsa-sha2-512,rsa-sha2-256,ssh-rsa");
    EXPECT_EQ(client_line("HostKeyAlgorithms"), default_client_host_key_algorithms);
    EXPECT_THAT(values(paths::server_file, "HostKey"),
                ElementsAre("/pkg/ecdsa-sha2-nistp256", "/pkg/ed25519", "/pkg/rsa"));
    EXPECT_EQ(server_line("NorvoSSHFipsMode"), "no line");
    EXPECT_STREQ(server_config.algorithms[SERVER_KEX_ALGORITHMS].second_current,
                 "curve25519-sha256,ecdh-sha2-nistp256");
}

TEST_F(fips_switch_test, logs_the_switch) {
    start();
    commit_ok(set_number(fips_item, 1));
    EXPECT_TRUE(fake_platform::debugged("norvossh_notify_fips_mode, FIPS mode set successfully"));
    commit_ok(remove(fips_item));
    EXPECT_TRUE(fake_platform::debugged("norvossh_notify_fips_mode, FIPS mode exited successfully"));
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre());
}

TEST_F(fips_switch_test, a_changed_value_changes_no_file) {
    start_in_fips_mode();
    const std::string before = both_files();
    const auto writes = call_faults::count_changes();
    commit_ok(set_number(fips_item, 0));
    EXPECT_EQ(call_faults::count_changes(), writes);
    EXPECT_EQ(both_files(), before);
    EXPECT_TRUE(fake_platform::debugged("FIPS mode is already set"));
}

TEST_F(fips_switch_test, a_missing_file_is_recreated_with_the_fips_line) {
    start_in_fips_mode();
    remove_path(paths::server_file);
    commit_ok(set_number("/cfg/gl/crypto/ssh/server/cmn/timeout", 44));
    EXPECT_EQ(server_line("NorvoSSHFipsMode"), "yes");
    turn_fips(false);
    remove_path(paths::server_file);
    commit_ok(set_number("/cfg/gl/crypto/ssh/server/cmn/timeout", 45));
    EXPECT_EQ(server_line("NorvoSSHFipsMode"), "no line");
}

TEST_F(fips_switch_test, a_restart_after_a_failure_keeps_fips_mode) {
    store(kex_change(server_case, {"curve25519-sha256", "ecdh-sha2-nistp384"}));
    store(host_key_change({1, 0, 0, 0, 0, 0, 1, 0, 0, 0}));
    start_in_fips_mode();
    for (const uint32_t respawn_count : {2, 1}) {
        fake_platform::set_respawn_count(respawn_count);
        fill_parameter_tables();
        ASSERT_EQ(start_agent(), START_UP_DONE);
        EXPECT_EQ(server_line("KexAlgorithms"), "ecdh-sha2-nistp384");
        EXPECT_EQ(server_line("HostKeyAlgorithms"), "ecdsa-sha2-nistp256");
        EXPECT_EQ(server_line("HostKey"), "/pkg/ecdsa-sha2-nistp256");
        EXPECT_THAT(server_line("Ciphers"), testing::Not(testing::HasSubstr("chacha20")));
        EXPECT_EQ(server_line("NorvoSSHFipsMode"), "yes");
    }
}

// --- Registration ----------------------------------------------------------------------------------------------------

struct registration_failure {
    const char* operation;
    const char* log_line;
};

const registration_failure registration_failures[] = {
    {"datastore_bind(/cfg/gl/crypto/)",
     "ERR_DATASTORE_BIND: Error:=Input/output error(0x5), Location:=CEPKI FIPS CFG, Failed to bind to datastore"},
    {"datastore_item_get(/cfg/gl/crypto/fipsmode/value)",
     "ERR_ERRNO: Error:=Input/output error(0x5), Failed to get item from datastore"},
    {"datastore_register_verification(/cfg/gl/crypto/fipsmode/value, 7)",
     "ERR_ERRNO: Error:=Input/output error(0x5), datastore verification registeration failed for fips mode"},
    {"datastore_register_notification(/cfg/gl/crypto/fipsmode/value, 7)",
     "ERR_ERRNO: Error:=Input/output error(0x5), datastore notification registeration failed for fips mode"},
};

TEST_F(fips_switch_test, a_failed_registration_is_fatal) {
    for (const registration_failure& failure : registration_failures) {
        forget();
        fake_platform::fail(failure.operation, EIO);
        EXPECT_EQ(start_agent(), START_UP_FIPS);
        EXPECT_THAT(fake_platform::log_texts(),
                    ElementsAre(failure.log_line,
                                "ERR_ERRNO: Error:=Input/output error(0x5), Failed to register for fips notification"));
        EXPECT_EQ(fake_platform::count_calls("mpp_init"), 0u);
        EXPECT_EQ(fake_platform::bindings("/cfg/gl/crypto/"), 0u);
        fake_platform::clear_failures();
    }
}

TEST_F(fips_switch_test, exhausted_memory_at_start_is_fatal) {
    store(set_number(fips_item, 1));
    const char* const texts[] = {"Error:=Cannot allocate memory(0xc)  memory allocation failed",
                                 "Error:=Cannot allocate memory(0xc)  memory allocation failed for cipher",
                                 "Error:=Cannot allocate memory(0xc)  memory allocation failed for kex"};
    for (uint32_t allocation = 1; allocation <= std::size(texts); allocation++) {
        forget();
        call_faults::clear();
        call_faults::fail_call(no_memory_call, ENOMEM, call_faults::once, allocation);
        EXPECT_EQ(start_agent(), START_UP_FIPS) << allocation;
        EXPECT_TRUE(fake_platform::debugged(texts[allocation - 1]));
    }
}

TEST_F(fips_switch_test, exhausted_memory_at_run_time_is_printed_in_debug) {
    start();
    // The verifier makes six allocations first: two for each of its three kinds of lists.
    call_faults::clear();
    call_faults::fail_call(no_memory_call, ENOMEM, call_faults::once, 7);
    commit_ok(set_number(fips_item, 1));
    EXPECT_TRUE(fake_platform::debugged("Error:=Cannot allocate memory(0xc)  memory allocation failed"));
    EXPECT_EQ(server_line("NorvoSSHFipsMode"), "no line");
}

// --- Failed writes ---------------------------------------------------------------------------------------------------

TEST_F(fips_switch_test, failed_writes_when_switching_on_are_only_reported) {
    start();
    call_faults::fail_call("rename", EROFS);
    commit_ok(set_number(fips_item, 1));
    EXPECT_THAT(
        fake_platform::log_texts(),
        ElementsAre("ERR_ERRNO: Error:=Read-only file system(0x1e), Failed to update HostKey List in Config file",
                    "ERR_ERRNO: Error:=Read-only file system(0x1e), Failed to set FIPS mode ",
                    "ERR_ERRNO: Error:=Read-only file system(0x1e), Failed to update cipher List in Config file",
                    "ERR_ERRNO: Error:=Read-only file system(0x1e), Failed to update kex List in Config file"));
    for (const char* text :
         {"Error:=Read-only file system(0x1e): norvossh_set_fips_mode, failed to update hostkey list in  config file",
          "Error:=Read-only file system(0x1e): norvossh_notify_fips_mode, failed to update cipher list in  config file",
          "Error:=Read-only file system(0x1e): norvossh_notify_fips_mode, failed to update kex list in  config file"}) {
        EXPECT_TRUE(fake_platform::debugged(text)) << text;
    }
}

TEST_F(fips_switch_test, a_fips_line_that_cannot_be_written_is_reported) {
    start();
    // The host-key lines and their algorithms are written first.
    call_faults::clear();
    call_faults::fail_call("rename", EROFS, 1, 3);
    commit_ok(set_number(fips_item, 1));
    EXPECT_TRUE(fake_platform::logged(
        "ERR_ERRNO", "Error:=Read-only file system(0x1e), Failed to set NorvoSSHFipsMode in Config file"));
    EXPECT_TRUE(
        fake_platform::debugged("Error:=Read-only file system(0x1e): norvossh_set_fips_mode, failed to update "
                                "NorvoSSHFipsMode  to 'yes' in config file"));
    EXPECT_EQ(client_line("HostKeyAlgorithms"), default_client_host_key_algorithms);
    // The lists are filtered nevertheless.
    EXPECT_EQ(client_line("Ciphers"), std::string(fips_cipher_list) + ",");
}

TEST_F(fips_switch_test, failed_writes_when_switching_off_are_only_reported) {
    start_in_fips_mode();
    call_faults::fail_call("rename", EROFS);
    commit_ok(remove(fips_item));
    EXPECT_THAT(
        fake_platform::log_texts(),
        ElementsAre("ERR_ERRNO: Error:=Read-only file system(0x1e), Failed to unset NorvoSSHFipsMode in Config file",
                    "ERR_ERRNO: Error:=Read-only file system(0x1e), Failed to exit FIPS mode ",
                    "ERR_ERRNO: Error:=Read-only file system(0x1e), Failed to update cipher List in Config file",
                    "ERR_ERRNO: Error:=Read-only file system(0x1e), Failed to update kexAlgo List in Config file"));
    EXPECT_TRUE(
        fake_platform::debugged("Error:=Read-only file system(0x1e): norvossh_set_fips_mode, failed to update "
                                "NorvoSSHFipsMode  to NULL in config file"));
    EXPECT_TRUE(
        fake_platform::debugged("Error:=Read-only file system(0x1e): norvossh_notify_fips_mode, failed to update "
                                "kexAlgo list in  config file"));
}

TEST_F(fips_switch_test, failed_writes_at_start_are_only_reported) {
    // The files are created, and then every edit fails.
    call_faults::fail_call("rename", EROFS);
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_TRUE(fake_platform::logged("ERR_ERRNO", "Error:=Read-only file system(0x1e), Failed to unset FIPS mode"));
}

TEST_F(fips_switch_test, failed_writes_of_a_start_in_fips_mode_are_only_reported) {
    store(set_number(fips_item, 1));
    call_faults::fail_call("rename", EROFS);
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_TRUE(fake_platform::logged("ERR_ERRNO", "Error:=Read-only file system(0x1e), Failed to set FIPS mode"));
}

// --- Lists that cannot be filtered -----------------------------------------------------------------------------------

void notify(uint32_t event) {
    const datastore_notification notification = {"fipsmode/value", event, nullptr, 0};
    norvossh_notify_fips_mode(&notification, nullptr);
}

TEST_F(fips_switch_test, missing_lists_are_reported_one_by_one) {
    start();
    server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS].current = nullptr;
    server_config.algorithms[SERVER_CIPHERS].current = "";
    client_config.algorithms[CLIENT_KEX_ALGORITHMS].current = nullptr;
    notify(DATASTORE_EVENT_CREATE | DATASTORE_EVENT_SET);
    EXPECT_TRUE(fake_platform::debugged("norvossh_notify_fips_mode, Invalid host key list"));
    EXPECT_TRUE(fake_platform::debugged("norvossh_notify_fips_mode, Invalid cipher  list"));
    EXPECT_TRUE(fake_platform::debugged("norvossh_notify_fips_mode, Invalid kex list"));
    EXPECT_EQ(server_line("Ciphers"), "no line");
    EXPECT_NE(client_line("Ciphers"), "no line");
    EXPECT_NE(server_line("KexAlgorithms"), "no line");
    EXPECT_EQ(client_line("KexAlgorithms"), "no line");
}

TEST_F(fips_switch_test, host_keys_without_a_file_do_not_write_the_fips_line) {
    start();
    server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS].current = "ssh-dss,ssh-ed25519";
    notify(DATASTORE_EVENT_CREATE);
    EXPECT_TRUE(fake_platform::debugged("norvossh_notify_fips_mode, failed to set hostkeyfile list"));
    EXPECT_EQ(server_line("NorvoSSHFipsMode"), "no line");
}

TEST_F(fips_switch_test, an_event_that_neither_sets_nor_deletes_is_ignored) {
    start();
    const std::string before = both_files();
    notify(8);
    EXPECT_EQ(both_files(), before);
}

// --- Everything that is asked, run and reported -----------------------------------------------------------------------

class fips_account_test : public fips_switch_test {
  protected:
    std::string text;

    static std::string texts_of(const algorithm_entry& entry) {
        const auto shown = [](const char* list) { return std::string(list != nullptr ? list : "none"); };
        return std::string("list ") + shown(entry.keyword) + " | " + shown(entry.current) + " | " +
               shown(entry.second_current) + '\n';
    }

    void note(const std::string& step) {
        text += "== " + step + '\n' + account();
        for (const int index : {SERVER_HOST_KEY, SERVER_HOST_KEY_ALGORITHMS, SERVER_CIPHERS, SERVER_KEX_ALGORITHMS}) {
            text += "server " + texts_of(server_config.algorithms[index]);
        }
        for (const int index : {CLIENT_HOST_KEY_ALGORITHMS, CLIENT_CIPHERS, CLIENT_KEX_ALGORITHMS}) {
            text += "client " + texts_of(client_config.algorithms[index]);
        }
        call_faults::clear();
    }

    static void turn(bool on) {
        const auto result = commit_ok(on ? set_number(fips_item, 1) : fake_platform::remove(fips_item));
        EXPECT_THAT(result.failures, testing::IsEmpty());
    }

    void turn_with_a_fault(bool on, const char* call, int error, uint32_t number) {
        turn(!on);
        account();
        call_faults::clear();
        call_faults::fail_call(call, error, 1, number);
        fake_platform::commit(on ? set_number(fips_item, 1) : fake_platform::remove(fips_item));
        note(std::string(on ? "on, " : "off, ") + call + ' ' + std::to_string(number) + " fails");
    }
};

TEST_F(fips_account_test, at_run_time) {
    start();
    client_config.algorithms[CLIENT_HOST_KEY_ALGORITHMS].current = "rsa-sha2-512,rsa-sha2-256";
    commit_ok(host_key_change({1, 0, 0, 1, 0, 1, 1, 0, 0, 0}));
    note("other host keys");
    turn(true);
    note("on");
    turn(false);
    note("off");
    for (const bool on : {true, false}) {
        for (uint32_t number = 1; number <= 9; number++) {
            turn_with_a_fault(on, "rename", EROFS, number);
        }
        for (uint32_t number = 1; number <= 12; number++) {
            turn_with_a_fault(on, no_memory_call, ENOMEM, number);
        }
    }
    for (const uint32_t event : {0, 1, 2, 3, 4, 8}) {
        notify(event);
        note("event " + std::to_string(event));
    }
    expect_golden("fips/golden/account", text);
}

TEST_F(fips_account_test, missing_lists) {
    start();
    for (algorithm_entry* entry :
         {&server_config.algorithms[SERVER_HOST_KEY_ALGORITHMS], &server_config.algorithms[SERVER_CIPHERS],
          &server_config.algorithms[SERVER_KEX_ALGORITHMS], &client_config.algorithms[CLIENT_CIPHERS],
          &client_config.algorithms[CLIENT_KEX_ALGORITHMS]}) {
        const char* whole = entry->current;
        entry->current = nullptr;
        notify(DATASTORE_EVENT_CREATE);
        note(std::string("on without ") + entry->keyword);
        entry->current = whole;
        notify(DATASTORE_EVENT_DELETE);
        account();
    }
    expect_golden("fips/golden/account_without_lists", text);
}

TEST_F(fips_account_test, at_start) {
    for (const char* operation :
         {"datastore_bind(/cfg/gl/crypto/)", "datastore_item_get(/cfg/gl/crypto/fipsmode/value)",
          "datastore_register_verification(/cfg/gl/crypto/fipsmode/value, 7)",
          "datastore_register_notification(/cfg/gl/crypto/fipsmode/value, 7)"}) {
        fake_platform::fail(operation, EIO);
        EXPECT_NE(start_agent(), START_UP_DONE);
        note(std::string("start without ") + operation);
        fake_platform::clear_failures();
    }
    for (const bool on : {false, true}) {
        if (on) {
            store(set_number(fips_item, 1));
        }
        for (uint32_t number = 0; number <= 6; number++) {
            remove_path("/var/opt/norvo/norvossh");
            call_faults::clear();
            if (number > 0) {
                call_faults::fail_call("rename", EROFS, 1, number);
            }
            EXPECT_EQ(start_agent(), START_UP_DONE);
            note(std::string("start, ") + (on ? "on" : "off") + ", rename " + std::to_string(number) + " fails");
        }
    }
    expect_golden("fips/golden/account_of_starts", text);
}

}  // namespace
