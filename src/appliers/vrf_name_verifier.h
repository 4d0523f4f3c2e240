/// Which names a VRF may have. The name becomes part of file names and shell commands, and nothing after this verifier
/// checks it again.
#ifndef APPLIERS_VRF_NAME_VERIFIER_H
#define APPLIERS_VRF_NAME_VERIFIER_H

#include "platform/datastore_backend.h"

/// Refuses (with EINVAL and a text for the operator) a VRF item without a value, and one whose name contains a
/// character for which datastore_reserved_character is true. A removal is always accepted.
platform_status vrf_name_verifier(const datastore_change* change, char** error_text, uint32_t* accepted,
                                  const datastore_path_components* components);

#endif
