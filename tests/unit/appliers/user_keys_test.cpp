#include "appliers/user_keys.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdlib>

#include "../agent_test.h"
#include "call_faults.h"
#include "core/debug.h"
#include "core/item_table.h"
#include "platform/key_store.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char key_text[] = "ssh-rsa AAAAB3NzaC1yc2E= alice@desk";
constexpr char item[] = "/cfg/gl/crypto/ssh/server/cmn/username/alice/keystr";
constexpr uint32_t set_new = DATASTORE_EVENT_CREATE | DATASTORE_EVENT_SET;

struct outcome {
    platform_status status;
    uint32_t accepted;
    std::string text;
    bool operator==(const outcome&) const = default;
};

void PrintTo(const outcome& outcome, std::ostream* output) {
    *output << outcome.status << ", " << outcome.accepted << ", \"" << outcome.text << '"';
}

const outcome accepted = {PLATFORM_OK, 1, ""};

outcome refused(platform_status status, std::string text) {
    return {status, 0, std::move(text)};
}

class user_keys_test : public agent_test {
  protected:
    user_keys_test() {
        fake_platform::set_list("/cfg/gl/aaa/username/", {{"0", ""}});
        fake_platform::set_list("/cfg/gl/aaa/username/0/", {{"alice", ""}});
        fake_platform::set_der(key_text, "DER of alice", 2048);
        fake_platform::preset_debug_flag(debug_cfg_agent, true);
    }

    static outcome verify(const char* text, uint32_t event = set_new, const char* user_name = "alice",
                          uint32_t components = 4) {
        const char* const path[] = {"cmn", "username", user_name, "keystr"};
        const datastore_path_components split = {path, components};
        const datastore_change change = {event, nullptr, text, 0, text != nullptr ? std::string(text).size() + 1 : 0};
        char* error_text = nullptr;
        outcome result = {PLATFORM_OK, 7, ""};
        result.status = user_key_verifier(&change, &error_text, &result.accepted, &split);
        result.text = error_text != nullptr ? error_text : "";
        std::free(error_text);
        return result;
    }

    static platform_status apply(const char* text, uint32_t event = set_new, const char* user_name = "alice",
                                 uint32_t components = 4) {
        const char* const path[] = {"cmn", "username", user_name, "keystr"};
        const datastore_path_components split = {path, components};
        const datastore_change change = {event, nullptr, text, 0, text != nullptr ? std::string(text).size() + 1 : 0};
        return sshd_apply_user_keystr(&change, &split);
    }

    static void hold_key(bool added_by_exec_mode) {
        fake_platform::set_key({"alice", KEY_STORE_USER_PUBLIC_KEY, 1, 1024, "old", added_by_exec_mode});
    }
};

// --- Verifier --------------------------------------------------------------------------------------------------------

TEST_F(user_keys_test, a_key_of_a_known_user_is_accepted) {
    EXPECT_EQ(verify(key_text), accepted);
    EXPECT_TRUE(fake_platform::logged("INFO_GENERAL", "Username found in database"));
    EXPECT_TRUE(fake_platform::debugged(std::string("Keystring in verifier = ") + key_text));
    EXPECT_THAT(
        fake_platform::calls_of("key_store_"),
        ElementsAre("key_store_get_user_key(alice, 17)", std::string("key_store_pubkey_to_der(") + key_text + ")"));
    EXPECT_THAT(fake_platform::keys(), IsEmpty());
}

TEST_F(user_keys_test, a_missing_user_name_is_refused) {
    const outcome missing = refused(EINVAL, "Username is NULL");
    EXPECT_EQ(verify(key_text, set_new, nullptr), missing);
    EXPECT_EQ(verify(key_text, set_new, ""), missing);
    EXPECT_EQ(verify(key_text, set_new, "alice", 2), missing);
    EXPECT_EQ(verify(nullptr, DATASTORE_EVENT_DELETE, nullptr), missing);
    EXPECT_THAT(fake_platform::calls(), IsEmpty());
}

