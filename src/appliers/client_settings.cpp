#include "appliers/client_settings.h"

#include "appliers/setting_row.h"
#include "appliers/trace_points.h"
#include "config_files/parameter_table.h"
#include "core/debug.h"
#include "core/text.h"

namespace {

constexpr uint32_t create_or_set = DATASTORE_EVENT_CREATE | DATASTORE_EVENT_SET;

// The table points at these. Both rekey items share one.
char window_scale_text[setting_text_size];
char rekey_text[setting_text_size];
char known_hosts_file[algorithm_list_size];

void announce_dscp(const char* text) {
    debug_print("Setting DSCP value for client:%s", text);
}

const char* version_or_nothing(const setting_row&, const uint32_t* value) {
    return value != nullptr ? "2" : nullptr;
}

const setting_row version_row = {
    .entry = &client.parameters[CLIENT_PROTOCOL],
    .event_text = "Event:=%d, Config:=ssh client v2",
    .trace_point = appliers_trace_client_version,
    .buffer = nullptr,
    .make_text = version_or_nothing,
    .announce = nullptr,
    .event = WRITE_AS_IT_CAME,
    .is_telemetry = false,
    .written_text = nullptr,
    .write = write_client_setting,
};

const setting_row dscp_row = {
    .entry = &client.parameters[CLIENT_IP_QOS],
    .event_text = "Event:=%d, Config:=ssh client dscp",
    .trace_point = appliers_trace_client_dscp,
    .buffer = client_dscp,
    .make_text = code_point_or_default,
    .announce = announce_dscp,
    .event = WRITE_AS_SET,
    .is_telemetry = false,
    .written_text = ip_qos_text,
    .write = write_client_setting,
};

// Kept in memory only: stock clients have no such setting in their file.
const setting_row window_scale_row = {
    .entry = &client.parameters[CLIENT_WINDOW_SCALE],
    .event_text = "Event:=%d, Config:=ssh client windowscale",
    .trace_point = appliers_trace_client_window_scale,
    .buffer = window_scale_text,
    .make_text = number_or_nothing,
    .announce = nullptr,
    .event = WRITE_AS_SET,
    .is_telemetry = false,
    .written_text = nullptr,
    .write = nullptr,
};

const setting_row rekey_time_row = {
    .entry = &client.parameters[CLIENT_REKEY_LIMIT],
    .event_text = "Event:=%d, Config:=ssh client rekey-time",
    .trace_point = appliers_trace_client_rekey_time,
    .buffer = rekey_text,
    .make_text = rekey_with_time,
    .announce = nullptr,
    .event = WRITE_AS_SET,
    .is_telemetry = false,
    .written_text = nullptr,
    .write = write_client_setting,
};

const setting_row rekey_volume_row = {
    .entry = &client.parameters[CLIENT_REKEY_LIMIT],
    .event_text = "Event:=%d, Config:=ssh client rekey-volume",
    .trace_point = appliers_trace_client_rekey_volume,
    .buffer = rekey_text,
    .make_text = rekey_with_volume,
    .announce = nullptr,
    .event = WRITE_AS_SET,
    .is_telemetry = false,
    .written_text = nullptr,
    .write = write_client_setting,
};

// A removal writes the defaults, too: without the line the client would record host keys in a file of each user.
const setting_row known_hosts_row = {
    .entry = &client.parameters[CLIENT_USER_KNOWN_HOSTS_FILE],
    .event_text = "Event:=%d, Config:=ssh client known hosts",
    .trace_point = appliers_trace_client_known_hosts,
    .buffer = nullptr,
    .make_text = nullptr,
    .announce = nullptr,
    .event = WRITE_AS_SET,
    .is_telemetry = false,
    .written_text = nullptr,
    .write = write_client_setting,
};

const setting_row host_key_checking_row = {
    .entry = &client.parameters[CLIENT_STRICT_HOST_KEY_CHECKING],
    .event_text = nullptr,
    .trace_point = appliers_trace_client_host_key_checking,
    .buffer = nullptr,
    .make_text = nullptr,
    .announce = nullptr,
    .event = WRITE_AS_SET,
    .is_telemetry = false,
    .written_text = nullptr,
    .write = write_client_setting,
};

}  // namespace

platform_status ssh_client_apply_v2(const datastore_change* change, const datastore_path_components*) {
    return apply_setting(version_row, *change);
}

platform_status ssh_client_apply_dscp(const datastore_change* change, const datastore_path_components*) {
    return apply_setting(dscp_row, *change);
}

platform_status ssh_client_apply_tcp_window_scale(const datastore_change* change, const datastore_path_components*) {
    return apply_setting(window_scale_row, *change);
}

platform_status ssh_client_apply_rekey_time(const datastore_change* change, const datastore_path_components*) {
    return apply_setting(rekey_time_row, *change);
}

platform_status ssh_client_apply_rekey_volume(const datastore_change* change, const datastore_path_components*) {
    return apply_setting(rekey_volume_row, *change);
}

platform_status ssh_client_apply_known_hosts(const datastore_change* change, const datastore_path_components*) {
    debug_print(known_hosts_row.event_text, static_cast<int>(change->event));
    if ((change->event & create_or_set) != 0 && change->value != nullptr) {
        copy_text(known_hosts_file, sizeof known_hosts_file, static_cast<const char*>(change->value));
        put_setting(known_hosts_row, change->event, known_hosts_file);
        put_setting(host_key_checking_row, change->event, "ask");
    } else if ((change->event & DATASTORE_EVENT_DELETE) != 0) {
        put_setting(known_hosts_row, change->event, known_hosts_row.entry->default_text);
        put_setting(host_key_checking_row, change->event, host_key_checking_row.entry->default_text);
    }
    return PLATFORM_OK;
}
