/// Every absolute path that the agent uses, in one place.
#ifndef CORE_PATHS_H
#define CORE_PATHS_H

namespace paths {

// The node.
inline constexpr char device[] = "/dev/ssh_cfg_agent";
inline constexpr char datastore_library[] = "/pkg/lib/libssh_cfg_platform.so";
inline constexpr char empty_directory[] = "/var/empty";
inline constexpr char namespace_prefix[] = "/var/run/netns/vrf-";

// Configuration files.
inline constexpr char configuration_directory[] = "/var/opt/norvo/norvossh/";
inline constexpr char server_file[] = "/var/opt/norvo/norvossh/sshd_config";
inline constexpr char vrf_server_file_prefix[] = "/var/opt/norvo/norvossh/sshd_config_";
inline constexpr char client_file[] = "/var/opt/norvo/norvossh/ssh_config";
inline constexpr char temporary_file[] = "/var/opt/norvo/norvossh/temp_sshd_config";

// Which servers do not run with their files yet. Gone after a reboot, as the servers are.
inline constexpr char restart_record[] = "/run/norvossh_restart_record";
inline constexpr char restart_record_temporary[] = "/run/.norvossh_restart_record.new";

// Banners.
inline constexpr char banner_file[] = "/var/opt/norvo/norvossh/banner";
inline constexpr char aaa_banner_file[] = "/etc/motd";
// Exists while the message of the day is the agent's.
inline constexpr char aaa_banner_record[] = "/var/opt/norvo/norvossh/aaa_banner_is_in_motd";

// Authentication.
inline constexpr char pam_directory[] = "/etc/pam.d/";
inline constexpr char pam_parent_directory[] = "/etc/";
inline constexpr char pam_file[] = "/etc/pam.d/norvosshd";
inline constexpr char pam_temporary_file[] = "/etc/pam.d/.norvosshd.new";

// Shared memory.
inline constexpr char file_system_list[] = "/dev/shmem/shm_filesystem_list";

// Wrappers that sessions run in.
inline constexpr char processes[] = "/proc/";
inline constexpr char exec_session_file[] = "/tmp/norvo_ssh_pid.txt";
inline constexpr char exec_session_command[] =
    "ps -ef | grep '/pkg/bin/ssh_exec.sh' | grep -v 'grep' | awk '{print $2}' > /tmp/norvo_ssh_pid.txt";
inline constexpr char exec_session_check_file[] = "/tmp/norvo_ssh_pid_check.txt";
inline constexpr char exec_session_check_command[] =
    "ps -ef | grep '/pkg/bin/ssh_exec.sh' | grep -v 'grep' | awk '{print $2}' > /tmp/norvo_ssh_pid_check.txt";

// Units of the VRFs' servers.
inline constexpr char service_unit_prefix[] = "/etc/systemd/system/sshd_service_";
inline constexpr char environment_file_prefix[] = "/etc/systemd/system/sshd_conf_";
inline constexpr char service_probe_file[] = "/tmp/norvo_ssh_service.txt";
inline constexpr char service_probe_command[] = "systemctl is-active sshd_service_%s > /tmp/norvo_ssh_service.txt";

// Rule files of access lists.
inline constexpr char nft_directory_0[] = "/tmp";
inline constexpr char nft_directory_1[] = "/tmp/norvo-ssh";
inline constexpr char nft_directory_2[] = "/tmp/norvo-ssh/access-list";
inline constexpr char nft_file_format[] = "/tmp/norvo-ssh/access-list/%s%s_%s.nft";

// Sessions.
inline constexpr char session_socket_prefix[] = "/run/norvossh_oper";
inline constexpr char ssh_client_program[] = "/pkg/bin/ssh_csm";
inline constexpr char server_session_pid_file[] = "/tmp/norvo_ssh_oper_pid.txt";
inline constexpr char client_session_pid_file[] = "/tmp/norvossh_client_oper_pid.txt";
inline constexpr char session_record_tree[] = "/oper/crypto-ssh/gl/session_xml/";
inline constexpr char server_session_tree[] = "/oper/crypto-ssh/gl/sshddata/";
inline constexpr char client_session_tree[] = "/oper/crypto-ssh/client/";
inline constexpr char server_parameters_tree[] = "/oper/crypto-ssh/gl/server-params";
inline constexpr char telemetry_tree[] = "/oper/overlays/gl/crypto_ssh/openconfig-system/";
inline constexpr char telemetry_event[] =
    "/oper/overlays/gl/crypto_ssh/openconfig-system/system__bag_overlay_crypto_ssh_system";

// Datastore trees.
inline constexpr char server_tree[] = "/cfg/gl/crypto/ssh/server/";
inline constexpr char client_tree[] = "/cfg/gl/crypto/ssh/client/";
inline constexpr char backup_tree[] = "/cfg/gl/crypto/ssh/sshd_backup/";
inline constexpr char crypto_tree[] = "/cfg/gl/crypto/";
inline constexpr char banner_tree[] = "/cfg/gl/banner/";
inline constexpr char aaa_banner_tree[] = "/cfg/gl/aaa/banner/";
inline constexpr char aaa_tree[] = "/cfg/gl/aaa/";

inline constexpr char ipv4_acl_tree[] = "/oper/ipv4-acl/gl/show/";
inline constexpr char ipv6_acl_tree[] = "/oper/ipv6-acl/gl/daemon/list/";

// Platform services.
inline constexpr char debug_path[] = "/debug/ssh/";

}  // namespace paths

#endif
