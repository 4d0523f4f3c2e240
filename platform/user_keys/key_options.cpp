#include "user_keys/key_options.h"

#include <arpa/inet.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <set>
#include <vector>

#include "common/number.h"
#include "common/text.h"

namespace {

constexpr size_t shown_option_max = 32;

/// Calls `check` for each comma-separated part of a text. Returns whether it returned true for all of them.
template <typename part_check>
bool all_parts(std::string_view text, const part_check& check) {
    while (true) {
        const size_t end = text.find(',');
        if (!check(text.substr(0, end))) {
            return false;
        }
        if (end == std::string_view::npos) {
            return true;
        }
        text.remove_prefix(end + 1);
    }
}

bool is_any_command(std::string_view value) {
    return !value.empty();
}

/// An address in its binary form.
struct network_address {
    std::array<uint8_t, sizeof(in6_addr)> octets = {};
    unsigned bits = 0;  ///< 32 or 128
};

std::optional<network_address> address_of(std::string_view text) {
    network_address address;
    const std::string copy(text);
    if (inet_pton(AF_INET, copy.c_str(), address.octets.data()) == 1) {
        address.bits = 32;
    } else if (inet_pton(AF_INET6, copy.c_str(), address.octets.data()) == 1) {
        address.bits = 128;
    }
    return address.bits != 0 ? std::optional(address) : std::nullopt;
}

/// sshd refuses a network with bits set beyond its length, and then the whole list.
bool is_network(std::string_view text) {
    const size_t slash = text.find('/');
    const std::optional<network_address> address = address_of(text.substr(0, slash));
    const std::optional<unsigned> length = number_parse<unsigned>(text.substr(slash + 1));
    if (!address || !length || *length > address->bits) {
        return false;
    }
    for (unsigned bit = *length; bit < address->bits; bit++) {
        if ((address->octets[bit / 8] >> (7 - bit % 8) & 1) != 0) {
            return false;
        }
    }
    return true;
}

/// The servers do not look up the names of their peers, so a name would never match.
bool is_source(std::string_view pattern) {
    if (pattern.find('/') != std::string_view::npos) {
        return is_network(pattern);
    }
    const bool has_wildcard = pattern.find_first_of("*?") != std::string_view::npos;
    return has_wildcard ? pattern.find_first_not_of("0123456789abcdefABCDEF.:*?") == std::string_view::npos
                        : address_of(pattern.substr(0, pattern.find('%'))).has_value();
}

/// Exceptions never admit anyone, so that a list must have more than those.
bool is_source_list(std::string_view value) {
    bool admits_any = false;
    return all_parts(value,
                     [&admits_any](std::string_view pattern) {
                         const bool is_exception = pattern.starts_with('!');
                         admits_any |= !is_exception;
                         return is_source(pattern.substr(is_exception ? 1 : 0));
                     }) &&
           admits_any;
}

bool is_port_or_any(std::string_view text) {
    const std::optional<uint16_t> port = number_parse<uint16_t>(text);
    return text == "*" || (port && *port != 0);
}

bool is_endpoint(std::string_view value) {
    const size_t colon = value.rfind(':');
    if (colon == std::string_view::npos || colon == 0 || !is_port_or_any(value.substr(colon + 1))) {
        return false;
    }
    const std::string_view host = value.substr(0, colon);
    return host.starts_with('[') ? host.size() > 2 && host.find(']') == host.size() - 1
                                 : host.find_first_of(":/[]") == std::string_view::npos;
}

bool is_endpoint_or_port(std::string_view value) {
    return is_endpoint(value) || is_port_or_any(value);
}

/// The two digits at a place of a text that consists of digits.
int two_digits_at(std::string_view text, size_t place) {
    return place < text.size() ? (text[place] - '0') * 10 + (text[place + 1] - '0') : 0;
}

/// YYYYMMDD or YYYYMMDDHHMM[SS], in local time, or with Z in UTC.
std::optional<int64_t> time_of_value(std::string_view value) {
    const bool is_utc = value.ends_with('Z');
    value.remove_suffix(is_utc ? 1 : 0);
    if ((value.size() != 8 && value.size() != 12 && value.size() != 14) ||
        value.find_first_not_of("0123456789") != std::string_view::npos) {
        return std::nullopt;
    }
    std::tm parts = {};
    parts.tm_year = two_digits_at(value, 0) * 100 + two_digits_at(value, 2) - 1900;
    parts.tm_mon = two_digits_at(value, 4) - 1;
    parts.tm_mday = two_digits_at(value, 6);
    parts.tm_hour = two_digits_at(value, 8);
    parts.tm_min = two_digits_at(value, 10);
    parts.tm_sec = two_digits_at(value, 12);
    parts.tm_isdst = -1;
    std::tm normal = parts;
    timegm(&normal);
    // What is not in the calendar has become another date.
    if (normal.tm_mon != parts.tm_mon || normal.tm_mday != parts.tm_mday || normal.tm_hour != parts.tm_hour ||
        normal.tm_min != parts.tm_min || normal.tm_sec != parts.tm_sec) {
        return std::nullopt;
    }
    return is_utc ? timegm(&parts) : mktime(&parts);
}

bool is_time_value(std::string_view value) {
    return time_of_value(value).has_value();
}

struct option_row {
    std::string_view name;
    bool (*is_valid)(std::string_view value) = nullptr;  ///< null: the option has no value
    const char* form = "";                               ///< of the value, in messages
    bool may_repeat = false;
    bool is_for_security_keys = false;
};

constexpr option_row option_rows[] = {
    {"restrict"},
    {"command", is_any_command, "a command"},
    {"from", is_source_list,
     "a list of addresses, networks such as 10.0.0.0/8, or patterns of addresses with * and ?; the servers do not look up "
     "host names"},
    {"expiry-time", is_time_value, "YYYYMMDD or YYYYMMDDHHMM[SS], with Z at the end for UTC"},
    {"permitopen", is_endpoint, "host:port or [address]:port", true},
    {"permitlisten", is_endpoint_or_port, "port, host:port or [address]:port", true},
    {"pty"},
    {"no-pty"},
    {"port-forwarding"},
    {"no-port-forwarding"},
    {"agent-forwarding"},
    {"no-agent-forwarding"},
    {"X11-forwarding"},
    {"no-X11-forwarding"},
    {"user-rc"},
    {"no-user-rc"},
    {.name = "no-touch-required", .is_for_security_keys = true},
    {.name = "verify-required", .is_for_security_keys = true},
};

/// Options of sshd that are not accepted, and why.
struct refused_option_row {
    std::string_view name;
    const char* reason;
};

constexpr refused_option_row refused_options[] = {
    {"cert-authority", "certificates are not accepted; import each user's own public key"},
    {"principals", "certificates are not accepted; import each user's own public key"},
    {"environment",
     "the servers do not take variables from keys; set them in the user's shell or with command=\"...\""},
    {"tunnel", "the servers do not permit tunnels; remove the option"},
};

bool equal_names(std::string_view one, std::string_view other) {
    return std::equal(one.begin(), one.end(), other.begin(), other.end(), [](unsigned char a, unsigned char b) {
        return (a >= 'A' && a <= 'Z' ? a + 'a' - 'A' : a) == (b >= 'A' && b <= 'Z' ? b + 'a' - 'A' : b);
    });
}

template <typename row_list>
auto find_option(const row_list& rows, std::string_view name) {
    const auto found =
        std::find_if(std::begin(rows), std::end(rows), [name](const auto& row) { return equal_names(row.name, name); });
    return found == std::end(rows) ? nullptr : &*found;
}

std::string all_option_names() {
    std::string text;
    for (const option_row& row : option_rows) {
        (text += text.empty() ? "" : ", ") += row.name;
        text += row.is_valid != nullptr ? "=\"...\"" : "";
    }
    return text;
}

/// A misplaced part of a private key must not be repeated in a message, so only what could be the name of an option is.
std::string shown_option(std::string_view name) {
    const bool could_be_name =
        !name.empty() && name.size() <= shown_option_max && std::all_of(name.begin(), name.end(), [](unsigned char c) {
            return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
        });
    return could_be_name ? " \"" + std::string(name) + '"' : std::string();
}

/// Reads options one after the other.
class options_reader {
  public:
    options_reader(std::string_view text, std::string& refusal) : rest_(text), refusal_(refusal) {}

