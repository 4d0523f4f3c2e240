/// Merges local directives into a translated server file. Runs no process and touches no file.
///
/// Local directives are what an administrator adds to the agent's files: settings for which there is no item. They stand in two
/// files, that of the VRF and that of all VRFs. The VRF's own applies where both have a keyword; names and addresses of both
/// files apply together; of several Match blocks that set the same keyword, sshd uses the first, so the VRF's own come first.
#ifndef OPENSSH_LOCAL_DIRECTIVES_H
#define OPENSSH_LOCAL_DIRECTIVES_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "openssh/algorithms.h"

namespace openssh {

struct local_file {
    std::string path;
    std::string text;

    bool operator==(const local_file&) const = default;
};

enum class local_outcome {
    accepted,
    overruled,  ///< valid, but the VRF's own file has the keyword, too
    refused,
};

/// What becomes of a line.
struct local_verdict {
    local_outcome outcome;
    std::string path;
    size_t line = 0;
    std::string directive;  ///< the line's text, escaped
    std::string text = {};  ///< for a refused line the reason, otherwise a remark or nothing
    bool is_reserved_to_root = false;
};

struct local_context {
    const known_algorithms* known;
    bool fips_mode = false;
    /// Whether the VRF has an address.
    std::function<bool(const std::string&)> has_address;
};

struct local_merge {
    std::string settings;                   ///< the translated text with the directives in front of the Match blocks
    std::string blocks;                     ///< Match blocks, for the end of the file
    std::vector<local_verdict> verdicts;    ///< one for each directive, in the order of the files
    std::vector<std::string> not_in_force;  ///< accepted, but without effect on this machine now; one sentence each

    bool is_refused() const;
    /// Returns one sentence for each refused line, which names file, line and reason.
    std::vector<std::string> refusals() const;
    size_t count_in_force() const;
};

/// Merges the directives of `files`, the VRF's own first, into the settings of a translated file. Each line that comes from a
/// directive follows a comment that names its place. If a line is refused, the result must not be used.
local_merge merge_local_directives(const std::vector<local_file>& files, const local_context& context,
                                   std::string_view settings);

/// Returns the place, "FILE, line N".
std::string local_place_text(const std::string& path, size_t line);

/// Whether a translated text has local directives.
bool has_local_directives(std::string_view text);

/// Returns the place that a comment of merge_local_directives names; empty for any other line.
std::string_view local_place_in(std::string_view comment);

}  // namespace openssh

#endif
