#include "openssh/algorithms.h"

#include <algorithm>
#include <unordered_set>

#include "openssh/text.h"

namespace openssh {

namespace {

struct approved_row {
    std::string_view name;
    algorithm_kind kind;
    bool offered_by_default;
};

constexpr approved_row approved_rows[] = {
    {"aes128-ctr", algorithm_kind::cipher, true},
    {"aes192-ctr", algorithm_kind::cipher, true},
    {"aes256-ctr", algorithm_kind::cipher, true},
    {"aes128-gcm@openssh.com", algorithm_kind::cipher, true},
    {"aes256-gcm@openssh.com", algorithm_kind::cipher, true},
    {"aes128-cbc", algorithm_kind::cipher, false},
    {"aes192-cbc", algorithm_kind::cipher, false},
    {"aes256-cbc", algorithm_kind::cipher, false},
    {"hmac-sha2-512", algorithm_kind::mac, true},
    {"hmac-sha2-256", algorithm_kind::mac, true},
    {"hmac-sha1", algorithm_kind::mac, true},
    {"hmac-sha2-512-etm@openssh.com", algorithm_kind::mac, false},
    {"hmac-sha2-256-etm@openssh.com", algorithm_kind::mac, false},
    {"hmac-sha1-etm@openssh.com", algorithm_kind::mac, false},
    {"ecdh-sha2-nistp521", algorithm_kind::kex, true},
    {"ecdh-sha2-nistp384", algorithm_kind::kex, true},
    {"ecdh-sha2-nistp256", algorithm_kind::kex, true},
    {"diffie-hellman-group14-sha1", algorithm_kind::kex, true},
    {"diffie-hellman-group14-sha256", algorithm_kind::kex, true},
    {"diffie-hellman-group16-sha512", algorithm_kind::kex, true},
    {"diffie-hellman-group18-sha512", algorithm_kind::kex, false},
    {"ecdsa-sha2-nistp521", algorithm_kind::key, true},
    {"ecdsa-sha2-nistp384", algorithm_kind::key, true},
    {"ecdsa-sha2-nistp256", algorithm_kind::key, true},
    {"rsa-sha2-512", algorithm_kind::key, true},
    {"rsa-sha2-256", algorithm_kind::key, true},
    {"ecdsa-sha2-nistp521-cert-v01@openssh.com", algorithm_kind::key, false},
    {"ecdsa-sha2-nistp384-cert-v01@openssh.com", algorithm_kind::key, false},
    {"ecdsa-sha2-nistp256-cert-v01@openssh.com", algorithm_kind::key, false},
    {"rsa-sha2-512-cert-v01@openssh.com", algorithm_kind::key, false},
    {"rsa-sha2-256-cert-v01@openssh.com", algorithm_kind::key, false},
};

}  // namespace

bool is_known(const known_algorithms& known, algorithm_kind kind, std::string_view name) {
    const auto& names = known.names[static_cast<size_t>(kind)];
    return std::find(names.begin(), names.end(), name) != names.end();
}

bool is_fips_approved(algorithm_kind kind, std::string_view name) {
    return std::any_of(std::begin(approved_rows), std::end(approved_rows),
                       [&](const approved_row& row) { return row.kind == kind && row.name == name; });
}

std::vector<std::string_view> fips_default_list(const known_algorithms& known, algorithm_kind kind) {
    std::vector<std::string_view> list;
    for (const approved_row& row : approved_rows) {
        if (row.kind == kind && row.offered_by_default && is_known(known, kind, row.name)) {
            list.push_back(row.name);
        }
    }
    return list;
}

list_cut cut_list(std::string_view list, algorithm_kind kind, const known_algorithms& known, bool fips_mode) {
    list_cut cut;
    std::unordered_set<std::string_view> seen;
    for (const std::string_view name : split(list, ", \t")) {
        if (!is_known(known, kind, name)) {
            cut.unknown.push_back(name);
        } else if (fips_mode && !is_fips_approved(kind, name)) {
            cut.not_approved.push_back(name);
        } else if (!seen.insert(name).second) {
            cut.repeated.push_back(name);
        } else {
            cut.kept.push_back(name);
        }
    }
    return cut;
}

}  // namespace openssh
