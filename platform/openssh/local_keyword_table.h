/// What local directives may contain: the settings that the router's configuration does not have but that are safe to change,
/// and why others are refused.
#ifndef OPENSSH_LOCAL_KEYWORD_TABLE_H
#define OPENSSH_LOCAL_KEYWORD_TABLE_H

#include <span>
#include <string_view>

#include "openssh/algorithms.h"
#include "openssh/value_forms.h"

namespace openssh {

enum class local_rule {
    setting,  ///< the VRF's own directive applies before that for all VRFs, and both before what the agent always writes
    cumulative,  ///< all directives apply together
    address,     ///< the same; what is not an address of the VRF is left out
    narrowed,    ///< an algorithm list, which can only be made shorter
    key_types,   ///< the accepted types of users' keys, filtered to known and permitted names
    configured,  ///< refused, because an item configures it
    refused,
};

enum class local_place {
    server = 1,  ///< in front of the Match blocks
    block = 2,   ///< in a Match block
    both = 3,
};

/// The keyword of a row and the places where it is accepted.
struct local_row {
    std::string_view keyword;  ///< compared without regard to case
    local_rule how;
    local_place place = local_place::both;
    value_form form = nullptr;                     ///< null for algorithm lists
    const char* expected = "";                     ///< the form in words
    algorithm_kind kind = algorithm_kind::cipher;  ///< for `narrowed` and `key_types`
    /// Whoever may set it can become any user, root included.
    bool is_reserved_to_root = false;
    const char* reason = "";  ///< for `configured` the item, for `refused` the reason
};

std::span<const local_row> local_rows();

/// The row of a keyword at a place, or null.
const local_row* find_local_row(std::string_view keyword, bool in_block);

/// Whether the criteria of a Match line are ones that sshd can evaluate. sshd itself reads them only when somebody connects,
/// and would refuse everybody.
bool is_match_criteria(std::string_view value);

}  // namespace openssh

#endif
