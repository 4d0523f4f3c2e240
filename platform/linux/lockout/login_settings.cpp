#include "linux/lockout/login_settings.h"

#include <arpa/inet.h>
#include <fnmatch.h>
#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cstring>
#include <map>

#include "common/number.h"
#include "common/text.h"

namespace {

/// The settings by keyword; the values of several lines in their order.
using setting_map = std::map<std::string, std::vector<std::string>, std::less<>>;

setting_map settings_in(std::string_view text) {
    setting_map settings;
    while (!text.empty()) {
        const std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        const size_t blank = std::min(line.find(' '), line.size());
        std::vector<std::string>& values = settings[std::string(line.substr(0, blank))];
        values.emplace_back(line.substr(std::min(blank + 1, line.size())));
    }
    return settings;
}

std::string value_of_setting(const setting_map& settings, std::string_view keyword) {
    const auto found = settings.find(keyword);
    return found == settings.end() ? std::string() : found->second.front();
}

/// Whether an address is in a network, or matches a pattern.
bool is_address_in(const std::string& address, const std::string& network) {
    const size_t slash = network.find('/');
    if (slash == std::string::npos) {
        return fnmatch(network.c_str(), address.c_str(), 0) == 0;
    }
    unsigned char wanted[sizeof(in6_addr)] = {};
    unsigned char present[sizeof(in6_addr)] = {};
    const int family = network.find(':') == std::string::npos ? AF_INET : AF_INET6;
    const auto bits = number_parse<unsigned>(std::string_view(network).substr(slash + 1), 0, 128);
    if (!bits || inet_pton(family, network.substr(0, slash).c_str(), wanted) != 1 ||
        inet_pton(family, address.c_str(), present) != 1) {
        return false;
    }
    for (unsigned bit = 0; bit < *bits && bit < 8 * sizeof wanted; ++bit) {
        if (((wanted[bit / 8] ^ present[bit / 8]) & (0x80U >> (bit % 8))) != 0) {
            return false;
        }
    }
    return true;
}

bool is_user_named(const login_session& session, const std::string& pattern) {
    const size_t at = pattern.rfind('@');
    return fnmatch(pattern.substr(0, at).c_str(), session.user.c_str(), 0) == 0 &&
           (at == std::string::npos || is_address_in(session.source, pattern.substr(at + 1)));
}

std::vector<std::string> groups_of(const std::string& user) {
    std::vector<std::string> names;
    const passwd* account = getpwnam(user.c_str());
    if (account == nullptr) {
        return names;
    }
    int count = 256;
    std::vector<gid_t> numbers(static_cast<size_t>(count));
    getgrouplist(user.c_str(), account->pw_gid, numbers.data(), &count);
    numbers.resize(std::min(numbers.size(), static_cast<size_t>(std::max(count, 0))));
    for (const gid_t number : numbers) {
        const group* entry = getgrgid(number);
        names.emplace_back(entry == nullptr ? "" : entry->gr_name);
    }
    return names;
}

bool is_in_group(const login_session& session, const std::string& pattern) {
    const std::vector<std::string> names = groups_of(session.user);
    return std::any_of(names.begin(), names.end(),
                       [&](const std::string& name) { return fnmatch(pattern.c_str(), name.c_str(), 0) == 0; });
}

using name_test = bool (*)(const login_session& session, const std::string& pattern);

bool is_any_named(const setting_map& settings, const char* keyword, const login_session& session, name_test test) {
    const auto found = settings.find(keyword);
    return found != settings.end() && std::any_of(found->second.begin(), found->second.end(),
                                                  [&](const std::string& pattern) { return test(session, pattern); });
}

struct admission_row {
    const char* allow;
    const char* allow_shown;
    const char* deny;
    const char* deny_shown;
    name_test test;
};

constexpr admission_row admission_rows[] = {
    {"allowusers", "AllowUsers", "denyusers", "DenyUsers", is_user_named},
    {"allowgroups", "AllowGroups", "denygroups", "DenyGroups", is_in_group},
};

/// Returns why the user is not admitted, or an empty text.
std::string admission(const login_session& session, const setting_map& settings) {
    for (const admission_row& row : admission_rows) {
        if (is_any_named(settings, row.deny, session, row.test)) {
            return text_format("%s would name %s", row.deny_shown, session.user.c_str());
        }
        if (settings.contains(row.allow) && !is_any_named(settings, row.allow, session, row.test)) {
            return text_format("%s would not name %s", row.allow_shown, session.user.c_str());
        }
    }
    return {};
}

bool is_with_password(const login_session& session) {
    return session.method.starts_with("password") || session.method.starts_with("keyboard-interactive");
}

/// The same for passwords.
std::string password_login(const login_session& session, const setting_map& settings) {
    const bool is_possible = value_of_setting(settings, "passwordauthentication") != "no" ||
                             value_of_setting(settings, "kbdinteractiveauthentication") != "no";
    return is_with_password(session) && !is_possible ? "passwords would not be accepted, and you are logged in with one"
                                                     : "";
}

/// The same for root.
std::string root_login(const login_session& session, const setting_map& settings) {
    const passwd* account = getpwnam(session.user.c_str());
    const std::string value = value_of_setting(settings, "permitrootlogin");
    if (account == nullptr || account->pw_uid != 0 || value == "yes" || value.empty()) {
        return {};
    }
    if (value == "no") {
        return "PermitRootLogin would keep root out";
    }
    return is_with_password(session) ? "PermitRootLogin would not accept root's password, and you are logged in with it"
                                     : "";
}

struct offer_row {
    const char* keyword;
    const char* name;
    std::string login_session::*member;
};

constexpr offer_row offer_rows[] = {
    {"kexalgorithms", "key exchange", &login_session::kex},
    {"hostkeyalgorithms", "host-key algorithm", &login_session::host_key},
    {"ciphers", "cipher", &login_session::in_cipher},
    {"macs", "MAC", &login_session::in_mac},
};

bool is_in_list(const std::string& list, const std::string& name) {
    return ("," + list + ",").find("," + name + ",") != std::string::npos;
}

/// The same for the algorithms that the session negotiated. Ciphers that authenticate their packets have no MAC.
std::string offers(const login_session& session, const setting_map& settings) {
    for (const offer_row& row : offer_rows) {
        const std::string& name = session.*row.member;
        const std::string list = value_of_setting(settings, row.keyword);
        if (!name.empty() && name.find('<') == std::string::npos && !list.empty() && !is_in_list(list, name)) {
            return text_format("the server of VRF %s would no longer offer %s %s, which your session negotiated",
                               session.vrf_name.c_str(), row.name, name.c_str());
        }
    }
    return {};
}

constexpr std::string (*setting_checks[])(const login_session& session, const setting_map& settings) = {
    admission,
    password_login,
    root_login,
    offers,
};

}  // namespace

std::vector<std::string> lockout_of_settings(const login_session& session, const std::string& before,
                                             const std::string& after) {
    std::vector<std::string> reasons;
    const setting_map present = settings_in(before);
    const setting_map proposed = settings_in(after);
    for (const auto check : setting_checks) {
        std::string reason = check(session, proposed);
        if (!reason.empty() && check(session, present).empty()) {
            reasons.push_back(std::move(reason));
        }
    }
    return reasons;
}
