#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "fake/fake_platform.h"
#include "platform/datastore.h"

namespace {

using fake_platform::commit;
using fake_platform::remove;
using fake_platform::set_number;
using fake_platform::set_text;
using testing::ElementsAre;
using testing::IsEmpty;

std::string number_text(const void* value) {
    uint32_t number = 0;
    if (value == nullptr) {
        return "-";
    }
    memcpy(&number, value, sizeof number);
    return std::to_string(number);
}

std::string change_text(const char* what, const datastore_backend_call* call) {
    return std::string(what) + " " + call->item + " " + std::to_string(call->change->event) + " " +
           number_text(call->change->previous) + ">" + number_text(call->change->value);
}

/// Part of a program that registers for a subtree and refuses or fails as its test requires.
class fake_commit_test : public testing::Test {
  protected:
    fake_commit_test() {
        seen.clear();
        refused.clear();
        failing.clear();
        EXPECT_EQ(datastore_bind("/cfg/", &binding), PLATFORM_OK);
        EXPECT_EQ(datastore_register_verification(binding, "", 7, verify, apply, nullptr, nullptr), PLATFORM_OK);
    }

    static platform_status verify(const datastore_backend_call* call, void*) {
        seen.push_back(change_text("verify", call));
        if (refused == call->item) {
            *call->error_text = strdup("not this one");
            return EINVAL;
        }
        *call->accepted = 1;
        return PLATFORM_OK;
    }

    static platform_status apply(const datastore_backend_call* call, void*) {
        seen.push_back(change_text("apply", call));
        return failing == call->item ? platform_status{EIO} : platform_status{PLATFORM_OK};
    }

    static void notice(const datastore_notification* notification, void*) {
        seen.push_back(std::string("notice ") + notification->item + " " + std::to_string(notification->event) + " " +
                       number_text(notification->value));
    }

