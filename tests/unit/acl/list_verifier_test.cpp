#include "acl/list_verifier.h"

#include "acl_test.h"
#include "call_faults.h"
#include "platform/mpp.h"
#include "usage.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;

constexpr char ssh_head[] =
    "table ip norvossh_v4acl {\n"
    "}\n"
    "flush table ip norvossh_v4acl\n"
    "\n"
    "table ip norvossh_v4acl {\n"
    "        chain input {\n"
    "                type filter hook input priority 0; policy accept;\n"
    "               ct state established accept\n";

constexpr char ssh_tail[] =
    "        ip saddr & 0.0.0.0 == 0.0.0.0 ip daddr & 0.0.0.0 == 0.0.0.0  tcp dport 22 drop\n"
    "        }\n"
    "}\n";

class list_verifier_test : public acl_test {
  protected:
    list_verifier_test() { register_acl_verifier(); }

    static fake_platform::acl_rules made(uint32_t service, const std::vector<acl_ipv4_entry>& entries) {
        std::vector<std::string> records;
        for (const acl_ipv4_entry& entry : entries) {
            records.push_back(encoded(acl_service_ipv4_entry_descriptor(), entry));
        }
        return fake_platform::make_acl_rules(ACL_FAMILY_IPV4, service, records);
    }

    static fake_platform::acl_rules made(uint32_t service, const std::vector<acl_ipv6_entry>& entries) {
        std::vector<std::string> records;
        for (const acl_ipv6_entry& entry : entries) {
            records.push_back(encoded(acl_service_ipv6_entry_descriptor(), entry));
        }
        return fake_platform::make_acl_rules(ACL_FAMILY_IPV6, service, records);
    }

    static acl_ipv4_entry ipv4_to_port(uint32_t grant, int32_t operation, uint16_t port) {
        acl_ipv4_entry entry = ipv4_entry(grant);
        entry.DestinationOperator = operation;
        entry.DestinationPort1 = port;
        return entry;
    }

    static acl_ipv6_entry ipv6_to_port(uint32_t grant, int32_t operation, uint16_t port) {
        acl_ipv6_entry entry = ipv6_entry(grant);
        entry.IsDestinationOperator = operation;
        entry.IsDestinationPort1 = port;
        return entry;
    }

    static std::vector<acl_entry_effect> effects(const fake_platform::acl_rules& rules) {
        std::vector<acl_entry_effect> found;
        for (const acl_entry_rule& rule : rules.entries) {
            found.push_back(rule.effect);
        }
        return found;
    }
};

TEST_F(list_verifier_test, makes_the_file_to_load_and_the_table_it_needs) {
    const auto rules = made(MPP_SERVICE_SSH, std::vector{ipv4_entry(permit), ipv4_entry(deny)});
    ASSERT_EQ(rules.status, PLATFORM_OK);
    const std::string accept = "                ip saddr 0.0.0.0/0 ip daddr 0.0.0.0/0 tcp dport 22 accept \n";
    const std::string drop = "                ip saddr 0.0.0.0/0 ip daddr 0.0.0.0/0 tcp dport 22 drop \n";
    EXPECT_EQ(rules.text, ssh_head + accept + drop + ssh_tail);
    ASSERT_EQ(rules.entries.size(), 2U);
    EXPECT_EQ(rules.text.substr(rules.entries[0].offset, rules.entries[0].size), accept);
    EXPECT_EQ(rules.text.substr(rules.entries[1].offset, rules.entries[1].size), drop);
}

TEST_F(list_verifier_test, the_text_is_the_lists_rule_file) {
    acl_ipv4_entry host = ipv4_entry(permit);
    host.SourceAddress = ipv4("192.0.2.1");
    host.SourceAddressMask = 0;
    name(red->ssh_v4_acl, "ops");
    set_list("ops", {host, ipv4_entry(deny)});
    ASSERT_EQ(ssh_configure_v4acl(nullptr, red, 0), 0);
    EXPECT_EQ("table ip norvossh_v4acl {\n}\n" + read_file(rule_file("red", "norvossh_v4acl")),
              made(MPP_SERVICE_SSH, std::vector{host, ipv4_entry(deny)}).text);
}

TEST_F(list_verifier_test, covers_both_services_in_both_families) {
    struct row {
        fake_platform::acl_rules rules;
        const char* table;
        const char* port;
        uint32_t compared_port;
    };
    const row rows[] = {
        {made(MPP_SERVICE_SSH, std::vector{ipv4_entry()}), "table ip norvossh_v4acl {\n}\n", "tcp dport 22 accept", 22},
        {made(MPP_SERVICE_NETCONF, std::vector{ipv4_entry()}), "table ip netconf_v4acl {\n}\n", "tcp dport 830 accept",
         830},
        {made(MPP_SERVICE_SSH, std::vector{ipv6_entry()}), "table ip6 norvossh_v6acl {\n}\n", "tcp dport 22 accept",
         830},
        {made(MPP_SERVICE_NETCONF, std::vector{ipv6_entry()}), "table ip6 netconf_v6acl {\n}\n", "tcp dport 830 accept",
         830},
    };
    for (const row& each : rows) {
        EXPECT_THAT(each.rules.text, StartsWith(each.table));
        EXPECT_THAT(each.rules.text, HasSubstr(each.port));
        EXPECT_EQ(each.rules.compared_port, each.compared_port) << each.table;
    }
}

