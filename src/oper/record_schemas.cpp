#include "oper/record_schemas.h"

#include <iterator>

namespace {

constexpr char session_set[] = "libssh_xml_bag_desc.dll";
constexpr char command_line_set[] = "show_ssh_bag_desc.dll";
constexpr char server_parameter_set[] = "libssh_server_params_bag_desc.dll";
constexpr char telemetry_set[] = "liboverlay_crypto_ssh_oper_bag_descr.dll";

/// Rows of `descriptors`; the rows of a set are adjacent, in the order of registration.
enum record_row {
    SSH_MCINFO,
    SESSION_BRIEF_INFO,
    SSH_SESSION_BRIEF,
    SESSION_HISTORY_INFO,
    SSH_SESSION_HISTORY,
    SESSION_DETAIL_INFO,
    SSH_SESSION_DETAIL,
    SESSION_REKEY_INFO,
    SSH_SESSION_REKEY,
    SSHD_MCINFO,
    SSHD_SESSIONINFO,
    SSHD_KEXINFO,
    SSHD_REKEY,
    SSH_SERVER_PARAMS,
    OVERLAY_CRYPTO_SSH_SYSTEM,
    record_row_count
};

// Schemas are not split, so that they can be searched for; hence the long lines.
// clang-format off
constexpr record_descriptor descriptors[record_row_count] = {
    {"ssh_mcinfo", session_set,
     "$1={ChannelID}D{ConnectionType}[connection_type_en]e{VTYLineNumber}D{VTYAssigned}b;",
     "$1=DeDb;"},
    {"session_brief_info", session_set,
     "$2=L{SessionID}D{NodeName}D%n{SessionState}[states_en]e{UserID}s{HostAddress}s{Version}[version_en]e{AuthenticationType}[authen_type_en]e{McInfo}a($1){NextSession}Pp($2);$1={ChannelID}D{ConnectionType}[connection_type_en]e{VTYLineNumber}D{VTYAssigned}b;",
     "$2=LDD%nesseea($1)Pp($2);$1=DeDb;"},
    {"ssh_session_brief", session_set,
     "$3={IncomingSessions}p($2){OutgoingSessions}p($2);$1={ChannelID}D{ConnectionType}[connection_type_en]e{VTYLineNumber}D{VTYAssigned}b;$2=L{SessionID}D{NodeName}D%n{SessionState}[states_en]e{UserID}s{HostAddress}s{Version}[version_en]e{AuthenticationType}[authen_type_en]e{McInfo}a($1){NextSession}Pp($2);",
     "$3=p($2)p($2);$1=DeDb;$2=LDD%nesseea($1)Pp($2);"},
    {"session_history_info", session_set,
     "$4=L{SessionID}D{NodeName}D%n{UserID}s{HostAddress}s{Version}[version_en]e{AuthenticationType}[authen_type_en]e{McInfo}a($1){NextSession}Pp($4);$1={ChannelID}D{ConnectionType}[connection_type_en]e{VTYLineNumber}D{VTYAssigned}b;",
     "$4=LDD%nsseea($1)Pp($4);$1=DeDb;"},
    {"ssh_session_history", session_set,
     "$5={IncomingSessions}p($4);$1={ChannelID}D{ConnectionType}[connection_type_en]e{VTYLineNumber}D{VTYAssigned}b;$4=L{SessionID}D{NodeName}D%n{UserID}s{HostAddress}s{Version}[version_en]e{AuthenticationType}[authen_type_en]e{McInfo}a($1){NextSession}Pp($4);",
     "$5=p($4);$1=DeDb;$4=LDD%nsseea($1)Pp($4);"},
    {"session_detail_info", session_set,
     "$6=L{SessionID}D{KeyExchange}[kex_name_en]e{PublicKey}[hostkey_type_en]e{InCipher}[cipher_type_en]e{OutCipher}[cipher_type_en]e{InMAC}[mac_type_en]e{OutMAC}[mac_type_en]e{Start_Time}s{End_Time}s{NextSession}Pp($6);",
     "$6=LDeeeeeessPp($6);"},
    {"ssh_session_detail", session_set,
     "$7={IncomingSessions}p($6){OutgoingConnections}p($6);$6=L{SessionID}D{KeyExchange}[kex_name_en]e{PublicKey}[hostkey_type_en]e{InCipher}[cipher_type_en]e{OutCipher}[cipher_type_en]e{InMAC}[mac_type_en]e{OutMAC}[mac_type_en]e{Start_Time}s{End_Time}s{NextSession}Pp($6);",
     "$7=p($6)p($6);$6=LDeeeeeessPp($6);"},
    {"session_rekey_info", session_set,
     "$8=L{SessionID}D{SessionRekeyCount}D{TimeToRekey}s{VolumeToRekey}s{NextSession}Pp($8);",
     "$8=LDDssPp($8);"},
    {"ssh_session_rekey", session_set,
     "$9={IncomingSessions}p($8){OutgoingConnections}p($8);$8=L{SessionID}D{SessionRekeyCount}D{TimeToRekey}s{VolumeToRekey}s{NextSession}Pp($8);",
     "$9=p($8)p($8);$8=LDDssPp($8);"},
    {"sshd_mcinfo", command_line_set,
     "$1={ChannelID}D{ConnectionType}D{Line}64x%S;",
     "$1=DD64x%S;"},
    {"sshd_sessioninfo", command_line_set,
     "$2={SessionID}D{SessionPID}D{State}D{AuthenMethod}s{Cipher}D{UserID}s{Host}s{Nid}D%n{McInfo}a($1);$1={ChannelID}D{ConnectionType}D{Line}64x%S;",
     "$2=DDDsDssD%na($1);$1=DD64x%S;"},
    {"sshd_kexinfo", command_line_set,
     "$3={SessionID}D{KexName}s{HostKeyAlg}s{InCipher}s{OutCipher}s{InMac}s{OutMac}s{Start_Time}s{End_Time}s;",
     "$3=Dssssssss;"},
    {"sshd_rekey", command_line_set,
     "$4={SessionID}D{Cipher}D{ChannelID}D{State}D{SessionRekeyCount}D{NextRekeyTimeStr}s{DataToRekey}D;",
     "$4=DDDDDsD;"},
    {"ssh_server_params", server_parameter_set,
     "$1={Version}10x%S{Port}D{Vrf}2000x%S{Netconfport}D{Netconfvrf}2000x%S{Netconfver}10x%S{Hostkeyalgo}230x%S{Kexalgo}230x%S{Cipheralgo}230x%S{Macalgo}230x%S{Backupserver}100x%S{Trustpointhost}128x%S{Trustpointuser}1289x%S{Dscp}D{Ratelimit}D{Sessionlimit}D{Rekeytime}D{Rekeyvolume}D{Windowscalefactor}D{Passwordauthen}b{Keyboardinteractiveauthen}b{Pubkeyauthen}b{Certificateauthen}b{Portforwarding}10x%S{Maxauthlimit}D{CertificateUsername}50x%S;",
     "$1=10x%SD2000x%SD2000x%S10x%S230x%S230x%S230x%S230x%S100x%S128x%S1289x%SDDDDDDbbbb10x%SD50x%S;"},
    {"overlay_crypto_ssh_system", telemetry_set,
     "$7={SshServer}$5;$3={Enable}p(b){ProtocolVersion}p([openconfig_system_terminal_protocol_version_]e){Timeout}p(I){RateLimit}p(I){SessionLimit}p(I);$5={State}$3;",
     "$7=$5.;$3=p(b)p(e)p(I)p(I)p(I);$5=$3.;"},
};
// clang-format on

/// Registers the rows from `first` through `last`.
platform_status register_set(record_row first, record_row last) {
    record_transaction* transaction = nullptr;
    const platform_status begun = record_registration_begin(&transaction);
    if (begun != PLATFORM_OK) {
        return begun;
    }
    for (int row = first; row <= last; ++row) {
        const platform_status registered = record_register(transaction, &descriptors[row]);
        if (registered != PLATFORM_OK) {
            record_registration_abort(transaction);
            return registered;
        }
    }
    return record_registration_end(transaction);
}

}  // namespace

