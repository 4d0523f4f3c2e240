#include <time.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <string>
#include <vector>

#include "linux/datastore_commit.h"
#include "linux/record_json.h"
#include "linux/telemetry_internal.h"

namespace {

constexpr char state_path[] = "/openconfig-system:system/ssh-server/state";
constexpr uint64_t nanoseconds_per_second = 1'000'000'000;

/// A leaf of the model and the field of the record that it comes from.
struct leaf_row {
    const char* field;
    const char* leaf;
};

// openconfig-system, revision 2019-03-15, grouping system-ssh-server-config.
constexpr leaf_row leaves[] = {
    {"Enable", "enable"},        {"ProtocolVersion", "protocol-version"}, {"Timeout", "timeout"},
    {"RateLimit", "rate-limit"}, {"SessionLimit", "session-limit"},
};

// Values of the leaf protocol-version, by their numbers.
constexpr const char* protocol_versions[] = {"V2", "V1", "V1_V2"};

struct listener_row {
    telemetry_listener listener;
    void* context;
    bool operator==(const listener_row&) const = default;
};

struct producer_state {
    std::vector<std::string> paths;
    std::vector<listener_row> listeners;
    uint64_t events = 0;
};

producer_state& producer() {
    static producer_state state;
    return state;
}

control_json leaf_value(const leaf_row& row, const control_json& value) {
    if (std::string_view(row.field) == "ProtocolVersion" && value.is_number_integer() && value >= 0 &&
        value < std::size(protocol_versions)) {
        return protocol_versions[value.get<size_t>()];
    }
    return value;
}

uint64_t now() {
    timespec time = {};
    clock_gettime(CLOCK_REALTIME, &time);
    return static_cast<uint64_t>(time.tv_sec) * nanoseconds_per_second + static_cast<uint64_t>(time.tv_nsec);
}

/// Makes the event's record and tells everybody. Nobody listening costs nothing.
platform_status tell_listeners(datastore_provider_callback fill, void* context) {
    const datastore_answer answer = datastore_fill(fill, "", context);
    if (answer.status != PLATFORM_OK) {
        return answer.status;
    }
    control_json record;
    const platform_status status = record_to_json(answer.records[0], record);
    if (status != PLATFORM_OK) {
        return status;
    }
    const control_json notification = telemetry_notification(record, now());
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
        const auto value = state.find(row.field);
        if (value != state.end() && !value->is_null()) {
            updates.push_back({{"path", row.leaf}, {"val", leaf_value(row, *value)}});
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

uint64_t telemetry_events() {
    return producer().events;
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
    producer().events++;
    return producer().listeners.empty() ? platform_status{PLATFORM_OK} : tell_listeners(fill, context);
} catch (const std::exception&) {
    return ENOMEM;
}
