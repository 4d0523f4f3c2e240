#include "control_protocol/session_trees.h"

#include <algorithm>
#include <iterator>

namespace {

constexpr control_session_tree session_trees[] = {
    {"/oper/crypto-ssh/gl/session_xml/", true, true},
    {"/oper/crypto-ssh/gl/sshddata/", true, false},
    {"/oper/crypto-ssh/client/", false, true},
};

}  // namespace

const control_session_tree* control_find_session_tree(std::string_view path) {
    const auto* found = std::find_if(std::begin(session_trees), std::end(session_trees),
                                     [path](const control_session_tree& tree) { return path.starts_with(tree.path); });
    return found != std::end(session_trees) ? found : nullptr;
}
