/// Tests of a setting's form, each as strict as sshd's own reading of it: one setting that sshd refuses would cost the
/// server its whole file.
#ifndef OPENSSH_VALUE_FORMS_H
#define OPENSSH_VALUE_FORMS_H

#include <string_view>

namespace openssh {

/// Whether sshd accepts a value, which has no blanks at its ends and may be empty.
using value_form = bool (*)(std::string_view value);

bool is_yes_or_no(std::string_view value);
bool is_port(std::string_view value);   ///< 1 to 65535
bool is_count(std::string_view value);  ///< 0 to 2147483647
bool is_time(std::string_view value);   ///< numbers with units ("90", "1h30m"), at most 2147483647 seconds
bool is_rekey_limit(
    std::string_view value);  ///< volume of at least 16 bytes with a unit, or "default"; then a time or "none"
bool is_ip_qos(std::string_view value);  ///< one or two type-of-service bytes, as number or name
bool is_log_level(std::string_view value);
bool is_forwarding(std::string_view value);  ///< no, yes, local, remote, all
bool is_root_login(std::string_view value);
bool is_host_key_checking(std::string_view value);          ///< yes, no, ask, off, accept-new
bool is_public_key_authentication(std::string_view value);  ///< yes, no, unbound, host-bound
bool is_path_or_none(std::string_view value);               ///< an absolute path without blanks, or "none"
bool is_key_path(std::string_view value);                   ///< an absolute path without blanks
bool is_subsystem(std::string_view value);  ///< a name and an absolute command with its arguments, or "internal-sftp"
bool is_algorithm_list(std::string_view value);  ///< names, not a change to sshd's own list ("+", "-", "^")
bool is_any_text(std::string_view value);        ///< anything but nothing; quotes must be closed

}  // namespace openssh

#endif