TEST_F(user_keys_test, a_missing_value_is_refused) {
    EXPECT_EQ(verify(nullptr), refused(EINVAL, "newvalue returned from datastore is NULL"));
}

TEST_F(user_keys_test, an_unknown_user_is_refused) {
    EXPECT_EQ(verify(key_text, set_new, "bob"), refused(EINVAL, "Username not present in database"));
    fake_platform::remove_list("/cfg/gl/aaa/username/");
    EXPECT_EQ(verify(key_text), refused(EINVAL, "Username not present in database"));
}

TEST_F(user_keys_test, a_user_list_that_cannot_be_read_refuses_with_its_error) {
    fake_platform::fail("datastore_bind", EIO);
    EXPECT_EQ(verify(key_text).status, platform_status{EIO});
    EXPECT_EQ(verify(key_text).accepted, 0u);
    fake_platform::clear_failures();
    fake_platform::set_list("/cfg/gl/aaa/username/0/", {{"alice", ""}, {"bob", ""}});
    EXPECT_EQ(verify(key_text).status, 1u);
    EXPECT_EQ(verify(key_text).accepted, 0u);
}

TEST_F(user_keys_test, a_key_added_from_the_exec_mode_is_not_replaced) {
    hold_key(true);
    EXPECT_EQ(verify(key_text),
              refused(EEXIST, "Key is added as part of exec mode, Public key insertion is not allowed\n"));
    EXPECT_EQ(EEXIST, 17);
}

TEST_F(user_keys_test, a_key_added_from_the_exec_mode_is_not_removed) {
    hold_key(true);
    EXPECT_EQ(verify(nullptr, DATASTORE_EVENT_DELETE), refused(EINVAL, "Key to be deleted via  exec mode"));
}

TEST_F(user_keys_test, a_configured_key_may_be_replaced_and_removed) {
    hold_key(false);
    EXPECT_EQ(verify(key_text, DATASTORE_EVENT_SET), accepted);
    EXPECT_TRUE(fake_platform::logged("INFO_GENERAL", "Key for user already exists Updating new key"));
    EXPECT_EQ(verify(nullptr, DATASTORE_EVENT_DELETE), accepted);
}

// Even if the user no longer exists.
TEST_F(user_keys_test, a_key_missing_from_the_store_may_be_removed) {
    fake_platform::remove_list("/cfg/gl/aaa/username/");
    EXPECT_EQ(verify(nullptr, DATASTORE_EVENT_DELETE), accepted);
    EXPECT_EQ(fake_platform::count_calls("datastore_bind"), 0u);
}

TEST_F(user_keys_test, only_rsa_keys_are_accepted) {
    const outcome other = refused(EINVAL, "Key is not in ssh public key format. Key should begin with ssh-rsa");
    for (const char* text : {"ssh-dss AAAAB3NzaC1kc3M=", "ssh-ed25519 AAAA", "ecdsa-sha2-nistp256 AAAA", "", " ssh-rsa",
                             "SSH-RSA AAAA", "ssh-rs", "AAAAB3NzaC1yc2E=", "-----BEGIN PUBLIC KEY-----"}) {
        EXPECT_EQ(verify(text), other) << text;
    }
    EXPECT_EQ(fake_platform::count_calls("key_store_pubkey_to_der"), 0u);
}

TEST_F(user_keys_test, a_key_that_the_store_cannot_convert_is_refused_with_its_error) {
    EXPECT_EQ(verify("ssh-rsa nonsense"), refused(EINVAL, "SSH pubkey conversion to DER failed:Invalid argument"));
    fake_platform::fail("key_store_pubkey_to_der", ENOSPC);
    EXPECT_EQ(verify(key_text), refused(ENOSPC, "SSH pubkey conversion to DER failed:No space left on device"));
}