    datastore_binding* binding = nullptr;
    static inline std::vector<std::string> seen;
    static inline std::string refused;
    static inline std::string failing;
};

TEST_F(fake_commit_test, verifies_all_then_applies_in_byte_order_then_notifies) {
    datastore_register_notification(binding, "b", 7, notice, nullptr, nullptr);
    const auto result = commit({set_number("/cfg/b", 2), set_number("/cfg/a", 1)});
    EXPECT_EQ(result.status, PLATFORM_OK);
    EXPECT_THAT(seen,
                ElementsAre("verify a 3 ->1", "verify b 3 ->2", "apply a 3 ->1", "apply b 3 ->2", "notice b 3 2"));
}

// The first creation is create and set together, a change is set with the previous value, a removal is delete.
TEST_F(fake_commit_test, events_distinguish_creation_change_and_removal) {
    commit(set_number("/cfg/a", 1));
    commit(set_number("/cfg/a", 2));
    commit(remove("/cfg/a"));
    EXPECT_THAT(seen, ElementsAre("verify a 3 ->1", "apply a 3 ->1", "verify a 2 1>2", "apply a 2 1>2",
                                  "verify a 4 2>-", "apply a 4 2>-"));
    EXPECT_EQ(fake_platform::stored("/cfg/a"), std::nullopt);
}

TEST_F(fake_commit_test, unchanged_items_are_not_delivered) {
    commit(set_number("/cfg/a", 1));
    seen.clear();
    EXPECT_EQ(commit({set_number("/cfg/a", 1), remove("/cfg/none"), remove("/cfg/none/")}).status, PLATFORM_OK);
    EXPECT_THAT(seen, IsEmpty());
}

TEST_F(fake_commit_test, an_item_without_handler_is_refused) {
    const auto result = commit(set_number("/other/a", 1));
    EXPECT_EQ(result.status, platform_status{DATASTORE_NO_HANDLER});
    EXPECT_EQ(result.refused_path, "/other/a");
    EXPECT_EQ(fake_platform::stored("/other/a"), std::nullopt);
}

TEST_F(fake_commit_test, removing_a_tree_spares_items_named_in_the_commit) {
    for (const char* path : {"/cfg/t/a", "/cfg/t/b", "/cfg/t/c/d", "/cfg/u"}) {
        fake_platform::store(set_number(path, 1));
    }
    EXPECT_EQ(commit({remove("/cfg/t/"), set_number("/cfg/t/b", 2)}).status, PLATFORM_OK);
    EXPECT_THAT(seen, ElementsAre("verify t/a 4 1>-", "verify t/b 2 1>2", "verify t/c/d 4 1>-", "apply t/a 4 1>-",
                                  "apply t/b 2 1>2", "apply t/c/d 4 1>-"));
    EXPECT_NE(fake_platform::stored("/cfg/u"), std::nullopt);
}

TEST_F(fake_commit_test, a_handler_cannot_commit) {
    static platform_status inner;
    datastore_binding* other = nullptr;
    datastore_bind("/other/", &other);
    datastore_register_verification(
        other, "", 7, nullptr,
        [](const datastore_backend_call*, void*) -> platform_status {
            inner = commit(set_number("/cfg/a", 1)).status;
            return PLATFORM_OK;
        },
        nullptr, nullptr);
    EXPECT_EQ(commit(set_number("/other/a", 1)).status, PLATFORM_OK);
    EXPECT_EQ(inner, platform_status{EBUSY});
}

TEST_F(fake_commit_test, a_binding_released_within_a_commit_is_not_called_again) {
    static datastore_binding* other = nullptr;
    datastore_bind("/cfg/a/", &other);
    datastore_register_verification(
        binding, "", 7, nullptr, [](const datastore_backend_call*, void*) { return datastore_unbind(other); }, nullptr,
        nullptr);
    datastore_register_verification(other, "", 7, nullptr, apply, nullptr, nullptr);
    EXPECT_EQ(commit(set_number("/cfg/a/b", 1)).status, PLATFORM_OK);
    EXPECT_THAT(seen, ElementsAre("verify a/b 3 ->1", "apply a/b 3 ->1"));
}

TEST_F(fake_commit_test, a_refusal_stores_nothing_and_applies_nothing) {
    refused = "b";
    const auto result = commit({set_number("/cfg/a", 1), set_number("/cfg/b", 1), set_number("/cfg/c", 1)});
    EXPECT_EQ(result.status, platform_status{EINVAL});
    EXPECT_EQ(result.refused_path, "/cfg/b");
    EXPECT_EQ(result.error_text, "not this one");
    EXPECT_THAT(seen, ElementsAre("verify a 3 ->1", "verify b 3 ->1"));
    EXPECT_EQ(fake_platform::stored("/cfg/a"), std::nullopt);
}

TEST_F(fake_commit_test, a_verifier_without_a_verdict_refuses) {
    datastore_binding* other = nullptr;
    datastore_bind("/other/", &other);
    datastore_register_verification(
        other, "", 7, [](const datastore_backend_call*, void*) -> platform_status { return PLATFORM_OK; }, apply,
        nullptr, nullptr);
    EXPECT_EQ(commit(set_number("/other/a", 1)).status, platform_status{EINVAL});
}

TEST_F(fake_commit_test, a_failed_applier_is_reported_and_the_change_remains) {
    failing = "a";
    const auto result = commit({set_number("/cfg/a", 1), set_number("/cfg/b", 1)});
    EXPECT_EQ(result.status, PLATFORM_OK);
    ASSERT_EQ(result.failures.size(), 1u);
    EXPECT_EQ(result.failures[0].path, "/cfg/a");
    EXPECT_EQ(result.failures[0].status, platform_status{EIO});
    EXPECT_NE(fake_platform::stored("/cfg/a"), std::nullopt);
    EXPECT_EQ(seen.back(), "apply b 3 ->1");
}

TEST_F(fake_commit_test, event_masks_and_other_trees_are_respected) {
    datastore_register_notification(binding, "a", DATASTORE_EVENT_DELETE, notice, nullptr, nullptr);
    EXPECT_EQ(commit({set_number("/cfg/a", 1), set_number("/cfgx/a", 1)}).refused_path, "/cfgx/a");
    seen.clear();
    commit(set_number("/cfg/a", 1));
    EXPECT_EQ(seen.size(), 2u);
    commit(remove("/cfg/a"));
    EXPECT_EQ(seen.back(), "notice a 4 -");
}

TEST_F(fake_commit_test, patterns_select_items) {
    datastore_register_notification(binding, "users/*/level", 7, notice, nullptr, nullptr);
    datastore_register_notification(binding, "below/", 7, notice, nullptr, nullptr);
    commit({set_number("/cfg/users/a/level", 1), set_number("/cfg/users/a/key", 2), set_number("/cfg/users/level", 3),
            set_number("/cfg/below/x/y", 4), set_number("/cfg/below", 5), set_number("/cfg/users/a/level/x", 6)});
    std::vector<std::string> notices;
    std::copy_if(seen.begin(), seen.end(), std::back_inserter(notices),
                 [](const std::string& line) { return line.compare(0, 6, "notice") == 0; });
    EXPECT_THAT(notices, ElementsAre("notice below/x/y 3 4", "notice users/a/level 3 1"));
}

// A verifier judges the commit as a whole, so it reads the state after the commit.
TEST_F(fake_commit_test, verifiers_read_the_state_after_the_commit) {
    static std::vector<bool> present;
    present.clear();
    datastore_binding* other = nullptr;
    datastore_bind("/other/", &other);
    const auto look = [](const datastore_backend_call* call, void* context) -> platform_status {
        present.push_back(datastore_item_get(static_cast<datastore_binding*>(context), "a", nullptr, 0, nullptr) ==
                          PLATFORM_OK);
        if (call->accepted != nullptr) {
            *call->accepted = 1;
        }
        return PLATFORM_OK;
    };
    datastore_register_verification(other, "", 7, look, look, nullptr, other);
    commit({set_number("/other/a", 1), set_number("/other/0", 1)});
    EXPECT_THAT(present, ElementsAre(true, true, true, true));
    present.clear();
    commit({remove("/other/a"), set_number("/other/0", 2)});
    EXPECT_THAT(present, ElementsAre(false, false, false, false));
    present.clear();
    refused = "b";
    EXPECT_EQ(commit({set_number("/cfg/b", 1), set_number("/other/a", 1)}).refused_path, "/cfg/b");
    EXPECT_EQ(datastore_item_get(other, "a", nullptr, 0, nullptr), platform_status{DATASTORE_NO_SUCH_ITEM});
}

TEST_F(fake_commit_test, verifiers_list_the_state_after_the_commit) {
    static std::vector<std::string> names;
    datastore_binding* other = nullptr;
    datastore_bind("/other/", &other);
    const auto list_names = [](const datastore_backend_call* call, void* context) -> platform_status {
        datastore_list* list = nullptr;
        uint32_t count = 0;
        names.clear();
        EXPECT_EQ(datastore_list_get(static_cast<datastore_binding*>(context), "", -1, &list, &count), PLATFORM_OK);
        for (uint32_t i = 0; i < count; i++) {
            names.emplace_back(datastore_list_name(list, i));
        }
        datastore_list_free(list);
        *call->accepted = 1;
        return PLATFORM_OK;
    };
    datastore_register_verification(other, "", 7, list_names, nullptr, nullptr, other);
    commit({set_number("/other/a", 1), set_number("/other/b", 1)});
    EXPECT_THAT(names, ElementsAre("a", "b"));
    commit({remove("/other/a"), set_number("/other/c", 2)});
    EXPECT_THAT(names, ElementsAre("b", "c"));
}

std::vector<std::string> applied;

platform_status table_applier(const datastore_change* change, const datastore_path_components* components) {
    applied.push_back(std::string(components->component[components->count - 1]) + " " + std::to_string(change->event) +
                      " " + number_text(change->previous) + ">" + number_text(change->value));
    return EIO;
}

TEST_F(fake_commit_test, a_scan_applies_stored_items_in_byte_order) {
    constexpr datastore_item_node nodes[] = {{nullptr, DATASTORE_NODE_WILDCARD, -1, -1, 0, 0}};
    constexpr datastore_item_handler handlers[] = {{DATASTORE_VALUE_NUMBER, nullptr, table_applier}};
    const datastore_item_table table = {nodes, 1, handlers, 1};
    fake_platform::store(set_number("/cfg/b", 2));
    fake_platform::store(set_number("/cfg/a", 1));
    fake_platform::store(set_number("/cfg/deep/c", 3));
    fake_platform::store(set_number("/other/d", 4));
    applied.clear();
    EXPECT_EQ(datastore_backend_scan(binding, &table, "", 0xFEDCBA98, nullptr), PLATFORM_OK);
    EXPECT_THAT(applied, ElementsAre("a 3 ->1", "b 3 ->2"));
    EXPECT_EQ(fake_platform::count_calls("datastore_backend_scan(/cfg/, 0xfedcba98)"), 1u);
    fake_platform::fail("datastore_backend_scan", EIO, 1);
    EXPECT_EQ(datastore_backend_scan(binding, &table, "", 0, nullptr), platform_status{EIO});
    EXPECT_EQ(applied.size(), 2u);
}

}  // namespace
