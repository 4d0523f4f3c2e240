/// Disabling of MACs, one item each, for the server and for the client.
#ifndef APPLIERS_MAC_DISABLING_H
#define APPLIERS_MAC_DISABLING_H

#include "platform/datastore_backend.h"

/// Refuse (EINVAL) to disable the last MAC: if the other two are already disabled, whatever the value, and if one
/// commit disables all three.
platform_status server_mac_disable_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                                            const datastore_path_components* components);
platform_status client_mac_disable_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                                            const datastore_path_components* components);

/// Write the remaining MACs in the order of the default. Return 0.
platform_status sshd_apply_disable_hmac_sha1(const datastore_change* change,
                                             const datastore_path_components* components);
platform_status sshd_apply_disable_hmac_sha256(const datastore_change* change,
                                               const datastore_path_components* components);
platform_status sshd_apply_disable_hmac_sha512(const datastore_change* change,
                                               const datastore_path_components* components);
platform_status ssh_client_apply_disable_hmac_sha1(const datastore_change* change,
                                                   const datastore_path_components* components);
platform_status ssh_client_apply_disable_hmac_sha256(const datastore_change* change,
                                                     const datastore_path_components* components);
platform_status ssh_client_apply_disable_hmac_sha512(const datastore_change* change,
                                                     const datastore_path_components* components);

#endif
