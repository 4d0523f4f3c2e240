#include "appliers/mac_disabling.h"

#include "../algorithm_test.h"
#include "appliers/algorithm_side.h"
#include "config_files/algorithm_names.h"

namespace {

using fake_platform::commit;
using fake_platform::remove;
using testing::Contains;
using testing::ElementsAre;

constexpr char refusal[] = "All three hmacs cannot be disabled";

class mac_disabling_test : public algorithm_side_test {
  protected:
    mac_disabling_test() { start(); }

    static fake_platform::change disable(const std::string& item, uint32_t flag = 1) {
        return mac_change(side(), item, flag);
    }
    static fake_platform::change enable(const std::string& item) { return remove(disable(item).path); }
    static const algorithm_side& state() { return side().file == paths::server_file ? server_side : client_side; }
};

FOR_BOTH_SIDES(mac_disabling_test);

TEST_P(mac_disabling_test, the_remaining_macs_are_written_in_the_default_order) {
    commit_ok(disable("hmac_sha1"));
    EXPECT_EQ(line("MACs"), "hmac-sha2-512,hmac-sha2-256");
    EXPECT_STREQ(state().macs->current, "hmac-sha2-512,hmac-sha2-256");
    commit_ok(disable("hmac_sha256"));
    EXPECT_EQ(line("MACs"), "hmac-sha2-512");
    commit_ok(enable("hmac_sha1"));
    EXPECT_EQ(line("MACs"), "hmac-sha2-512,hmac-sha1");
    commit_ok(enable("hmac_sha256"));
    EXPECT_EQ(line("MACs"), default_mac_list);
}

TEST_P(mac_disabling_test, a_false_flag_disables_nothing) {
    commit_ok(disable("hmac_sha512", 0));
    EXPECT_EQ(line("MACs"), default_mac_list);
    commit_ok(disable("hmac_sha512"));
    EXPECT_EQ(line("MACs"), "hmac-sha2-256,hmac-sha1");
    commit_ok(disable("hmac_sha512", 0));
    EXPECT_EQ(line("MACs"), default_mac_list);
}

TEST_P(mac_disabling_test, the_last_mac_cannot_be_disabled) {
    for (const char* last : {"hmac_sha1", "hmac_sha256", "hmac_sha512"}) {
        for (const char* item : {"hmac_sha1", "hmac_sha256", "hmac_sha512"}) {
            if (item != last) {
                commit_ok(disable(item));
            }
        }
        const std::string before = line("MACs");
        const auto result = commit(disable(last));
        EXPECT_EQ(result.status, 22u) << last;
        EXPECT_EQ(result.error_text, refusal);
        EXPECT_EQ(line("MACs"), before);
        for (const char* item : {"hmac_sha1", "hmac_sha256", "hmac_sha512"}) {
            commit_ok(enable(item));
        }
    }
}

// The other items decide, whatever the value of this one.
TEST_P(mac_disabling_test, for_the_last_mac_even_a_false_flag_is_refused) {
    commit_ok(disable("hmac_sha1"));
    commit_ok(disable("hmac_sha256"));
    EXPECT_EQ(commit(disable("hmac_sha512", 0)).error_text, refusal);
}

TEST_P(mac_disabling_test, one_commit_cannot_disable_all_three) {
    const auto result = commit({disable("hmac_sha1"), disable("hmac_sha256"), disable("hmac_sha512")});
    EXPECT_EQ(result.status, 22u);
    EXPECT_EQ(result.error_text, refusal);
    EXPECT_EQ(line("MACs"), default_mac_list);
    // A refused commit leaves no trace in memory.
    commit_ok(disable("hmac_sha512"));
    commit_ok(disable("hmac_sha256"));
    EXPECT_EQ(line("MACs"), "hmac-sha1");
}

TEST_P(mac_disabling_test, one_commit_may_name_all_three_if_one_remains) {
    const auto result = commit({disable("hmac_sha1"), disable("hmac_sha256"), disable("hmac_sha512", 0)});
    EXPECT_EQ(result.status, PLATFORM_OK);
    EXPECT_EQ(line("MACs"), "hmac-sha2-512");
}

TEST_P(mac_disabling_test, two_in_one_commit_after_one_before_are_refused) {
    commit_ok(disable("hmac_sha512"));
    EXPECT_EQ(commit({disable("hmac_sha1"), disable("hmac_sha256")}).error_text, refusal);
    EXPECT_EQ(line("MACs"), "hmac-sha2-256,hmac-sha1");
}

TEST_P(mac_disabling_test, the_list_is_truncated_at_the_end_of_its_buffer) {
    const std::string fits = std::string(98, 'a') + "," + std::string(101, 'b');
    state().macs->default_text = fits.c_str();
    commit_ok(disable("hmac_sha1"));
    EXPECT_EQ(line("MACs"), fits);
    EXPECT_EQ(fits.size(), 200u);
    const std::string one_too_many = fits + "b";
    state().macs->default_text = one_too_many.c_str();
    forget();
    commit_ok(enable("hmac_sha1"));
    EXPECT_EQ(line("MACs"), one_too_many.substr(0, 199));
    EXPECT_TRUE(fake_platform::debugged("Error:=No space left on device(0x1c), hmac:=" + std::string(102, 'b') +
                                        ", Failed to add hmac to the " + side().name + " list, "));
}

using mac_disabling_texts_test = algorithm_test;

TEST_F(mac_disabling_texts_test, the_server_uses_one_name_for_both_sha2_items) {
    start();
    const std::pair<const char*, const char*> texts[] = {
        {"hmac_sha1", "Event:=3, Config:=ssh server hmac hmac-sha1"},
        {"hmac_sha256", "Event:=3, Config:=ssh server hmac hmac-512"},
        {"hmac_sha512", "Event:=3, Config:=ssh server hmac hmac-512"},
    };
    for (const auto& [item, text] : texts) {
        forget();
        commit_ok(mac_change(server_case, item));
        EXPECT_TRUE(fake_platform::debugged(text));
        EXPECT_TRUE(fake_platform::debugged("old hmac server list =  hmac-sha2-512,hmac-sha2-256,hmac-sha1 "));
        EXPECT_TRUE(fake_platform::debugged("Proposed hmac server list =  " + value(paths::server_file, "MACs") + " "));
        commit_ok(remove(mac_change(server_case, item).path));
    }
}

TEST_F(mac_disabling_texts_test, the_client_uses_each_items_name) {
    start();
    const std::pair<const char*, const char*> texts[] = {
        {"hmac_sha1", "Event:=3, Config:=ssh client hmac hmac-sha1"},
        {"hmac_sha256", "Event:=3, Config:=ssh client hmac hmac-sha256"},
        {"hmac_sha512", "Event:=3, Config:=ssh client hmac hmac-sha512"},
    };
    for (const auto& [item, text] : texts) {
        forget();
        commit_ok(mac_change(client_case, item));
        EXPECT_TRUE(fake_platform::debugged(text));
        EXPECT_TRUE(fake_platform::debugged("old hmac client list =  hmac-sha2-512,hmac-sha2-256,hmac-sha1"));
        EXPECT_TRUE(fake_platform::debugged("Proposed hmac client list =  " + value(paths::client_file, "MACs")));
        commit_ok(remove(mac_change(client_case, item).path));
    }
}

TEST_F(mac_disabling_texts_test, server_and_client_have_separate_flags) {
    start();
    for (const side_case& side : {server_case, client_case}) {
        commit_ok(mac_change(side, "hmac_sha1"));
        commit_ok(mac_change(side, "hmac_sha256"));
    }
    EXPECT_EQ(value(paths::server_file, "MACs"), "hmac-sha2-512");
    EXPECT_EQ(value(paths::client_file, "MACs"), "hmac-sha2-512");
}

}  // namespace
