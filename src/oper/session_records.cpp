#include "oper/session_records.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/debug.h"
#include "core/log.h"
#include "core/text.h"
#include "oper/record_schemas.h"
#include "oper/session_mappings.h"
#include "oper/session_query.h"
#include "oper/trace_points.h"
#include "platform/node_identity.h"
#include "platform/record_codec.h"

namespace {

constexpr char no_line[] = "XXXXX";
constexpr size_t quantity_size = 11;  // at most 10 characters and NUL
constexpr double seconds_per_minute = 60.0;
constexpr double mebibytes_per_byte = 1.0 / 1048576;

enum direction : size_t { incoming, outgoing, direction_count };

/// Outcome for one snapshot.
enum class filled { entry, nothing, out_of_memory };

/// A kind of record: how an entry is built from a snapshot, and its log texts.
struct session_report {
    const char* routine;
    size_t entry_size;
    size_t link_offset;
    filled (*fill)(const session_report& report, const session_snapshot& snapshot, direction side, void* entry);
    const record_descriptor* (*descriptor)();
    const char* count_text[direction_count];
    const char* allocation_location[direction_count];
    const char* encode_failed;
};

/// A record of any kind: all of them consist of two lists.
union two_sided_record {
    void* first[direction_count] = {};
    ssh_session_brief brief;
    ssh_session_detail detail;
    ssh_session_rekey rekey;
};
static_assert(sizeof(two_sided_record) == direction_count * sizeof(void*));

void report_out_of_memory(const char* location) {
    log_location(ERR_MALLOC, ENOMEM, location);
    trace_error(oper_trace_allocation, {location, ENOMEM});
}

/// Finishes an entry; some of its texts may have run out of memory.
filled finished(const session_report& report, direction side, bool failed) {
    if (!failed) {
        return filled::entry;
    }
    report_out_of_memory(report.allocation_location[side]);
    return filled::out_of_memory;
}

/// The number of the terminal line; 0 for a channel without one.
uint32_t line_number(const char* line) {
    int number = 0;
    return sscanf(line, "vty %d", &number) == 1 ? static_cast<uint32_t>(number) : 0;
}

void fill_channel(const session_report& report, const session_snapshot& snapshot, size_t slot, ssh_mcinfo* channel) {
    const char* line = snapshot.line[slot];
    channel->ChannelID = snapshot.channel_id[slot];
    channel->ConnectionType = static_cast<int32_t>(snapshot.connection_type[slot]);
    channel->VTYLineNumber = line_number(line);
    channel->VTYAssigned = begins_with(line, no_line) ? 0 : 1;
    debug_print("%s, Line:=%s,Userid:=%s,Host:=%s,Authen Method:=%s", report.routine, line, snapshot.user_id,
                snapshot.remote_host, snapshot.authentication_method);
}

/// Fills in the channels in use: at most as many as the session reports open and as fit.
void fill_channels(const session_report& report, const session_snapshot& snapshot, session_brief_info* entry,
                   uint32_t room) {
    const uint32_t most = std::min(snapshot.open_channels, room);
    for (size_t slot = 1; slot < channel_slots && entry->McInfo.count < most; ++slot) {
        if (channel_in_use(snapshot, slot)) {
            fill_channel(report, snapshot, slot, &entry->McInfo.elements[entry->McInfo.count++]);
        }
    }
}

filled fill_brief(const session_report& report, const session_snapshot& snapshot, direction side, void* place) {
    auto* entry = static_cast<session_brief_info*>(place);
    uint32_t node_id = 0;
    char node_name[NODE_NAME_SIZE];
    if (own_node_id(&node_id) != PLATFORM_OK ||
        node_identity_name(node_id, node_name, sizeof(node_name)) != PLATFORM_OK) {
        return filled::nothing;
    }
    if (snapshot.session_id == no_session) {
        entry->SessionID = entry->NodeName = UINT32_MAX;
        entry->SessionState = entry->Version = entry->AuthenticationType = -1;
        return filled::entry;
    }
    // A session has no more channels than there are slots, whatever it claims. Only one channel of an outgoing session
    // is shown.
    const uint32_t room =
        side == outgoing ? 1 : std::clamp(snapshot.open_channels, 1U, static_cast<uint32_t>(channel_slots - 1));
    entry->McInfo.elements = static_cast<ssh_mcinfo*>(calloc(room, sizeof(ssh_mcinfo)));
    if (entry->McInfo.elements == nullptr) {
        report_out_of_memory(side == incoming ? "SESN BRF (IN) MULTI-CHANNEL" : "SESN BRF (OUT) MULTI_CHANNEL");
        return filled::out_of_memory;
    }
    bool failed = false;
    entry->SessionID = snapshot.session_id;
    entry->NodeName = node_id;
    entry->SessionState = static_cast<int32_t>(snapshot.session_state);
    entry->UserID = owned_text(snapshot.user_id, &failed);
    entry->HostAddress = owned_text(snapshot.remote_host, &failed);
    entry->Version = snapshot.protocol_version != 0 ? 1 : 0;
    entry->AuthenticationType = authen_type_of(snapshot.authentication_method);
    debug_print("incoming authen method = %d", entry->AuthenticationType);
    fill_channels(report, snapshot, entry, room);
    return finished(report, side, failed);
}

filled fill_detail(const session_report& report, const session_snapshot& snapshot, direction /*side*/, void* place) {
    auto* entry = static_cast<session_detail_info*>(place);
    entry->SessionID = snapshot.session_id;
    if (snapshot.session_id == no_session) {
        entry->KeyExchange = entry->PublicKey = entry->InCipher = entry->OutCipher = entry->InMAC = entry->OutMAC = -1;
        return filled::entry;
    }
    debug_print("%s:%d session_id:%d kexname: %s hostkeyalg:%s incipher:%s outcipher:%s inmac:%s outmac:%s",
                report.routine, __LINE__, static_cast<int>(snapshot.session_id), snapshot.kex_algorithm,
                snapshot.host_key_algorithm, snapshot.in_cipher, snapshot.out_cipher, snapshot.in_mac,
                snapshot.out_mac);
    entry->KeyExchange = kex_name_of(snapshot.kex_algorithm);
    entry->PublicKey = hostkey_type_of(snapshot.host_key_algorithm);
    entry->InCipher = cipher_type_of(snapshot.in_cipher);
    entry->OutCipher = cipher_type_of(snapshot.out_cipher);
    entry->InMAC = mac_type_of(snapshot.in_mac);
    entry->OutMAC = mac_type_of(snapshot.out_mac);
    return filled::entry;
}

/// A quantity with one decimal, truncated to 10 characters.
char* quantity_text(double quantity, bool* failed) {
    char text[quantity_size];
    format_text(text, sizeof(text), "%.1f", quantity);
    return owned_text(text, failed);
}

filled fill_rekey(const session_report& report, const session_snapshot& snapshot, direction side, void* place) {
    auto* entry = static_cast<session_rekey_info*>(place);
    entry->SessionID = snapshot.session_id;
    if (snapshot.session_id == no_session) {
        entry->SessionRekeyCount = UINT32_MAX;
        return filled::entry;
    }
    debug_print("%s:%d session_id:=%d session_rekey_count:=%d, next_rekey_time_str:=%s data_to_rekey:%d",
                report.routine, __LINE__, static_cast<int>(snapshot.session_id), static_cast<int>(snapshot.rekey_count),
                snapshot.time_to_rekey, static_cast<int>(snapshot.data_to_rekey));
    entry->SessionRekeyCount = snapshot.rekey_count;
    const unsigned long seconds = strtoul(snapshot.time_to_rekey, nullptr, 10);
    bool failed = false;
    if (seconds > 0) {
        entry->TimeToRekey = quantity_text(static_cast<double>(seconds) / seconds_per_minute, &failed);
        if (snapshot.data_to_rekey != SESSION_DATA_UNKNOWN) {
            entry->VolumeToRekey = quantity_text(snapshot.data_to_rekey * mebibytes_per_byte, &failed);
        }
    }
    return finished(report, side, failed);
}

constexpr session_report brief_report = {
    .routine = "get_ssh_session_brief",
    .entry_size = sizeof(session_brief_info),
    .link_offset = offsetof(session_brief_info, NextSession),
    .fill = fill_brief,
    .descriptor = ssh_session_brief_descriptor,
    .count_text = {"%s:%d Incoming tuple count: %d", "%s:%d outgoing tuple count: %d"},
    .allocation_location = {"SESN BRF (IN)", "SESN BRF (OUT)"},
    .encode_failed = "Failed to encode ssh_session_brief_bag",
};

constexpr session_report detail_report = {
    .routine = "get_ssh_session_detail",
    .entry_size = sizeof(session_detail_info),
    .link_offset = offsetof(session_detail_info, NextSession),
    .fill = fill_detail,
    .descriptor = ssh_session_detail_descriptor,
    .count_text = {"%s:%d Incoming sessions count: %d", "%s:%d Outgoing sessions count: %d"},
    .allocation_location = {"SESN DET (IN)", "SESN DET (OUT)"},
    .encode_failed = "Failed to encode ssh_session_detail_bag",
};

// An encoding failure of rekey data is logged with the text for details.
constexpr session_report rekey_report = {
    .routine = "get_ssh_session_rekey",
    .entry_size = sizeof(session_rekey_info),
    .link_offset = offsetof(session_rekey_info, NextSession),
    .fill = fill_rekey,
    .descriptor = ssh_session_rekey_descriptor,
    .count_text = {"%s:%d Incoming sessions count: %d", "%s:%d Outgoing sessions count: %d"},
    .allocation_location = {"SESN REKEY (IN)", "SESN REKEY (OUT)"},
    .encode_failed = "Failed to encode ssh_session_detail_bag",
};

/// Appends an entry for a snapshot at `*tail`, which is advanced to the entry's link. Returns 0 or ENOMEM.
platform_status add_entry(const session_report& report, const session_snapshot& snapshot, direction side,
                          void*** tail) {
    auto* entry = static_cast<unsigned char*>(calloc(1, report.entry_size));
    if (entry == nullptr) {
        report_out_of_memory(report.allocation_location[side]);
        return ENOMEM;
    }
    const filled result = report.fill(report, snapshot, side, entry);
    if (result == filled::nothing) {
        free(entry);
        return PLATFORM_OK;
    }
    // An incomplete entry is appended too, so that it is released with the record.
    **tail = entry;
    *tail = reinterpret_cast<void**>(entry + report.link_offset);
    return result == filled::entry ? platform_status{PLATFORM_OK} : platform_status{ENOMEM};
}

/// Builds the list of one direction. If its processes cannot be listed, it is empty.
platform_status build_side(const session_report& report, direction side, void** first) {
    uint32_t count = 0;
    session_snapshot* snapshots = nullptr;
    (side == incoming ? ssh_oper_collect_server_sessions : ssh_oper_collect_client_sessions)(&count, &snapshots);
    debug_print(report.count_text[side], report.routine, __LINE__, static_cast<int>(count));
    void** tail = first;
    platform_status status = PLATFORM_OK;
    for (uint32_t i = 0; i < count && status == PLATFORM_OK; ++i) {
        status = add_entry(report, snapshots[i], side, &tail);
    }
    free(snapshots);
    return status;
}

platform_status answer_with(const session_report& report, const two_sided_record& record,
                            datastore_read_request* request) {
    void* encoded = nullptr;
    size_t size = 0;
    platform_status status = record_encode(report.descriptor(), &record, &encoded, &size);
    if (status != PLATFORM_OK) {
        log_status(ERR_ERRNO, status, report.encode_failed);
        trace_error(oper_trace_encode, {report.encode_failed, status});
        return status;
    }
    status = datastore_request_set_record(request, report.descriptor(), encoded, size);
    free(encoded);
    return status;
}

platform_status read_sessions(const session_report& report, datastore_read_request* request) {
    two_sided_record record;
    platform_status status = build_side(report, incoming, &record.first[incoming]);
    if (status == PLATFORM_OK) {
        status = build_side(report, outgoing, &record.first[outgoing]);
    }
    if (status == PLATFORM_OK && record.first[incoming] == nullptr && record.first[outgoing] == nullptr) {
        log_error("Nothing to encode in XML bag");
        status = DATASTORE_NOTHING_TO_ENCODE;
    }
    if (status == PLATFORM_OK) {
        status = answer_with(report, record, request);
    }
    record_release(report.descriptor(), &record);
    return status;
}

}  // namespace

platform_status own_node_id(uint32_t* node_id) {
    static uint32_t cached = UINT32_MAX;
    if (cached == UINT32_MAX) {
        const platform_status status = node_identity_id(&cached);
        if (status != PLATFORM_OK) {
            cached = UINT32_MAX;
            log_status(ERR_ERRNO, status, "Failed to get the Nodeid");
            trace_error(oper_trace_node_id, {status});
            return status;
        }
    }
    *node_id = cached;
    return PLATFORM_OK;
}

char* owned_text(const char* text, bool* failed) {
    if (text[0] == '\0') {
        return nullptr;
    }
    char* copy = strdup(text);
    *failed = *failed || copy == nullptr;
    return copy;
}

platform_status get_ssh_session_brief(datastore_read_request* request) {
    uint32_t node_id = 0;
    const platform_status status = own_node_id(&node_id);
    return status != PLATFORM_OK ? status : read_sessions(brief_report, request);
}

platform_status get_ssh_session_detail(datastore_read_request* request) {
    return read_sessions(detail_report, request);
}

platform_status get_ssh_session_rekey(datastore_read_request* request) {
    return read_sessions(rekey_report, request);
}
