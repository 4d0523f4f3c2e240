/// Schemas of every record that the agent writes or reads, for the codec's tests.
#ifndef TESTS_UNIT_COMMON_RECORD_SCHEMAS_H
#define TESTS_UNIT_COMMON_RECORD_SCHEMAS_H

#include "platform/acl_entry.h"

#define MCINFO_SCHEMA "$1={ChannelID}D{ConnectionType}[connection_type_en]e{VTYLineNumber}D{VTYAssigned}b;"
#define BRIEF_INFO_SCHEMA                                                                                  \
    "$2=L{SessionID}D{NodeName}D%n{SessionState}[states_en]e{UserID}s{HostAddress}s{Version}[version_en]e" \
    "{AuthenticationType}[authen_type_en]e{McInfo}a($1){NextSession}Pp($2);"
#define DETAIL_INFO_SCHEMA                                                                                \
    "$6=L{SessionID}D{KeyExchange}[kex_name_en]e{PublicKey}[hostkey_type_en]e{InCipher}[cipher_type_en]e" \
    "{OutCipher}[cipher_type_en]e{InMAC}[mac_type_en]e{OutMAC}[mac_type_en]e{Start_Time}s{End_Time}s"     \
    "{NextSession}Pp($6);"
#define HISTORY_INFO_SCHEMA                                                      \
    "$4=L{SessionID}D{NodeName}D%n{UserID}s{HostAddress}s{Version}[version_en]e" \
    "{AuthenticationType}[authen_type_en]e{McInfo}a($1){NextSession}Pp($4);"
#define REKEY_INFO_SCHEMA "$8=L{SessionID}D{SessionRekeyCount}D{TimeToRekey}s{VolumeToRekey}s{NextSession}Pp($8);"
#define SERVER_PARAMS_SCHEMA                                                                                    \
    "$1={Version}10x%S{Port}D{Vrf}2000x%S{Netconfport}D{Netconfvrf}2000x%S{Netconfver}10x%S{Hostkeyalgo}230x%S" \
    "{Kexalgo}230x%S{Cipheralgo}230x%S{Macalgo}230x%S{Backupserver}100x%S{Trustpointhost}128x%S"                \
    "{Trustpointuser}1289x%S{Dscp}D{Ratelimit}D{Sessionlimit}D{Rekeytime}D{Rekeyvolume}D{Windowscalefactor}D"   \
    "{Passwordauthen}b{Keyboardinteractiveauthen}b{Pubkeyauthen}b{Certificateauthen}b{Portforwarding}10x%S"     \
    "{Maxauthlimit}D{CertificateUsername}50x%S;"
#define OVERLAY_SCHEMA                                                                                                 \
    "$7={SshServer}$5;$3={Enable}p(b){ProtocolVersion}p([openconfig_system_terminal_protocol_version_]e){Timeout}p(I)" \
    "{RateLimit}p(I){SessionLimit}p(I);$5={State}$3;"

struct schema_sample {
    const char* full;
    const char* compact;
    size_t size;  ///< of the record's own structure
};

inline constexpr schema_sample schema_samples[] = {
    {MCINFO_SCHEMA, "$1=DeDb;", 16},
    {BRIEF_INFO_SCHEMA MCINFO_SCHEMA, "$2=LDD%nesseea($1)Pp($2);$1=DeDb;", 64},
    {"$3={IncomingSessions}p($2){OutgoingSessions}p($2);" MCINFO_SCHEMA BRIEF_INFO_SCHEMA,
     "$3=p($2)p($2);$1=DeDb;$2=LDD%nesseea($1)Pp($2);", 16},
    {DETAIL_INFO_SCHEMA, "$6=LDeeeeeessPp($6);", 56},
    {"$7={IncomingSessions}p($6){OutgoingConnections}p($6);" DETAIL_INFO_SCHEMA, "$7=p($6)p($6);$6=LDeeeeeessPp($6);",
     16},
    {"$2={SessionID}D{SessionPID}D{State}D{AuthenMethod}s{Cipher}D{UserID}s{Host}s{Nid}D%n{McInfo}a($1);"
     "$1={ChannelID}D{ConnectionType}D{Line}64x%S;",
     "$2=DDDsDssD%na($1);$1=DD64x%S;", 72},
    {"$4={SessionID}D{Cipher}D{ChannelID}D{State}D{SessionRekeyCount}D{NextRekeyTimeStr}s{DataToRekey}D;",
     "$4=DDDDDsD;", 40},
    {HISTORY_INFO_SCHEMA MCINFO_SCHEMA, "$4=LDD%nsseea($1)Pp($4);$1=DeDb;", 56},
    {"$5={IncomingSessions}p($4);" MCINFO_SCHEMA HISTORY_INFO_SCHEMA, "$5=p($4);$1=DeDb;$4=LDD%nsseea($1)Pp($4);", 8},
    {REKEY_INFO_SCHEMA, "$8=LDDssPp($8);", 32},
    {"$9={IncomingSessions}p($8){OutgoingConnections}p($8);" REKEY_INFO_SCHEMA, "$9=p($8)p($8);$8=LDDssPp($8);", 16},
    {"$1={ChannelID}D{ConnectionType}D{Line}64x%S;", "$1=DD64x%S;", 72},
    {"$3={SessionID}D{KexName}s{HostKeyAlg}s{InCipher}s{OutCipher}s{InMac}s{OutMac}s{Start_Time}s{End_Time}s;",
     "$3=Dssssssss;", 72},
    {SERVER_PARAMS_SCHEMA,
     "$1=10x%SD2000x%SD2000x%S10x%S230x%S230x%S230x%S230x%S100x%S128x%S1289x%SDDDDDDbbbb10x%SD50x%S;", 6576},
    {OVERLAY_SCHEMA, "$7=$5.;$3=p(b)p(e)p(I)p(I)p(I);$5=$3.;", 40},
    {ACL_IPV4_ENTRY_SCHEMA, "$1=DeIIAAAAeIIeIIesbCCCeCCeIIeIIeII;", sizeof(acl_ipv4_entry)},
    {ACL_IPV6_ENTRY_SCHEMA, "$1=DeID16xCD16xC16xCD16xCeIIeIIeseCCbCCCeIIeII;", sizeof(acl_ipv6_entry)},
};

#endif
