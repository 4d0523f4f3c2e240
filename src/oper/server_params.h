/// The server's parameters in force as one record.
#ifndef OPER_SERVER_PARAMS_H
#define OPER_SERVER_PARAMS_H

#include <cstdint>

#include "platform/datastore.h"

struct ssh_server_params {
    char Version[10];
    uint32_t Port;
    char Vrf[2000];
    uint32_t Netconfport;
    char Netconfvrf[2000];
    char Netconfver[10];
    char Hostkeyalgo[230];
    char Kexalgo[230];
    char Cipheralgo[230];
    char Macalgo[230];
    char Backupserver[100];
    char Trustpointhost[128];
    char Trustpointuser[1289];
    uint32_t Dscp;
    uint32_t Ratelimit;
    uint32_t Sessionlimit;
    uint32_t Rekeytime;    ///< minutes
    uint32_t Rekeyvolume;  ///< megabytes
    uint32_t Windowscalefactor;
    uint32_t Passwordauthen;
    uint32_t Keyboardinteractiveauthen;
    uint32_t Pubkeyauthen;
    uint32_t Certificateauthen;
    char Portforwarding[10];
    uint32_t Maxauthlimit;
    char CertificateUsername[50];
};

/// Fills the record from the settings in force.
void fill_server_params(ssh_server_params* params);

/// Answers a read. Returns 0, or the codec's error after logging it.
platform_status get_ssh_server_params(datastore_read_request* request);

#endif
