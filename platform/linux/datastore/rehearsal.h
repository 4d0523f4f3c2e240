/// What the datastore asks of a rehearsal of a commit, and what it learns from one.
#ifndef LINUX_DATASTORE_REHEARSAL_H
#define LINUX_DATASTORE_REHEARSAL_H

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "linux/datastore/schema.h"

struct rehearsal_request {
    /// The commit's changes, by the key under which they are stored; what has no value is deleted.
    std::map<std::string, std::optional<datastore_stored>> changes;
    /// Calls the commit's appliers and notifications.
    std::function<void()> carry_out;
    /// Whether the operator wants to know which servers run that would be restarted or stopped; systemd has to be asked.
    bool is_detailed = false;
    bool with_lines = false;  ///< whether the changed lines of files are needed
};

enum class rehearsed_change : uint8_t { created, changed, deleted };

struct rehearsed_file {
    std::string path;
    rehearsed_change change = rehearsed_change::changed;
    /// The lines that are removed, each with a "-" before it, and those that are added, with a "+". Empty unless they were
    /// requested, and for files of rules, which are replaced as a whole.
    std::vector<std::string> lines = {};
};

enum class rehearsed_action : uint8_t { started, restarted, stopped };

struct rehearsed_server {
    std::string vrf_name;
    rehearsed_action action = rehearsed_action::restarted;
};

/// A file that sshd, or ssh for the client's, would not accept.
struct rehearsed_rejection {
    std::string path;
    std::string words;                ///< the message of sshd or of the launcher
    bool was_rejected = false;        ///< the current file is rejected as well
    std::vector<std::string> others;  ///< other files rejected with the same message
};

/// Something that a handler could not put in force.
struct rehearsed_failure {
    std::string subject;
    std::string reason;
};

struct rehearsal_report {
    /// Why the commit could not be rehearsed; empty if it was. The rest is empty then.
    std::string problem;
    /// If there is a problem: how the rehearsing copy of the agent crashed; empty if it did not.
    std::string crash;
    std::vector<rehearsed_file> files;      ///< in byte order of the paths
    std::vector<std::string> vrfs;          ///< whose files, rules or servers would change, in byte order
    std::vector<rehearsed_server> servers;  ///< in byte order of the VRFs; `started` or `stopped` unless in detail
    std::vector<rehearsed_rejection> rejections;
    std::vector<rehearsed_failure> not_in_force;
};

/// "sshd would reject PATH: WORDS", followed by the names of the first few other files and the number of the rest
std::string rehearsed_rejection_text(const rehearsed_rejection& rejection);

const char* rehearsed_change_name(rehearsed_change change);
const char* rehearsed_action_name(rehearsed_action action);

#endif
