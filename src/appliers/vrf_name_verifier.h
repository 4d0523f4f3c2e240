/// What may be the name of a VRF. The name becomes part of file names and of shell commands; nothing behind this verifier
/// tests it again.
#ifndef APPLIERS_VRF_NAME_VERIFIER_H
#define APPLIERS_VRF_NAME_VERIFIER_H

#include "platform/datastore_backend.h"

/// Refuses (with EINVAL and a text for the operator) a VRF item without a value, and one whose name has a character that
/// datastore_reserved_character keeps from names. A removal is always accepted.
platform_status vrf_name_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                                  const datastore_path_components* components);

#endif
