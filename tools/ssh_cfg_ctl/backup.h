/// Backups: the configuration, the access lists, the imported keys and the files that belong to them, in one file.
///
/// The file contains the private host keys. It is written for root only, and only root may make or restore one. Restoring
/// writes to a fixed set of files, whatever the backup says.
#ifndef SSH_CFG_CTL_BACKUP_H
#define SSH_CFG_CTL_BACKUP_H

#include <string>
#include <vector>

#include "control_protocol/json_text.h"
#include "ssh_cfg_ctl/client.h"

/// Writes a backup to the file in `arguments`. Returns an answer; null if the arguments are wrong.
control_json ctl_backup(const ctl_connection_settings& settings, const std::vector<std::string>& arguments);

/// Restores a backup: first everything is checked; then come the files, the lists, the keys and at last the configuration,
/// which replaces the present one. What cannot be restored is named.
control_json ctl_restore(const ctl_connection_settings& settings, const std::vector<std::string>& arguments);

/// What is printed for either answer.
std::string ctl_backup_text(const control_json& answer);

#endif