    bool read(key_options& options) {
        do {
            if (!read_option(options)) {
                return false;
            }
        } while (take(','));
        return rest_.empty() || refuse("expected a comma after each option but the last");
    }

  private:
    bool refuse(std::string text) {
        refusal_ = std::move(text);
        return false;
    }

    bool take(char character) {
        if (!rest_.starts_with(character)) {
            return false;
        }
        rest_.remove_prefix(1);
        return true;
    }

    bool read_option(key_options& options) {
        const std::string_view name = rest_.substr(0, rest_.find_first_of(",="));
        rest_.remove_prefix(name.size());
        const option_row* row = find_option(option_rows, name);
        if (row == nullptr) {
            return refuse_name(name);
        }
        if (!row->may_repeat && !seen_.insert(row->name).second) {
            return refuse("duplicate option " + std::string(row->name));
        }
        (options.text += options.text.empty() ? "" : ",") += row->name;
        if (row->is_for_security_keys) {
            options.for_security_keys = row->name;
        }
        if (row->is_valid != nullptr) {
            return read_value(*row, options);
        }
        return !take('=') || refuse("option " + std::string(row->name) + " has no value");
    }

    bool refuse_name(std::string_view name) {
        if (name.empty()) {
            return refuse("an option is missing before or after a comma");
        }
        const refused_option_row* refused = find_option(refused_options, name);
        return refuse(refused != nullptr
                          ? "option " + std::string(refused->name) + " is not accepted: " + refused->reason
                          : "unknown option" + shown_option(name) + "; expected one of " + all_option_names());
    }

