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
    {OVERLAY_SCHEMA, "$7=$5.;$3=p(b)p(e)p(I)p(I)p(I);$5=$3.;", 40},
    {ACL_IPV4_ENTRY_SCHEMA, "$1=DeIIAAAAeIIeIIesbCCCeCCeIIeIIeII;", sizeof(acl_ipv4_entry)},
    {ACL_IPV6_ENTRY_SCHEMA, "$1=DeID16xCD16xC16xCD16xCeIIeIIeseCCbCCCeIIeII;", sizeof(acl_ipv6_entry)},
};

#endif
