/// Asks the launcher, and so sshd itself, about local directives.
#ifndef LINUX_LOCAL_DIRECTIVES_LOCAL_JUDGEMENT_H
#define LINUX_LOCAL_DIRECTIVES_LOCAL_JUDGEMENT_H

#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct judged_directive {
    std::string outcome;  ///< "accepted", "overruled" or "refused"
    bool is_reserved_to_root = false;
    std::string place;      ///< "FILE, line N"; empty for what concerns whole files
    std::string directive;  ///< the line's text
    std::string text;       ///< the reason, or a remark
    std::string vrf = {};   ///< the VRF for which it is refused, if not for all

    bool operator==(const judged_directive&) const = default;
};

struct local_judgement {
    std::vector<judged_directive> directives;
    std::string translation;  ///< what the server would be started with
    std::string failure;      ///< why there is no judgement; empty if there is one

    bool is_refused() const;
};

/// The text proposed for one of the two files of a VRF.
struct proposed_local_file {
    bool is_own;  ///< the VRF's own file, not that of all VRFs
    std::string text;
};

/// Judges the local directives of a VRF, or, if the name is empty, those of all VRFs. Takes at most ten seconds.
local_judgement local_directives_judge(std::string_view vrf_name, const std::optional<proposed_local_file>& proposed);

/// Returns the settings that a server with this translated file has for a login from an address, as `sshd -T` prints them, or
/// an empty text.
std::string local_settings_for(const std::string& translation, const std::string& user, const std::string& address,
                               unsigned port);

#endif
