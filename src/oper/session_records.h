/// Records of SSH sessions for structured data: both directions in one record.
#ifndef OPER_SESSION_RECORDS_H
#define OPER_SESSION_RECORDS_H

#include <cstdint>

#include "oper/session_snapshot.h"
#include "platform/datastore.h"

// Native structures of the records, laid out as in their schemas. They own their texts and elements.

struct ssh_mcinfo {
    uint32_t ChannelID;
    int32_t ConnectionType;
    uint32_t VTYLineNumber;
    uint32_t VTYAssigned;
};

struct ssh_mcinfo_array {
    uint32_t count;
    ssh_mcinfo* elements;
};

struct session_brief_info {
    uint32_t SessionID;
    uint32_t NodeName;
    int32_t SessionState;
    char* UserID;
    char* HostAddress;
    int32_t Version;
    int32_t AuthenticationType;
    ssh_mcinfo_array McInfo;
    session_brief_info* NextSession;
};
static_assert(sizeof(session_brief_info) == 64);

struct session_detail_info {
    uint32_t SessionID;
    int32_t KeyExchange;
    int32_t PublicKey;
    int32_t InCipher;
    int32_t OutCipher;
    int32_t InMAC;
    int32_t OutMAC;
    char* Start_Time;
    char* End_Time;
    session_detail_info* NextSession;
};
static_assert(sizeof(session_detail_info) == 56);

struct session_rekey_info {
    uint32_t SessionID;
    uint32_t SessionRekeyCount;
    char* TimeToRekey;    ///< minutes with one decimal
    char* VolumeToRekey;  ///< mebibytes with one decimal
    session_rekey_info* NextSession;
};
static_assert(sizeof(session_rekey_info) == 32);

struct ssh_session_brief {
    session_brief_info* IncomingSessions;
    session_brief_info* OutgoingSessions;
};

struct ssh_session_detail {
    session_detail_info* IncomingSessions;
    session_detail_info* OutgoingConnections;
};

struct ssh_session_rekey {
    session_rekey_info* IncomingSessions;
    session_rekey_info* OutgoingConnections;
};

/// The agent's own node id, which the platform is asked for once. Returns 0, or the platform's error after logging it.
platform_status own_node_id(uint32_t* node_id);

/// A copy of a text, allocated with malloc; null for an empty one. Sets `*failed` when out of memory.
char* owned_text(const char* text, bool* failed);

/// Handlers of the items brief, detail and rekey. Return 0, or the status of the read.
platform_status get_ssh_session_brief(datastore_read_request* request);
platform_status get_ssh_session_detail(datastore_read_request* request);
platform_status get_ssh_session_rekey(datastore_read_request* request);

#endif
