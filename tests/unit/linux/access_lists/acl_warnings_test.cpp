#include "linux/access_lists/acl_warnings.h"

#include "linux/access_lists/acl_service_internal.h"
#include "unit/linux/access_lists/list_support.h"
#include "unit/linux/control/calls_support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class acl_warnings_test : public control_test::calls_test {
  protected:
    void SetUp() override {
        calls_test::SetUp();
        ASSERT_EQ(acl_service_start(), PLATFORM_OK);
    }

    static void add_list(uint32_t family, const char* name, size_t entries = 1) {
        ASSERT_EQ(acl_test::store_list(family, name, std::vector<acl_stored_entry>(entries, {10, "record"})),
                  PLATFORM_OK);
    }

    /// The warnings in the answer to a successful request.
    std::vector<std::string> warnings(const std::string& request) {
        const control_json answer = ask(request);
        EXPECT_EQ(answer.value("result", ""), "done") << control_json_text(answer);
        return control_test::list_warnings(answer);
    }

    std::vector<std::string> bind(const std::string& item, const std::string& lists) {
        return warnings(R"({"call":"set","path":"@sshd/)" + item + R"(","value":)" + lists + "}");
    }
};

TEST_F(acl_warnings_test, a_list_that_does_not_exist_leaves_the_port_open) {
    add_list(ACL_FAMILY_IPV6, "ops6");
    EXPECT_THAT(bind("vrf/blue", R"([null,"opps","ops6"])"),
                ElementsAre("VRF blue: SSH is open to every IPv4 source: there is no IPv4 access list opps"));
    EXPECT_THAT(bind("vrf-netconf/blue", R"([null,"opps","sox"])"),
                ElementsAre("VRF blue: NETCONF is open to every IPv4 source: there is no IPv4 access list opps",
                            "VRF blue: NETCONF is open to every IPv6 source: there is no IPv6 access list sox"));
    // Setting the same value again changes nothing, but the warning still applies.
    EXPECT_EQ(bind("vrf/blue", R"([null,"opps","ops6"])").size(), 1U);
}

TEST_F(acl_warnings_test, an_empty_list_leaves_the_port_open) {
    add_list(ACL_FAMILY_IPV4, "ops", 0);
    add_list(ACL_FAMILY_IPV6, "ops");
    EXPECT_THAT(bind("vrf/blue", R"([null,"ops","ops"])"),
                ElementsAre("VRF blue: SSH is open to every IPv4 source: IPv4 access list ops is empty"));
}

TEST_F(acl_warnings_test, a_list_of_one_family_leaves_the_other_open) {
    add_list(ACL_FAMILY_IPV4, "ops");
    add_list(ACL_FAMILY_IPV6, "ops");
    EXPECT_THAT(bind("vrf/blue", R"([null,"ops"])"),
                ElementsAre("VRF blue: SSH is open to every IPv6 source: the item names only an IPv4 access list"));
    EXPECT_THAT(bind("vrf/blue", R"({"ipv6_acl":"ops"})"),
                ElementsAre("VRF blue: SSH is open to every IPv4 source: the item names only an IPv6 access list"));
    EXPECT_THAT(bind("vrf/blue", R"([null,"ops","ops"])"), IsEmpty());
    EXPECT_THAT(bind("vrf/blue", "[null]"), IsEmpty());
}

TEST_F(acl_warnings_test, a_load_warns_about_each_item_even_if_it_only_checks) {
    const std::string request =
        R"({"call":"load","check":true,"items":{"@sshd/vrf/blue":[null,"a","b"],"@sshd/vrf/red":[null,"a"],)"
        R"("@cmn/timeout":45}})";
    EXPECT_THAT(warnings(request),
                ElementsAre("VRF blue: SSH is open to every IPv4 source: there is no IPv4 access list a",
                            "VRF blue: SSH is open to every IPv6 source: there is no IPv6 access list b",
                            "VRF red: SSH is open to every IPv4 source: there is no IPv4 access list a",
                            "VRF red: SSH is open to every IPv6 source: the item names only an IPv4 access list"));
}

TEST_F(acl_warnings_test, the_default_vrf_may_lose_its_lists_but_keep_its_server) {
    add_list(ACL_FAMILY_IPV4, "ops");
    add_list(ACL_FAMILY_IPV6, "ops");
    const std::string lists = R"([null,"ops","ops"])";
    const std::string removal = R"({"call":"delete","path":"@sshd/vrf/default"})";
    bind("vrf/default", lists);
    EXPECT_THAT(warnings(removal), IsEmpty());
    ask(R"({"call":"set","path":"@sshd/v2","value":true})");
    bind("vrf/default", lists);
    EXPECT_THAT(warnings(removal),
                ElementsAre("VRF default: SSH is open to every source: sshd/v2 keeps its server running, "
                            "without access lists"));
    bind("vrf/default", "[null]");
    EXPECT_THAT(warnings(removal), IsEmpty());
    bind("vrf/default", lists);
    EXPECT_THAT(warnings(R"({"call":"delete","path":"@sshd/"})"), IsEmpty());
}

TEST_F(acl_warnings_test, a_list_in_use_is_emptied_or_deleted) {
    ask(R"({"call":"acl_set","family":"ipv4","name":"ops","lines":["permit tcp any any"]})");
    bind("vrf/blue", R"([null,"ops"])");
    bind("vrf/red", R"([null,"other","ops"])");
    bind("vrf-netconf/default", R"([null,"ops"])");
    EXPECT_THAT(warnings(R"({"call":"acl_set","family":"ipv4","name":"ops","lines":["# nobody"],"empty":true})"),
                ElementsAre("VRF blue: SSH is open to every IPv4 source: IPv4 access list ops is empty",
                            "VRF default: NETCONF is open to every IPv4 source: IPv4 access list ops is empty"));
    EXPECT_THAT(warnings(R"({"call":"acl_delete","family":"ipv4","name":"ops"})"),
                ElementsAre("VRF blue: SSH is open to every IPv4 source: there is no IPv4 access list ops",
                            "VRF default: NETCONF is open to every IPv4 source: there is no IPv4 access list ops"));
    EXPECT_THAT(warnings(R"({"call":"acl_set","family":"ipv4","name":"ops","lines":["permit tcp any any"]})"),
                IsEmpty());
}

}  // namespace
