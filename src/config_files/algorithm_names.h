/// Lists of algorithms that apply by default, outside and in FIPS mode.
///
/// The compiler composes them from the platform's list of algorithms; each is one whole string in the program.
#ifndef CONFIG_FILES_ALGORITHM_NAMES_H
#define CONFIG_FILES_ALGORITHM_NAMES_H

#include <cstddef>
#include <string_view>

#include "platform/algorithms.h"

/// A comma-separated list. A list that is too long does not compile.
struct composed_list {
    char text[256];
    size_t length;

    constexpr void append_text(std::string_view added) {
        for (const char character : added) {
            text[length++] = character;
        }
        text[length] = '\0';
    }
    constexpr void append(std::string_view name) {
        append_text(length > 0 ? "," : "");
        append_text(name);
    }
    /// Appends a file that consecutive algorithms share only once.
    constexpr void append_key_file(const algorithm_row& row) {
        if (row.key_file[0] != '\0' && !std::string_view(text, length).ends_with(row.key_file)) {
            append(row.key_file);
        }
    }
};

namespace compose {

/// The names of a kind in the order of their ranks.
constexpr composed_list ranked_names(algorithm_kind kind, algorithm_column rank) {
    composed_list list = {};
    for (int place = 1; place < algorithm_column_end(kind, rank); place++) {
        list.append(algorithm_at(kind, rank, place)->name);
    }
    return list;
}

/// The host-key files in the order of their algorithms' ranks.
constexpr composed_list ranked_key_files(algorithm_column rank) {
    composed_list list = {};
    for (int place = 1; place < algorithm_column_end(algorithm_kind::key, rank); place++) {
        list.append_key_file(*algorithm_at(algorithm_kind::key, rank, place));
    }
    return list;
}

/// The names of a kind that FIPS mode treats alike, in the order of the rows, followed by a text.
constexpr composed_list fips_names(algorithm_kind kind, algorithm_fips fips, std::string_view ending) {
    composed_list list = {};
    for (const algorithm_row& row : algorithm_rows) {
        if (row.kind == kind && row.fips == fips) {
            list.append(row.name);
        }
    }
    list.append_text(ending);
    return list;
}

constexpr composed_list fips_key_files() {
    composed_list list = {};
    for (const algorithm_row& row : algorithm_rows) {
        if (row.kind == algorithm_kind::key && row.fips == algorithm_fips::offered) {
            list.append_key_file(row);
        }
    }
    return list;
}

template <algorithm_kind kind, algorithm_column rank>
inline constexpr composed_list by_rank = ranked_names(kind, rank);

template <algorithm_column rank>
inline constexpr composed_list key_files_by_rank = ranked_key_files(rank);

template <algorithm_kind kind>
inline constexpr composed_list offered_in_fips = fips_names(kind, algorithm_fips::offered, "");

inline constexpr composed_list key_files_in_fips = fips_key_files();

constexpr bool server_and_client_agree(algorithm_kind kind) {
    for (const algorithm_row& row : algorithm_rows) {
        if (row.kind == kind && row.server_rank != row.client_rank) {
            return false;
        }
    }
    return true;
}

}  // namespace compose

inline constexpr const char* default_cipher_list =
    compose::by_rank<algorithm_kind::cipher, &algorithm_row::server_rank>.text;
inline constexpr const char* default_mac_list = compose::by_rank<algorithm_kind::mac, &algorithm_row::server_rank>.text;
inline constexpr const char* default_kex_list = compose::by_rank<algorithm_kind::kex, &algorithm_row::server_rank>.text;
static_assert(compose::server_and_client_agree(algorithm_kind::cipher) &&
                  compose::server_and_client_agree(algorithm_kind::mac) &&
                  compose::server_and_client_agree(algorithm_kind::kex),
              "server and client share these lists");

inline constexpr const char* default_server_host_key_algorithms =
    compose::by_rank<algorithm_kind::key, &algorithm_row::server_rank>.text;
inline constexpr const char* default_client_host_key_algorithms =
    compose::by_rank<algorithm_kind::key, &algorithm_row::client_rank>.text;
inline constexpr const char* default_host_keys = compose::key_files_by_rank<&algorithm_row::server_rank>.text;

inline constexpr const char* fips_cipher_list = compose::offered_in_fips<algorithm_kind::cipher>.text;
inline constexpr const char* fips_kex_list = compose::offered_in_fips<algorithm_kind::kex>.text;
inline constexpr const char* fips_host_key_algorithms = compose::offered_in_fips<algorithm_kind::key>.text;
inline constexpr const char* fips_host_keys = compose::key_files_in_fips.text;

/// What enabling the legacy AES ciphers appends; no new algorithm is added here.
inline constexpr char legacy_aes_ciphers[] = "aes128-cbc,aes192-cbc,aes256-cbc";

/// Signature algorithms of users' keys and certificates, which sshd lists separately from host keys.
inline constexpr char default_accepted_algorithms[] =
    "x509v3-ssh-rsa,x509v3-ecdsa-sha2-nistp256,x509v3-ecdsa-sha2-nistp384,x509v3-ecdsa-sha2-nistp521,x509v3-ssh-dss,ssh-rsa";

#endif
