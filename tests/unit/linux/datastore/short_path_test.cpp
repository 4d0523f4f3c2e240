#include "linux/datastore/short_path.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "linux/datastore/schema.h"
#include "linux/datastore/served_lists.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> item_ends(std::string_view path) {
    return short_path_meanings(path, path_target::item);
}

std::vector<std::string> folder_ends(std::string_view path) {
    return short_path_meanings(path, path_target::folder);
}

constexpr char vrf_blue[] = "/cfg/gl/crypto/ssh/server/sshd/vrf/blue";

TEST(short_path, an_absolute_path_means_itself) {
    for (const char* path : {"/cfg/gl/crypto/ssh/server/cmn/timeout", "/timeout", "/", "/cfg//x/"}) {
        EXPECT_THAT(item_ends(path), ElementsAre(path));
        EXPECT_THAT(folder_ends(path), ElementsAre(path));
    }
}

TEST(short_path, the_end_of_an_item_names_it) {
    EXPECT_THAT(item_ends("timeout"), ElementsAre("/cfg/gl/crypto/ssh/server/cmn/timeout"));
    EXPECT_THAT(item_ends("client/dscp"), ElementsAre("/cfg/gl/crypto/ssh/client/dscp"));
    EXPECT_THAT(item_ends("cfg/gl/crypto/fipsmode/value"), ElementsAre("/cfg/gl/crypto/fipsmode/value"));
}

TEST(short_path, an_ambiguous_end_has_several_meanings) {
    EXPECT_THAT(item_ends("dscp"), ElementsAre("/cfg/gl/crypto/ssh/client/dscp", "/cfg/gl/crypto/ssh/server/cmn/dscp"));
    EXPECT_THAT(folder_ends("banner"), ElementsAre("/cfg/gl/aaa/banner", "/cfg/gl/banner"));
}

TEST(short_path, a_name_stands_only_behind_its_parent) {
    EXPECT_THAT(item_ends("vrf/blue"), ElementsAre(vrf_blue));
    EXPECT_THAT(item_ends("sshd/vrf/blue"), ElementsAre(vrf_blue));
    EXPECT_THAT(item_ends("username/ann/keystr"), ElementsAre("/cfg/gl/crypto/ssh/server/cmn/username/ann/keystr"));
    for (const char* path : {"blue", "ann/keystr", "keystr", "*", "trustpoint"}) {
        EXPECT_THAT(item_ends(path), IsEmpty()) << path;
    }
}

TEST(short_path, names_are_checked_by_the_schema_and_not_here) {
    const std::vector<std::string> meanings = item_ends("vrf/a;b");
    ASSERT_EQ(meanings.size(), 1U);
    std::string refusal;
    EXPECT_EQ(schema_find(meanings[0], &refusal), nullptr);
    EXPECT_NE(refusal.find("\"a;b\" is not allowed in this path"), std::string::npos);
}

TEST(short_path, a_part_of_a_component_names_nothing) {
    for (const char* path : {"imeout", "time", "timeout/", "server/timeout", "x/vrf/blue", "", "vrf/", "vrf//blue"}) {
        EXPECT_THAT(item_ends(path), IsEmpty()) << path;
    }
    EXPECT_THAT(item_ends(std::string(2000, 'x')), IsEmpty());
}

TEST(short_path, the_end_of_a_folder_names_it) {
    EXPECT_THAT(folder_ends("sshd"), ElementsAre("/cfg/gl/crypto/ssh/server/sshd"));
    EXPECT_THAT(folder_ends("vrf/"), ElementsAre("/cfg/gl/crypto/ssh/server/sshd/vrf"));
    EXPECT_THAT(folder_ends("username/ann"), ElementsAre("/cfg/gl/crypto/ssh/server/cmn/username/ann"));
    EXPECT_THAT(folder_ends("timeout"), IsEmpty());
    EXPECT_THAT(folder_ends("vrf/blue"), IsEmpty());
}

platform_status no_lists(std::string_view /*path*/, std::vector<datastore_list_entry>& /*entries*/) {
    return 0;
}

TEST(short_path, lists_of_services_of_the_configuration_are_folders) {
    datastore_serve_lists("/cfg/gl/aaa/username/", no_lists);
    datastore_serve_lists("/oper/other/aaa/username/", no_lists);
    EXPECT_THAT(folder_ends("aaa/username"), ElementsAre("/cfg/gl/aaa/username"));
    datastore_withdraw_lists("/cfg/gl/aaa/username/");
    datastore_withdraw_lists("/oper/other/aaa/username/");
    EXPECT_THAT(folder_ends("aaa/username"), IsEmpty());
}

TEST(short_path_of, is_the_shortest_end_that_means_only_this_path) {
    EXPECT_EQ(short_path_of("/cfg/gl/crypto/ssh/server/cmn/timeout"), "timeout");
    EXPECT_EQ(short_path_of("/cfg/gl/crypto/ssh/server/cmn/dscp"), "cmn/dscp");
    EXPECT_EQ(short_path_of(vrf_blue), "vrf/blue");
    EXPECT_EQ(short_path_of("/cfg/gl/crypto/ssh/server/sshd/vrf/"), "vrf/");
    EXPECT_EQ(short_path_of("/cfg/gl/aaa/banner/"), "aaa/banner/");
    EXPECT_EQ(short_path_of("/cfg/gl/crypto/ssh/server/cmn/timeout", "cm"), "cmn/timeout");
    EXPECT_EQ(short_path_of("/cfg/gl/crypto/ssh/server/cmn/timeout", "x"), "");
    for (const char* path : {"", "/", "/nowhere"}) {
        EXPECT_EQ(short_path_of(path), "") << path;
    }
}

TEST(short_path_of, exists_for_every_item) {
    for (const schema_row& row : schema_rows()) {
        std::string path = row.pattern;
        if (const size_t wildcard = path.find('*'); wildcard != std::string::npos) {
            path.replace(wildcard, 1, "name");
        }
        EXPECT_THAT(item_ends(short_path_of(path)), ElementsAre(path));
    }
}

/// Every item must have a short path, or it could not be named without its whole path.
TEST(short_path, the_whole_path_without_its_slash_names_every_item) {
    for (const schema_row& row : schema_rows()) {
        std::string path = row.pattern;
        if (const size_t wildcard = path.find('*'); wildcard != std::string::npos) {
            path.replace(wildcard, 1, "name");
        }
        EXPECT_THAT(item_ends(path.substr(1)), ElementsAre(path));
    }
}

}  // namespace
