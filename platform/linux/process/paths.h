/// The Linux platform's files that belong to the running agent, and its own configuration file.
#ifndef LINUX_PROCESS_PATHS_H
#define LINUX_PROCESS_PATHS_H

inline constexpr char runtime_directory[] = "/run/ssh_cfg_agent";
inline constexpr char runtime_lock_file[] = "/run/ssh_cfg_agent/agent.lock";
inline constexpr char runtime_respawn_file[] = "/run/ssh_cfg_agent/respawn_count";
inline constexpr char platform_config_directory[] = "/etc/ssh_cfg_agent";
inline constexpr char platform_config_file[] = "/etc/ssh_cfg_agent/platform.conf";

#endif
