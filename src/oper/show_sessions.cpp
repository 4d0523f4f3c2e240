#include "oper/show_sessions.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/debug.h"
#include "core/log.h"
#include "core/text.h"
#include "oper/record_schemas.h"
#include "oper/session_query.h"
#include "oper/session_records.h"
#include "oper/session_snapshot.h"
#include "oper/trace_points.h"
#include "platform/record_codec.h"

namespace {

/// Any of the records; zeroed before it is filled in.
union session_record {
    sshd_sessioninfo session;
    sshd_kexinfo kex;
    sshd_rekey rekey;
};

/// A handler: which sessions it reports in which record.
struct command_line_report {
    const char* routine;
    int (*collect)(uint32_t* count, session_snapshot** snapshots);
    const record_descriptor* (*descriptor)();
    bool (*fill)(const char* routine, const session_snapshot& snapshot, session_record* record);  ///< false: no memory
    const char* encode_failed;
};

/// Text for a debug line: empty if missing.
const char* shown(const char* text) {
    return text != nullptr ? text : "";
}

bool fill_channels(const session_snapshot& snapshot, sshd_mcinfo_array* channels) {
    channels->elements = static_cast<sshd_mcinfo*>(calloc(channel_slots - 1, sizeof(sshd_mcinfo)));
    if (channels->elements == nullptr) {
        return false;
    }
    for (size_t slot = 1; slot < channel_slots; ++slot) {
        if (!channel_in_use(snapshot, slot)) {
            continue;
        }
        sshd_mcinfo& channel = channels->elements[channels->count++];
        channel.ChannelID = snapshot.channel_id[slot];
        channel.ConnectionType = snapshot.connection_type[slot];
        copy_text(channel.Line, sizeof(channel.Line), snapshot.line[slot]);
    }
    return true;
}

bool fill_session(const char* /*routine*/, const session_snapshot& snapshot, session_record* record) {
    sshd_sessioninfo& session = record->session;
    bool failed = false;
    session.SessionID = snapshot.session_id;
    session.SessionPID = snapshot.session_pid;
    session.State = snapshot.session_state;
    session.AuthenMethod = owned_text(snapshot.authentication_method, &failed);
    session.Cipher = snapshot.protocol_version;
    session.UserID = owned_text(snapshot.user_id, &failed);
    session.Host = owned_text(snapshot.remote_host, &failed);
    session.Nid = snapshot.node_id;
    return !failed && fill_channels(snapshot, &session.McInfo);
}

/// Server sessions are also printed as debug lines.
bool fill_server_session(const char* routine, const session_snapshot& snapshot, session_record* record) {
    const sshd_sessioninfo& session = record->session;
    if (!fill_session(routine, snapshot, record)) {
        return false;
    }
    debug_print("%s:%d Line: %s Userid:%s Host:%s Authen Method:%s Open Channels:%d Active Channels:%d", routine,
                __LINE__, session.McInfo.count != 0 ? session.McInfo.elements[0].Line : "", shown(session.UserID),
                shown(session.Host), shown(session.AuthenMethod), static_cast<int>(snapshot.open_channels),
                static_cast<int>(session.McInfo.count));
    return true;
}

bool fill_kex(const char* routine, const session_snapshot& snapshot, session_record* record) {
    sshd_kexinfo& kex = record->kex;
    bool failed = false;
    kex.SessionID = snapshot.session_id;
    kex.KexName = owned_text(snapshot.kex_algorithm, &failed);
    kex.HostKeyAlg = owned_text(snapshot.host_key_algorithm, &failed);
    kex.InCipher = owned_text(snapshot.in_cipher, &failed);
    kex.OutCipher = owned_text(snapshot.out_cipher, &failed);
    kex.InMac = owned_text(snapshot.in_mac, &failed);
    kex.OutMac = owned_text(snapshot.out_mac, &failed);
    if (failed) {
        return false;
    }
    debug_print("%s:%d session_id:%d kexname: %s hostkeyalg:%s incipher:%s outcipher:%s inmac:%s outmac:%s", routine,
                __LINE__, static_cast<int>(kex.SessionID), shown(kex.KexName), shown(kex.HostKeyAlg),
                shown(kex.InCipher), shown(kex.OutCipher), shown(kex.InMac), shown(kex.OutMac));
    return true;
}

bool fill_rekey(const char* routine, const session_snapshot& snapshot, session_record* record) {
    sshd_rekey& rekey = record->rekey;
    bool failed = false;
    rekey.SessionID = snapshot.session_id;
    rekey.Cipher = snapshot.protocol_version;
    rekey.ChannelID = snapshot.channel_id[1];
    rekey.State = snapshot.session_state;
    rekey.SessionRekeyCount = snapshot.rekey_count;
    rekey.NextRekeyTimeStr = owned_text(snapshot.time_to_rekey, &failed);
    rekey.DataToRekey = snapshot.data_to_rekey;
    debug_print("%s:%d session_id:%d session_rekey_count:%d next_rekey_time_str:%s data_to_rekey:%d", routine, __LINE__,
                static_cast<int>(rekey.SessionID), static_cast<int>(rekey.SessionRekeyCount),
                shown(rekey.NextRekeyTimeStr), static_cast<int>(rekey.DataToRekey));
    return !failed;
}

constexpr command_line_report server_brief = {"show_ssh_cli", ssh_oper_collect_server_sessions,
                                              sshd_sessioninfo_descriptor, fill_server_session,
                                              "%s:%d Failed to encode data into sshd_sessioninfo bag: %s"};
constexpr command_line_report server_detail = {"show_ssh_session_cli", ssh_oper_collect_server_sessions,
                                               sshd_kexinfo_descriptor, fill_kex,
                                               "%s:%d Failed to encode data into sshd_kexinfo bag: %s"};
constexpr command_line_report server_rekey = {"show_ssh_rekey_cli", ssh_oper_collect_server_sessions,
                                              sshd_rekey_descriptor, fill_rekey,
                                              "%s:%d Failed to encode data into sshd_rekey bag: %s"};
constexpr command_line_report client_brief = {"show_ssh_client_cli", ssh_oper_collect_client_sessions,
                                              sshd_sessioninfo_descriptor, fill_session,
                                              "%s:%d Failed to encode data into ssh_client_sessioninfo bag: %s"};
constexpr command_line_report client_detail = {"show_ssh_client_session_cli", ssh_oper_collect_client_sessions,
                                               sshd_kexinfo_descriptor, fill_kex,
                                               "%s:%d Failed to encode data into ssh_client_kexinfo bag: %s"};
constexpr command_line_report client_rekey = {"show_ssh_client_rekey_cli", ssh_oper_collect_client_sessions,
                                              sshd_rekey_descriptor, fill_rekey,
                                              "%s:%d Failed to encode data into ssh_client_rekey bag: %s"};

/// Adds a session's record to the list of the read.
platform_status add_session(const command_line_report& report, const session_snapshot& snapshot, uint32_t index,
                            datastore_read_request* request) {
    session_record record;
    memset(&record, 0, sizeof(record));
    void* encoded = nullptr;
    size_t size = 0;
    platform_status status = report.fill(report.routine, snapshot, &record)
                                 ? record_encode(report.descriptor(), &record, &encoded, &size)
                                 : platform_status{ENOMEM};
    record_release(report.descriptor(), &record);
    if (status == ENOMEM) {
        debug_print("%s:%d Failed to allocate temporary bag", report.routine, __LINE__);
        log_location(ERR_MALLOC, status, report.routine);
        return status;
    }
    if (status != PLATFORM_OK) {
        debug_print(report.encode_failed, report.routine, __LINE__, platform_status_text(status));
        log_location(ERR_BAG_ENCODE, status, report.routine);
        trace_error(oper_trace_encode, {report.routine, status});
        return status;
    }
    status = datastore_request_add_record(request, report.descriptor(), encoded, size);
    free(encoded);
    if (status != PLATFORM_OK) {
        debug_print("%s:%d Failed to add bag into edm datalist: %s", report.routine, __LINE__,
                    platform_status_text(status));
        trace_error(oper_trace_data_list, {report.routine, status});
        return status;
    }
    debug_print("%s:%d index:%d and edm_datalist added to info and rc: %s", report.routine, __LINE__,
                static_cast<int>(index), platform_status_text(status));
    return PLATFORM_OK;
}

/// Adds all sessions, skipping those whose process did not answer.
platform_status add_sessions(const command_line_report& report, uint32_t node_id, session_snapshot* snapshots,
                             uint32_t count, datastore_read_request* request) {
    platform_status status = DATASTORE_NO_DATA;
    for (uint32_t i = 0; i < count; ++i) {
        if (snapshots[i].session_id == no_session) {
            continue;
        }
        snapshots[i].node_id = node_id;
        status = add_session(report, snapshots[i], i, request);
        if (status != PLATFORM_OK) {
            break;
        }
    }
    return status;
}

platform_status show_sessions(const command_line_report& report, datastore_read_request* request) {
    uint32_t node_id = 0;
    platform_status status = own_node_id(&node_id);
    if (status != PLATFORM_OK) {
        return status;
    }
    status = datastore_request_create_list(request);
    if (status != PLATFORM_OK) {
        debug_print("%s:%d Failed to create edm datalist: %s", report.routine, __LINE__, platform_status_text(status));
        trace_error(oper_trace_data_list, {report.routine, status});
        return status;
    }
    uint32_t count = 0;
    session_snapshot* snapshots = nullptr;
    report.collect(&count, &snapshots);
    status = add_sessions(report, node_id, snapshots, count, request);
    free(snapshots);
    return status;
}

}  // namespace

platform_status show_ssh_cli(datastore_read_request* request) {
    return show_sessions(server_brief, request);
}
platform_status show_ssh_session_cli(datastore_read_request* request) {
    return show_sessions(server_detail, request);
}
platform_status show_ssh_rekey_cli(datastore_read_request* request) {
    return show_sessions(server_rekey, request);
}
platform_status show_ssh_client_cli(datastore_read_request* request) {
    return show_sessions(client_brief, request);
}
platform_status show_ssh_client_session_cli(datastore_read_request* request) {
    return show_sessions(client_detail, request);
}
platform_status show_ssh_client_rekey_cli(datastore_read_request* request) {
    return show_sessions(client_rekey, request);
}
