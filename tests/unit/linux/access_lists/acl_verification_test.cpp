#include "linux/access_lists/acl_verification.h"

#include <sys/stat.h>

#include <cerrno>

#include "linux/access_lists/acl_line.h"
#include "linux/access_lists/acl_rule.h"
#include "platform/mpp.h"
#include "unit/linux/control/calls_support.h"
#include "unit/linux/platform_test_support.h"

namespace {

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// Makes a rule from the name of each entry's counter. "ignored_SERVICE" is ignored for that service, "closing_SERVICE"
/// closes its other ports, "bad" makes a rule that nft rejects, "broken" cannot be read.
platform_status make_test_rules(uint32_t family, uint32_t service, const acl_list_entry* entries, size_t count,
                                acl_entry_rule* entry_rules, acl_list_rules* rules, void* context) {
    ++*static_cast<int*>(context);
    const std::string service_name = service == MPP_SERVICE_SSH ? "ssh" : "netconf";
    std::string text = std::string("table ") + (family == ACL_FAMILY_IPV6 ? "ip6" : "ip") + " t {\n chain c {\n";
    for (size_t i = 0; i < count; i++) {
        acl_rule rule;
        const acl_stored_entry entry = {0, {static_cast<const char*>(entries[i].record), entries[i].size}};
        EXPECT_EQ(acl_decode_rule(family, entry, rule), PLATFORM_OK);
        if (rule.counter == "broken") {
            return RECORD_MALFORMED;
        }
        const bool ignored = rule.counter == "ignored_" + service_name || rule.counter == "ignored";
        const std::string made = ignored ? "" : rule.counter == "bad" ? "  tcp nonsense\n" : "  tcp dport 22 drop\n";
        entry_rules[i] = {ignored                                     ? ACL_ENTRY_IGNORED
                          : rule.counter == "closing_" + service_name ? ACL_ENTRY_CLOSES_OTHER_PORTS
                                                                      : ACL_ENTRY_MAKES_RULE,
                          text.size(), made.size()};
        text += made;
    }
    text += " }\n}\n";
    *rules = {strdup(text.c_str()), text.size(), service == MPP_SERVICE_SSH ? 22U : 830U};
    return PLATFORM_OK;
}

class unverified_lists_test : public control_test::calls_test {
  protected:
    void SetUp() override {
        calls_test::SetUp();
        ASSERT_EQ(acl_service_start(), PLATFORM_OK);
    }

    /// The answer to setting an IPv4 list that consists of these lines.
    control_json set(const std::vector<std::string>& lines, const char* name = "ops") {
        control_json request = {{"call", "acl_set"}, {"family", "ipv4"}, {"name", name}};
        request["lines"] = lines;
        return control_call(request, {42, 1000, 1001, true});
    }

    std::vector<std::string> warnings(const std::vector<std::string>& lines) {
        const control_json answer = set(lines);
        EXPECT_EQ(answer.value("result", ""), "done") << control_json_text(answer);
        return answer.value("warnings", std::vector<std::string>());
    }

    void bind(const char* item) {
        ask(R"({"call":"set","path":"@sshd/)" + std::string(item) + R"(","value":[null,"ops","ops"]})");
    }

    size_t stored_entries() {
        std::vector<acl_stored_entry> entries;
        acl_list_entries(ACL_FAMILY_IPV4, "ops", entries);
        return entries.size();
    }

