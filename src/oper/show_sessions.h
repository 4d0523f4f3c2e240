/// Records of SSH sessions for the command line: one direction, one record per session, texts as the processes report
/// them.
#ifndef OPER_SHOW_SESSIONS_H
#define OPER_SHOW_SESSIONS_H

#include <cstdint>

#include "platform/datastore.h"

struct sshd_mcinfo {
    uint32_t ChannelID;
    uint32_t ConnectionType;
    char Line[64];
};

struct sshd_mcinfo_array {
    uint32_t count;
    sshd_mcinfo* elements;
};

struct sshd_sessioninfo {
    uint32_t SessionID;
    uint32_t SessionPID;
    uint32_t State;
    char* AuthenMethod;
    uint32_t Cipher;
    char* UserID;
    char* Host;
    uint32_t Nid;
    sshd_mcinfo_array McInfo;
};

struct sshd_kexinfo {
    uint32_t SessionID;
    char* KexName;
    char* HostKeyAlg;
    char* InCipher;
    char* OutCipher;
    char* InMac;
    char* OutMac;
    char* Start_Time;
    char* End_Time;
};

struct sshd_rekey {
    uint32_t SessionID;
    uint32_t Cipher;
    uint32_t ChannelID;
    uint32_t State;
    uint32_t SessionRekeyCount;
    char* NextRekeyTimeStr;
    uint32_t DataToRekey;
};

// Handlers of the items brief, detail and rekey of server and client sessions. DATASTORE_NO_DATA if there is no
// session.
platform_status show_ssh_cli(datastore_read_request* request);
platform_status show_ssh_session_cli(datastore_read_request* request);
platform_status show_ssh_rekey_cli(datastore_read_request* request);
platform_status show_ssh_client_cli(datastore_read_request* request);
platform_status show_ssh_client_session_cli(datastore_read_request* request);
platform_status show_ssh_client_rekey_cli(datastore_read_request* request);

#endif
