#include "appliers/client_settings.h"

#include "appliers/setting_row.h"
#include "appliers/trace_points.h"
#include "config_files/parameter_table.h"
#include "core/debug.h"
#include "core/text.h"

namespace {

// A removal also writes the defaults: without the line the client would record host keys in a file for each user.
constexpr setting_row known_hosts_row = {
    .trace_point = appliers_trace_client_known_hosts,
    .entry = &client_config.parameters[CLIENT_USER_KNOWN_HOSTS_FILE],
    .event_text = "Event:=%d, Config:=ssh client known hosts",
    .event = WRITE_AS_SET,
    .write = write_client_setting,
};

constexpr setting_row host_key_checking_row = {
    .trace_point = appliers_trace_client_host_key_checking,
    .entry = &client_config.parameters[CLIENT_STRICT_HOST_KEY_CHECKING],
    .event = WRITE_AS_SET,
    .write = write_client_setting,
};

}  // namespace

platform_status ssh_client_apply_known_hosts(const datastore_change* change, const datastore_path_components*) {
    debug_print(known_hosts_row.event_text, static_cast<int>(change->event));
    if ((change->event & DATASTORE_EVENT_CREATE_OR_SET) != 0 && change->value != nullptr) {
        setting_entry& entry = *known_hosts_row.entry;
        copy_text(entry.text, sizeof entry.text, static_cast<const char*>(change->value));
        put_setting(known_hosts_row, change->event, entry.text);
        put_setting(host_key_checking_row, change->event, "ask");
    } else if ((change->event & DATASTORE_EVENT_DELETE) != 0) {
        put_setting(known_hosts_row, change->event, known_hosts_row.entry->default_text);
        put_setting(host_key_checking_row, change->event, host_key_checking_row.entry->default_text);
    }
    return PLATFORM_OK;
}
