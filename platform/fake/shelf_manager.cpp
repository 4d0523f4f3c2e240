#include "platform/shelf_manager.h"

#include <memory>

#include "fake_internal.h"

struct shelf_manager {
    shelf_manager_callback reload = nullptr;
    shelf_manager_callback connect = nullptr;
    shelf_manager_callback disconnect = nullptr;
    void* reload_context = nullptr;
    void* connect_context = nullptr;
    void* disconnect_context = nullptr;
};

namespace fake_platform {
namespace {

std::vector<std::unique_ptr<shelf_manager>> clients;

/// Invokes one callback of every client that has it.
void call_clients(shelf_manager_callback shelf_manager::*callback, void* shelf_manager::*context) {
    for (size_t i = 0; i < clients.size(); i++) {
        shelf_manager* client = clients[i].get();
        if (client->*callback != nullptr) {
            (client->*callback)(client, client->*context);
        }
    }
}

}  // namespace

void shelf_connected() {
    call_clients(&shelf_manager::connect, &shelf_manager::connect_context);
}

void shelf_disconnected() {
    call_clients(&shelf_manager::disconnect, &shelf_manager::disconnect_context);
}

void shelf_reload() {
    call_clients(&shelf_manager::reload, &shelf_manager::reload_context);
}

namespace internal {

void reset_shelf() {
    clients.clear();
}

}  // namespace internal
}  // namespace fake_platform

using namespace fake_platform;
using internal::enter;

platform_status shelf_manager_create(void* loop_handle, shelf_manager** shelf) {
    const platform_status status = enter("shelf_manager_create", {loop_handle == nullptr ? "NULL" : "loop"});
    if (status == PLATFORM_OK) {
        clients.push_back(std::make_unique<shelf_manager>());
        *shelf = clients.back().get();
    }
    return status;
}

void shelf_manager_set_reload_callback(shelf_manager* shelf, shelf_manager_callback callback, void* context) {
    enter("shelf_manager_set_reload_callback", {});
    shelf->reload = callback;
    shelf->reload_context = context;
}

void shelf_manager_set_connect_callback(shelf_manager* shelf, shelf_manager_callback callback, void* context) {
    enter("shelf_manager_set_connect_callback", {});
    shelf->connect = callback;
    shelf->connect_context = context;
}

void shelf_manager_set_disconnect_callback(shelf_manager* shelf, shelf_manager_callback callback, void* context) {
    enter("shelf_manager_set_disconnect_callback", {});
    shelf->disconnect = callback;
    shelf->disconnect_context = context;
}

platform_status shelf_manager_connect(shelf_manager*) {
    return enter("shelf_manager_connect", {});
}

platform_status shelf_manager_register_reload(shelf_manager*) {
    return enter("shelf_manager_register_reload", {});
}

platform_status shelf_manager_acknowledge_reload(shelf_manager*) {
    return enter("shelf_manager_acknowledge_reload", {});
}
