#include "linux/host/aaa_users.h"

#include <cerrno>

#include "platform/datastore.h"
#include "unit/linux/datastore/datastore_fixture.h"
#include "unit/linux/platform_test_support.h"

namespace {

using testing::ElementsAre;

class aaa_users_test : public datastore_test::database_test {
  protected:
    void SetUp() override {
        database_test::SetUp();
        aaa_users_start();
        users = bind("/cfg/gl/aaa/username/");
    }

    static void write_accounts(const std::string& text) {
        platform_test::write_file("/etc/passwd", text);
        platform_test::write_file("/etc/nsswitch.conf", "passwd: files\n");
    }

    /// The names of a list as the agent reads them, or the status if there are none.
    std::vector<std::string> names(const std::string& path) {
        datastore_list* list = nullptr;
        uint32_t count = 0;
        status = datastore_list_get(users, path.c_str(), -1, &list, &count);
        std::vector<std::string> found;
        for (uint32_t i = 0; status == PLATFORM_OK && i < count; i++) {
            found.emplace_back(datastore_list_name(list, i));
        }
        if (status == PLATFORM_OK) {
            datastore_list_free(list);
        }
        return found;
    }

    datastore_binding* users = nullptr;
    platform_status status = PLATFORM_OK;
};

TEST_F(aaa_users_test, has_an_index_for_each_account_and_one_name_below_it) {
    write_accounts("root:x:0:0:root:/root:/bin/bash\nann:x:1000:1000::/home/ann:/bin/sh\n");
    EXPECT_THAT(names(""), ElementsAre("0", "1000"));
    EXPECT_THAT(names("0/"), ElementsAre("root"));
    EXPECT_THAT(names("1000/"), ElementsAre("ann"));
}

TEST_F(aaa_users_test, omits_accounts_that_cannot_log_in) {
    write_accounts(
        "daemon:x:1:1::/:/usr/sbin/nologin\nold:x:2:2::/:/sbin/nologin\nweb:x:3:3::/:/bin/false\n"
        "plain:x:4:4::/:\nann:x:1000:1000::/home/ann:/usr/bin/zsh\nodd:x:5:5::/:/opt/nologin/shell\n");
    EXPECT_THAT(names(""), ElementsAre("4", "1000", "5"));
    EXPECT_THAT(names("4/"), ElementsAre("plain"));
    EXPECT_TRUE(names("1/").empty());
    EXPECT_EQ(status, platform_status{DATASTORE_NO_SUCH_LIST});
}

TEST_F(aaa_users_test, has_one_name_below_each_index_even_if_names_share_a_user_id) {
    write_accounts("root:x:0:0::/:/bin/sh\ntoor:x:0:0::/:/bin/sh\nroot2:x:0:0::/:/bin/sh\nann:x:1:1::/:/bin/sh\n");
    EXPECT_THAT(names(""), ElementsAre("0", "0_2", "0_3", "1"));
    EXPECT_THAT(names("0/"), ElementsAre("root"));
    EXPECT_THAT(names("0_2/"), ElementsAre("toor"));
    EXPECT_THAT(names("0_3/"), ElementsAre("root2"));
}

TEST_F(aaa_users_test, follows_changes_of_the_accounts) {
    write_accounts("root:x:0:0::/:/bin/sh\n");
    EXPECT_THAT(names(""), ElementsAre("0"));
    write_accounts("root:x:0:0::/:/bin/sh\nann:x:1000:1000::/:/bin/sh\n");
    EXPECT_THAT(names(""), ElementsAre("0", "1000"));
}

TEST_F(aaa_users_test, finds_an_account_added_since_the_indexes_were_listed) {
    write_accounts("root:x:0:0::/:/bin/sh\n");
    EXPECT_THAT(names(""), ElementsAre("0"));
    write_accounts("root:x:0:0::/:/bin/sh\nann:x:1000:1000::/:/bin/sh\n");
    EXPECT_THAT(names("1000/"), ElementsAre("ann"));
}

// Verifying a key reads every index; asking the name service for each would take minutes.
TEST_F(aaa_users_test, can_be_read_quickly_with_twenty_thousand_accounts) {
    constexpr uint32_t count = 20000;
    std::string accounts;
    for (uint32_t i = 0; i < count; i++) {
        const std::string number = std::to_string(i);
        accounts += "user" + number + ":x:" + number + ":100::/:/bin/sh\n";
    }
    write_accounts(accounts);
    const std::vector<std::string> indexes = names("");
    ASSERT_EQ(indexes.size(), count);
    for (uint32_t i = 0; i < count; i++) {
        ASSERT_THAT(names(indexes[i] + '/'), ElementsAre("user" + std::to_string(i)));
    }
}

TEST_F(aaa_users_test, without_accounts_there_is_no_list) {
    write_accounts("");
    EXPECT_TRUE(names("").empty());
    EXPECT_EQ(status, platform_status{DATASTORE_NO_SUCH_LIST});
    EXPECT_TRUE(names("0/deeper/").empty());
    EXPECT_EQ(status, platform_status{DATASTORE_NO_SUCH_LIST});
}

TEST_F(aaa_users_test, can_be_listed_by_operators) {
    write_accounts("root:x:0:0::/:/bin/sh\nann:x:1000:1000::/:/bin/sh\n");
    std::vector<std::string> listed;
    ASSERT_EQ(datastore_list_children("/cfg/gl/aaa/username", listed), PLATFORM_OK);
    EXPECT_THAT(listed, ElementsAre("0", "1000"));
    ASSERT_EQ(datastore_list_children("/cfg/gl/aaa/username/1000/", listed), PLATFORM_OK);
    EXPECT_THAT(listed, ElementsAre("ann"));
    ASSERT_EQ(datastore_list_children("/cfg/gl/aaa/username/7/", listed), PLATFORM_OK);
    EXPECT_TRUE(listed.empty());
}

}  // namespace
