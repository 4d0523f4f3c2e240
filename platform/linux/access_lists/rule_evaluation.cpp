#include "linux/access_lists/rule_evaluation.h"

#include <arpa/inet.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "common/number.h"

namespace {

enum class matching : uint8_t { no, unknown, yes };

enum class rule_result : uint8_t { next, accept, drop };

matching matching_of(bool matches) {
    return matches ? matching::yes : matching::no;
}

std::vector<std::string_view> words_of(std::string_view line) {
    std::vector<std::string_view> words;
    while (true) {
        line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
        if (line.empty()) {
            return words;
        }
        words.push_back(line.substr(0, line.find_first_of(" \t")));
        line.remove_prefix(words.back().size());
    }
}

/// Whether the first `length` bits of two addresses are equal.
bool are_in_one_network(const ip_octets& one, const ip_octets& other, unsigned length) {
    for (size_t i = 0; i < one.size() && length > 0; i++) {
        const unsigned bits = std::min(length, 8U);
        const auto mask = static_cast<uint8_t>(0xff << (8 - bits));
        if (((one[i] ^ other[i]) & mask) != 0) {
            return false;
        }
        length -= bits;
    }
    return true;
}

/// The words of one rule, which are read from left to right.
class rule_reader {
  public:
    rule_reader(std::vector<std::string_view> words, const rule_connection& connection)
        : words_(std::move(words)), connection_(connection) {}

    rule_result read() {
        rule_result verdict = rule_result::next;
        matching all = matching::yes;
        while (position_ < words_.size()) {
            const std::string_view word = next();
            if (word == "accept" || word == "drop") {
                verdict = word == "accept" ? rule_result::accept : rule_result::drop;
            } else {
                all = std::min(all, read_condition(word));
            }
        }
        const bool applies = all == matching::yes || (all == matching::unknown && verdict == rule_result::accept);
        return applies ? verdict : rule_result::next;
    }

  private:
    std::string_view next() { return position_ < words_.size() ? words_[position_++] : std::string_view(); }

    matching read_condition(std::string_view word) {
        if (word == "log" || word == "counter") {
            return matching::yes;
        }
        if (word == "ct") {
            // The only rule of this form accepts packets of established connections.
            position_ = words_.size();
            return matching::no;
        }
        return word == "tcp" ? read_tcp() : word == "ip" || word == "ip6" ? read_ip() : matching::unknown;
    }

    matching read_tcp() {
        const std::string_view field = next();
        if (field == "sport") {
            return read_number(connection_.source_port);
        }
        return field == "dport" ? read_number(connection_.destination_port) : read_flags();
    }

    /// "& MASK == FLAGS". The first packet of a connection has only the flag SYN.
    matching read_flags() {
        constexpr unsigned syn = 2;
        next();
        const auto mask = number_parse<unsigned>(next());
        next();
        const auto flags = number_parse<unsigned>(next());
        return mask && flags ? matching_of((syn & *mask) == *flags) : matching::unknown;
    }

    /// "22", "eq 22", "gt 22", "lt 22", "ne 22" or "22-23".
    matching read_number(unsigned number) {
        std::string_view operation = "eq";
        std::string_view text = next();
        if (text == "eq" || text == "gt" || text == "lt" || text == "ne") {
            operation = text;
            text = next();
        }
        const size_t dash = text.find('-');
        const auto first = number_parse<unsigned>(text.substr(0, dash));
        const auto last = dash == std::string_view::npos ? first : number_parse<unsigned>(text.substr(dash + 1));
        if (!first || !last) {
            return matching::unknown;
        }
        if (operation == "gt" || operation == "lt") {
            return matching_of(operation == "gt" ? number > *first : number < *first);
        }
        return matching_of((number >= *first && number <= *last) == (operation == "eq"));
    }

    matching read_ip() {
        const std::string_view field = next();
        if (field == "saddr" || field == "daddr") {
            return read_address(field == "saddr" ? connection_.source : connection_.destination);
        }
        // The time to live and the like are not known. Skips the number.
        read_number(0);
        return matching::unknown;
    }

    /// "ADDRESS", "ADDRESS/LENGTH" or "& MASK == ADDRESS".
    matching read_address(const ip_octets& address) {
        const std::string_view text = next();
        return text == "&" ? read_masked(address) : read_network(text, address);
    }

    matching read_network(std::string_view text, const ip_octets& address) const {
        const size_t slash = text.find('/');
        const unsigned bits = connection_.is_ipv6 ? 128 : 32;
        const std::optional<ip_octets> network = parse(text.substr(0, slash));
        const auto length = slash == std::string_view::npos ? std::optional(bits)
                                                            : number_parse<unsigned>(text.substr(slash + 1), 0, bits);
        return network && length ? matching_of(are_in_one_network(address, *network, *length)) : matching::unknown;
    }

    matching read_masked(const ip_octets& address) {
        const std::optional<ip_octets> mask = parse(next());
        next();
        const std::optional<ip_octets> wanted = parse(next());
        if (!mask || !wanted) {
            return matching::unknown;
        }
        ip_octets masked = address;
        for (size_t i = 0; i < masked.size(); i++) {
            masked[i] &= (*mask)[i];
        }
        return matching_of(masked == *wanted);
    }

    std::optional<ip_octets> parse(std::string_view text) const {
        ip_octets address = {};
        const int family = connection_.is_ipv6 ? AF_INET6 : AF_INET;
        return inet_pton(family, std::string(text).c_str(), address.data()) == 1 ? std::optional(address)
                                                                                 : std::nullopt;
    }

    std::vector<std::string_view> words_;
    const rule_connection& connection_;
    size_t position_ = 0;
};

bool is_rule(const std::vector<std::string_view>& words) {
    return !words.empty() && (words[0] == "ip" || words[0] == "ip6" || words[0] == "tcp" || words[0] == "ct");
}

}  // namespace

bool rules_admit(std::string_view rules, const rule_connection& connection) {
    while (!rules.empty()) {
        const std::string_view line = rules.substr(0, rules.find('\n'));
        rules.remove_prefix(std::min(rules.size(), line.size() + 1));
        const std::vector<std::string_view> words = words_of(line);
        if (!is_rule(words)) {
            continue;
        }
        const rule_result result = rule_reader(words, connection).read();
        if (result != rule_result::next) {
            return result == rule_result::accept;
        }
    }
    return true;
}
