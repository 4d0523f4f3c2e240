/// The functions of sshd and ssh whose log lines contain facts about a session.
#ifndef OPENSSH_VERBOSE_PLACES_H
#define OPENSSH_VERBOSE_PLACES_H

namespace openssh {

/// Values of the LogVerbose setting. Functions that also log at level "verbose" are omitted, because those lines do not
/// show whether they were forced out, apart from auth_log(), whose lines the reporter tells apart by their text.
constexpr const char* server_verbose_places =
    "kex.c:choose_kex():*,kex.c:choose_hostkeyalg():*,kex.c:kex_choose_conf():*,"
    "packet.c:ssh_set_newkeys():*,packet.c:ssh_packet_set_rekey_limits():*,"
    "auth.c:auth_log():*,auth-pam.c:sshpam_init():*,auth-pam.c:sshpam_auth_passwd():*,auth-pam.c:do_pam_account():*,"
    "monitor.c:mm_answer_authpassword():*,monitor.c:mm_answer_keyverify():*,"
    "monitor.c:mm_answer_pam_respond():*,monitor.c:mm_answer_gss_userok():*,monitor.c:monitor_child_preauth():*,"
    "session.c:session_open():*,session.c:session_pty_req():*,"
    "channels.c:channel_new():*,channels.c:channel_free():*,channels.c:channel_set_xtype():*";

constexpr const char* client_verbose_places =
    "kex.c:choose_kex():*,kex.c:choose_hostkeyalg():*,kex.c:kex_choose_conf():*,"
    "packet.c:ssh_set_newkeys():*,packet.c:ssh_packet_set_rekey_limits():*,"
    "sshconnect.c:ssh_connect_direct():*,sshconnect.c:ssh_login():*,"
    "sshconnect2.c:authmethod_get():*,sshconnect2.c:sign_and_send_pubkey():*,clientloop.c:client_repledge():*,"
    "channels.c:channel_new():*,channels.c:channel_free():*,channels.c:channel_request_start():*";

}  // namespace openssh

#endif
