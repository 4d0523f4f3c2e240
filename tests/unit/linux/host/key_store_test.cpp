#include "platform/key_store.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <vector>

#include "linux/enforcement/enforcement_internal.h"
#include "linux/host/key_store_internal.h"
#include "scratch_root.h"
#include "unit/linux/datastore/datastore_fixture.h"
#include "unit/linux/enforcement/enforcement_test_support.h"
#include "unit/linux/host/import_support.h"
#include "unit/linux/platform_test_support.h"
#include "unit/user_keys/key_samples.h"
#include "user_keys/key_der.h"
#include "user_keys/key_file.h"

namespace {

using key_test::delete_import;
using key_test::import_change;
using key_test::import_key;
using key_test::key_of;
using key_test::modulus;
using key_test::usual;

std::string item_of(const std::string& user) {
    return std::string(datastore_test::server_path) + "cmn/username/" + user + "/keystr";
}

class key_store_test : public datastore_test::served_datastore_test {
  protected:
    void SetUp() override {
        served_datastore_test::SetUp();
        key_test::start_imports();
    }

    /// What the agent does for a configured key: the item is stored first, then its applier stores the key.
    platform_status configure(const char* user, size_t bits = 1024) {
        const std::string text = key_of(usual(), modulus(bits));
        EXPECT_EQ(datastore_test::set(item_of(user), text).status, PLATFORM_OK);
        return set(user, text);
    }

    static platform_status set(const char* user, const std::string& text) {
        uint8_t der[KEY_STORE_DER_MAX];
        size_t size = 0;
        uint32_t bits = 0;
        EXPECT_EQ(key_store_pubkey_to_der(text.c_str(), der, sizeof der, &size, &bits), PLATFORM_OK);
        const key_store_set_request request = {user, KEY_STORE_USER_PUBLIC_KEY, 0, 1700000000, bits, der, size};
        return key_store_set_key(&request);
    }

    static platform_status remove(const char* user) {
        const key_store_set_request request = {user, KEY_STORE_USER_PUBLIC_KEY, 1, 0, 0, nullptr, 0};
        return key_store_set_key(&request);
    }

    /// "1024 configured", "1024 exec mode" or "none".
    static std::string key(const char* user) {
        key_store_key found = {7, 7, 7};
        const platform_status status = key_store_get_user_key(user, KEY_STORE_USER_PUBLIC_KEY, &found);
        if (status != PLATFORM_OK) {
            return platform_status_text(status);
        }
        return found.present == 0
                   ? "none"
                   : std::to_string(found.bits) + (found.added_by_exec_mode != 0 ? " exec mode" : " configured");
    }

    static std::vector<std::string> users() {
        std::vector<key_store_entry> entries;
        EXPECT_EQ(key_store_list(entries), PLATFORM_OK);
        std::vector<std::string> names;
        for (const key_store_entry& entry : entries) {
            names.push_back(entry.user);
        }
        return names;
    }

    /// The answer that sshd gets for a user: the bits of the key, or nothing.
    static std::string seen_by_sshd(const char* user) {
        std::string line;
        rsa_public_key key;
        EXPECT_EQ(key_file_read(user, line), PLATFORM_OK);
        return line.empty() ? "" : key_text_read(line, key) == PLATFORM_OK ? std::to_string(key_bits(key)) : "nonsense";
    }

