/// Descriptors of all records that the agent passes to the datastore, and the sets in which they are registered.
#ifndef OPER_RECORD_SCHEMAS_H
#define OPER_RECORD_SCHEMAS_H

#include <cstdint>

#include "platform/record_codec.h"

const record_descriptor* ssh_session_brief_descriptor();
const record_descriptor* ssh_session_detail_descriptor();
const record_descriptor* ssh_session_rekey_descriptor();
const record_descriptor* sshd_sessioninfo_descriptor();
const record_descriptor* sshd_kexinfo_descriptor();
const record_descriptor* sshd_rekey_descriptor();
const record_descriptor* ssh_server_params_descriptor();
const record_descriptor* overlay_crypto_ssh_system_descriptor();

/// Register one set, completely or not at all. Return 0 or the codec's error.
platform_status register_session_records();           ///< "libssh_xml_bag_desc.dll"
platform_status register_command_line_records();      ///< "show_ssh_bag_desc.dll"
platform_status register_server_parameter_records();  ///< "libssh_server_params_bag_desc.dll"
platform_status register_telemetry_records();         ///< "liboverlay_crypto_ssh_oper_bag_descr.dll"

/// All descriptors, in the order of registration, for tests.
const record_descriptor* record_descriptors(uint32_t* count);

#endif
