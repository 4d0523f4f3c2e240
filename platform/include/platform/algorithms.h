/// Every algorithm that the system knows by name, one row each.
///
/// These rows determine the agent's default lists, verifiers, FIPS filters and session numbers, the configuration
/// schema, the launcher's FIPS set and the names that the operator's tool prints.
#ifndef PLATFORM_ALGORITHMS_H
#define PLATFORM_ALGORITHMS_H

#include <stddef.h>
#include <stdint.h>

#include <string_view>

#include "platform/value_tuple.h"

/// Public-key algorithms (`key`) serve for the server's host keys, users' keys and certificate authorities alike.
enum class algorithm_kind { cipher, mac, kex, key };

/// How FIPS mode treats an algorithm.
enum class algorithm_fips {
    refused,     ///< the agent removes it from every list, with all names that begin with its own
    unapproved,  ///< the agent keeps it, but the launcher removes it
    approved,    ///< offered if a list names it
    offered,     ///< offered even if no list is configured
};

struct algorithm_row {
    algorithm_kind kind;
    const char* name;
    int8_t number;       ///< in the session records' enumeration of its kind; -1: not in it
    int8_t setting;      ///< index among the configurable algorithms of its kind; -1: not configurable
    int8_t server_rank;  ///< position in the server's default list, from 1; 0: not in it
    int8_t client_rank;  ///< the same for the client
    algorithm_fips fips;
    const char* key_file = "";  ///< file of the server's host key, which several algorithms may share; empty if none
};

/// The field of the host-key item that selects every algorithm of the RSA key, and so belongs to no single row.
inline constexpr int8_t all_rsa_setting = 3;
inline constexpr char rsa_key_file[] = "/pkg/rsa";

