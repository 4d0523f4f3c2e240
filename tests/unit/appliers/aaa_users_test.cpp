#include "appliers/aaa_users.h"

#include <gmock/gmock.h>

#include <cerrno>

#include "../agent_test.h"

namespace {

using fake_platform::set_list;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char tree[] = "/cfg/gl/aaa/username/";

struct search {
    platform_status status;
    bool found;
    bool operator==(const search&) const = default;
};

const search present = {PLATFORM_OK, true};
const search absent = {PLATFORM_OK, false};

search look_for(const char* user_name) {
    search result = {PLATFORM_OK, true};
    result.status = find_aaa_user(user_name, &result.found);
    return result;
}

class aaa_users_test : public agent_test {
  protected:
    static std::string below(const std::string& index) { return tree + index + "/"; }

    /// One user below each index.
    static void add_users() {
        set_list(tree, {{"0", ""}, {"1", ""}, {"7", ""}});
        set_list(below("0"), {{"alice", ""}});
        set_list(below("1"), {{"bob", ""}});
        set_list(below("7"), {{"carol", ""}});
    }
};

TEST_F(aaa_users_test, a_user_is_found_under_any_index) {
    add_users();
    for (const char* name : {"alice", "bob", "carol"}) {
        EXPECT_EQ(look_for(name), present) << name;
    }
    for (const char* name : {"", "ali", "alices", "Alice", "dave", "0"}) {
        EXPECT_EQ(look_for(name), absent) << name;
    }
    EXPECT_THAT(fake_platform::log_texts(), IsEmpty());
}

TEST_F(aaa_users_test, every_list_and_the_binding_are_released) {
    add_users();
    EXPECT_EQ(look_for("bob"), present);
    EXPECT_THAT(fake_platform::calls(),
                ElementsAre("datastore_bind(/cfg/gl/aaa/username/)", "datastore_list_get(/cfg/gl/aaa/username/, -1)",
                            "datastore_list_get(/cfg/gl/aaa/username/0/, -1)", "datastore_list_free(list)",
                            "datastore_list_get(/cfg/gl/aaa/username/1/, -1)", "datastore_list_free(list)",
                            "datastore_list_free(list)", "datastore_unbind(/cfg/gl/aaa/username/)"));
    EXPECT_EQ(fake_platform::bindings(), 0u);
}

TEST_F(aaa_users_test, without_any_user_nobody_is_found) {
    EXPECT_EQ(look_for("alice"), absent);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre(std::string("ERR_ERRNO: Error:=") + platform_status_text(DATASTORE_NO_SUCH_TREE) +
                            "(0x40828600),  No OrderingIndex in List "));
}

TEST_F(aaa_users_test, a_failed_binding_is_logged_and_returned) {
    add_users();
    fake_platform::fail("datastore_bind", EIO);
    EXPECT_EQ(look_for("alice"), (search{EIO, false}));
    EXPECT_THAT(
        fake_platform::log_texts(),
        ElementsAre("ERR_DATASTORE_BIND: Error:=Input/output error(0x5), Location:=AAA CFG BASE, Failed to bind "
                    "to datastore"));
}

TEST_F(aaa_users_test, a_missing_datastore_library_is_a_failed_binding) {
    remove_path(paths::datastore_library);
    EXPECT_EQ(look_for("alice"), (search{DATASTORE_UNAVAILABLE, false}));
    EXPECT_EQ(fake_platform::count_calls("datastore_bind"), 0u);
}

TEST_F(aaa_users_test, indexes_that_cannot_be_listed_are_an_error) {
    add_users();
    fake_platform::fail("datastore_list_get(/cfg/gl/aaa/username/, -1)", EIO);
    EXPECT_EQ(look_for("alice"), (search{EIO, false}));
    EXPECT_TRUE(fake_platform::logged("ERR_ERRNO", "Error:=Input/output error(0x5),  No OrderingIndex in List "));
    EXPECT_EQ(fake_platform::bindings(), 0u);
}

TEST_F(aaa_users_test, an_index_that_cannot_be_listed_is_skipped) {
    add_users();
    fake_platform::fail("datastore_list_get(/cfg/gl/aaa/username/0/, -1)", EIO);
    EXPECT_EQ(look_for("carol"), present);
    EXPECT_EQ(look_for("alice"), absent);
    EXPECT_TRUE(fake_platform::logged("ERR_ERRNO", "Error:=Input/output error(0x5), datastore list failed"));
}

TEST_F(aaa_users_test, two_users_under_one_index_are_an_error) {
    add_users();
    set_list(below("1"), {{"bob", ""}, {"mallory", ""}});
    EXPECT_EQ(look_for("carol"), (search{1, false}));
    EXPECT_EQ(look_for("bob"), (search{1, false}));
    EXPECT_TRUE(fake_platform::logged("ERR_GENERAL",
                                      "Something wrong in datastore. More than one user under single index value "));
    EXPECT_EQ(fake_platform::bindings(), 0u);
    // A user under an earlier index is found before this one is read.
    EXPECT_EQ(look_for("alice"), present);
}

}  // namespace