const record_descriptor* ssh_session_brief_descriptor() {
    return &descriptors[SSH_SESSION_BRIEF];
}
const record_descriptor* ssh_session_detail_descriptor() {
    return &descriptors[SSH_SESSION_DETAIL];
}
const record_descriptor* ssh_session_rekey_descriptor() {
    return &descriptors[SSH_SESSION_REKEY];
}
const record_descriptor* sshd_sessioninfo_descriptor() {
    return &descriptors[SSHD_SESSIONINFO];
}
const record_descriptor* sshd_kexinfo_descriptor() {
    return &descriptors[SSHD_KEXINFO];
}
const record_descriptor* sshd_rekey_descriptor() {
    return &descriptors[SSHD_REKEY];
}
const record_descriptor* ssh_server_params_descriptor() {
    return &descriptors[SSH_SERVER_PARAMS];
}
const record_descriptor* overlay_crypto_ssh_system_descriptor() {
    return &descriptors[OVERLAY_CRYPTO_SSH_SYSTEM];
}

platform_status register_session_records() {
    return register_set(SSH_MCINFO, SSH_SESSION_REKEY);
}
platform_status register_command_line_records() {
    return register_set(SSHD_MCINFO, SSHD_REKEY);
}
platform_status register_server_parameter_records() {
    return register_set(SSH_SERVER_PARAMS, SSH_SERVER_PARAMS);
}
platform_status register_telemetry_records() {
    return register_set(OVERLAY_CRYPTO_SSH_SYSTEM, OVERLAY_CRYPTO_SSH_SYSTEM);
}

const record_descriptor* record_descriptors(uint32_t* count) {
    *count = std::size(descriptors);
    return descriptors;
}
