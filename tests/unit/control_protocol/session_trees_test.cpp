#include "control_protocol/session_trees.h"

#include <gtest/gtest.h>

TEST(control_session_trees, belong_to_reads_of_sessions) {
    struct {
        const char* path;
        bool has_incoming;
        bool has_outgoing;
    } const expected[] = {
        {"/oper/crypto-ssh/gl/session_xml/brief", true, true},
        {"/oper/crypto-ssh/gl/sshddata/detail", true, false},
        {"/oper/crypto-ssh/client/rekey", false, true},
    };
    for (const auto& row : expected) {
        const control_session_tree* tree = control_find_session_tree(row.path);
        ASSERT_NE(tree, nullptr) << row.path;
        EXPECT_EQ(tree->has_incoming, row.has_incoming) << row.path;
        EXPECT_EQ(tree->has_outgoing, row.has_outgoing) << row.path;
    }
    EXPECT_EQ(control_find_session_tree("/oper/crypto-ssh/gl/server-params"), nullptr);
    EXPECT_EQ(control_find_session_tree("/oper/crypto-ssh/client"), nullptr);
}
