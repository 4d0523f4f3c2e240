#include <algorithm>
#include <iterator>

#include "openssh/keyword_row.h"
#include "openssh/keyword_table.h"
#include "openssh/text.h"

namespace openssh {

namespace {

constexpr const char* no_certificates = "stock sshd does not support x509v3 certificates";

constexpr keyword_row rows[] = {
    // Keywords that the agent writes.
    pass("UsePAM", is_yes_or_no, repetition::once, "yes"),
    pass("Port", is_port, repetition::by_value),
    pass("MaxAuthTries", is_count),
    pass("RekeyLimit", is_rekey_limit),
    pass("MaxSessions", is_count),
    pass("IPQoS", is_ip_qos),
    pass("PermitRootLogin", is_root_login),
    pass("LogLevel", is_log_level),
    pass("Subsystem", is_subsystem, repetition::by_first_word),
    pass("Banner", is_path_or_none),
    pass("LoginGraceTime", is_time),
    pass("ClientAliveInterval", is_time),
    pass("AllowTcpForwarding", is_forwarding, repetition::once, "no"),
    list_with_default("Ciphers", algorithm_kind::cipher, &algorithm_row::server_rank),
    list_with_default("MACs", algorithm_kind::mac, &algorithm_row::server_rank),
    list_with_default("KexAlgorithms", algorithm_kind::kex, &algorithm_row::server_rank),
    list_with_default("HostKeyAlgorithms", algorithm_kind::key, &algorithm_row::server_rank),
    {.keyword = "AcceptedAlgorithms",
     .how = treatment::additional_keys,
     .written_as = "PubkeyAcceptedAlgorithms",
     .kind = algorithm_kind::key},
    {.keyword = "HostKey", .how = treatment::host_keys, .form = is_key_path, .repeats = repetition::by_value},
    {.keyword = "NorvoSSHFipsMode", .how = treatment::fips_mode},
    leave_out("Protocol", "stock sshd supports protocol version 2 only"),
    leave_out("WindowScaleQd", "stock sshd leaves the TCP window to the kernel"),
    limit("RateLimitQd", &server_limits::connections_per_minute),
    limit("SessionLimitQd", &server_limits::sessions),
    leave_out("HostTrustpointQd", no_certificates),
    leave_out("UserTrustpointQd", no_certificates),
    leave_out("UserTrustpointCntQd", no_certificates),
    leave_out("CertUsernameQd", no_certificates),

    // Blocks and other files, which the launcher does not interpret. The agent appends its lines at the end of a file,
    // where a Match block would capture them, and a line of a block must not become a setting for everyone.
    {.keyword = "Match",
     .how = treatment::end_of_settings,
     .reason = "conditional blocks are not supported, and the rest of the file is ignored"},
    leave_out("Include", "other files are never read"),
    leave_out("PidFile", "the service manager keeps track of the server"),

    // Algorithm lists that the agent never writes but that FIPS mode must restrict.
    list("PubkeyAcceptedAlgorithms", algorithm_kind::key),
    list("PubkeyAcceptedKeyTypes", algorithm_kind::key, "PubkeyAcceptedAlgorithms"),
    list("HostbasedAcceptedAlgorithms", algorithm_kind::key),
    list("HostbasedAcceptedKeyTypes", algorithm_kind::key, "HostbasedAcceptedAlgorithms"),
    list("CASignatureAlgorithms", algorithm_kind::key),

    stock_repeated("AcceptEnv"),
    stock("AddressFamily"),
    stock("AllowAgentForwarding"),
    stock_repeated("AllowGroups"),
    stock("AllowStreamLocalForwarding"),
    stock_repeated("AllowUsers"),
    stock("AuthenticationMethods"),
    stock("AuthorizedKeysCommand"),
    stock("AuthorizedKeysCommandUser"),
    stock("AuthorizedKeysFile"),
    stock("AuthorizedPrincipalsCommand"),
    stock("AuthorizedPrincipalsCommandUser"),
    stock("AuthorizedPrincipalsFile"),
    stock("ChallengeResponseAuthentication"),
    stock("ChannelTimeout"),
    stock("ChrootDirectory"),
    stock("ClientAliveCountMax"),
    stock("Compression"),
    stock("DebianBanner"),
    stock_repeated("DenyGroups"),
    stock_repeated("DenyUsers"),
    stock("DisableForwarding"),
    stock("ExposeAuthInfo"),
    stock("FingerprintHash"),
    stock("ForceCommand"),
    stock("GatewayPorts"),
    stock("GSSAPIAuthentication"),
    stock("GSSAPICleanupCredentials"),
    stock("GSSAPIKeyExchange"),
    stock("GSSAPIKexAlgorithms"),
    stock("GSSAPIStoreCredentialsOnRekey"),
    stock("GSSAPIStrictAcceptorCheck"),
    stock("HostbasedAuthentication"),
    stock("HostbasedUsesNameFromPacketOnly"),
    stock_repeated("HostCertificate"),
    stock("HostKeyAgent"),
    stock("IgnoreRhosts"),
    stock("IgnoreUserKnownHosts"),
    stock("KbdInteractiveAuthentication"),
    stock("KerberosAuthentication"),
    stock("KerberosGetAFSToken"),
    stock("KerberosOrLocalPasswd"),
    stock("KerberosTicketCleanup"),
    stock_repeated("ListenAddress"),
    stock("LogVerbose"),
    stock("MaxStartups"),
    stock("ModuliFile"),
    stock("PasswordAuthentication"),
    stock("PermitEmptyPasswords"),
    stock("PermitListen"),
    stock("PermitOpen"),
    stock("PermitTTY"),
    stock("PermitTunnel"),
    stock("PermitUserEnvironment"),
    stock("PermitUserRC"),
    stock("PerSourceMaxStartups"),
    stock("PerSourceNetBlockSize"),
    stock("PrintLastLog"),
    stock("PrintMotd"),
    stock("PubkeyAuthentication"),
    stock("PubkeyAuthOptions"),
    stock("RequiredRSASize"),
    stock("RevokedKeys"),
    stock("SecurityKeyProvider"),
    stock("SetEnv"),
    stock("StreamLocalBindMask"),
    stock("StreamLocalBindUnlink"),
    stock("StrictModes"),
    stock("SyslogFacility"),
    stock("TCPKeepAlive"),
    stock("TrustedUserCAKeys"),
    stock("UnusedConnectionTimeout"),
    stock("UseDNS"),
    stock("VersionAddendum"),
    stock("X11DisplayOffset"),
    stock("X11Forwarding"),
    stock("X11UseLocalhost"),
    stock("XAuthLocation"),
};

}  // namespace

keyword_rows server_keyword_rows() {
    return {std::begin(rows), std::end(rows)};
}

const keyword_row* find_keyword_row(const keyword_rows& rows, std::string_view keyword) {
    const keyword_row* row = std::find_if(rows.begin(), rows.end(), [&](const keyword_row& candidate) {
        return equal_ignoring_case(candidate.keyword, keyword);
    });
    return row == rows.end() ? nullptr : row;
}

}  // namespace openssh