// The rows of a kind are in order of preference, which is the order of the FIPS lists and of configured host keys. The
// numbers of a kind have no gaps, nor do settings and ranks. A MAC's setting is a datastore item of its own; a host
// key's is its field in a stored tuple, so a new one takes the next free index.
namespace algorithm_list {

using enum algorithm_kind;
using enum algorithm_fips;

// clang-format off
inline constexpr algorithm_row rows[] = {
    // name                                             number, setting, server_rank, client_rank
    {kex,    "ecdh-sha2-nistp521",                        8,  0, 1, 1, offered},
    {kex,    "ecdh-sha2-nistp384",                        7,  1, 2, 2, offered},
    {kex,    "ecdh-sha2-nistp256",                        6,  2, 3, 3, offered},
    {kex,    "diffie-hellman-group14-sha1",               1,  3, 4, 4, offered},
    {kex,    "diffie-hellman-group1-sha1",                0,  4, 0, 0, unapproved},
    {kex,    "curve25519-sha256",                         9,  5, 5, 5, refused},
    {kex,    "diffie-hellman-group14-sha256",            10,  6, 6, 6, offered},
    {kex,    "diffie-hellman-group16-sha512",            11,  7, 7, 7, offered},
    {kex,    "curve25519-sha256@libssh.org",             12,  8, 8, 8, refused},
    {kex,    "diffie-hellman-group18-sha512",            -1, -1, 0, 0, approved},
    {kex,    "diffie-hellman-group15-sha1",               2, -1, 0, 0, unapproved},
    {kex,    "diffie-hellman-group16-sha1",               3, -1, 0, 0, unapproved},
    {kex,    "diffie-hellman-group17-sha1",               4, -1, 0, 0, unapproved},
    {kex,    "diffie-hellman-group18-sha1",               5, -1, 0, 0, unapproved},

    {cipher, "aes128-ctr",                                4,  0, 1, 1, offered},
    {cipher, "aes192-ctr",                                5,  1, 2, 2, offered},
    {cipher, "aes256-ctr",                                6,  2, 3, 3, offered},
    {cipher, "aes128-gcm@openssh.com",                    7,  3, 4, 4, offered},
    {cipher, "aes256-gcm@openssh.com",                    8,  4, 5, 5, offered},
    {cipher, "aes128-cbc",                                0,  5, 0, 0, approved},
    {cipher, "aes192-cbc",                                1,  6, 0, 0, approved},
    {cipher, "aes256-cbc",                                2,  7, 0, 0, approved},
    {cipher, "3des-cbc",                                  3,  8, 0, 0, unapproved},
    {cipher, "chacha20-poly1305@openssh.com",             9,  9, 6, 6, refused},

    {mac,    "hmac-sha2-512",                             3,  2, 1, 1, offered},
    {mac,    "hmac-sha2-256",                             2,  1, 2, 2, offered},
    {mac,    "hmac-sha1",                                 1,  0, 3, 3, offered},
    {mac,    "hmac-sha2-512-etm@openssh.com",            -1, -1, 0, 0, approved},
    {mac,    "hmac-sha2-256-etm@openssh.com",            -1, -1, 0, 0, approved},
    {mac,    "hmac-sha1-etm@openssh.com",                -1, -1, 0, 0, approved},
    {mac,    "hmac-md5",                                  0, -1, 0, 0, unapproved},
    {mac,    "aes-gcm",                                   4, -1, 0, 0, unapproved},

    // The key of the first one comes from its trustpoint.
    {key,    "x509v3-ssh-rsa",                            6,  5, 1, 0, refused},
    {key,    "ecdsa-sha2-nistp521",                       2,  2, 4, 3, offered,    "/pkg/ecdsa-sha2-nistp521"},
    {key,    "ecdsa-sha2-nistp384",                       3,  1, 3, 2, offered,    "/pkg/ecdsa-sha2-nistp384"},
    {key,    "ecdsa-sha2-nistp256",                       4,  0, 2, 1, offered,    "/pkg/ecdsa-sha2-nistp256"},
    {key,    "ssh-ed25519",                               5,  6, 5, 4, refused,    "/pkg/ed25519"},
    {key,    "rsa-sha2-512",                              7,  7, 6, 5, offered,    rsa_key_file},
    {key,    "rsa-sha2-256",                              8,  8, 7, 6, offered,    rsa_key_file},
    {key,    "ssh-rsa",                                   1,  9, 8, 7, refused,    rsa_key_file},
    {key,    "ssh-dss",                                   0,  4, 9, 8, refused,    "/pkg/dsa"},
    {key,    "ecdsa-sha2-nistp521-cert-v01@openssh.com", -1, -1, 0, 0, approved},
    {key,    "ecdsa-sha2-nistp384-cert-v01@openssh.com", -1, -1, 0, 0, approved},
    {key,    "ecdsa-sha2-nistp256-cert-v01@openssh.com", -1, -1, 0, 0, approved},
    {key,    "rsa-sha2-512-cert-v01@openssh.com",        -1, -1, 0, 0, approved},
    {key,    "rsa-sha2-256-cert-v01@openssh.com",        -1, -1, 0, 0, approved},
};
// clang-format on

}  // namespace algorithm_list

inline constexpr auto& algorithm_rows = algorithm_list::rows;

/// A numeric column of the list.
using algorithm_column = int8_t algorithm_row::*;

/// The row of a kind that has this value in a column; null if there is none.
constexpr const algorithm_row* algorithm_at(algorithm_kind kind, algorithm_column column, int64_t value) {
    for (const algorithm_row& row : algorithm_rows) {
        if (row.kind == kind && row.*column == value) {
            return &row;
        }
    }
    return nullptr;
}

/// The row of a name; null if the list does not contain it.
constexpr const algorithm_row* algorithm_named(algorithm_kind kind, std::string_view name) {
    for (const algorithm_row& row : algorithm_rows) {
        if (row.kind == kind && row.name == name) {
            return &row;
        }
    }
    return nullptr;
}