    int verifier_calls = 0;
};

class acl_verification_test : public unverified_lists_test {
  protected:
    void SetUp() override {
        unverified_lists_test::SetUp();
        const acl_verifier verifier = {make_test_rules};
        ASSERT_EQ(acl_service_register_verifier(&verifier, &verifier_calls), PLATFORM_OK);
    }
};

constexpr char fine[] = "permit tcp any any";

TEST_F(acl_verification_test, a_list_rejected_by_nft_is_not_stored) {
    ASSERT_EQ(set({fine}).value("result", ""), "done");
    EXPECT_EQ(verifier_calls, 4);  // for the check and for the warnings
    const control_json answer =
        set({fine, "permit tcp any any counter bad", fine, "35 permit tcp any any counter bad"});
    EXPECT_EQ(answer.value("result", ""), "refused");
    const std::string message = answer.value("message", "");
    EXPECT_THAT(
        message,
        AllOf(testing::StartsWith(
                  "/access-lists/ipv4/ops: sequence 20: nft rejects its rule for SSH, \"tcp nonsense\": syntax error"),
              HasSubstr("\n/access-lists/ipv4/ops: sequence 35: nft rejects its rule for SSH")));
    EXPECT_EQ(std::count(message.begin(), message.end(), '\n'), 1) << message;
    EXPECT_EQ(stored_entries(), 1U);
}

TEST_F(acl_verification_test, many_refusals_are_counted) {
    const control_json answer = set(std::vector<std::string>(30, "permit tcp any any counter bad"));
    EXPECT_EQ(answer.value("result", ""), "refused");
    EXPECT_EQ(stored_entries(), 0U);
    // nft itself stops after ten errors.
    EXPECT_THAT(answer.value("message", ""), HasSubstr("sequence 100: "));
}

TEST_F(acl_verification_test, a_list_that_cannot_be_checked_is_not_stored) {
    const control_json broken = set({"permit tcp any any counter broken"});
    EXPECT_EQ(broken.value("result", ""), "failed");
    EXPECT_THAT(
        broken.value("message", ""),
        HasSubstr("/access-lists/ipv4/ops: cannot be checked, nothing has been changed: no rules can be made of it: "));
    std::filesystem::remove("/usr/sbin/nft");
    const control_json unchecked = set({fine});
    EXPECT_EQ(unchecked.value("result", ""), "failed");
    EXPECT_EQ(
        unchecked.value("message", ""),
        "/access-lists/ipv4/ops: cannot be checked, nothing has been changed: /usr/sbin/nft cannot be run: No such file or "
        "directory");
    EXPECT_EQ(stored_entries(), 0U);
    EXPECT_EQ(ask(R"({"call":"acl_set","family":"ipv4","name":"ops","lines":[],"empty":true})")["result"], "done");
}

TEST_F(unverified_lists_test, are_stored_without_a_check) {
    std::filesystem::remove("/usr/sbin/nft");
    EXPECT_EQ(set({"permit tcp any any counter bad"}).value("result", ""), "done");
    EXPECT_EQ(acl_service_register_verifier(nullptr, nullptr), platform_status{EINVAL});
    const acl_verifier none = {};
    EXPECT_EQ(acl_service_register_verifier(&none, nullptr), platform_status{EINVAL});
}

TEST_F(acl_verification_test, an_entry_for_another_port_causes_a_warning) {
    const std::vector<std::string> lines = {"permit tcp any any eq 22 counter ignored_netconf",
                                            "permit tcp any any eq 830 counter ignored_ssh",
                                            "permit tcp any any eq 80 counter ignored",
                                            "permit tcp any any eq 81 counter ignored",
                                            "permit udp any any counter ignored",
                                            "permit tcp any any counter ignored"};
    // A list that is not used yet may be intended for either service.
    EXPECT_THAT(
        warnings(lines),
        ElementsAre(
            "IPv4 access list ops: sequences 30 and 40 never match: their destination port is compared with 22 for "
            "SSH and with 830 for NETCONF",
            "IPv4 access list ops: sequence 60 is ignored: nftables has no form for such a wildcard mask"));
    bind("vrf/blue");
    EXPECT_THAT(
        warnings({fine, lines[1]}),
        ElementsAre("IPv4 access list ops: sequence 20 never matches: its destination port is compared with 22 for "
                    "SSH in VRF blue"));
    bind("vrf-netconf/red");
    EXPECT_THAT(warnings({fine, lines[1]}), IsEmpty());
    EXPECT_THAT(
        warnings({lines[2]}),
        ElementsAre("IPv4 access list ops: sequence 10 never matches: its destination port is compared with 22 for "
                    "SSH in VRF blue and with 830 for NETCONF in VRF red"));
}

TEST_F(acl_verification_test, an_entry_that_closes_other_ports_causes_a_warning) {
    EXPECT_THAT(
        warnings({"deny tcp any any neq 22 counter closing_ssh"}),
        ElementsAre("IPv4 access list ops: sequence 10 closes every TCP port but 22, also those of other programs, "
                    "where the list is used for SSH"));
    bind("vrf-netconf/red");
    EXPECT_THAT(warnings({"deny tcp any any neq 22 counter closing_ssh"}), IsEmpty());
    bind("vrf/red");
    bind("vrf/blue");
    EXPECT_THAT(
        warnings({fine, "deny tcp any any neq 22 counter closing_ssh"}),
        ElementsAre("IPv4 access list ops: sequence 20 closes every TCP port but 22, also those of other programs, "
                    "where the list is used for SSH in VRFs blue and red"));
}

TEST_F(acl_verification_test, items_cause_warnings_about_the_entries_of_their_lists) {
    std::vector<std::string> lines(7, "permit tcp any any eq 80 counter ignored");
    set(lines);
    ask(R"({"call":"acl_set","family":"ipv6","name":"ops","lines":["permit tcp any any"]})");
    verifier_calls = 0;
    const control_json answer = ask(R"({"call":"load","items":{"@sshd/vrf/blue":[null,"ops","ops"],)"
                                    R"("@sshd/vrf-netconf/blue":[null,"ops","ops"],"@cmn/timeout":45}})");
    EXPECT_EQ(
        control_test::list_warnings(answer),
        std::vector<std::string>{"IPv4 access list ops: sequences 10, 20, 30, 40, 50 and 2 more never match: their "
                                 "destination port is compared with 22 for SSH in VRF blue and with 830 for NETCONF "
                                 "in VRF blue"});
    EXPECT_EQ(verifier_calls, 4);  // once per list and service
    EXPECT_FALSE(ask(R"({"call":"set","path":"@cmn/timeout","value":46})").contains("warnings"));
    EXPECT_EQ(verifier_calls, 4);
}

}  // namespace
