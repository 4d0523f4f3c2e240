#include <algorithm>
#include <array>
#include <iterator>
#include <string_view>

#include "linux/datastore/schema.h"
#include "platform/algorithms.h"
#include "platform/value_tuple.h"

namespace {

constexpr schema_form number(int64_t lowest, int64_t highest, const char* help) {
    return {schema_kind::number, lowest, highest, schema_charset::printable, help};
}

constexpr schema_form flag(const char* help) {
    return {schema_kind::flag, 0, 1, schema_charset::printable, help};
}

constexpr schema_form presence(const char* help) {
    return {schema_kind::presence, 1, 1, schema_charset::printable, help};
}

constexpr schema_form text(schema_charset charset, int64_t lowest, int64_t highest, const char* help) {
    return {schema_kind::text, lowest, highest, charset, help};
}

constexpr schema_form tuple(const char* help) {
    return {schema_kind::tuple, 0, 0, schema_charset::printable, help};
}

constexpr schema_form no_wildcard = {};

// Names in paths and values. A VRF's name becomes part of shell commands, file names and unit names; a trustpoint's
// goes into a buffer of 128 bytes and, with others, into a comma-separated line.
constexpr schema_form vrf_name = text(schema_charset::name, 1, 32, "VRF name");
constexpr schema_form user_name = text(schema_charset::name, 1, 64, "user name");
constexpr schema_form trustpoint_name = text(schema_charset::name, 1, 127, "trustpoint name");
constexpr schema_form ipv4_list_name = text(schema_charset::name, 1, 64, "name of an IPv4 access list");
constexpr schema_form ipv6_list_name = text(schema_charset::name, 1, 64, "name of an IPv6 access list");
constexpr schema_form algorithm = text(schema_charset::algorithm_name, 1, TUPLE_NAME_MAX, "algorithm name");

// Settings that server and client share.
constexpr schema_form dscp = number(0, 63, "DSCP code point");
constexpr schema_form rekey_time = number(1, 1440, "minutes between rekeys");
constexpr schema_form rekey_volume = number(1, 4096, "megabytes between rekeys");
constexpr schema_form window_scale = number(1, 14, "TCP window scale factor");
constexpr schema_form mac_disabled = flag("whether this MAC is disabled");
constexpr schema_form version_1 = presence("SSH protocol version 1, not supported");
constexpr schema_form version_2 = presence("SSH protocol version 2");

constexpr schema_field vrf_access[] = {
    {"index", number(0, INT32_MAX, "not used")},
    {"ipv4_acl", ipv4_list_name},
    {"ipv6_acl", ipv6_list_name},
};

constexpr schema_field backup_server[] = {
    {"port", number(1, 65535, "TCP port")},
    {"vrf", vrf_name},
};

// Why settings are stored without effect.
constexpr char kernel_window[] = "the kernel chooses the TCP window";
constexpr char no_certificates[] = "OpenSSH does not support x509v3 certificates";
constexpr char version_2_only[] = "OpenSSH supports protocol version 2 only";
constexpr char fixed_netconf_port[] = "NETCONF servers use port 830";
constexpr char no_backup_server[] = "there is no backup server";
constexpr char no_client_vrf[] = "the client uses the VRF in which it is started";
constexpr char no_client_source[] = "the client uses the address that the kernel chooses";
constexpr char no_3des[] = "3des-cbc is not supported";

// A list of names takes as many fields as there are names.
constexpr schema_field algorithms[] = {
    {"algorithm_1", algorithm},  {"algorithm_2", algorithm},  {"algorithm_3", algorithm},  {"algorithm_4", algorithm},
    {"algorithm_5", algorithm},  {"algorithm_6", algorithm},  {"algorithm_7", algorithm},  {"algorithm_8", algorithm},
    {"algorithm_9", algorithm},  {"algorithm_10", algorithm}, {"algorithm_11", algorithm}, {"algorithm_12", algorithm},
    {"algorithm_13", algorithm}, {"algorithm_14", algorithm}, {"algorithm_15", algorithm}, {"algorithm_16", algorithm},
};
constexpr std::span<const schema_field> key_exchanges(algorithms, algorithm_settings(algorithm_kind::kex));
constexpr std::span<const schema_field> ciphers(algorithms, algorithm_settings(algorithm_kind::cipher));
static_assert(key_exchanges.size() <= std::size(algorithms) && ciphers.size() <= std::size(algorithms));

constexpr std::array<schema_field, algorithm_settings(algorithm_kind::key)> make_host_key_fields() {
    std::array<schema_field, algorithm_settings(algorithm_kind::key)> fields = {};
    fields.fill({"rsa", flag("whether all RSA algorithms are offered")});  // the setting without a row
    for (const algorithm_row& row : algorithm_rows) {
        if (row.kind == algorithm_kind::key && row.setting >= 0) {
            const bool is_certificate = std::string_view(row.name).starts_with("x509");
            fields[static_cast<uint8_t>(row.setting)] = {row.name, flag("whether this host-key algorithm is offered"),
                                                         is_certificate ? no_certificates : nullptr};
        }
    }
    return fields;
}
constexpr auto host_keys = make_host_key_fields();

constexpr schema_field legacy_ciphers[] = {
    {"aes-cbc", flag("whether the AES ciphers in CBC mode are also offered")},
    {"3des-cbc", flag("not supported"), no_3des},
};

constexpr schema_field certificate_user[] = {
    {"common-name", flag("whether the certificate's common name is the user name")},
    {"user-principal-name", flag("whether the certificate's user principal name is the user name")},
};

#define SERVER "/cfg/gl/crypto/ssh/server/"
#define CLIENT "/cfg/gl/crypto/ssh/client/"
#define BACKUP "/cfg/gl/crypto/ssh/sshd_backup/"

constexpr char default_ciphers[] =
    R"(["aes128-ctr", "aes192-ctr", "aes256-ctr", "aes128-gcm@openssh.com", "aes256-gcm@openssh.com", "chacha20-poly1305@openssh.com"])";
constexpr char default_key_exchanges[] =
    R"(["ecdh-sha2-nistp521", "ecdh-sha2-nistp384", "ecdh-sha2-nistp256", "diffie-hellman-group14-sha1", "curve25519-sha256", "diffie-hellman-group14-sha256", "diffie-hellman-group16-sha512", "curve25519-sha256@libssh.org"])";

constexpr schema_form key_exchange_list = tuple("key-exchange algorithms in order of preference");
constexpr schema_form cipher_list = tuple("ciphers in order of preference");
constexpr schema_form backup_place = tuple("port and VRF of the backup server, not supported");

/// Bytes of a banner with its delimiters: more than any screen shows, and little to send at every login.
constexpr int64_t banner_size_max = 8192;

constexpr schema_form banner(const char* help) {
    return text(schema_charset::delimited, 2, banner_size_max, help);
}

// In byte order of the patterns.
constexpr schema_row rows[] = {
    {"/cfg/gl/aaa/banner/0x0",
     banner("AAA banner, the message of the day after login"),
     {"no banner", R"("#Changes are logged.#")"},
     no_wildcard,
     {},
     {}},
    {"/cfg/gl/banner/0x2",
     banner("message of the day, shown with the login banner"),
     {"no message", R"("#Maintenance tonight.#")"},
     no_wildcard,
     {},
     {}},
    {"/cfg/gl/banner/0x3",
     banner("login banner, shown before login"),
     {"no banner", R"("#Authorized users only.#")"},
     no_wildcard,
     {},
     {}},
    {"/cfg/gl/crypto/fipsmode/value",
     flag("FIPS mode is on while this item exists, whatever its value"),
     {"off", "true"},
     no_wildcard,
     {},
     {}},
    {CLIENT "algorithms/cipher",
     cipher_list,
     {default_ciphers, R"(["aes256-gcm@openssh.com", "aes256-ctr"])"},
     no_wildcard,
     ciphers,
     schema_tuple_rule::list},
    {CLIENT "algorithms/key-exchange",
     key_exchange_list,
     {default_key_exchanges, R"(["ecdh-sha2-nistp384", "ecdh-sha2-nistp256"])"},
     no_wildcard,
     key_exchanges,
     schema_tuple_rule::list},
    {CLIENT "disable/hmac/hmac_sha1", mac_disabled, {"false", "true"}, no_wildcard, {}, {}},
    {CLIENT "disable/hmac/hmac_sha256", mac_disabled, {"false", "true"}, no_wildcard, {}, {}},
    {CLIENT "disable/hmac/hmac_sha512", mac_disabled, {"false", "true"}, no_wildcard, {}, {}},
    {CLIENT "dscp", dscp, {"16", "46"}, no_wildcard, {}, {}},
    {CLIENT "enable/cipher",
     tuple("legacy ciphers"),
     {"[false, false]", "[true, false]"},
     no_wildcard,
     legacy_ciphers,
     {}},
    {CLIENT "host_pubkey",
     text(schema_charset::path, 1, 200, "file with the public keys of known hosts"),
     {"/dev/null: host keys are neither recorded nor checked", R"("/etc/ssh/ssh_known_hosts")"},
     no_wildcard,
     {},
     {}},
    {CLIENT "portnvrf", backup_place, {"none", R"([2222, "mgmt"])"}, no_wildcard, backup_server, {}, no_backup_server},
    {CLIENT "rekey_time", rekey_time, {"60", "30", "minutes"}, no_wildcard, {}, {}},
    {CLIENT "rekey_volume", rekey_volume, {"1024", "512", "megabytes"}, no_wildcard, {}, {}},
    {CLIENT "source",
     text(schema_charset::word, 1, 64, "source interface of connections"),
     {"none", R"("Loopback0")"},
     no_wildcard,
     {},
     {},
     no_client_source},
    {CLIENT "tcp_window_scale", window_scale, {"none", "7"}, no_wildcard, {}, {}, kernel_window},
    {CLIENT "v1", version_1, {"not configured", "true"}, no_wildcard, {}, {}, version_2_only},
    {CLIENT "v2", version_2, {"not configured", "true"}, no_wildcard, {}, {}},
    {CLIENT "vrf", vrf_name, {"none", R"("mgmt")"}, no_wildcard, {}, {}, no_client_vrf},
    {SERVER "cmn/algorithms/cipher",
     cipher_list,
     {default_ciphers, R"(["aes256-gcm@openssh.com", "aes256-ctr"])"},
     no_wildcard,
     ciphers,
     schema_tuple_rule::list},
    {SERVER "cmn/algorithms/host-key",
     tuple("host-key algorithms"),
     {"all of them", R"({"ecdsa-sha2-nistp384": true, "rsa-sha2-512": true})"},
     no_wildcard,
     host_keys,
     schema_tuple_rule::one_selected},
    {SERVER "cmn/algorithms/key-exchange",
     key_exchange_list,
     {default_key_exchanges, R"(["ecdh-sha2-nistp384", "ecdh-sha2-nistp256"])"},
     no_wildcard,
     key_exchanges,
     schema_tuple_rule::list},
    {SERVER "cmn/capability/netconf-xml",
     presence("NETCONF over SSH"),
     {"not configured", "true"},
     no_wildcard,
     {},
     {}},
    {SERVER "cmn/certificate/username",
     tuple("certificate fields that contain the user name"),
     {"[true, false]", "[false, true]"},
     no_wildcard,
     certificate_user,
     {},
     no_certificates},
    {SERVER "cmn/disable/hmac/hmac_sha1", mac_disabled, {"false", "true"}, no_wildcard, {}, {}},
    {SERVER "cmn/disable/hmac/hmac_sha256", mac_disabled, {"false", "true"}, no_wildcard, {}, {}},
    {SERVER "cmn/disable/hmac/hmac_sha512", mac_disabled, {"false", "true"}, no_wildcard, {}, {}},
    {SERVER "cmn/dscp", dscp, {"16", "46"}, no_wildcard, {}, {}},
    {SERVER "cmn/enable/cipher",
     tuple("legacy ciphers"),
     {"[false, false]", "[true, false]"},
     no_wildcard,
     legacy_ciphers,
     {}},
    {SERVER "cmn/logging",
     presence("logins and logouts are logged in detail"),
     {"not configured", "true"},
     no_wildcard,
     {},
     {}},
    {SERVER "cmn/max_auth_limit",
     number(3, 20, "login attempts per connection"),
     {"20", "5", "attempts"},
     no_wildcard,
     {},
     {}},
    {SERVER "cmn/port_forwarding", number(0, 1, "0 none, 1 local"), {"0", "1"}, no_wildcard, {}, {}},
    {SERVER "cmn/rate_limit",
     number(1, 600, "new connections per minute"),
     {"60", "120", "connections per minute"},
     no_wildcard,
     {},
     {}},
    {SERVER "cmn/rekey_time", rekey_time, {"60", "30", "minutes"}, no_wildcard, {}, {}},
    {SERVER "cmn/rekey_volume", rekey_volume, {"1024", "512", "megabytes"}, no_wildcard, {}, {}},
    {SERVER "cmn/session_limit", number(1, 100, "concurrent sessions"), {"64", "10", "sessions"}, no_wildcard, {}, {}},
    {SERVER "cmn/tcp_window_scale", window_scale, {"1", "7"}, no_wildcard, {}, {}, kernel_window},
    {SERVER "cmn/timeout", number(5, 120, "seconds, login grace time"), {"30", "45", "seconds"}, no_wildcard, {}, {}},
    {SERVER "cmn/trustpoint/host", trustpoint_name, {"none", R"("router")"}, no_wildcard, {}, {}, no_certificates},
    {SERVER "cmn/trustpoint/user/*",
     presence("certificate authority for users"),
     {"none", "true"},
     trustpoint_name,
     {},
     {},
     no_certificates},
    {SERVER "cmn/username/*", presence("user with a public key"), {"none", "true"}, user_name, {}, {}},
    {SERVER "cmn/username/*/keystr",
     text(schema_charset::printable, 1, 2048, "public key, \"ssh-rsa AAAA... comment\""),
     {"none", R"("ssh-rsa AAAA... alice@example")"},
     user_name,
     {},
     {}},
    {SERVER "cmn/v1", version_1, {"not configured", "true"}, no_wildcard, {}, {}, version_2_only},
    {SERVER "sshd/netconf",
     number(1, 65535, "NETCONF port, not supported"),
     {"830", "830"},
     no_wildcard,
     {},
     {},
     fixed_netconf_port},
    {SERVER "sshd/v2", version_2, {"not configured", "true"}, no_wildcard, {}, {}},
    {SERVER "sshd/vrf-netconf/*",
     tuple("NETCONF server of a VRF"),
     {"no server", R"({"ipv4_acl": "netconf_access"})"},
     vrf_name,
     vrf_access,
     {}},
    {SERVER "sshd/vrf/*",
     tuple("SSH server of a VRF"),
     {"no server", R"({"ipv4_acl": "ssh_access"})"},
     vrf_name,
     vrf_access,
     {}},
    {BACKUP "portnvrf", backup_place, {"none", R"([2222, "mgmt"])"}, no_wildcard, backup_server, {}, no_backup_server},
};

static_assert(std::ranges::is_sorted(rows, {}, [](const schema_row& row) { return std::string_view(row.pattern); }),
              "the rows do not stand in byte order of their patterns");

#undef SERVER
#undef CLIENT
#undef BACKUP

}  // namespace

std::span<const schema_row> schema_rows() {
    return rows;
}
