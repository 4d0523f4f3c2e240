#include "oper/session_mappings.h"

#include <algorithm>
#include <iterator>

#include "platform/algorithms.h"

namespace {

// The index of a name is its enumeration value.

constexpr std::string_view authen_types[] = {
    "password",
    "rsa-pubkey",
    "key-intr",
    "x509-rsa-pubkey",
    "x509-dsa-pubkey",
    "x509-ecdsa521-pubkey",
    "x509-ecdsa384-pubkey",
    "x509-ecdsa256-pubkey",
};

int32_t number_of(algorithm_kind kind, std::string_view name) {
    const algorithm_row* row = algorithm_named(kind, name);
    return row != nullptr ? row->number : unknown_name;
}
static_assert(unknown_name == -1, "the number of an algorithm that session records do not know");

}  // namespace

int32_t authen_type_of(std::string_view name) {
    const auto* place = std::find(std::begin(authen_types), std::end(authen_types), name);
    return place != std::end(authen_types) ? static_cast<int32_t>(place - authen_types) : unknown_name;
}
int32_t kex_name_of(std::string_view name) {
    return number_of(algorithm_kind::kex, name);
}
int32_t hostkey_type_of(std::string_view name) {
    return number_of(algorithm_kind::key, name);
}
int32_t cipher_type_of(std::string_view name) {
    return number_of(algorithm_kind::cipher, name);
}
int32_t mac_type_of(std::string_view name) {
    return number_of(algorithm_kind::mac, name);
}
