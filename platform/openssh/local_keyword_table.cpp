#include "openssh/local_keyword_table.h"

#include <arpa/inet.h>

#include <algorithm>
#include <iterator>
#include <string>

#include "common/number.h"
#include "openssh/text.h"

namespace openssh {

namespace {

constexpr const char* yes_or_no = "yes or no";
constexpr const char* user_patterns = "names with \"*\" and \"?\" as wildcards, for users also NAME@ADDRESS";

bool is_yes(std::string_view value) {
    return equal_ignoring_case(value, "yes");
}

bool is_no(std::string_view value) {
    return equal_ignoring_case(value, "no");
}

/// Without quotes and escapes, which sshd reads differently in its versions.
bool is_plain_text(std::string_view value) {
    return !value.empty() && value.find_first_of("\"'\\") == std::string_view::npos;
}

bool is_command(std::string_view value) {
    return is_any_text(value) && !equal_ignoring_case(value, "none");
}

bool is_network_address(std::string_view value) {
    if (value.starts_with('[') && value.ends_with(']')) {
        value = value.substr(1, value.size() - 2);
        return value.find(':') != std::string_view::npos && is_network_address(value);
    }
    const std::string text(value);
    unsigned char bytes[sizeof(in6_addr)];
    return inet_pton(AF_INET, text.c_str(), bytes) == 1 || inet_pton(AF_INET6, text.c_str(), bytes) == 1;
}

bool is_start_limit(std::string_view value) {
    const auto numbers = split(value, ":");
    const bool is_valid = std::all_of(numbers.begin(), numbers.end(), [](std::string_view number) {
        return number_parse<unsigned>(number, 1, 100000).has_value();
    });
    return is_valid && (numbers.size() == 1 || numbers.size() == 3);
}

bool is_start_limit_per_source(std::string_view value) {
    return value == "none" || number_parse<unsigned>(value, 1, 100000).has_value();
}

bool is_key_size(std::string_view value) {
    return number_parse<unsigned>(value, 1024, 16384).has_value();
}

bool is_authentication_method(std::string_view name) {
    constexpr std::string_view names[] = {"password", "publickey", "keyboard-interactive", "keyboard-interactive:pam"};
    return std::find(std::begin(names), std::end(names), name) != std::end(names);
}

bool are_authentication_methods(std::string_view value) {
    if (value == "any") {
        return true;
    }
    const auto names = split(value, " \t,");
    return !names.empty() && std::all_of(names.begin(), names.end(), is_authentication_method);
}

bool is_folder(std::string_view value) {
    return is_path_or_none(value);
}

constexpr local_row setting_row(std::string_view keyword, local_place place, value_form form, const char* expected) {
    return {.keyword = keyword, .how = local_rule::setting, .place = place, .form = form, .expected = expected};
}

constexpr local_row root_row(std::string_view keyword, local_place place, value_form form, const char* expected) {
    return {.keyword = keyword,
            .how = local_rule::setting,
            .place = place,
            .form = form,
            .expected = expected,
            .is_reserved_to_root = true};
}

constexpr local_row names_row(std::string_view keyword) {
    return {.keyword = keyword, .how = local_rule::cumulative, .form = is_plain_text, .expected = user_patterns};
}

constexpr local_row list_row(std::string_view keyword, algorithm_kind kind) {
    return {.keyword = keyword,
            .how = local_rule::narrowed,
            .place = local_place::server,
            .expected = "names of the configured list, or \"-\" and names to remove, with \"*\" and \"?\" as wildcards",
            .kind = kind};
}

constexpr local_row configured(std::string_view keyword, const char* item, local_place place = local_place::both) {
    return {.keyword = keyword, .how = local_rule::configured, .place = place, .reason = item};
}

constexpr local_row refused(std::string_view keyword, const char* reason, local_place place = local_place::both) {
    return {.keyword = keyword, .how = local_rule::refused, .place = place, .reason = reason};
}

constexpr local_row local_keyword_rows[] = {
    // Who may log in, and how. The configuration has users' keys and nothing else of this.
    setting_row("PasswordAuthentication", local_place::both, is_yes_or_no, yes_or_no),
    setting_row("KbdInteractiveAuthentication", local_place::both, is_yes_or_no, yes_or_no),
    setting_row("PermitRootLogin", local_place::both, is_root_login,
                "yes, no, prohibit-password or forced-commands-only"),
    setting_row("AuthenticationMethods", local_place::both, are_authentication_methods,
                "any, or password, publickey and keyboard-interactive, combined with commas"),
    names_row("AllowUsers"),
    names_row("DenyUsers"),
    names_row("AllowGroups"),
    names_row("DenyGroups"),
    root_row("AuthorizedKeysFile", local_place::both, is_plain_text, "paths without quotes, or none"),

    // Where servers listen; the ports belong to the configuration, because access lists protect them.
    {.keyword = "ListenAddress",
     .how = local_rule::address,
     .place = local_place::server,
     .form = is_network_address,
     .expected = "an IPv4 or IPv6 address without a port"},

    // What becomes of dead and of unauthenticated connections.
    setting_row("ClientAliveInterval", local_place::both, is_time, "a time, such as 60 or 5m"),
    setting_row("ClientAliveCountMax", local_place::both, is_count, "a number"),
    setting_row("MaxStartups", local_place::server, is_start_limit, "a number, or START:RATE:FULL"),
    setting_row("PerSourceMaxStartups", local_place::server, is_start_limit_per_source, "a number from 1, or none"),

    // Algorithms, which can only become fewer.
    list_row("MACs", algorithm_kind::mac),
    list_row("Ciphers", algorithm_kind::cipher),
    list_row("KexAlgorithms", algorithm_kind::kex),
    list_row("HostKeyAlgorithms", algorithm_kind::key),
    {.keyword = "PubkeyAcceptedAlgorithms",
     .how = local_rule::key_types,
     .expected = "names of key types",
     .kind = algorithm_kind::key},
    setting_row("RequiredRSASize", local_place::server, is_key_size, "a number of bits from 1024 to 16384"),

    // What a session may do. The configuration has forwarding for everyone; a block may take it away.
    setting_row("AllowAgentForwarding", local_place::both, is_yes_or_no, yes_or_no),
    setting_row("AllowStreamLocalForwarding", local_place::both, is_forwarding, "yes, no, local or remote"),
    setting_row("DisableForwarding", local_place::block, is_yes, "yes"),
    setting_row("AllowTcpForwarding", local_place::block, is_no, "no"),
    setting_row("PermitTTY", local_place::block, is_yes_or_no, yes_or_no),
    root_row("ForceCommand", local_place::block, is_command, "a command, or internal-sftp"),
    root_row("ChrootDirectory", local_place::block, is_folder, "an absolute path, or none"),

    // Auditors dislike versions in the greeting.
    setting_row("DebianBanner", local_place::server, is_yes_or_no, yes_or_no),

    configured("LoginGraceTime", "/cfg/gl/crypto/ssh/server/cmn/timeout"),
    configured("MaxAuthTries", "/cfg/gl/crypto/ssh/server/cmn/max_auth_limit"),
    configured("IPQoS", "/cfg/gl/crypto/ssh/server/cmn/dscp"),
    configured("RekeyLimit", "/cfg/gl/crypto/ssh/server/cmn/rekey_time and /cfg/gl/crypto/ssh/server/cmn/rekey_volume"),
    configured("LogLevel", "/cfg/gl/crypto/ssh/server/cmn/logging"),
    configured("AllowTcpForwarding", "/cfg/gl/crypto/ssh/server/cmn/port_forwarding", local_place::server),
    configured("DisableForwarding", "/cfg/gl/crypto/ssh/server/cmn/port_forwarding", local_place::server),
    configured("Banner", "/cfg/gl/banner/0x3"),
    configured("HostKey", "/cfg/gl/crypto/ssh/server/cmn/algorithms/host-key"),
    configured("Port",
               "/cfg/gl/crypto/ssh/server/sshd/vrf/NAME for port 22 and "
               "/cfg/gl/crypto/ssh/server/sshd/vrf-netconf/NAME for port 830"),
    configured("RateLimitQd", "/cfg/gl/crypto/ssh/server/cmn/rate_limit"),
    configured("SessionLimitQd", "/cfg/gl/crypto/ssh/server/cmn/session_limit"),
    configured("NorvoSSHFipsMode", "/cfg/gl/crypto/fipsmode/value"),
    configured("AuthorizedKeysCommand", "/cfg/gl/crypto/ssh/server/cmn/username/NAME/keystr"),
    configured("AuthorizedKeysCommandUser", "/cfg/gl/crypto/ssh/server/cmn/username/NAME/keystr"),

    refused("UsePAM", "the servers authenticate through the PAM service norvosshd"),
    refused("Subsystem", "the agent determines the subsystems"),
    refused("MaxSessions", "the agent determines it"),
    refused("Include", "other files are never read"),
    refused("PidFile", "the service manager keeps track of the server"),
    refused("PermitEmptyPasswords", "nobody may log in without a password or a key"),
    refused("PubkeyAuthentication", "without it the users' keys of the configuration would be of no use"),
    refused("AcceptEnv", "it would let clients change the environment in which sessions are started"),
    refused("SetEnv", "it would change the environment in which sessions are started"),
    refused("PermitUserEnvironment", "it would let users change the environment in which sessions are started"),
    refused("LogVerbose", "the servers report their sessions through it"),
};

bool is_accepted_in(const local_row& row, bool in_block) {
    const auto place = static_cast<unsigned>(in_block ? local_place::block : local_place::server);
    return (static_cast<unsigned>(row.place) & place) != 0;
}

bool is_port_list(std::string_view value) {
    const auto ports = split(value, ",");
    return !ports.empty() && std::all_of(ports.begin(), ports.end(), is_port);
}

/// An address, or a network in CIDR notation, whose bits behind the prefix sshd requires to be zero.
bool is_network(std::string_view value) {
    const size_t slash = value.find('/');
    if (slash == std::string_view::npos) {
        return value.find_first_not_of("0123456789abcdefABCDEF:.*?") == std::string_view::npos;
    }
    const std::string address(value.substr(0, slash));
    unsigned char bytes[sizeof(in6_addr)] = {};
    const bool is_ipv4 = inet_pton(AF_INET, address.c_str(), bytes) == 1;
    if (!is_ipv4 && inet_pton(AF_INET6, address.c_str(), bytes) != 1) {
        return false;
    }
    const unsigned size = is_ipv4 ? 32 : 128;
    const auto length = number_parse<unsigned>(value.substr(slash + 1), 0, size);
    for (unsigned bit = length.value_or(size); bit < size; ++bit) {
        if ((bytes[bit / 8] & (0x80U >> (bit % 8))) != 0) {
            return false;
        }
    }
    return length.has_value();
}

bool is_network_list(std::string_view value) {
    const auto networks = split(value, ",");
    return !networks.empty() && std::all_of(networks.begin(), networks.end(), [](std::string_view network) {
        return is_network(network.starts_with('!') ? network.substr(1) : network);
    });
}

struct match_row {
    std::string_view name;
    value_form form;
};

constexpr match_row match_rows[] = {
    {"User", is_plain_text},           {"Group", is_plain_text},    {"Address", is_network_list},
    {"LocalAddress", is_network_list}, {"LocalPort", is_port_list},
};

}  // namespace

std::span<const local_row> local_rows() {
    return local_keyword_rows;
}

const local_row* find_local_row(std::string_view keyword, bool in_block) {
    const auto* row =
        std::find_if(std::begin(local_keyword_rows), std::end(local_keyword_rows), [&](const local_row& candidate) {
            return equal_ignoring_case(candidate.keyword, keyword) && is_accepted_in(candidate, in_block);
        });
    return row == std::end(local_keyword_rows) ? nullptr : row;
}

bool is_match_criteria(std::string_view value) {
    const auto words = split(value, " \t");
    if (words.size() == 1) {
        return equal_ignoring_case(words[0], "all");
    }
    bool is_valid = !words.empty() && words.size() % 2 == 0;
    for (size_t i = 0; is_valid && i < words.size(); i += 2) {
        const auto* row = std::find_if(std::begin(match_rows), std::end(match_rows), [&](const match_row& candidate) {
            return equal_ignoring_case(candidate.name, words[i]);
        });
        is_valid = row != std::end(match_rows) && row->form(words[i + 1]);
    }
    return is_valid;
}

}  // namespace openssh
