#include <errno.h>
#include <stdlib.h>

#include <cstring>
#include <memory>

#include "platform/datastore_backend.h"

namespace {

struct memory_release {
    void operator()(void* memory) const { free(memory); }
};

/// A path's components in one allocation: first the pointers, then the text they point into.
struct split_path {
    std::unique_ptr<const char*[], memory_release> memory;
    datastore_path_components components = {nullptr, 0};
};

uint32_t count_components(const char* item) {
    uint32_t count = 1;
    for (const char* c = item; *c != '\0'; c++) {
        count += *c == '/';
    }
    return count;
}

/// Splits at every '/'. Returns 0 or ENOMEM.
platform_status split(const char* item, split_path& path) {
    const uint32_t count = count_components(item);
    const size_t text_size = strlen(item) + 1;
    path.memory.reset(static_cast<const char**>(malloc(count * sizeof(char*) + text_size)));
    if (path.memory == nullptr) {
        return ENOMEM;
    }
    char* text = reinterpret_cast<char*>(path.memory.get() + count);
    memcpy(text, item, text_size);
    for (uint32_t i = 0; i < count; i++) {
        path.memory[i] = text;
        char* end = text + strcspn(text, "/");
        text = end + 1;
        *end = '\0';
    }
    path.components = {path.memory.get(), count};
    return PLATFORM_OK;
}

bool node_matches(const datastore_item_node& node, const char* component) {
    if (node.type == DATASTORE_NODE_WILDCARD) {
        return component[0] != '\0';
    }
    return node.name != nullptr && strcmp(node.name, component) == 0;
}

/// The first matching node of a sibling list; -1 if there is none.
int32_t find_sibling(const datastore_item_table* table, int32_t index, const char* component) {
    // The number of steps is limited to the number of nodes, in case a list loops back into itself.
    for (uint32_t steps = 0; steps < table->node_count; steps++) {
        if (index < 0 || static_cast<uint32_t>(index) >= table->node_count) {
            return -1;
        }
        if (node_matches(table->nodes[index], component)) {
            return index;
        }
        index = table->nodes[index].next_sibling;
    }
    return -1;
}

/// The handler of the path's node; null if there is no such node or it has no handler.
const datastore_item_handler* find_handler(const datastore_item_table* table, const datastore_path_components& path) {
    int32_t level = 0;
    int32_t node = -1;
    for (uint32_t i = 0; i < path.count; i++) {
        node = find_sibling(table, level, path.component[i]);
        if (node < 0) {
            return nullptr;
        }
        level = table->nodes[node].first_child;
    }
    const int32_t handler = table->nodes[node].handler;
    if (handler < 0 || static_cast<uint32_t>(handler) >= table->handler_count) {
        return nullptr;
    }
    return &table->handlers[handler];
}

}  // namespace

platform_status datastore_backend_verify(const datastore_backend_call* call, const datastore_item_table* table) {
    split_path path;
    if (const platform_status status = split(call->item, path); status != PLATFORM_OK) {
        return status;
    }
    const datastore_item_handler* handler = find_handler(table, path.components);
    if (handler == nullptr || handler->verify == nullptr) {
        return DATASTORE_NO_HANDLER;
    }
    return handler->verify(call->change, call->error_text, call->accepted, &path.components);
}

platform_status datastore_backend_apply(const datastore_backend_call* call, const datastore_item_table* table) {
    split_path path;
    if (const platform_status status = split(call->item, path); status != PLATFORM_OK) {
        return status;
    }
    const datastore_item_handler* handler = find_handler(table, path.components);
    if (handler == nullptr || handler->apply == nullptr) {
        return DATASTORE_NO_HANDLER;
    }
    return handler->apply(call->change, &path.components);
}
