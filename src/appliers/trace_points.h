/// Trace points: settings, algorithms, trustpoints and keys.
#ifndef APPLIERS_TRACE_POINTS_H
#define APPLIERS_TRACE_POINTS_H

#include "core/trace.h"

// clang-format off
#define APPLIERS_TRACE_POINTS(ERROR, EVENT)                                                                        \
    EVENT(0x400, appliers, logging, "server setting logging applied", "event", "value")                            \
    ERROR(0x40a, appliers, port_forwarding_value, "value of port forwarding out of range", "value")                \
    ERROR(0x40b, appliers, port_forwarding_event, "event of port forwarding unknown", "event")                     \
    ERROR(0x40c, appliers, vrf_name, "VRF name refused", "reason")                                                 \
    ERROR(0x40d, appliers, kex_refused, "key exchanges refused", "reason", "status")                               \
    ERROR(0x40e, appliers, cipher_refused, "ciphers refused", "reason", "status")                                  \
    ERROR(0x40f, appliers, host_key_refused, "host-key algorithms refused", "reason", "status")                    \
    ERROR(0x410, appliers, mac_refused, "disabling of a MAC refused", "reason", "status")                          \
    ERROR(0x411, appliers, unpack, "list of algorithms malformed", "tag", "status")                                \
    ERROR(0x412, appliers, fips_question, "FIPS mode unknown", "function")                                         \
    EVENT(0x413, appliers, server_kex, "server key exchanges applied", "event", "list")                            \
    EVENT(0x414, appliers, server_cipher, "server ciphers applied", "event", "list")                               \
    EVENT(0x415, appliers, server_legacy_cipher, "server legacy ciphers applied", "event", "mask", "list")         \
    EVENT(0x416, appliers, server_mac, "server MACs applied", "event", "list")                                     \
    EVENT(0x417, appliers, host_key, "host-key algorithms applied", "event", "list", "files")                      \
    EVENT(0x418, appliers, client_kex, "client key exchanges applied", "event", "list")                            \
    EVENT(0x419, appliers, client_cipher, "client ciphers applied", "event", "list")                               \
    EVENT(0x41a, appliers, client_legacy_cipher, "client legacy ciphers applied", "event", "mask", "list")         \
    EVENT(0x41b, appliers, client_mac, "client MACs applied", "event", "list")                                     \
    ERROR(0x41c, appliers, cipher_write, "ciphers not written", "function", "status")                              \
    ERROR(0x41d, appliers, memory, "out of memory", "function")                                                    \
    EVENT(0x420, appliers, client_known_hosts, "client setting known-hosts file applied", "event", "value")        \
    EVENT(0x421, appliers, client_host_key_checking, "client setting host-key checking applied", "event", "value") \
    EVENT(0x425, appliers, trustpoint_host, "host trustpoint applied", "event", "name")                            \
    EVENT(0x426, appliers, trustpoint_user, "user trustpoints applied", "event", "count", "list")                  \
    ERROR(0x427, appliers, trustpoint_event, "trustpoint change not understood", "reason")                         \
    ERROR(0x428, appliers, trustpoint_refused, "trustpoint refused", "reason", "status")                           \
    ERROR(0x429, appliers, trustpoint_cut, "list of user trustpoints too long and cut", "list")                    \
    EVENT(0x42a, appliers, certificate_username, "source of certificate user names applied", "event", "value")     \
    ERROR(0x42b, appliers, item_name, "item without a name or value", "user")                                      \
    EVENT(0x42c, appliers, user_key, "public key of a user stored, or removed (0 bits)", "user", "bits")           \
    ERROR(0x42d, appliers, user_key_refused, "public key of a user refused", "reason", "status")                   \
    ERROR(0x42e, appliers, user_list, "users of the AAA service not read", "path", "status")                       \
    ERROR(0x42f, appliers, user_key_failed, "public key of a user neither stored nor removed", "user", "status")   \
    ERROR(0x430, appliers, user_duplicate, "more than one user below one index", "path", "count")                  \
    ERROR(0x431, appliers, trustpoint_dropped, "user trustpoint beyond the tenth dropped", "name")
// clang-format on

APPLIERS_TRACE_POINTS(DEFINE_TRACE_ERROR, DEFINE_TRACE_EVENT)

// The trace points of the single-valued settings are in their rows, with codes of the same range.
#define SETTING(path, verifier, applier, code, name, ...) DEFINE_TRACE_EVENT(code, appliers, name)
#include "config_files/configuration.def"

#endif
