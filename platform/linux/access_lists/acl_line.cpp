#include "linux/access_lists/acl_line.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <optional>

#include "common/number.h"
#include "common/text.h"

namespace {

constexpr size_t shown_word = 60;
constexpr uint32_t sequence_step = 10;
constexpr uint32_t sequence_max = 2147483646;

struct named_number {
    const char* name;
    uint32_t number;
};

constexpr named_number protocols[] = {{"tcp", 6}, {"udp", 17}, {"icmp", 1}, {"icmpv6", 58}, {"gre", 47}, {"esp", 50}};
constexpr named_number ports[] = {{"ssh", 22}, {"telnet", 23}, {"domain", 53},
                                  {"www", 80}, {"https", 443}, {"netconf", 830}};
constexpr named_number flags[] = {{"fin", 1}, {"syn", 2}, {"rst", 4}, {"psh", 8}, {"ack", 16}, {"urg", 32}};
constexpr named_number no_names[] = {{nullptr, 0}};

template <size_t count>
const named_number* find_name(const named_number (&names)[count], std::string_view name) {
    const auto* found = std::find_if(
        names, names + count, [name](const named_number& row) { return row.name != nullptr && name == row.name; });
    return found != names + count ? found : nullptr;
}

template <size_t count>
std::string name_of(const named_number (&names)[count], uint32_t number) {
    for (const named_number& row : names) {
        if (row.name != nullptr && row.number == number) {
            return row.name;
        }
    }
    return std::to_string(number);
}

const acl_operator_row* find_operator(std::string_view word) {
    const auto* found = std::ranges::find_if(
        acl_operators, [word](const acl_operator_row& row) { return row.word != nullptr && word == row.word; });
    return found != std::end(acl_operators) ? found : nullptr;
}

/// The keyword of the operator; its code if there is no such operator.
std::string operator_word(uint32_t code) {
    return code < ACL_OPERATOR_COUNT && acl_operators[code].word != nullptr ? acl_operators[code].word
                                                                            : std::to_string(code);
}

std::string quoted(std::string_view word) {
    return '"' + text_escape(word, shown_word) + '"';
}

constexpr uint32_t protocol_max = 255;
constexpr uint8_t ack_flag = 16;
constexpr size_t counter_max = 64;

class line_parser {
  public:
    line_parser(uint32_t family, std::string_view line, acl_rule& rule, std::string& error)
        : ipv6_(family == ACL_FAMILY_IPV6), rule_(rule), error_(error) {
        constexpr std::string_view blanks = " \t\r";
        for (size_t at = line.find_first_not_of(blanks); at != std::string_view::npos;) {
            const size_t end = std::min(line.find_first_of(blanks, at), line.size());
            words_.push_back(line.substr(at, end - at));
            at = line.find_first_not_of(blanks, end);
        }
    }

    bool parse() {
        if (words_.empty() || words_[0][0] == '#' || words_[0][0] == '!') {
            return false;
        }
        if (!parse_sequence() || next_is("remark")) {
            return false;
        }
        return parse_action() && parse_protocol() && parse_end(rule_.source, ACL_SOURCE_PORT, "source") &&
               parse_end(rule_.destination, ACL_DESTINATION_PORT, "destination") && parse_options();
    }

  private:
    bool fail(const std::string& message) {
        error_ = message;
        return false;
    }

    bool more() const { return next_ < words_.size(); }
    std::string_view word() const { return more() ? words_[next_] : std::string_view(); }
    bool next_is(std::string_view name) const { return more() && word() == name; }
    bool take(std::string_view name) {
        const bool taken = next_is(name);
        next_ += taken ? 1 : 0;
        return taken;
    }

    static bool whole_number(std::string_view text, uint32_t& number) {
        const std::optional<uint32_t> parsed = number_parse<uint32_t>(text);
        number = parsed.value_or(number);
        return parsed.has_value();
    }

    template <size_t count>
    bool parse_number(const named_number (&names)[count], uint32_t highest, const char* what, uint32_t& number) {
        const named_number* named = find_name(names, word());
        if (named != nullptr) {
            number = named->number;
        } else if (!whole_number(word(), number) || number > highest) {
            return fail(quoted(word()) + ": expected a " + what + ", a number from 0 to " + std::to_string(highest));
        }
        next_++;
        return true;
    }