/// One more than the highest value in a column among the rows of a kind.
constexpr int algorithm_column_end(algorithm_kind kind, algorithm_column column) {
    int8_t highest = -1;
    for (const algorithm_row& row : algorithm_rows) {
        highest = row.kind == kind && row.*column > highest ? row.*column : highest;
    }
    return highest + 1;
}

/// The number of settings of a kind: names in a key-exchange or cipher list, MACs that can be disabled, fields of the
/// host-key item.
constexpr uint8_t algorithm_settings(algorithm_kind kind) {
    return static_cast<uint8_t>(algorithm_column_end(kind, &algorithm_row::setting));
}

/// The algorithm of a setting; null for the setting that selects every RSA algorithm.
constexpr const algorithm_row* configurable_algorithm(algorithm_kind kind, size_t setting) {
    return algorithm_at(kind, &algorithm_row::setting, static_cast<int64_t>(setting));
}

constexpr size_t count_algorithms(algorithm_kind kind, algorithm_fips fips) {
    size_t count = 0;
    for (const algorithm_row& row : algorithm_rows) {
        count += row.kind == kind && row.fips == fips ? 1 : 0;
    }
    return count;
}

// --- What the list guarantees ----------------------------------------------------------------------------------------

namespace algorithm_checks {

inline constexpr algorithm_kind kinds[] = {algorithm_kind::cipher, algorithm_kind::mac, algorithm_kind::kex,
                                           algorithm_kind::key};

/// Whether each value from `first` to the column's highest appears in exactly one row of each kind.
constexpr bool every_value_once(algorithm_column column, int first) {
    for (const algorithm_kind kind : kinds) {
        for (int value = first; value < algorithm_column_end(kind, column); value++) {
            size_t rows = 0;
            for (const algorithm_row& row : algorithm_rows) {
                rows += row.kind == kind && row.*column == value ? 1 : 0;
            }
            const bool for_all_rsa =
                kind == algorithm_kind::key && column == &algorithm_row::setting && value == all_rsa_setting;
            if (rows != (for_all_rsa ? 0 : 1)) {
                return false;
            }
        }
    }
    return true;
}

constexpr bool every_name_once() {
    for (const algorithm_row& row : algorithm_rows) {
        if (algorithm_named(row.kind, row.name) != &row) {
            return false;
        }
    }
    return true;
}

/// Whether the filters keep every algorithm that FIPS mode does not refuse.
constexpr bool only_refused_names_begin_like_refused_ones() {
    for (const algorithm_row& refused : algorithm_rows) {
        for (const algorithm_row& row : algorithm_rows) {
            if (refused.fips == algorithm_fips::refused && row.kind == refused.kind &&
                row.fips != algorithm_fips::refused && std::string_view(row.name).starts_with(refused.name)) {
                return false;
            }
        }
    }
    return true;
}

constexpr bool settings_fit_tuples() {
    for (const algorithm_row& row : algorithm_rows) {
        if (row.setting >= TUPLE_FIELDS_MAX ||
            (row.setting >= 0 && std::string_view(row.name).size() > TUPLE_NAME_MAX)) {
            return false;
        }
    }
    return true;
}

static_assert(every_name_once(), "duplicate name");
static_assert(every_value_once(&algorithm_row::number, 0), "numbers begin at 0, without gap and duplicate");
static_assert(every_value_once(&algorithm_row::setting, 0), "settings begin at 0, without gap and duplicate");
static_assert(every_value_once(&algorithm_row::server_rank, 1), "ranks begin at 1, without gap and duplicate");
static_assert(every_value_once(&algorithm_row::client_rank, 1), "ranks begin at 1, without gap and duplicate");
static_assert(only_refused_names_begin_like_refused_ones(), "the filters would remove a name that is not refused");
static_assert(settings_fit_tuples(), "a setting or its name does not fit a value tuple");

}  // namespace algorithm_checks

#endif