TEST_F(list_verifier_test, reports_the_rule_of_each_entry) {
    acl_ipv4_entry udp = ipv4_entry();
    udp.Protocol = 17;
    acl_ipv4_entry odd_mask = ipv4_entry();
    odd_mask.SourceAddressMask = ipv4("255.0.0.0");
    const std::vector entries = {ipv4_to_port(deny, ACL_NE, 22),
                                 udp,
                                 ipv4_to_port(permit, ACL_NE, 22),
                                 ipv4_to_port(permit, ACL_EQ, 830),
                                 odd_mask,
                                 ipv4_to_port(deny, ACL_NE, 830),
                                 ipv4_entry()};
    const auto ssh = made(MPP_SERVICE_SSH, entries);
    EXPECT_THAT(effects(ssh),
                testing::ElementsAre(ACL_ENTRY_CLOSES_OTHER_PORTS, ACL_ENTRY_IGNORED, ACL_ENTRY_MAKES_RULE,
                                     ACL_ENTRY_IGNORED, ACL_ENTRY_IGNORED, ACL_ENTRY_MAKES_RULE, ACL_ENTRY_MAKES_RULE));
    EXPECT_EQ(ssh.entries[1].size, 0U);
    EXPECT_THAT(ssh.text.substr(ssh.entries[6].offset, ssh.entries[6].size), HasSubstr("tcp dport 22 accept"));
    EXPECT_THAT(
        effects(made(MPP_SERVICE_NETCONF, entries)),
        testing::ElementsAre(ACL_ENTRY_MAKES_RULE, ACL_ENTRY_IGNORED, ACL_ENTRY_MAKES_RULE, ACL_ENTRY_MAKES_RULE,
                             ACL_ENTRY_IGNORED, ACL_ENTRY_CLOSES_OTHER_PORTS, ACL_ENTRY_MAKES_RULE));
    // In IPv6, both services compare with port 830.
    EXPECT_THAT(
        effects(made(MPP_SERVICE_SSH, std::vector{ipv6_to_port(permit, ACL_EQ, 22), ipv6_to_port(deny, ACL_NE, 830)})),
        testing::ElementsAre(ACL_ENTRY_IGNORED, ACL_ENTRY_CLOSES_OTHER_PORTS));
}

TEST_F(list_verifier_test, an_entry_that_cannot_be_decoded_is_an_error) {
    EXPECT_NE(fake_platform::make_acl_rules(ACL_FAMILY_IPV4, MPP_SERVICE_SSH, {"nonsense"}).status, PLATFORM_OK);
    EXPECT_TRUE(fake_platform::make_acl_rules(ACL_FAMILY_IPV4, MPP_SERVICE_SSH, {}).entries.empty());
}

TEST_F(list_verifier_test, exhausted_memory_is_an_error) {
    for (const char* call : {"open_memstream", "stdio_write", "fclose"}) {
        call_faults::fail_call(call, ENOMEM, call_faults::once);
        const auto rules = made(MPP_SERVICE_SSH, std::vector{ipv4_entry()});
        call_faults::clear();
        EXPECT_EQ(rules.status, platform_status{ENOMEM}) << call;
        EXPECT_EQ(rules.text, "") << call;
    }
}

TEST_F(list_verifier_test, no_memory_remains_allocated) {
    char counter[] = "hits";
    acl_ipv4_entry counted = ipv4_entry();
    counted.CounterName = counter;
    const std::string record = encoded(acl_service_ipv4_entry_descriptor(), counted);
    const auto verify = [](const std::vector<std::string>& records) {
        fake_platform::make_acl_rules(ACL_FAMILY_IPV4, MPP_SERVICE_SSH, records);
    };
    fake_platform::set_recording(false);
    EXPECT_EQ(bytes_left_by([&] { verify({record, record}); }), 0U);
    EXPECT_EQ(bytes_left_by([&] { verify({record, "nonsense"}); }), 0U);
    EXPECT_EQ(bytes_left_by([&] {
                  call_faults::fail_call("fclose", ENOMEM, call_faults::once);
                  verify({record});
                  call_faults::clear();
              }),
              0U);
}

TEST_F(list_verifier_test, nothing_is_written_or_loaded) {
    made(MPP_SERVICE_SSH, std::vector{ipv4_entry()});
    EXPECT_FALSE(std::filesystem::exists("/tmp/norvo-ssh"));
    EXPECT_TRUE(loads().empty());
}

TEST_F(list_verifier_test, the_agent_registers_its_verifier_at_start_up) {
    fake_platform::reset();
    register_acl_entries();
    EXPECT_EQ(fake_platform::make_acl_rules(ACL_FAMILY_IPV4, MPP_SERVICE_SSH, {}).status, platform_status{ENOENT});
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_EQ(fake_platform::make_acl_rules(ACL_FAMILY_IPV4, MPP_SERVICE_SSH, {}).status, PLATFORM_OK);
}

TEST_F(list_verifier_test, start_up_succeeds_on_a_platform_without_list_verification) {
    fake_platform::fail("acl_service_register_verifier", ENOSYS);
    EXPECT_EQ(start_agent(), START_UP_DONE);
    EXPECT_THAT(fake_platform::log_texts(),
                testing::Contains(HasSubstr("The verifier of access lists is not registered")));
}

}  // namespace