    bool parse_sequence() {
        uint32_t number = 0;
        if (!whole_number(word(), number)) {
            return true;
        }
        if (number == 0 || number > sequence_max) {
            return fail("sequence " + quoted(word()) + ": expected a number from 1 to " + std::to_string(sequence_max));
        }
        rule_.sequence = number;
        next_++;
        return true;
    }

    bool parse_action() {
        for (size_t i = 0; i < std::size(acl_action_names); i++) {
            if (take(acl_action_names[i])) {
                rule_.action = static_cast<int32_t>(i);
                return true;
            }
        }
        return fail(quoted(word()) + ": expected permit or deny");
    }

    bool parse_protocol() {
        if (take("ip") || take(ipv6_ ? "ipv6" : "ipv4")) {
            rule_.any_protocol = true;
            return true;
        }
        if (find_name(protocols, word()) == nullptr && (word().empty() || word()[0] < '0' || word()[0] > '9')) {
            return fail(quoted(word()) + ": expected a protocol: tcp, udp, icmp, ip or a number from 0 to 255");
        }
        return parse_number(protocols, protocol_max, "protocol", rule_.protocol);
    }

    bool parse_end(acl_address& address, acl_condition_id port, const char* which) {
        if (!parse_address(address, which)) {
            return false;
        }
        if (find_operator(word()) == nullptr) {
            return true;
        }
        if (rule_.any_protocol || (rule_.protocol != 6 && rule_.protocol != 17)) {
            return fail(quoted(word()) + ": a port requires protocol tcp or udp");
        }
        return parse_condition(ports, acl_conditions[port], "port");
    }

    bool parse_address(acl_address& address, const char* which) {
        if (take("any")) {
            address = {};
            if (!ipv6_) {
                address.mask.fill(0xff);
            }
            return true;
        }
        const bool host = take("host");
        const std::string_view text = word();
        const size_t slash = text.find('/');
        if (!read_address(text.substr(0, slash), address.address)) {
            return fail(quoted(text) + ": expected the " + which + ": any, host ADDRESS, ADDRESS/LENGTH" +
                        (ipv6_ ? "" : " or ADDRESS WILDCARD"));
        }
        next_++;
        if (host && slash != std::string_view::npos) {
            return fail(quoted(text) + ": a host address takes no prefix length");
        }
        if (slash != std::string_view::npos) {
            if (!parse_length(text, slash, address)) {
                return false;
            }
        } else if (!host && !ipv6_ && read_address(word(), address.mask)) {
            next_++;
        } else {
            set_length(address, ipv6_ ? 128 : 32);
        }
        clear_what_does_not_count(address);
        return true;
    }

    /// The list then shows what is really compared, and equal conditions look the same.
    void clear_what_does_not_count(acl_address& address) const {
        for (size_t i = 0; i < address.address.size(); i++) {
            address.address[i] &= ipv6_ ? address.mask[i] : static_cast<uint8_t>(~address.mask[i]);
        }
    }

    bool read_address(std::string_view text, std::array<uint8_t, 16>& address) const {
        address = {};
        return inet_pton(ipv6_ ? AF_INET6 : AF_INET, std::string(text).c_str(), address.data()) == 1;
    }

    bool parse_length(std::string_view text, size_t slash, acl_address& address) {
        const uint32_t longest = ipv6_ ? 128 : 32;
        uint32_t length = 0;
        if (!whole_number(text.substr(slash + 1), length) || length > longest) {
            return fail(quoted(text) + ": expected a prefix length from 0 to " + std::to_string(longest));
        }
        set_length(address, length);
        return true;
    }

    /// Builds the mask of a prefix: a network mask in IPv6, its complement in IPv4.
    void set_length(acl_address& address, uint32_t length) const {
        address.mask = {};
        for (uint32_t bit = 0; bit < length; bit++) {
            address.mask[bit / 8] |= static_cast<uint8_t>(0x80 >> (bit % 8));
        }
        address.prefix_length = length;
        for (size_t i = 0; i < 4 && !ipv6_; i++) {
            address.mask[i] = static_cast<uint8_t>(~address.mask[i]);
        }
    }