TEST_F(user_keys_test, the_longest_der_form_has_1024_bytes) {
    fake_platform::set_der("ssh-rsa longest", std::string(1024, 'd'), 8000);
    fake_platform::set_der("ssh-rsa longer", std::string(1025, 'd'), 8008);
    EXPECT_EQ(verify("ssh-rsa longest"), accepted);
    EXPECT_EQ(verify("ssh-rsa longer").status, platform_status{ENOSPC});
    EXPECT_EQ(apply("ssh-rsa longest"), PLATFORM_OK);
    EXPECT_EQ(fake_platform::keys().at(0).der, std::string(1024, 'd'));
    EXPECT_EQ(apply("ssh-rsa longer"), 1u);
}

TEST_F(user_keys_test, a_long_error_text_is_truncated) {
    const std::string text = "ssh-rsa " + std::string(5000, 'A');
    const outcome result = verify(text.c_str());
    EXPECT_EQ(result.status, platform_status{EINVAL});
    EXPECT_LE(result.text.size(), 511u);
}

// Without the store it is unknown whether the key may be changed.
TEST_F(user_keys_test, a_store_that_fails_refuses_with_its_error) {
    fake_platform::fail("key_store_get_user_key", EIO);
    EXPECT_EQ(verify(key_text).status, platform_status{EIO});
    EXPECT_EQ(verify(nullptr, DATASTORE_EVENT_DELETE).status, platform_status{EIO});
    EXPECT_EQ(verify(key_text).accepted, 0u);
}

TEST_F(user_keys_test, running_out_of_memory_refuses_the_key) {
    call_faults::fail_call("allocation", ENOMEM, call_faults::once);
    EXPECT_EQ(verify(key_text), refused(EINVAL, "Failed to allocate memory for pubkey"));
    EXPECT_TRUE(fake_platform::logged("ERR_GENERAL", "Failed to allocate memory for pubkey"));
}

// The first failed check is the one that is reported.
TEST_F(user_keys_test, the_checks_are_in_order) {
    hold_key(true);
    EXPECT_EQ(verify(nullptr), refused(EINVAL, "newvalue returned from datastore is NULL"));
    EXPECT_EQ(verify("ssh-dss AAAA", set_new, "bob"), refused(EINVAL, "Username not present in database"));
    EXPECT_EQ(verify("ssh-dss AAAA").status, platform_status{EEXIST});
}

// --- Applier ---------------------------------------------------------------------------------------------------------

TEST_F(user_keys_test, a_key_is_stored_as_der) {
    const time_t before = time(nullptr);
    EXPECT_EQ(apply(key_text), PLATFORM_OK);
    ASSERT_EQ(fake_platform::keys().size(), 1u);
    const auto& key = fake_platform::keys().front();
    EXPECT_EQ(key.label, "alice");
    EXPECT_EQ(key.type, 17u);
    EXPECT_EQ(key.bits, 2048u);
    EXPECT_EQ(key.der, "DER of alice");
    EXPECT_GE(key.time, before);
    EXPECT_LE(key.time, time(nullptr));
    EXPECT_FALSE(key.added_by_exec_mode);
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("(sshd_apply_user_keystr) sshd_apply_user_keystr whichevent 3",
                            std::string("Key string = ") + key_text,
                            "sshd_apply_user_keystr: key_store_set_key, label:=alice, key-type:=17"));
    EXPECT_THAT(fake_platform::log_texts(), IsEmpty());
}

TEST_F(user_keys_test, a_new_key_replaces_the_old_one) {
    hold_key(false);
    EXPECT_EQ(apply(key_text, DATASTORE_EVENT_SET), PLATFORM_OK);
    ASSERT_EQ(fake_platform::keys().size(), 1u);
    EXPECT_EQ(fake_platform::keys().front().bits, 2048u);
}

TEST_F(user_keys_test, a_removed_item_removes_the_key) {
    hold_key(false);
    EXPECT_EQ(apply(nullptr, DATASTORE_EVENT_DELETE), PLATFORM_OK);
    EXPECT_THAT(fake_platform::keys(), IsEmpty());
    EXPECT_THAT(fake_platform::calls(), ElementsAre("key_store_set_key(alice, 17, remove)"));
    EXPECT_TRUE(fake_platform::debugged("(sshd_apply_user_keystr) sshd_apply_user_keystr whichevent 4"));
}

