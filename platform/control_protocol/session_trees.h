/// The trees of operational data below which sessions are read.
#ifndef CONTROL_PROTOCOL_SESSION_TREES_H
#define CONTROL_PROTOCOL_SESSION_TREES_H

#include <string_view>

struct control_session_tree {
    std::string_view path;  ///< ends with '/'
    bool has_incoming;
    bool has_outgoing;
};

/// The tree that a path belongs to, or null.
const control_session_tree* control_find_session_tree(std::string_view path);

#endif
