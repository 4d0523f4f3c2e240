#include <time.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "linux/datastore/datastore_internal.h"
#include "linux/datastore/record_json.h"
#include "linux/datastore/telemetry_producer_internal.h"

namespace {

constexpr char state_path[] = "/openconfig-system:system/ssh-server/state";
constexpr uint64_t nanoseconds_per_second = 1'000'000'000;

/// A leaf of the model and the field of the record that supplies it.
struct leaf_row {
    const char* field;
    const char* leaf;
};

constexpr leaf_row leaves[] = {
    {"Enable", "enable"},        {"ProtocolVersion", "protocol-version"}, {"Timeout", "timeout"},
    {"RateLimit", "rate-limit"}, {"SessionLimit", "session-limit"},
};

// Values of the leaf protocol-version, by number.
constexpr const char* protocol_versions[] = {"V2", "V1", "V1_V2"};

struct listener_row {
    telemetry_listener listener;
    void* context;
    bool operator==(const listener_row&) const = default;
};

struct producer_state {
    std::vector<std::string> paths;
    std::vector<listener_row> listeners;
};

producer_state& producer() {
    static producer_state state;
    return state;
}

/// A leaf's value according to RFC 7951, with enumerations by name. Null if the record has none.
control_json leaf_value(const leaf_row& row, const control_json& state) {
    const auto value = state.find(row.field);
    if (value == state.end() || std::string_view(row.field) != "ProtocolVersion" || !value->is_number_integer()) {
        return value == state.end() ? control_json() : *value;
    }
    const auto number = value->get<int64_t>();
    const bool named = number >= 0 && number < static_cast<int64_t>(std::size(protocol_versions));
    return named ? control_json(protocol_versions[number]) : control_json();
}

uint64_t now() {
    timespec time = {};
    clock_gettime(CLOCK_REALTIME, &time);
    return static_cast<uint64_t>(time.tv_sec) * nanoseconds_per_second + static_cast<uint64_t>(time.tv_nsec);
}

platform_status notification_of(const datastore_answer& answer, control_json& notification) {
    if (answer.status != PLATFORM_OK) {
        return answer.status;
    }
    if (answer.records.empty()) {
        return DATASTORE_NO_DATA;
    }
    control_json record;
    const platform_status status = record_to_json(answer.records[0], record);
    if (status == PLATFORM_OK) {
        notification = telemetry_notification(record, now());
    }
    return status;
}

/// Builds the event's record and sends it to all listeners. Does nothing if there are none.
platform_status tell_listeners(datastore_provider_callback fill, void* context) {
    control_json notification;
    const platform_status status = notification_of(datastore_fill(fill, "", context), notification);
    if (status != PLATFORM_OK) {
        return status;
    }
    const std::vector<listener_row> listeners = producer().listeners;
    for (const listener_row& row : listeners) {
        row.listener(notification, row.context);
    }
    return PLATFORM_OK;
}

}  // namespace

control_json telemetry_notification(const control_json& record, uint64_t nanoseconds) {
    const control_json& state = record.at("SshServer").at("State");
    control_json updates = control_json::array();
    for (const leaf_row& row : leaves) {
        control_json value = leaf_value(row, state);
        if (!value.is_null()) {
            updates.push_back({{"path", row.leaf}, {"val", std::move(value)}});
        }
    }
    return {{"timestamp", nanoseconds}, {"prefix", state_path}, {"update", std::move(updates)}};
}

void telemetry_listen(telemetry_listener listener, void* context) {
    telemetry_unlisten(listener, context);
    producer().listeners.push_back({listener, context});
}

void telemetry_unlisten(telemetry_listener listener, void* context) {
    std::erase(producer().listeners, listener_row{listener, context});
}

std::vector<control_json> telemetry_snapshot() {
    std::vector<control_json> notifications;
    for (const std::string& path : producer().paths) {
        control_json notification;
        if (notification_of(datastore_read(path), notification) == PLATFORM_OK) {
            notifications.push_back(std::move(notification));
        }
    }
    return notifications;
}

platform_status telemetry_producer_init(const char* name, const char* path, event_manager* /*manager*/) try {
    if (name == nullptr || path == nullptr) {
        return EINVAL;
    }
    std::erase(producer().paths, path);
    producer().paths.emplace_back(path);
    return PLATFORM_OK;
} catch (const std::exception&) {
    return ENOMEM;
}

platform_status telemetry_producer_publish(const char* path, datastore_provider_callback fill, void* context) try {
    auto& paths = producer().paths;
    if (path == nullptr || fill == nullptr || std::find(paths.begin(), paths.end(), path) == paths.end()) {
        return EINVAL;
    }
    return producer().listeners.empty() ? platform_status{PLATFORM_OK} : tell_listeners(fill, context);
} catch (const std::exception&) {
    return ENOMEM;
}
