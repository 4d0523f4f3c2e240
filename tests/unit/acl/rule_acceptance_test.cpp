/// Checks the rule files of generated entries with nft itself.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <random>

#include "acl_test.h"
#include "vrf/acl_types.h"

namespace {

/// The real nft, opened before its stub replaces it.
const int nft_program = open("/usr/sbin/nft", O_PATH | O_CLOEXEC);
constexpr char complaints_file[] = "/tmp/complaints";

/// Runs nft and returns its exit status; its output goes to complaints_file.
int run_nft(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "nft");
    arguments.push_back(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        const int complaints = creat(complaints_file, 0644);
        dup2(complaints, STDOUT_FILENO);
        dup2(complaints, STDERR_FILENO);
        fexecve(nft_program, const_cast<char**>(arguments.data()), environ);
        _exit(127);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/// All operators and an invalid code.
constexpr int32_t operations[] = {0, 1, 2, 3, 4, 5, 6};

uint32_t prefix_wildcard(int length) {
    return length == 0 ? UINT32_MAX : htonl(static_cast<uint32_t>((uint64_t{1} << (32 - length)) - 1));
}

void put_mask(uint8_t (&mask)[16], uint32_t& stored_length, uint32_t length) {
    memset(mask, 0, sizeof mask);
    for (uint32_t bit = 0; bit < length; bit++) {
        mask[bit / 8] |= static_cast<uint8_t>(0x80 >> (bit % 8));
    }
    stored_length = length;
}

class rule_acceptance_test : public acl_test {
  protected:
    rule_acceptance_test() {
        fake_platform::preset_debug_flag(debug_cfg_agent, false);
        EXPECT_GE(nft_program, 0);
        create_nft_table("red");
        EXPECT_EQ(run_nft({"-f", "/tmp/norvo-ssh/access-list/vrf-red_norvossh_acl_all.nft"}), 0)
            << read_file(complaints_file);
    }

    template <typename entry_type>
    static std::string made_file(const std::vector<entry_type>& entries, uint32_t type) {
        FILE* stream = nullptr;
        EXPECT_EQ(norvossh_acl_init_table("red", &stream, type), 0);
        for (const entry_type& entry : entries) {
            if constexpr (std::is_same_v<entry_type, acl_ipv4_entry>) {
                ssh_convert_ipv4_acl_rule(entry, stream, type);
            } else {
                ssh_convert_ipv6_acl_rule(entry, stream, type);
            }
        }
        ssh_nft_fp_close(type, stream);
        fclose(stream);
        return get_nft_file_name("red", type);
    }

    /// nft accepts the file, which has at least `least` lines.
    template <typename entry_type>
    static void expect_accepted(const std::vector<entry_type>& entries, uint32_t type, size_t least) {
        const std::string file = made_file(entries, type);
        EXPECT_GE(file_lines(file).size(), least);
        EXPECT_EQ(run_nft({"-c", "-f", file.c_str()}), 0) << read_file(complaints_file).substr(0, 2000);
    }

    /// nft refuses the entry's rule, whose text is `rule`, with this complaint.
    template <typename entry_type>
    static void expect_refused(const entry_type& entry, uint32_t type, const std::string& rule,
                               const std::string& complaint) {
        const std::string file = made_file(std::vector<entry_type>{entry}, type);
        EXPECT_THAT(file_lines(file), testing::Contains(rule));
        EXPECT_NE(run_nft({"-c", "-f", file.c_str()}), 0);
        EXPECT_THAT(read_file(complaints_file), testing::HasSubstr(complaint));
    }

    uint32_t below(uint32_t end) { return std::uniform_int_distribution<uint32_t>(0, end - 1)(random); }
    int32_t operation() { return operations[below(std::size(operations))]; }

    /// Two numbers from 0 to `highest` for a condition, the lower one first.
    template <typename number_type>
    void put_numbers(number_type& first, number_type& second, uint32_t highest) {
        const uint32_t one = below(highest + 1);
        const uint32_t other = below(highest + 1);
        first = static_cast<number_type>(std::min(one, other));
        second = static_cast<number_type>(std::max(one, other));
    }

    acl_ipv4_entry any_ipv4() {
        acl_ipv4_entry entry = ipv4_entry(below(3));
        entry.ProtocolOperator = static_cast<uint16_t>(below(2));
        entry.Protocol = entry.ProtocolOperator != 0 ? ACL_PROTOCOL_TCP : ACL_PROTOCOL_ANY_IPV4;
        entry.SourceAddress = below(UINT32_MAX);
        entry.SourceAddressMask = below(4) == 0 ? below(UINT32_MAX) : prefix_wildcard(static_cast<int>(below(33)));
        entry.DestinationAddress = below(UINT32_MAX);
        entry.DestinationAddressMask = prefix_wildcard(static_cast<int>(below(33)));
        entry.SourceOperator = operation();
        put_numbers(entry.SourcePort1, entry.SourcePort2, 65535);
        entry.DestinationOperator = operation();
        put_numbers(entry.DestinationPort1, entry.DestinationPort2, 1000);
        entry.LogOption = static_cast<int32_t>(below(2));
        entry.CounterName = below(2) != 0 ? counter : nullptr;
        entry.DSCPPresent = below(2);
        entry.DSCPOperator = static_cast<uint8_t>(operation());
        put_numbers(entry.DSCP, entry.DSCP2, 63);
        entry.TCPFlagsOperator = static_cast<int32_t>(below(4));
        entry.TCPFlags = static_cast<uint8_t>(below(256));
        entry.TCPFlagsMask = static_cast<uint8_t>(below(256));
        entry.PacketLengthOperator = operation();
        put_numbers(entry.PacketLength1, entry.PacketLength2, 65535);
        entry.TTLOperator = operation();
        put_numbers(entry.TTL1, entry.TTL2, 255);
        entry.FragmentOffsetOperator = operation();
        put_numbers(entry.FragmentOffset1, entry.FragmentOffset2, 65535);
        return entry;
    }

    acl_ipv6_entry any_ipv6() {
        acl_ipv6_entry entry = ipv6_entry(below(3));
        entry.IsProtocolOperator = static_cast<uint16_t>(below(2));
        entry.IsIPV6ProtocolType = entry.IsProtocolOperator != 0 ? ACL_PROTOCOL_TCP : ACL_PROTOCOL_ANY_IPV6;
        for (size_t i = 0; i < 16; i++) {
            entry.IsSourceAddressInNumbers[i] = static_cast<uint8_t>(below(256) * below(2));
            entry.IsDestinationAddressInNumbers[i] = static_cast<uint8_t>(below(256) * below(2));
        }
        put_mask(entry.SourceMask, entry.IsSourceAddressPrefixLength, below(129));
        put_mask(entry.DestinationMask, entry.IsDestinationAddressPrefixLength, below(129));
        entry.IsSourceOperator = operation();
        put_numbers(entry.IsSourcePort1, entry.IsSourcePort2, 65535);
        entry.IsDestinationOperator = operation();
        put_numbers(entry.IsDestinationPort1, entry.IsDestinationPort2, 1000);
        entry.IsLogOption = static_cast<int32_t>(below(2));
        entry.CounterName = below(2) != 0 ? counter : nullptr;
        entry.IsTCPBitsOperator = static_cast<int32_t>(below(4));
        entry.IsTCPBits = static_cast<uint8_t>(below(256));
        entry.IsTCPBitsMask = static_cast<uint8_t>(below(256));
        entry.IsDSCPPresent = below(2);
        entry.DSCPOperator = static_cast<uint8_t>(operation());
        put_numbers(entry.IsDSCPValu, entry.IsDSCPValu2, 63);
        entry.IsPacketLengthOperator = operation();
        put_numbers(entry.IsPacketLengthStart, entry.IsPacketLengthEnd, 65535);
        entry.IsTimeToLiveOperator = operation();
        put_numbers(entry.IsTimeToLiveStart, entry.IsTimeToLiveEnd, 255);
        return entry;
    }

    std::mt19937 random{20250101};
    char counter[8] = "hits";
};

}  // namespace

TEST_F(rule_acceptance_test, every_ipv4_condition_on_its_own) {
    std::vector<acl_ipv4_entry> entries;
    for (const int32_t each : operations) {
        for (const auto& [first, second] : {std::pair<uint16_t, uint16_t>{0, 0}, {1, 9}, {22, 22}, {63, 63}}) {
            acl_ipv4_entry entry = ipv4_entry();
            entry.SourceOperator = each;
            entry.SourcePort1 = first;
            entry.SourcePort2 = second;
            entries.push_back(entry);
            entry = ipv4_entry();
            entry.DestinationOperator = each;
            entry.DestinationPort1 = first;
            entry.DestinationPort2 = second;
            entries.push_back(entry);
            entry = ipv4_entry();
            entry.DSCPPresent = 1;
            entry.DSCPOperator = static_cast<uint8_t>(each);
            entry.DSCP = static_cast<uint8_t>(first);
            entry.DSCP2 = static_cast<uint8_t>(second);
            entries.push_back(entry);
            entry = ipv4_entry();
            entry.PacketLengthOperator = entry.TTLOperator = entry.FragmentOffsetOperator = each;
            entry.PacketLength1 = entry.TTL1 = entry.FragmentOffset1 = first;
            entry.PacketLength2 = entry.TTL2 = entry.FragmentOffset2 = second;
            entries.push_back(entry);
        }
    }
    expect_accepted(entries, acl_ssh_v4, 80);
    expect_accepted(entries, acl_netconf_v4, 80);
}

TEST_F(rule_acceptance_test, every_ipv4_mask) {
    std::vector<acl_ipv4_entry> entries;
    for (int length = 0; length <= 32; length++) {
        acl_ipv4_entry entry = ipv4_entry();
        entry.SourceAddress = ipv4("203.0.113.129");
        entry.SourceAddressMask = prefix_wildcard(length);
        entry.DestinationAddress = ipv4("198.51.100.77");
        entry.DestinationAddressMask = prefix_wildcard(32 - length);
        entries.push_back(entry);
        // In a wildcard with gaps only the bits before the first gap count.
        entry.SourceAddressMask = prefix_wildcard(length) | htonl(0x00100000);
        entries.push_back(entry);
    }
    expect_accepted(entries, acl_ssh_v4, 60);
}

TEST_F(rule_acceptance_test, every_set_of_tcp_flags) {
    std::vector<acl_ipv4_entry> ipv4_entries;
    std::vector<acl_ipv6_entry> ipv6_entries;
    for (int mask = 0; mask < 256; mask += mask < 64 ? 1 : 37) {
        for (const int set : {0, 2, 18, 63, 255}) {
            acl_ipv4_entry entry = ipv4_entry();
            entry.TCPFlagsOperator = 1 + mask % 2;
            entry.TCPFlags = static_cast<uint8_t>(set);
            entry.TCPFlagsMask = static_cast<uint8_t>(mask);
            ipv4_entries.push_back(entry);
            acl_ipv6_entry entry6 = ipv6_entry();
            entry6.IsTCPBitsOperator = entry.TCPFlagsOperator;
            entry6.IsTCPBits = entry.TCPFlags;
            entry6.IsTCPBitsMask = entry.TCPFlagsMask;
            ipv6_entries.push_back(entry6);
        }
    }
    expect_accepted(ipv4_entries, acl_ssh_v4, 320);
    expect_accepted(ipv6_entries, acl_netconf_v6, 320);
}

TEST_F(rule_acceptance_test, every_ipv6_prefix) {
    std::vector<acl_ipv6_entry> entries;
    for (uint32_t length = 0; length <= 128; length++) {
        acl_ipv6_entry entry = ipv6_entry();
        put_ipv6(entry.IsSourceAddressInNumbers, "2001:db8:1:2:3:4:5:6");
        put_mask(entry.SourceMask, entry.IsSourceAddressPrefixLength, length);
        put_ipv6(entry.IsDestinationAddressInNumbers, "::ffff:192.0.2.1");
        put_mask(entry.DestinationMask, entry.IsDestinationAddressPrefixLength, 128 - length);
        entries.push_back(entry);
    }
    expect_accepted(entries, acl_ssh_v6, 129);
    expect_accepted(entries, acl_netconf_v6, 129);
}

TEST_F(rule_acceptance_test, entries_with_all_conditions_at_once) {
    std::vector<acl_ipv4_entry> ipv4_entries;
    std::vector<acl_ipv6_entry> ipv6_entries;
    for (int i = 0; i < 4000; i++) {
        ipv4_entries.push_back(any_ipv4());
        ipv6_entries.push_back(any_ipv6());
    }
    expect_accepted(ipv4_entries, acl_ssh_v4, 1000);
    expect_accepted(ipv4_entries, acl_netconf_v4, 1000);
    expect_accepted(ipv6_entries, acl_ssh_v6, 1000);
    expect_accepted(ipv6_entries, acl_netconf_v6, 1000);
}

// Rules that nft refuses. They are written nevertheless, and the operator sees that the load failed.

TEST_F(rule_acceptance_test, a_mask_with_gaps_is_refused_in_ipv6) {
    acl_ipv6_entry entry = ipv6_entry();
    put_ipv6(entry.IsSourceAddressInNumbers, "2001:db8::");
    put_ipv6(entry.SourceMask, "ffff:0:ffff::");
    expect_refused(entry, acl_ssh_v6,
                   "               ip6 saddr 2001:db8:: ffff:0:ffff:: ip6 daddr ::/0 tcp dport 22 accept ",
                   "Error: No symbol type information");
    entry = ipv6_entry();
    put_ipv6(entry.IsDestinationAddressInNumbers, "2001:db8::");
    put_ipv6(entry.DestinationMask, "ffff:0:ffff::");
    expect_refused(entry, acl_ssh_v6,
                   "                ip6 saddr ::/0 ip6 daddr 2001:db8:: ffff:0:ffff:: tcp dport 22 accept ",
                   "Error: No symbol type information");
}

TEST_F(rule_acceptance_test, a_prefix_length_that_contradicts_its_mask_is_refused) {
    acl_ipv6_entry entry = ipv6_entry();
    put_ipv6(entry.IsSourceAddressInNumbers, "2001:db8::");
    put_ipv6(entry.SourceMask, "ffff:ffff::");
    entry.IsSourceAddressPrefixLength = 48;
    expect_refused(entry, acl_netconf_v6,
                   "               ip6 saddr 2001:db8:: ffff:ffff:: ip6 daddr ::/0 tcp dport 830 accept ",
                   "Error: No symbol type information");
}

TEST_F(rule_acceptance_test, a_reversed_range_is_refused) {
    acl_ipv4_entry entry = ipv4_entry();
    entry.SourceOperator = 5;
    entry.SourcePort1 = 30;
    entry.SourcePort2 = 20;
    expect_refused(entry, acl_ssh_v4,
                   "                ip saddr 0.0.0.0/0 tcp sport 30-20 ip daddr 0.0.0.0/0 tcp dport 22 accept ",
                   "Range has zero or negative size");
}

TEST_F(rule_acceptance_test, numbers_too_large_for_their_field_are_refused) {
    acl_ipv4_entry entry = ipv4_entry();
    entry.DSCPPresent = 1;
    entry.DSCP = 64;
    expect_refused(entry, acl_ssh_v4,
                   "                ip saddr 0.0.0.0/0 ip daddr 0.0.0.0/0 ip dscp eq 64 tcp dport 22 accept ",
                   "Value 64 exceeds valid range 0-63");
    entry = ipv4_entry();
    entry.TTLOperator = 1;
    entry.TTL1 = 256;
    expect_refused(entry, acl_ssh_v4,
                   "                ip saddr 0.0.0.0/0 ip daddr 0.0.0.0/0 ip ttl eq 256 tcp dport 22 accept ", "256");
}
