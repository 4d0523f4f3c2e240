#include "linux/datastore/schema_children.h"

#include <gtest/gtest.h>

namespace {

using children = std::vector<std::string>;

TEST(schema_children, names_what_can_be_configured_below_a_path) {
    EXPECT_EQ(schema_children("/"), children{"cfg/"});
    EXPECT_EQ(schema_children("/cfg/gl"), (children{"aaa/", "banner/", "crypto/"}));
    EXPECT_EQ(schema_children("/cfg/gl/crypto/ssh/server/cmn/username/"), (children{"*", "*/"}));
    EXPECT_EQ(schema_children("/cfg/gl/crypto/ssh/server/cmn/username/alice"), children{"keystr"});
}

TEST(schema_children, are_none_below_other_paths) {
    for (const char* path :
         {"", "cfg", "/cfg/g", "//", "/cfg//gl", "/cfg/gl/crypto/ssh/server/cmn/timeout", "/nowhere"}) {
        EXPECT_EQ(schema_children(path), children{}) << path;
    }
}

TEST(schema_rows_below, finds_the_items_below_a_path) {
    const auto rows = schema_rows_below("/cfg/gl/crypto/ssh/server/sshd");
    ASSERT_EQ(rows.size(), 4U);
    EXPECT_STREQ(rows.back()->pattern, "/cfg/gl/crypto/ssh/server/sshd/vrf/*");
    EXPECT_EQ(schema_rows_below("/").size(), schema_rows().size());
    EXPECT_EQ(schema_rows_below("/cfg/gl/crypto/ssh/server/cmn/username/ann/").size(), 1U);
    EXPECT_TRUE(schema_rows_below("/cfg/gl/crypto/ssh/server/cmn/timeout").empty());
    EXPECT_TRUE(schema_rows_below("cfg").empty());
    EXPECT_TRUE(schema_rows_below("").empty());
}

}  // namespace
