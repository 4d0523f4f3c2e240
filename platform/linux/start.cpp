#include "linux/start.h"

#include <iterator>

#include "linux/access_lists/acl_service_internal.h"
#include "linux/access_lists/acl_values.h"
#include "linux/control/control.h"
#include "linux/control/fallback.h"
#include "linux/enforcement/enforcement_internal.h"
#include "linux/enforcement/retry.h"
#include "linux/host/aaa_users.h"
#include "linux/host/key_files.h"
#include "linux/host/key_store_internal.h"
#include "linux/packet_filter/own_tables.h"
#include "linux/process/event_manager_internal.h"
#include "linux/process/node_lock.h"
#include "linux/process/primary_wait.h"
#include "linux/process/process_manager_internal.h"
#include "linux/rehearsal/rehearsal.h"
#include "linux/reporting/log_message_internal.h"
#include "linux/vrf/namespace_watch.h"
#include "platform/namespace_message.h"

namespace {

platform_status take_node_lock(struct event_manager*) {
    return static_cast<platform_status>(node_lock_take());
}

platform_status make_logging_nonblocking(struct event_manager*) {
    log_message_never_wait();
    return PLATFORM_OK;
}

platform_status count_start(struct event_manager*) {
    process_manager_count_start();
    return PLATFORM_OK;
}

platform_status open_control_socket(struct event_manager*) {
    return control_open(nullptr);
}

platform_status offer_standby_calls(struct event_manager*) {
    primary_wait_serve({control_start_standby, control_stop_standby});
    return PLATFORM_OK;
}

void withdraw_standby_calls() {
    primary_wait_serve({nullptr, nullptr});
}

platform_status start_acl_service(struct event_manager*) {
    acl_values_start();
    return acl_service_start();
}

void stop_acl_service() {
    acl_values_stop();
    acl_service_stop();
}

platform_status start_key_imports(struct event_manager*) {
    key_imports_start();
    return PLATFORM_OK;
}

platform_status start_aaa_users(struct event_manager*) {
    aaa_users_start();
    return PLATFORM_OK;
}

platform_status start_key_store(struct event_manager*) {
    key_store_start();
    enforcement_add_check(key_files_compare);
    return PLATFORM_OK;
}

void stop_key_store() {
    enforcement_remove_check(key_files_compare);
}

platform_status start_control_calls(struct event_manager* manager) {
    return control_start(event_manager_sd_event(manager));
}

platform_status notify_readiness(struct event_manager*) {
    process_manager_notify_ready();
    return PLATFORM_OK;
}

constexpr platform_service services[] = {
    {"log", service_moment::manager_created, 0, false, make_logging_nonblocking, nullptr},
    // The lock comes before everything that a second agent on the node would damage: the count and the first agent's
    // socket.
    {"node lock", service_moment::manager_created, 0, true, take_node_lock, node_lock_release},
    {"start count", service_moment::manager_created, 0, false, count_start, nullptr},
    {"control socket", service_moment::manager_created, 0, false, open_control_socket, control_close},
    {"standby calls", service_moment::manager_created, 0, false, offer_standby_calls, withdraw_standby_calls},
    {"access lists", service_moment::manager_created, 0, false, start_acl_service, stop_acl_service},
    {"imported keys", service_moment::manager_created, 0, false, start_key_imports, key_imports_stop},
    {"AAA users", service_moment::manager_created, 0, false, start_aaa_users, aaa_users_stop},

    {"namespace watch", service_moment::message_attached, NAMESPACE_MESSAGE, true, namespace_watch_start,
     namespace_watch_stop},

    // The socket opens last, when the keys that operators may ask about are in force.
    {"key store", service_moment::first_wait, 0, false, start_key_store, stop_key_store},
    {"own packet filters", service_moment::first_wait, 0, false, own_tables_start, own_tables_stop},
    {"repairs", service_moment::first_wait, 0, false, enforcement_retry_start, enforcement_retry_stop},
    {"rehearsals", service_moment::first_wait, 0, false, rehearsals_start, rehearsals_stop},
    {"fallback", service_moment::first_wait, 0, false, fallback_start, fallback_stop},
    {"control calls", service_moment::first_wait, 0, false, start_control_calls, nullptr},
    // The agent reports readiness before it applies the configuration. Units that are ordered after it rely on the servers.
    {"readiness", service_moment::first_wait, 0, false, notify_readiness, nullptr},
};

static_assert(std::size(services) <= services_max);

}  // namespace

service_set& platform_services() {
    static service_set set = {services, {}};
    return set;
}

platform_status service_set_start(service_set& set, service_moment moment, uint32_t message,
                                  struct event_manager* manager) {
    for (size_t i = 0; i < set.services.size(); i++) {
        const platform_service& service = set.services[i];
        if (service.moment != moment || service.message != message || set.running[i]) {
            continue;
        }
        const platform_status status = service.start(manager);
        set.running[i] = status == PLATFORM_OK;
        if (status != PLATFORM_OK && service.required) {
            return status;
        }
    }
    return PLATFORM_OK;
}

void service_set_stop(service_set& set) {
    for (size_t i = set.services.size(); i-- > 0;) {
        if (set.running[i] && set.services[i].stop != nullptr) {
            set.services[i].stop();
        }
    }
    set.running.reset();
}

platform_status start_platform_services(struct event_manager* manager, service_moment moment, uint32_t message) {
    return service_set_start(platform_services(), moment, message, manager);
}

void stop_platform_services() {
    service_set_stop(platform_services());
}