    void use_memory() {
        datastore_close();
        datastore_test::memory = {};
        datastore_configure(&datastore_test::engine_in_memory, database().c_str());
        ASSERT_EQ(datastore_open(), PLATFORM_OK);
    }
};

TEST_F(key_store_test, keeps_a_configured_key_across_a_restart) {
    EXPECT_EQ(key("alice"), "none");
    ASSERT_EQ(configure("alice"), PLATFORM_OK);
    EXPECT_EQ(key("alice"), "1024 configured");
    reopen();
    EXPECT_EQ(key("alice"), "1024 configured");
    key_record record;
    ASSERT_EQ(key_store_find("alice", record), PLATFORM_OK);
    EXPECT_EQ(record.keys.at(0).time, 1700000000);
}

TEST_F(key_store_test, replaces_a_configured_key) {
    ASSERT_EQ(configure("alice"), PLATFORM_OK);
    ASSERT_EQ(configure("alice", 2048), PLATFORM_OK);
    EXPECT_EQ(key("alice"), "2048 configured");
}

TEST_F(key_store_test, keeps_the_time_of_a_key_that_is_stored_again) {
    ASSERT_EQ(configure("alice"), PLATFORM_OK);
    std::string before;
    ASSERT_EQ(datastore_private_get(key_record_place("alice"), before), PLATFORM_OK);
    std::string der;
    ASSERT_EQ(key_der_make({modulus(1024), usual()}, der), PLATFORM_OK);
    const key_store_set_request again = {
        "alice",   KEY_STORE_USER_PUBLIC_KEY, 0, 1800000000, 1024, reinterpret_cast<const uint8_t*>(der.data()),
        der.size()};
    ASSERT_EQ(key_store_set_key(&again), PLATFORM_OK);
    std::string after;
    ASSERT_EQ(datastore_private_get(key_record_place("alice"), after), PLATFORM_OK);
    EXPECT_EQ(after, before);
}

TEST_F(key_store_test, ignores_a_key_without_its_item_even_before_it_is_removed) {
    ASSERT_EQ(configure("alice"), PLATFORM_OK);
    ASSERT_EQ(datastore_test::erase(item_of("alice")).status, PLATFORM_OK);
    EXPECT_EQ(key("alice"), "none");
    EXPECT_THAT(users(), testing::IsEmpty());
    EXPECT_EQ(remove("alice"), PLATFORM_OK);
    EXPECT_EQ(remove("alice"), PLATFORM_OK);
    std::string bytes;
    EXPECT_EQ(datastore_private_get(key_record_place("alice"), bytes), platform_status{DATASTORE_NO_SUCH_ITEM});
}

TEST_F(key_store_test, distinguishes_imported_and_configured_keys) {
    ASSERT_EQ(import_key("alice", key_of(usual(), modulus(2048)) + " somebody\n"), PLATFORM_OK);
    EXPECT_EQ(key("alice"), "2048 exec mode");
    ASSERT_EQ(import_key("alice", key_of(usual(), modulus(1024))), PLATFORM_OK);
    EXPECT_EQ(key("alice"), "1024 exec mode");
    ASSERT_EQ(delete_import("alice"), PLATFORM_OK);
    EXPECT_EQ(key("alice"), "none");
    EXPECT_EQ(delete_import("alice"), platform_status{DATASTORE_NO_SUCH_ITEM});
}

TEST_F(key_store_test, neither_way_changes_a_key_added_the_other_way) {
    ASSERT_EQ(configure("alice"), PLATFORM_OK);
    EXPECT_EQ(import_key("alice", key_of(usual(), modulus(2048))), platform_status{KEY_OTHER_ORIGIN});
    EXPECT_EQ(delete_import("alice"), platform_status{DATASTORE_NO_SUCH_ITEM});
    EXPECT_EQ(key("alice"), "1024 configured");
    ASSERT_EQ(import_key("bob", key_of(usual(), modulus(2048))), PLATFORM_OK);
    EXPECT_EQ(configure("bob"), platform_status{KEY_OTHER_ORIGIN});
    EXPECT_EQ(remove("bob"), platform_status{KEY_OTHER_ORIGIN});
    EXPECT_EQ(key("bob"), "2048 exec mode");
}

TEST_F(key_store_test, keeps_several_imported_keys_with_options_and_comments) {
    const std::string lines = "restrict,from=\"10.0.0.0/8\" " + key_test::ed25519_of('a') + " laptop\n" +
                              key_of(usual(), modulus(2048)) + "\n" + key_test::ed25519_of('b') + "\n";
    ASSERT_EQ(import_key("alice", lines), PLATFORM_OK);
    EXPECT_EQ(key("alice"), "256 exec mode") << "the first";
    const auto file = [] {
        std::string content;
        EXPECT_EQ(key_file_read("alice", content), PLATFORM_OK);
        return content;
    };
    EXPECT_EQ(file(), lines);
    reopen();
    key_record record;
    ASSERT_EQ(key_store_find("alice", record), PLATFORM_OK);
    EXPECT_EQ(key_record_lines(record), lines);
    ASSERT_EQ(import_key("alice", key_test::ed25519_of('b')), PLATFORM_OK);
    EXPECT_EQ(file(), key_test::ed25519_of('b') + "\n");
}

TEST_F(key_store_test, keeps_the_time_of_imported_keys_that_do_not_change) {
    const std::string one = key_test::ed25519_of('a') + " one\n";
    key_record record = {key_origin::exec_mode, {}};
    std::vector<authorized_key> keys;
    std::string refusal;
    ASSERT_TRUE(authorized_keys_read(one + key_test::ed25519_of('b'), keys, refusal));
    record.keys = {{keys[0], 1700000000}, {keys[1], 1600000000}};
    ASSERT_EQ(datastore_private_put(key_record_place("alice"), key_record_encode(record)), PLATFORM_OK);
    std::string bytes;
    ASSERT_EQ(key_test::make_import("alice", one + key_test::ed25519_of('b'), bytes), PLATFORM_OK);
    EXPECT_EQ(bytes, key_record_encode(record));
    ASSERT_EQ(key_test::make_import("alice", one + key_test::ed25519_of('b') + " comment", bytes), PLATFORM_OK);
    ASSERT_EQ(key_record_decode(bytes, record), PLATFORM_OK);
    EXPECT_EQ(record.keys[0].time, 1700000000);
    EXPECT_GT(record.keys[1].time, 1700000000);
    EXPECT_EQ(key_store_make_import("alice", {}, bytes), platform_status{EINVAL});
}

TEST_F(key_store_test, reads_a_record_of_the_first_version_and_does_not_change_it_without_need) {
    std::string der;
    ASSERT_EQ(key_der_make({modulus(1024), usual()}, der), PLATFORM_OK);
    const std::string former = std::string("\1\1\0\0\0\4\0\0\1\0\0\0\0\0\0\0", 16) + der;
    ASSERT_EQ(datastore_private_put(key_record_place("alice"), former), PLATFORM_OK);
    EXPECT_EQ(key("alice"), "1024 exec mode");
    key_store_start();
    EXPECT_EQ(seen_by_sshd("alice"), "1024");
    std::string bytes;
    ASSERT_EQ(key_test::make_import("alice", key_of(usual(), modulus(1024)), bytes), PLATFORM_OK);
    EXPECT_EQ(bytes, former);
    ASSERT_EQ(import_key("alice", key_of(usual(), modulus(1024)) + "\n" + key_test::ed25519_of('a')), PLATFORM_OK);
    key_record record;
    ASSERT_EQ(key_store_find("alice", record), PLATFORM_OK);
    ASSERT_EQ(record.keys.size(), 2U);
    EXPECT_EQ(record.keys[0].time, 1);
}

TEST_F(key_store_test, lists_users_in_order) {
    ASSERT_EQ(configure("bob"), PLATFORM_OK);
    ASSERT_EQ(import_key("alice", key_of(usual(), modulus(1024))), PLATFORM_OK);
    ASSERT_EQ(import_key("al", key_of(usual(), modulus(1024))), PLATFORM_OK);
    EXPECT_THAT(users(), testing::ElementsAre("al", "alice", "bob"));
}

TEST_F(key_store_test, reports_a_damaged_record_which_can_be_replaced_or_removed) {
    ASSERT_EQ(datastore_private_put(key_record_place("alice"), "nonsense"), PLATFORM_OK);
    EXPECT_EQ(key("alice"), "Bad message");
    platform_test::journal_listener journal;
    EXPECT_THAT(users(), testing::IsEmpty());
    EXPECT_EQ(journal.messages(), "The stored key of user alice is damaged\n");
    EXPECT_EQ(delete_import("alice"), PLATFORM_OK);
    EXPECT_EQ(key("alice"), "none");
    ASSERT_EQ(datastore_private_put(key_record_place("alice"), "nonsense"), PLATFORM_OK);
    EXPECT_EQ(configure("alice"), PLATFORM_OK);
    EXPECT_EQ(key("alice"), "1024 configured");
}

TEST_F(key_store_test, changes_nothing_when_nothing_can_be_stored) {
    use_memory();
    ASSERT_EQ(import_key("alice", key_of(usual(), modulus(1024))), PLATFORM_OK);
    datastore_test::memory.fail_at = datastore_test::memory.operations + 1;
    EXPECT_EQ(import_key("alice", key_of(usual(), modulus(2048))), platform_status{ENOSPC});
    EXPECT_EQ(key("alice"), "1024 exec mode");
    EXPECT_EQ(seen_by_sshd("alice"), "1024");
    datastore_test::memory.fail_at = datastore_test::memory.operations + 1;
    EXPECT_EQ(delete_import("alice"), platform_status{ENOSPC});
    EXPECT_EQ(key("alice"), "1024 exec mode");
    EXPECT_EQ(seen_by_sshd("alice"), "1024");
}

TEST_F(key_store_test, gives_sshd_the_stored_keys) {
    ASSERT_EQ(configure("alice"), PLATFORM_OK);
    EXPECT_EQ(seen_by_sshd("alice"), "1024");
    ASSERT_EQ(configure("alice", 2048), PLATFORM_OK);
    EXPECT_EQ(seen_by_sshd("alice"), "2048");
    ASSERT_EQ(datastore_test::erase(item_of("alice")).status, PLATFORM_OK);
    ASSERT_EQ(remove("alice"), PLATFORM_OK);
    EXPECT_EQ(seen_by_sshd("alice"), "");
    ASSERT_EQ(import_key("bob", key_of(usual(), modulus(1024))), PLATFORM_OK);
    EXPECT_EQ(seen_by_sshd("bob"), "1024");
    ASSERT_EQ(delete_import("bob"), PLATFORM_OK);
    EXPECT_EQ(seen_by_sshd("bob"), "");
}

TEST_F(key_store_test, repairs_files_left_by_a_crash) {
    ASSERT_EQ(configure("changed"), PLATFORM_OK);
    ASSERT_EQ(configure("missing"), PLATFORM_OK);
    ASSERT_EQ(configure("deleted"), PLATFORM_OK);
    ASSERT_EQ(key_file_write("changed", "ssh-rsa something else\n"), PLATFORM_OK);
    ASSERT_EQ(key_file_write("unknown", "ssh-rsa nobody's\n"), PLATFORM_OK);
    ASSERT_EQ(key_file_remove("missing"), PLATFORM_OK);
    ASSERT_EQ(datastore_test::erase(item_of("deleted")).status, PLATFORM_OK);
    EXPECT_EQ(seen_by_sshd("deleted"), "1024");
    key_store_start();
    EXPECT_EQ(seen_by_sshd("changed"), "1024");
    EXPECT_EQ(seen_by_sshd("missing"), "1024");
    EXPECT_EQ(seen_by_sshd("deleted"), "");
    EXPECT_EQ(seen_by_sshd("unknown"), "");
}

TEST_F(key_store_test, stores_both_record_and_file_of_a_configured_key_or_neither) {
    ASSERT_EQ(configure("alice"), PLATFORM_OK);
    scratch_root::set_read_only(key_file_directory, true);
    EXPECT_EQ(configure("alice", 2048), platform_status{EROFS});
    EXPECT_EQ(configure("bob"), platform_status{EROFS});
    scratch_root::set_read_only(key_file_directory, false);
    EXPECT_EQ(key("alice"), "1024 configured");
    EXPECT_EQ(seen_by_sshd("alice"), "1024");
    EXPECT_EQ(key("bob"), "none");
    EXPECT_EQ(seen_by_sshd("bob"), "");
}

TEST_F(key_store_test, reports_an_imported_key_that_is_stored_but_not_in_force) {
    const enforcement_test::reset_at_end reset;
    ASSERT_EQ(import_key("alice", key_of(usual(), modulus(1024))), PLATFORM_OK);
    scratch_root::set_read_only(key_file_directory, true);
    const datastore_commit_result changed =
        datastore_commit({import_change("alice", key_of(usual(), modulus(2048)))}, false);
    EXPECT_EQ(changed.status, PLATFORM_OK);
    ASSERT_EQ(changed.not_in_force.size(), 1U);
    EXPECT_EQ(changed.not_in_force[0].subject, "key alice");
    EXPECT_EQ(changed.not_in_force[0].reason, "the file that sshd reads cannot be written: Read-only file system");
    EXPECT_EQ(key("alice"), "2048 exec mode");
    EXPECT_EQ(seen_by_sshd("alice"), "1024");
    ASSERT_EQ(delete_import("alice"), PLATFORM_OK);
    EXPECT_EQ(enforcement_list().at(0).reason, "the file that sshd reads cannot be removed: Read-only file system");
    scratch_root::set_read_only(key_file_directory, false);
    key_store_start();
    EXPECT_EQ(seen_by_sshd("alice"), "");
}

TEST_F(key_store_test, a_commit_replaces_a_configured_key_by_an_imported_one_and_back) {
    ASSERT_EQ(configure("alice"), PLATFORM_OK);
    // What the agent does for the item.
    platform_status applied = EAGAIN;
    handlers.in_apply = [&applied] { applied = remove("alice"); };
    ASSERT_EQ(datastore_commit(
                  {{item_of("alice"), std::nullopt}, import_change("alice", key_of(usual(), modulus(2048)))}, false)
                  .status,
              PLATFORM_OK);
    EXPECT_EQ(applied, PLATFORM_OK);
    EXPECT_EQ(key("alice"), "2048 exec mode");
    EXPECT_EQ(seen_by_sshd("alice"), "2048");

    const std::string text = key_of(usual(), modulus(1024));
    handlers.in_verify = [] { EXPECT_EQ(key("alice"), "none"); };
    handlers.in_apply = [&] { applied = set("alice", text); };
    ASSERT_EQ(
        datastore_commit({{item_of("alice"), text}, {key_store_import_path("alice"), std::nullopt}}, false).status,
        PLATFORM_OK);
    EXPECT_EQ(applied, PLATFORM_OK);
    EXPECT_EQ(key("alice"), "1024 configured");
    EXPECT_EQ(seen_by_sshd("alice"), "1024");
}

TEST_F(key_store_test, a_commit_gives_a_user_only_one_key) {
    const std::string text = key_of(usual(), modulus(1024));
    const datastore_commit_result result =
        datastore_commit({{item_of("alice"), text}, import_change("alice", text)}, false);
    EXPECT_EQ(result.status, platform_status{KEY_OTHER_ORIGIN});
    EXPECT_EQ(result.path, "/keys/alice");
    EXPECT_EQ(result.message,
              "/keys/alice: user alice has a configured key; delete " + item_of("alice") + " to remove it");
    EXPECT_EQ(key("alice"), "none");
    EXPECT_EQ(import_key("eve", text), platform_status{EINVAL}) << "eve does not exist";
}

TEST_F(key_store_test, is_not_available_without_a_database) {
    datastore_close();
    EXPECT_EQ(key("alice"), "The datastore is not available on this node");
    EXPECT_EQ(set("alice", key_of(usual(), modulus(1024))), platform_status{DATASTORE_UNAVAILABLE});
}

TEST_F(key_store_test, refuses_invalid_arguments) {
    key_store_key found = {7, 7, 7};
    EXPECT_EQ(key_store_get_user_key("alice", 18, &found), platform_status{EINVAL});
    EXPECT_EQ(key_store_get_user_key("../alice", KEY_STORE_USER_PUBLIC_KEY, &found), platform_status{EINVAL});
    EXPECT_EQ(key_store_get_user_key(nullptr, KEY_STORE_USER_PUBLIC_KEY, &found), platform_status{EINVAL});
    EXPECT_EQ(key_store_get_user_key("alice", KEY_STORE_USER_PUBLIC_KEY, nullptr), platform_status{EINVAL});
    EXPECT_EQ(found.present, 7u);
    EXPECT_EQ(import_key("a/b", key_of(usual(), modulus(1024))), platform_status{EINVAL});
    EXPECT_EQ(remove(""), platform_status{EINVAL});
    EXPECT_EQ(key_store_set_key(nullptr), platform_status{EINVAL});
    const uint8_t der[KEY_STORE_DER_MAX + 1] = {};
    key_store_set_request request = {"alice", KEY_STORE_USER_PUBLIC_KEY, 0, 0, 1024, der, 16};
    EXPECT_EQ(key_store_set_key(&request), platform_status{EBADMSG});
    request.size = sizeof der;
    EXPECT_EQ(key_store_set_key(&request), platform_status{EINVAL});
    request.der = nullptr;
    EXPECT_EQ(key_store_set_key(&request), platform_status{EINVAL});
    EXPECT_EQ(key("alice"), "none");
}

TEST_F(key_store_test, leaves_the_outputs_alone_when_a_text_is_not_a_key) {
    uint8_t der[KEY_STORE_DER_MAX] = {7};
    size_t size = 7;
    uint32_t bits = 7;
    const auto convert = [&](const std::string& text, size_t capacity) {
        return key_store_pubkey_to_der(text.c_str(), der, capacity, &size, &bits);
    };
    EXPECT_EQ(convert("ssh-dss AAAA", sizeof der), platform_status{KEY_OTHER_TYPE});
    EXPECT_EQ(convert("ssh-rsa AAAA*", sizeof der), platform_status{KEY_NOT_BASE64});
    EXPECT_EQ(convert(key_of(usual(), modulus(8100)), sizeof der), platform_status{KEY_TOO_LARGE});
    EXPECT_EQ(convert(key_of(usual(), modulus(1024)), 100), platform_status{ENOSPC});
    EXPECT_EQ(key_store_pubkey_to_der(nullptr, der, sizeof der, &size, &bits), platform_status{EINVAL});
    EXPECT_EQ(der[0], 7);
    EXPECT_EQ(size, 7u);
    EXPECT_EQ(bits, 7u);
}

}  // namespace
