#include <errno.h>

#include "common/text.h"
#include "unit/linux/datastore/datastore_fixture.h"
#include "unit/linux/enforcement/enforcement_test_support.h"

namespace datastore_test {
namespace {

using testing::ElementsAre;

std::vector<std::string> applied;
std::function<void()> in_apply;

platform_status apply(const datastore_change* change, const datastore_path_components* path) {
    uint32_t number = 0;
    memcpy(&number, change->value, sizeof number);
    std::string item;
    for (uint32_t i = 0; i < path->count; i++) {
        item += std::string(i == 0 ? "" : "/") + path->component[i];
    }
    EXPECT_EQ(change->previous, nullptr);
    applied.push_back(text_format("%u %s %u of %zu", change->event, item.c_str(), number, change->value_size));
    if (in_apply) {
        in_apply();
    }
    return path->component[1][0] == 'r' ? 1 : 0;
}

// cmn/*, and sshd without a handler for vrf
constexpr datastore_item_node nodes[] = {
    {"cmn", DATASTORE_NODE_NAMED, 1, 2, -1, 1},
    {nullptr, DATASTORE_NODE_WILDCARD, -1, -1, 0, 0},
    {"sshd", DATASTORE_NODE_NAMED, -1, -1, -1, 1},
};
constexpr datastore_item_handler handlers[] = {{DATASTORE_VALUE_NUMBER, nullptr, apply}};
constexpr datastore_item_table table = {nodes, std::size(nodes), handlers, std::size(handlers)};

class datastore_scan_test : public served_datastore_test {
  protected:
    void SetUp() override {
        served_datastore_test::SetUp();
        applied.clear();
        in_apply = nullptr;
        datastore_commit({{timeout_path, number(30)}, {vrf_path, datastore_fields()}, {rate_path, number(10)}}, false);
    }
};

TEST_F(datastore_scan_test, delivers_every_item_as_created_and_set_in_byte_order) {
    EXPECT_EQ(datastore_backend_scan(server, &table, "", 1, nullptr), PLATFORM_OK);
    EXPECT_THAT(applied, ElementsAre("3 cmn/rate_limit 10 of 4", "3 cmn/timeout 30 of 4"));
}

TEST_F(datastore_scan_test, is_announced_like_a_commit) {
    const enforcement_test::reset_at_end reset;
    constexpr enforcement_commit_callbacks callbacks = {[](void*) { applied.push_back("begin"); },
                                                        [](void*) { applied.push_back("end"); }};
    ASSERT_EQ(enforcement_announce_commits(&callbacks, nullptr), PLATFORM_OK);
    EXPECT_EQ(datastore_backend_scan(server, &table, "", 1, nullptr), PLATFORM_OK);
    EXPECT_THAT(applied, ElementsAre("begin", "3 cmn/rate_limit 10 of 4", "3 cmn/timeout 30 of 4", "end"));
}

TEST_F(datastore_scan_test, can_be_limited_to_a_pattern) {
    EXPECT_EQ(datastore_backend_scan(server, &table, "cmn/timeout", 1, nullptr), PLATFORM_OK);
    EXPECT_THAT(applied, ElementsAre("3 cmn/timeout 30 of 4"));
}

TEST_F(datastore_scan_test, stays_within_its_binding) {
    EXPECT_EQ(datastore_backend_scan(bind("/cfg/gl/crypto/ssh/client/"), &table, "", 1, nullptr), PLATFORM_OK);
    EXPECT_TRUE(applied.empty());
}

TEST_F(datastore_scan_test, handlers_may_read_and_store_their_values_but_not_commit) {
    datastore_commit_result inner;
    in_apply = [&] {
        EXPECT_EQ(datastore_private_put("vrf/blue", "1"), PLATFORM_OK);
        EXPECT_EQ(stored(timeout_path), "30");
        inner = set(limit_path, number(5));
    };
    EXPECT_EQ(datastore_backend_scan(server, &table, "", 1, nullptr), PLATFORM_OK);
    EXPECT_EQ(applied.size(), 2u);
    EXPECT_EQ(inner.status, platform_status{EBUSY});
}

TEST_F(datastore_scan_test, requires_a_database) {
    datastore_close();
    EXPECT_EQ(datastore_backend_scan(server, &table, "", 1, nullptr), platform_status{DATASTORE_UNAVAILABLE});
    EXPECT_EQ(datastore_backend_scan(nullptr, &table, "", 1, nullptr), platform_status{EINVAL});
}

}  // namespace
}  // namespace datastore_test
