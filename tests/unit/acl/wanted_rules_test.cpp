#include "acl/wanted_rules.h"

#include <cerrno>

#include "acl_test.h"
#include "call_faults.h"
#include "usage.h"
#include "vrf/acl_types.h"

namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

class wanted_rules_test : public acl_test {
  protected:
    wanted_rules_test() {
        set_list("list", {ipv4_entry(), ipv4_entry(deny)});
        set_ipv6_list("list", {ipv6_entry(), ipv6_entry(deny)});
    }

    static platform_status make(uint32_t type) {
        std::string commands;
        return make_wanted_rules(type, "list", &commands);
    }
};

TEST_F(wanted_rules_test, every_type_has_its_table_and_port) {
    for (uint32_t type = 0; type < acl_all; type++) {
        const bool is_ipv6 = type >= acl_ssh_v6;
        const std::string port = type == acl_ssh_v4 || type == acl_ssh_v6 ? "22" : "830";
        const std::string table = std::string("table ") + (is_ipv6 ? "ip6 " : "ip ") + nft_table_name(type) + " {\n";
        const std::string any = is_ipv6 ? "                ip6 saddr ::/0 ip6 daddr ::/0 tcp dport "
                                        : "                ip saddr 0.0.0.0/0 ip daddr 0.0.0.0/0 tcp dport ";
        std::string commands = "before";
        EXPECT_EQ(make_wanted_rules(type, "list", &commands), PLATFORM_OK);
        EXPECT_THAT(commands, StartsWith(table + "}\nflush "));
        EXPECT_THAT(commands, HasSubstr(table + "        chain input {\n"));
        EXPECT_THAT(commands, HasSubstr(any + port + " accept \n" + any + port + " drop \n"));
        EXPECT_THAT(commands, EndsWith(" tcp dport " + port + " drop\n        }\n}\n"));
    }
}

TEST_F(wanted_rules_test, a_missing_list_is_reported_as_such) {
    std::string commands = "before";
    EXPECT_EQ(make_wanted_rules(acl_ssh_v4, "other", &commands), platform_status{DATASTORE_NO_SUCH_LIST});
    for (const platform_status missing : {DATASTORE_NO_SUCH_LIST, DATASTORE_NO_SUCH_TREE}) {
        fake_platform::fail("datastore_list_get", missing);
        EXPECT_EQ(make_wanted_rules(acl_ssh_v4, "list", &commands), platform_status{DATASTORE_NO_SUCH_LIST});
    }
    EXPECT_EQ(commands, "before");
}

TEST_F(wanted_rules_test, failures_are_returned) {
    const struct {
        const char* operation;
        platform_status status;
    } failures[] = {{"datastore_bind", EIO}, {"datastore_list_get", EACCES}, {"datastore_list_fetch", EACCES}};
    for (const auto& failure : failures) {
        fake_platform::fail(failure.operation, EACCES);
        EXPECT_EQ(make(acl_ssh_v4), failure.status) << failure.operation;
        fake_platform::clear_failures();
    }
    fake_platform::set_list(list_path("list"), {{"10", "no record"}});
    EXPECT_NE(make(acl_ssh_v4), PLATFORM_OK);
    EXPECT_EQ(make(acl_ssh_v6), PLATFORM_OK);
}

TEST_F(wanted_rules_test, nothing_is_left_behind) {
    fake_platform::set_recording(false);
    const auto fetch_fails = [] {
        fake_platform::fail("datastore_list_fetch", EIO, 1);
        make(acl_ssh_v4);
        fake_platform::clear_failures();
    };
    EXPECT_EQ(bytes_left_by([] { make(acl_ssh_v4); }), 0U);
    EXPECT_EQ(bytes_left_by(fetch_fails), 0U);
    EXPECT_EQ(fake_platform::bindings(), 0U);
}

}  // namespace
