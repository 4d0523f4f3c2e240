#include <errno.h>

#include "linux/datastore/state.h"
#include "unit/linux/datastore/datastore_fixture.h"

namespace datastore_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

TEST(datastore_pattern, empty_matches_everything) {
    EXPECT_TRUE(datastore_pattern_matches("", "a"));
    EXPECT_TRUE(datastore_pattern_matches("", "a/b/c"));
}

TEST(datastore_pattern, matches_one_item) {
    EXPECT_TRUE(datastore_pattern_matches("a/b", "a/b"));
    EXPECT_TRUE(datastore_pattern_matches("0x2", "0x2"));
    for (const char* item : {"a", "a/bb", "a/b/c", "b", "aa/b", "x/a/b"}) {
        EXPECT_FALSE(datastore_pattern_matches("a/b", item)) << item;
    }
}

TEST(datastore_pattern, a_star_matches_one_component) {
    EXPECT_TRUE(datastore_pattern_matches("vrf/*", "vrf/blue"));
    EXPECT_TRUE(datastore_pattern_matches("user/*/key", "user/ann/key"));
    EXPECT_FALSE(datastore_pattern_matches("vrf/*", "vrf"));
    EXPECT_FALSE(datastore_pattern_matches("vrf/*", "vrf/blue/more"));
    EXPECT_FALSE(datastore_pattern_matches("user/*/key", "user/ann"));
}

TEST(datastore_pattern, with_a_final_slash_matches_a_tree) {
    EXPECT_TRUE(datastore_pattern_matches("vrf/", "vrf/blue"));
    EXPECT_TRUE(datastore_pattern_matches("vrf/", "vrf/blue/more"));
    EXPECT_FALSE(datastore_pattern_matches("vrf/", "vrf"));
    EXPECT_FALSE(datastore_pattern_matches("vrf/", "vrf2/blue"));
}

class datastore_registration_test : public database_test {
  protected:
    recorder handlers;
    recorder also_told;
};

TEST_F(datastore_registration_test, covers_only_its_bindings_subtree_and_its_pattern) {
    datastore_binding* common = bind("/cfg/gl/crypto/ssh/server/cmn/");
    datastore_binding* all = bind("/cfg/gl/crypto/ssh/");
    datastore_register_verification(common, "timeout", 7, recorder::on_verify, recorder::on_apply, nullptr, &handlers);
    datastore_register_verification(all, "", 7, recorder::on_verify, recorder::on_apply, nullptr, &also_told);
    set(timeout_path, number(30));
    set(rate_path, number(10));
    EXPECT_THAT(handlers.calls, ElementsAre("verify 3 timeout - -> 30", "apply 3 timeout - -> 30"));
    EXPECT_EQ(also_told.calls.size(), 4u);
    EXPECT_EQ(also_told.calls[0], "verify 3 server/cmn/timeout - -> 30");
}

TEST_F(datastore_registration_test, receives_only_the_events_in_its_mask) {
    datastore_binding* server = bind(server_path);
    datastore_register_verification(server, "", 7, recorder::on_verify, nullptr, nullptr, &handlers);
    datastore_register_notification(server, "", DATASTORE_EVENT_DELETE, recorder::on_notification, nullptr, &also_told);
    set(timeout_path, number(30));
    EXPECT_THAT(also_told.calls, IsEmpty());
    erase(timeout_path);
    EXPECT_THAT(also_told.calls, ElementsAre("notify 4 cmn/timeout -"));
}

TEST_F(datastore_registration_test, ends_with_its_binding) {
    datastore_binding* server = nullptr;
    ASSERT_EQ(datastore_bind(server_path, &server), PLATFORM_OK);
    datastore_register_verification(server, "", 7, recorder::on_verify, recorder::on_apply, nullptr, &handlers);
    EXPECT_EQ(datastore_unbind(server), PLATFORM_OK);
    EXPECT_TRUE(the_datastore().registrations.empty());
    EXPECT_EQ(set(timeout_path, number(30)).status, platform_status{DATASTORE_NO_HANDLER});
    EXPECT_THAT(handlers.calls, IsEmpty());
}

// A handler may bind and unbind while a commit iterates over the registrations.
TEST_F(datastore_registration_test, may_end_and_begin_within_a_handler) {
    datastore_binding* server = bind(server_path);
    datastore_binding* passing = nullptr;
    ASSERT_EQ(datastore_bind(server_path, &passing), PLATFORM_OK);
    datastore_register_verification(server, "", 7, recorder::on_verify, recorder::on_apply, nullptr, &handlers);
    datastore_register_verification(passing, "", 7, recorder::on_verify, recorder::on_apply, nullptr, &also_told);
    handlers.in_apply = [&] {
        EXPECT_EQ(datastore_unbind(std::exchange(passing, nullptr)), PLATFORM_OK);
        for (int i = 0; i < 100; i++) {
            datastore_register_notification(server, "nothing", 7, recorder::on_notification, nullptr, &also_told);
        }
    };
    EXPECT_EQ(set(timeout_path, number(30)).status, PLATFORM_OK);
    EXPECT_THAT(also_told.calls, ElementsAre("verify 3 cmn/timeout - -> 30"));
    EXPECT_EQ(the_datastore().registrations.size(), 101u);
}

TEST_F(datastore_registration_test, refuses_invalid_arguments) {
    datastore_binding* server = bind(server_path);
    EXPECT_EQ(datastore_register_verification(nullptr, "", 7, recorder::on_verify, nullptr, nullptr, nullptr),
              platform_status{EINVAL});
    EXPECT_EQ(datastore_register_verification(server, nullptr, 7, recorder::on_verify, nullptr, nullptr, nullptr),
              platform_status{EINVAL});
    EXPECT_EQ(datastore_register_verification(server, "", 0, recorder::on_verify, nullptr, nullptr, nullptr),
              platform_status{EINVAL});
    EXPECT_EQ(datastore_register_verification(server, "", 8, recorder::on_verify, nullptr, nullptr, nullptr),
              platform_status{EINVAL});
    EXPECT_EQ(datastore_register_verification(server, "", 7, nullptr, nullptr, nullptr, nullptr),
              platform_status{EINVAL});
    EXPECT_EQ(datastore_register_notification(server, "", 7, nullptr, nullptr, nullptr), platform_status{EINVAL});
}

}  // namespace
}  // namespace datastore_test
