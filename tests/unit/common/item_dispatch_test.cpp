#include <errno.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/datastore_backend.h"

namespace {

struct received {
    std::string handler;
    std::vector<std::string> components;
    const datastore_change* change = nullptr;
};

received last;

void note(const char* handler, const datastore_change* change, const datastore_path_components* path) {
    last = {handler, {path->component, path->component + path->count}, change};
}

platform_status accept(const datastore_change* change, char**, uint32_t* accepted,
                       const datastore_path_components* path) {
    note("verify", change, path);
    *accepted = 1;
    return PLATFORM_OK;
}

platform_status refuse(const datastore_change* change, char** error_text, uint32_t* accepted,
                       const datastore_path_components* path) {
    note("refuse", change, path);
    *accepted = 0;
    *error_text = strdup("not today");
    return EINVAL;
}

platform_status apply_vrf(const datastore_change* change, const datastore_path_components* path) {
    note("vrf", change, path);
    return PLATFORM_OK;
}

platform_status apply_user(const datastore_change* change, const datastore_path_components* path) {
    note("user", change, path);
    return PLATFORM_OK;
}

platform_status fail(const datastore_change* change, const datastore_path_components* path) {
    note("fail", change, path);
    return 1;
}

// sshd/vrf/*, sshd/v2, user/* (with a handler and a child) with keystr, lone
constexpr datastore_item_node nodes[] = {
    {"sshd", DATASTORE_NODE_NAMED, 1, 4, -1, 1},       // 0
    {"vrf", DATASTORE_NODE_NAMED, 2, 3, -1, 1},        // 1
    {nullptr, DATASTORE_NODE_WILDCARD, -1, -1, 0, 0},  // 2
    {"v2", DATASTORE_NODE_NAMED, -1, -1, 1, 0},        // 3
    {"user", DATASTORE_NODE_NAMED, 5, 7, -1, 1},       // 4
    {nullptr, DATASTORE_NODE_WILDCARD, 6, -1, 2, 1},   // 5
    {"keystr", DATASTORE_NODE_NAMED, -1, -1, 3, 0},    // 6
    {"lone", DATASTORE_NODE_NAMED, -1, -1, 4, 0},      // 7
};

constexpr datastore_item_handler handlers[] = {
    {DATASTORE_VALUE_TUPLE, refuse, apply_vrf},   {DATASTORE_VALUE_NUMBER, accept, fail},
    {DATASTORE_VALUE_NUMBER, accept, apply_user}, {DATASTORE_VALUE_TEXT, nullptr, apply_user},
    {DATASTORE_VALUE_TEXT, accept, nullptr},
};

constexpr datastore_item_table table = {nodes, std::size(nodes), handlers, std::size(handlers)};

platform_status verify(const char* item, const datastore_item_table* items = &table) {
    const datastore_change change = {};
    char* error_text = nullptr;
    uint32_t accepted = 0;
    const datastore_backend_call call = {item, &change, &error_text, &accepted};
    last = {};
    const platform_status status = datastore_backend_verify(&call, items);
    free(error_text);
    return status;
}

platform_status apply(const char* item, const datastore_item_table* items = &table) {
    const datastore_change change = {};
    const datastore_backend_call call = {item, &change, nullptr, nullptr};
    last = {};
    return datastore_backend_apply(&call, items);
}

TEST(item_dispatch, passes_the_wildcards_name_as_component_two) {
    ASSERT_EQ(apply("sshd/vrf/blue"), PLATFORM_OK);
    EXPECT_EQ(last.handler, "vrf");
    EXPECT_EQ(last.components, (std::vector<std::string>{"sshd", "vrf", "blue"}));
}

TEST(item_dispatch, passes_the_change_on_unaltered) {
    const datastore_change change = {DATASTORE_EVENT_SET, "old", "new", 4, 4};
    const datastore_backend_call call = {"sshd/vrf/blue", &change, nullptr, nullptr};
    ASSERT_EQ(datastore_backend_apply(&call, &table), PLATFORM_OK);
    EXPECT_EQ(last.change, &change);
}

TEST(item_dispatch, returns_the_handlers_status) {
    EXPECT_EQ(apply("sshd/v2"), 1u);
    EXPECT_EQ(last.handler, "fail");
    EXPECT_EQ(verify("sshd/v2"), PLATFORM_OK);
    EXPECT_EQ(last.handler, "verify");
}

TEST(item_dispatch, passes_a_refusals_text_to_the_caller) {
    const datastore_change change = {};
    char* error_text = nullptr;
    uint32_t accepted = 1;
    const datastore_backend_call call = {"sshd/vrf/blue", &change, &error_text, &accepted};
    EXPECT_EQ(datastore_backend_verify(&call, &table), platform_status{EINVAL});
    EXPECT_EQ(accepted, 0u);
    EXPECT_STREQ(error_text, "not today");
    free(error_text);
}

TEST(item_dispatch, finds_a_wildcard_node_and_its_child) {
    ASSERT_EQ(apply("user/ann"), PLATFORM_OK);
    EXPECT_EQ(last.components, (std::vector<std::string>{"user", "ann"}));
    ASSERT_EQ(apply("user/ann/keystr"), PLATFORM_OK);
    EXPECT_EQ(last.components, (std::vector<std::string>{"user", "ann", "keystr"}));
}

TEST(item_dispatch, finds_no_handler_for_a_path_outside_the_table) {
    for (const char* item :
         {"", "/", "sshd", "sshd/vrf", "sshd/vrf/", "sshd//blue", "sshd/v2/", "/sshd/v2", "sshd/v", "sshd/v22",
          "sshd/vrf/blue/more", "user", "user/ann/other", "user/ann/keystr/", "nothing"}) {
        EXPECT_EQ(verify(item), platform_status{DATASTORE_NO_HANDLER}) << item;
        EXPECT_EQ(apply(item), platform_status{DATASTORE_NO_HANDLER}) << item;
        EXPECT_EQ(last.handler, "") << item;
    }
}

TEST(item_dispatch, finds_no_handler_where_verifier_or_applier_is_missing) {
    EXPECT_EQ(verify("user/ann/keystr"), platform_status{DATASTORE_NO_HANDLER});
    EXPECT_EQ(apply("user/ann/keystr"), PLATFORM_OK);
    EXPECT_EQ(verify("lone"), PLATFORM_OK);
    EXPECT_EQ(apply("lone"), platform_status{DATASTORE_NO_HANDLER});
}

TEST(item_dispatch, accepts_a_path_of_any_length) {
    const std::string name(100000, 'n');
    ASSERT_EQ(apply(("sshd/vrf/" + name).c_str()), PLATFORM_OK);
    EXPECT_EQ(last.components[2], name);
    EXPECT_EQ(apply(std::string(100000, '/').c_str()), platform_status{DATASTORE_NO_HANDLER});
}

TEST(item_dispatch, survives_an_inconsistent_table) {
    const datastore_item_node loop[] = {{"a", DATASTORE_NODE_NAMED, -1, 0, 7, 0}};
    const datastore_item_table loop_table = {loop, 1, handlers, std::size(handlers)};
    EXPECT_EQ(apply("b", &loop_table), platform_status{DATASTORE_NO_HANDLER});
    EXPECT_EQ(apply("a", &loop_table), platform_status{DATASTORE_NO_HANDLER});
    const datastore_item_node outside[] = {{"a", DATASTORE_NODE_NAMED, 9, 5, 0, 0}};
    const datastore_item_table outside_table = {outside, 1, handlers, std::size(handlers)};
    EXPECT_EQ(apply("a/b", &outside_table), platform_status{DATASTORE_NO_HANDLER});
    EXPECT_EQ(apply("b", &outside_table), platform_status{DATASTORE_NO_HANDLER});
    const datastore_item_table empty = {nullptr, 0, nullptr, 0};
    EXPECT_EQ(apply("a", &empty), platform_status{DATASTORE_NO_HANDLER});
}

}  // namespace
