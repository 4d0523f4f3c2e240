/// Builds the tree of a datastore_item_table from the items' paths at compile time.
///
/// A node comes before its children, and they come before its next sibling; siblings are in the order in which the
/// paths first name them. The number of an item's handler is the index of its path.
#ifndef CORE_ITEM_TREE_H
#define CORE_ITEM_TREE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

/// The path component that stands for any name.
inline constexpr std::string_view any_name = "*";

inline constexpr int32_t no_node = -1;
inline constexpr int32_t no_handler = -1;

/// Holds the longest name and its NUL; a longer name does not compile.
inline constexpr size_t item_name_size = 24;

struct item_tree_node {
    std::array<char, item_name_size> name{};
    int32_t first_child = no_node;
    int32_t next_sibling = no_node;
    int32_t handler = no_handler;
};

using item_paths = std::span<const std::string_view>;

/// Whether `path` is `top` or lies below it, comparing whole components.
constexpr bool is_at_or_below(std::string_view path, std::string_view top) {
    return path.starts_with(top) && (top.empty() || path.size() == top.size() || path[top.size()] == '/');
}

/// The child of `top` on the way to `path`, which lies below it: `top` with one more component.
constexpr std::string_view child_towards(std::string_view path, std::string_view top) {
    return path.substr(0, path.find('/', top.empty() ? 0 : top.size() + 1));
}

constexpr bool paths_differ(item_paths paths) {
    for (size_t one = 0; one < paths.size(); one++) {
        for (size_t other = 0; other < one; other++) {
            if (paths[one] == paths[other]) {
                return false;
            }
        }
    }
    return true;
}

/// Calls `visit` with the path of each child of `top`, in order.
template <typename Visit>
constexpr void for_each_child(item_paths paths, std::string_view top, const Visit& visit) {
    for (size_t i = 0; i < paths.size(); i++) {
        if (paths[i] == top || !is_at_or_below(paths[i], top)) {
            continue;
        }
        const std::string_view child = child_towards(paths[i], top);
        bool is_new = true;
        for (size_t earlier = 0; earlier < i; earlier++) {
            is_new = is_new && !is_at_or_below(paths[earlier], child);
        }
        if (is_new) {
            visit(child);
        }
    }
}

/// The number of nodes below `top`.
constexpr size_t tree_size(item_paths paths, std::string_view top = {}) {
    size_t count = 0;
    for_each_child(paths, top, [&](std::string_view child) { count += 1 + tree_size(paths, child); });
    return count;
}

/// The tree under construction.
template <size_t Size>
struct item_tree_builder {
    item_paths paths;
    std::array<item_tree_node, Size> nodes{};
    int32_t count = 0;

    /// Adds all nodes below `top`. Returns the first child, or no_node.
    constexpr int32_t add_children(std::string_view top) {
        int32_t first = no_node;
        int32_t previous = no_node;
        for_each_child(paths, top, [&](std::string_view child) {
            const int32_t added = add_node(child);
            (previous == no_node ? first : nodes[previous].next_sibling) = added;
            previous = added;
        });
        return first;
    }

    constexpr int32_t add_node(std::string_view path) {
        const int32_t added = count++;
        item_tree_node& node = nodes[added];
        const std::string_view name = path.substr(path.rfind('/') + 1);
        for (size_t i = 0; i < name.size(); i++) {
            node.name[i] = name[i];
        }
        node.name[name.size()] = '\0';
        for (size_t i = 0; i < paths.size(); i++) {
            if (paths[i] == path) {
                node.handler = static_cast<int32_t>(i);
            }
        }
        node.first_child = add_children(path);
        return added;
    }
};

/// `Size` is tree_size(paths).
template <size_t Size>
consteval std::array<item_tree_node, Size> make_item_tree(item_paths paths) {
    item_tree_builder<Size> builder{paths};
    builder.add_children({});
    return builder.nodes;
}

#endif