    template <size_t count>
    bool parse_condition(const named_number (&names)[count], const acl_condition_row& row, const char* what) {
        acl_condition& condition = rule_.conditions[row.condition];
        const acl_operator_row* operation = find_operator(word());
        condition.operation = operation != nullptr ? static_cast<int32_t>(operation->code) : ACL_EQ;
        next_ += operation != nullptr ? 1 : 0;
        if (!parse_number(names, row.line_max, what, condition.first)) {
            return false;
        }
        if (condition.operation != ACL_RANGE) {
            return true;
        }
        if (!parse_number(names, row.line_max, what, condition.second)) {
            return false;
        }
        if (condition.first > condition.second) {
            return fail("range " + std::to_string(condition.first) + ' ' + std::to_string(condition.second) +
                        ": range is reversed; expected the lower " + what + " first");
        }
        return true;
    }

    bool parse_options() {
        while (more()) {
            if (!parse_option()) {
                return false;
            }
        }
        return true;
    }

    /// With a duplicate option, one of the two would silently be ignored.
    bool is_new_option() {
        const std::string_view name = next_is("established") ? "tcp-flags" : word();
        if (std::find(seen_options_.begin(), seen_options_.end(), name) != seen_options_.end()) {
            return false;
        }
        seen_options_.push_back(name);
        return true;
    }

    bool parse_option() {
        if (!is_new_option()) {
            return fail(quoted(word()) + ": duplicate option; expected each option once");
        }
        if (take("log")) {
            rule_.log = true;
            return true;
        }
        if (take("counter")) {
            return parse_counter();
        }
        if (take("established")) {
            rule_.tcp_flags_operation = 1;
            rule_.tcp_flags = rule_.tcp_flags_mask = ack_flag;
            return check_tcp("established");
        }
        if (take("tcp-flags")) {
            return parse_flags();
        }
        for (const acl_condition_row& row : acl_conditions) {
            if (row.keyword == nullptr || !acl_family_has(acl_fields_of(row, ipv6_))) {
                continue;
            }
            if (take(row.keyword)) {
                return parse_condition(no_names, row, row.keyword);
            }
        }
        return fail(quoted(word()) + ": unknown option; the options are " + option_names());
    }

    std::string option_names() const {
        std::string names = "log, counter, established, tcp-flags";
        std::string last;
        for (const acl_condition_row& row : acl_conditions) {
            if (row.keyword != nullptr && acl_family_has(acl_fields_of(row, ipv6_))) {
                names += last.empty() ? "" : ", " + last;
                last = row.keyword;
            }
        }
        return names + " and " + last;
    }

    bool check_tcp(const char* option) {
        return !rule_.any_protocol && rule_.protocol == 6 ? true
                                                          : fail(std::string(option) + ": requires protocol tcp");
    }

    bool parse_counter() {
        if (!acl_name_is_valid(word()) || word().size() > counter_max) {
            return fail("counter " + quoted(word()) + ": expected a name of letters, digits, '_', '-' and '.'");
        }
        rule_.counter = word();
        next_++;
        return true;
    }

    bool parse_flags() {
        rule_.tcp_flags_operation = 1;
        while (more() && (word()[0] == '+' || word()[0] == '-')) {
            const named_number* flag = find_name(flags, word().substr(1));
            if (flag == nullptr) {
                return fail(quoted(word()) + ": expected + or - and fin, syn, rst, psh, ack or urg");
            }
            if ((rule_.tcp_flags_mask & flag->number) != 0) {
                return fail(quoted(word()) + ": duplicate flag; expected each flag once");
            }
            rule_.tcp_flags_mask |= static_cast<uint8_t>(flag->number);
            rule_.tcp_flags |= static_cast<uint8_t>(word()[0] == '+' ? flag->number : 0);
            next_++;
        }
        return rule_.tcp_flags_mask == 0 ? fail("tcp-flags: expected at least one +FLAG or -FLAG")
                                         : check_tcp("tcp-flags");
    }

    bool ipv6_;
    acl_rule& rule_;
    std::string& error_;
    std::vector<std::string_view> words_;
    std::vector<std::string_view> seen_options_;
    size_t next_ = 0;
};

std::string ipv4_text(const std::array<uint8_t, 16>& address) {
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, address.data(), text, sizeof text);
    return text;
}