    bool read_value(const option_row& row, key_options& options) {
        std::string value;
        if (!take('=') || !take('"')) {
            return refuse_value(row);
        }
        const std::string_view start = rest_;
        while (!rest_.empty() && rest_.front() != '"') {
            rest_.remove_prefix(rest_.starts_with("\\\"") ? 1 : 0);
            value += rest_.front();
            rest_.remove_prefix(1);
        }
        const std::string_view quoted = start.substr(0, start.size() - rest_.size());
        if (!take('"') || !row.is_valid(value)) {
            return refuse_value(row);
        }
        if (row.is_valid == is_time_value) {
            options.expires = time_of_value(value);
        }
        ((options.text += "=\"") += quoted) += '"';
        return true;
    }

    bool refuse_value(const option_row& row) {
        const std::string name(row.name);
        return refuse("option " + name + ": expected " + name + "=\"...\", where the quotes contain " + row.form);
    }

    std::string_view rest_;
    std::string& refusal_;
    std::set<std::string_view> seen_;
};

}  // namespace

bool key_options_read(std::string_view text, key_options& options, std::string& refusal) {
    key_options found;
    if (!text.empty() && !options_reader(text, refusal).read(found)) {
        return false;
    }
    options = std::move(found);
    return true;
}

size_t key_options_size(std::string_view line) {
    bool is_quoted = false;
    for (size_t i = 0; i < line.size(); i++) {
        if (line[i] == '\\' && i + 1 < line.size() && line[i + 1] == '"') {
            i++;
        } else if (line[i] == '"') {
            is_quoted = !is_quoted;
        } else if (!is_quoted && (line[i] == ' ' || line[i] == '\t')) {
            return i;
        }
    }
    return line.size();
}