TEST_F(user_keys_test, a_failed_removal_from_the_store_is_logged) {
    fake_platform::fail("key_store_set_key", EIO);
    EXPECT_EQ(apply(nullptr, DATASTORE_EVENT_DELETE), 1u);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_ERRNO: Error:=Input/output error(0x5), Failed to remove the key"));
}

TEST_F(user_keys_test, a_failed_store_is_logged) {
    fake_platform::fail("key_store_set_key", ENOSPC);
    EXPECT_EQ(apply(key_text), 1u);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_ERRNO: Error:=No space left on device(0x1c), Failed to add the key"));
}

TEST_F(user_keys_test, a_key_that_cannot_be_converted_is_not_stored) {
    fake_platform::fail("key_store_pubkey_to_der", EBADMSG);
    EXPECT_EQ(apply(key_text), 1u);
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("sshd_apply_user_keystr: Failed to convert to DER format rc = (0x4a) : Bad message "));
    EXPECT_EQ(fake_platform::count_calls("key_store_set_key"), 0u);
}

TEST_F(user_keys_test, running_out_of_memory_stores_nothing) {
    call_faults::fail_call("allocation", ENOMEM, call_faults::once);
    EXPECT_EQ(apply(key_text), 1u);
    EXPECT_TRUE(fake_platform::logged("ERR_GENERAL", "Failed to allocate memory for pubkey"));
    EXPECT_THAT(fake_platform::calls(), IsEmpty());
}

TEST_F(user_keys_test, a_missing_value_cannot_be_applied) {
    EXPECT_EQ(apply(nullptr), 1u);
    EXPECT_EQ(apply(key_text, set_new, nullptr), 1u);
    EXPECT_EQ(apply(key_text, set_new, "alice", 1), 1u);
    EXPECT_THAT(fake_platform::calls(), IsEmpty());
}

// --- A commit --------------------------------------------------------------------------------------------------------

class user_key_commit_test : public user_keys_test {
  protected:
    user_key_commit_test() {
        event_manager* manager = nullptr;
        event_manager_create(paths::device, &manager);
        datastore_bind(paths::server_tree, &agent_handles.server_binding);
        datastore_register_verification(agent_handles.server_binding, "", 7, verify_configuration, apply_configuration,
                                        manager, nullptr);
    }
};

TEST_F(user_key_commit_test, a_key_is_set_and_removed) {
    EXPECT_EQ(fake_platform::commit(fake_platform::set_text(item, key_text)).status, PLATFORM_OK);
    EXPECT_EQ(fake_platform::keys().size(), 1u);
    EXPECT_EQ(fake_platform::commit(fake_platform::remove(item)).status, PLATFORM_OK);
    EXPECT_THAT(fake_platform::keys(), IsEmpty());
}

TEST_F(user_key_commit_test, a_refused_key_is_not_stored) {
    const auto result = fake_platform::commit(fake_platform::set_text(item, "ssh-dss AAAA"));
    EXPECT_EQ(result.status, platform_status{EINVAL});
    EXPECT_EQ(result.error_text, "Key is not in ssh public key format. Key should begin with ssh-rsa");
    EXPECT_EQ(fake_platform::stored(item), std::nullopt);
    EXPECT_THAT(fake_platform::keys(), IsEmpty());
}

// The commit remains stored, and the operator learns that it is not in force.
TEST_F(user_key_commit_test, a_failure_of_the_store_is_reported_with_the_commit) {
    fake_platform::fail("key_store_set_key", EIO);
    const auto result = fake_platform::commit(fake_platform::set_text(item, key_text));
    EXPECT_EQ(result.status, PLATFORM_OK);
    ASSERT_EQ(result.failures.size(), 1u);
    EXPECT_EQ(result.failures.front().status, 1u);
}

}  // namespace