std::string ipv6_text(const std::array<uint8_t, 16>& address) {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(AF_INET6, address.data(), text, sizeof text);
    return text;
}

std::string address_text(uint32_t family, const acl_address& address) {
    if (family == ACL_FAMILY_IPV6) {
        uint32_t length = 0;
        if (acl_service_ipv6_prefix_length(address.mask.data(), &length) == 0) {
            return ipv6_text(address.address) + ' ' + ipv6_text(address.mask);
        }
        if (length == 0) {
            return "any";
        }
        return length == 128 ? "host " + ipv6_text(address.address)
                             : ipv6_text(address.address) + '/' + std::to_string(length);
    }
    uint32_t wildcard = 0;
    memcpy(&wildcard, address.mask.data(), sizeof wildcard);
    if (wildcard == UINT32_MAX) {
        return "any";
    }
    if (wildcard == 0) {
        return "host " + ipv4_text(address.address);
    }
    const uint32_t ones = ntohl(wildcard);
    if ((ones & (ones + 1)) != 0) {
        return ipv4_text(address.address) + ' ' + ipv4_text(address.mask);
    }
    return ipv4_text(address.address) + '/' + std::to_string(__builtin_clz(ones));
}

template <size_t count>
std::string condition_text(const named_number (&names)[count], const acl_condition& condition) {
    if (condition.operation == ACL_NONE) {
        return {};
    }
    std::string text =
        ' ' + operator_word(static_cast<uint32_t>(condition.operation)) + ' ' + name_of(names, condition.first);
    return condition.operation == ACL_RANGE ? text + ' ' + name_of(names, condition.second) : text;
}

std::string flags_text(const acl_rule& rule) {
    if (rule.tcp_flags_operation == 0) {
        return {};
    }
    std::string text = " tcp-flags";
    for (const named_number& flag : flags) {
        if ((rule.tcp_flags_mask & flag.number) != 0) {
            text += std::string(" ") + ((rule.tcp_flags & flag.number) != 0 ? '+' : '-') + flag.name;
        }
    }
    return text;
}

}  // namespace

bool acl_parse_line(uint32_t family, std::string_view line, acl_rule& rule, std::string& error) {
    rule = {};
    error.clear();
    return line_parser(family, line, rule, error).parse();
}

std::string acl_format_line(uint32_t family, const acl_rule& rule) {
    const auto action = static_cast<size_t>(rule.action);
    std::string text =
        std::to_string(rule.sequence) + ' ' +
        (action < std::size(acl_action_names) ? acl_action_names[action] : "unknown") + ' ' +
        (rule.any_protocol ? (family == ACL_FAMILY_IPV6 ? "ipv6" : "ipv4") : name_of(protocols, rule.protocol)) + ' ' +
        address_text(family, rule.source) + condition_text(ports, rule.conditions[ACL_SOURCE_PORT]) + ' ' +
        address_text(family, rule.destination) + condition_text(ports, rule.conditions[ACL_DESTINATION_PORT]) +
        flags_text(rule);
    for (const acl_condition_row& row : acl_conditions) {
        if (row.keyword != nullptr) {
            const std::string condition = condition_text(no_names, rule.conditions[row.condition]);
            text += condition.empty() ? "" : ' ' + std::string(row.keyword) + condition;
        }
    }
    text += rule.counter.empty() ? "" : " counter " + rule.counter;
    return text + (rule.log ? " log" : "");
}

bool acl_number_rules(std::vector<acl_rule>& rules, std::string& error) {
    uint32_t last = 0;
    for (acl_rule& rule : rules) {
        if (rule.sequence == 0) {
            rule.sequence = last + sequence_step;
        }
        last = rule.sequence;
    }
    std::stable_sort(rules.begin(), rules.end(),
                     [](const acl_rule& a, const acl_rule& b) { return a.sequence < b.sequence; });
    const auto twice = std::adjacent_find(
        rules.begin(), rules.end(), [](const acl_rule& a, const acl_rule& b) { return a.sequence == b.sequence; });
    if (twice != rules.end()) {
        error = "duplicate sequence number " + std::to_string(twice->sequence);
        return false;
    }
    return true;
}
