#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <set>
#include <vector>

#include "common/text.h"
#include "control_protocol/session_trees.h"
#include "linux/access_lists/acl_values.h"
#include "linux/control/calls_internal.h"
#include "linux/control/path_member.h"
#include "linux/control/service_json.h"
#include "linux/control/session_totals.h"
#include "linux/control/value.h"
#include "linux/datastore/datastore_internal.h"
#include "linux/datastore/record_json.h"
#include "linux/datastore/schema_children.h"
#include "linux/datastore/schema_description.h"
#include "linux/datastore/service_values.h"
#include "linux/reporting/log_message_internal.h"
#include "platform/record_codec.h"

namespace {

/// The format takes the path.
control_json no_data(const char* format, const std::string& path) {
    return control_answer(control_result::no_data, text_format(format, schema_shown_path(path).c_str()));
}

control_json failure(const std::string& path, platform_status status) {
    return control_answer(control_result::failed, text_format("%s: %s (0x%x)", schema_shown_path(path).c_str(),
                                                              platform_status_text(status), status));
}

/// Counts items, access lists and imported keys.
size_t items_below(const std::string& folder) {
    size_t items = 0;
    datastore_visit_service_values(folder, [&items](const std::string&, const datastore_stored&) { items++; });
    datastore_visit(folder, [&items](const std::string&, const datastore_value&) {
        items++;
        return true;
    });
    return items;
}

/// Describes an access list by the number of its entries, and a user's imported keys by their lines.
void add_service_value(const std::string& path, control_json& child) {
    const std::optional<datastore_stored> stored = datastore_present_value(path);
    control_json json;
    child["configured"] = stored.has_value();
    if (!stored.has_value() || !control_service_value_to_json(path, *stored, json)) {
        return;
    }
    if (!path.starts_with(datastore_imported_keys)) {
        child["entries"] = json.size();
    } else {
        child["value"] = std::move(json);
    }
}

/// Describes the item or folder `name` below `folder`, a path that ends in '/'. A name that begins with "*" stands for any
/// name that the operator may choose.
control_json listed_child(const std::string& folder, const std::string& name) {
    const bool is_wildcard = name.starts_with('*');
    const std::string path = folder + (is_wildcard ? "name" + name.substr(1) : name);
    control_json child = {{"name", name}};
    if (name.ends_with('/')) {
        const size_t items = is_wildcard ? 0 : items_below(path);
        child["configured"] = items > 0;
        child["items"] = items;
        return child;
    }
    if (!is_wildcard && datastore_service_kind_of(path) != nullptr) {
        add_service_value(path, child);
        return child;
    }
    datastore_value value;
    const bool is_configured = !is_wildcard && datastore_get_value(path, value) == PLATFORM_OK;
    child["configured"] = is_configured;
    if (is_configured) {
        child["value"] = control_value_to_json(value);
    }
    if (const schema_row* row = schema_find(path, nullptr)) {
        child["meaning"] = schema_describe(*row).meaning;
    }
    return child;
}

/// Returns what can be configured below a path, including the configured names that match a "*", or null if nothing can be
/// configured there.
control_json list_all(const std::string& path, const std::vector<std::string>& configured) {
    const std::string folder = path.ends_with('/') ? path : path + '/';
    std::set<std::string> names;
    for (const std::string& name : schema_children(path)) {
        names.insert(name);
        for (const std::string& chosen : configured) {
            names.insert(name.starts_with('*') ? chosen + name.substr(1) : name);
        }
    }
    const std::vector<std::string> of_services = datastore_service_children(folder, true);
    names.insert(of_services.begin(), of_services.end());
    control_json children;
    for (const std::string& name : names) {
        children.push_back(listed_child(folder, name));
    }
    return children;
}

/// Returns an access list or an imported key.
control_json get_service_value(const std::string& path) {
    const std::optional<datastore_stored> stored = datastore_present_value(path);
    control_json json;
    if (!stored.has_value()) {
        return no_data("%s: not configured", path);
    }
    return control_service_value_to_json(path, *stored, json) ? control_data_answer(std::move(json))
                                                              : failure(path, EBADMSG);
}

}  // namespace

control_json control_call_get(const control_json& request, const control_peer& /*peer*/) {
    const auto [path, is_short, problem] = control_item_path(request);
    if (!problem.is_null()) {
        return problem;
    }
    std::string refusal;
    if (datastore_service_kind_of(path) != nullptr) {
        return get_service_value(path);
    }
    if (schema_find(path, &refusal) == nullptr) {
        return control_answer(control_result::refused, refusal);
    }
    datastore_value value;
    const platform_status status = datastore_get_value(path, value);
    if (status == DATASTORE_NO_SUCH_ITEM) {
        return no_data("%s: not configured", path);
    }
    return status == PLATFORM_OK ? control_data_answer(control_value_to_json(value)) : failure(path, status);
}

control_json control_call_list(const control_json& request, const control_peer& /*peer*/) {
    const auto [path, is_short, problem] = control_folder_path(request);
    if (!problem.is_null()) {
        return problem;
    }
    std::vector<std::string> names;
    const platform_status status = datastore_list_children(path, names);
    if (status != PLATFORM_OK) {
        return failure(path, status);
    }
    for (std::string& name : datastore_service_children(path.ends_with('/') ? path : path + '/', false)) {
        name.resize(name.size() - (name.ends_with('/') ? 1 : 0));
        names.push_back(std::move(name));
    }
    std::sort(names.begin(), names.end());
    control_json all = request.value("all", control_json()) == true ? list_all(path, names) : control_json();
    if (!all.is_null()) {
        return control_data_answer(std::move(all));
    }
    return names.empty() ? no_data("%s: nothing is configured below this path", path) : control_data_answer(names);
}

namespace {

/// Adds the values of services below `tree` to a dump. Damaged values are left out.
platform_status dump_service_values(std::string_view tree, control_json::object_t& items) {
    return datastore_visit_service_values(tree, [&items](const std::string& path, const datastore_stored& value) {
        control_json json;
        if (control_service_value_to_json(path, value, json)) {
            items.emplace_back(path, std::move(json));
        } else {
            platform_log(LOG_ERR, "The stored value %s is damaged", path.c_str());
        }
    });
}

platform_status dump_items(control_json::object_t& items) {
    return datastore_visit("/", [&items](const std::string& path, const datastore_value& value) {
        items.emplace_back(path, control_value_to_json(value));
        return true;
    });
}

}  // namespace

control_json control_call_dump(const control_json& /*request*/, const control_peer& /*peer*/) {
    // The paths are added in byte order and are unique, so no look-up is needed.
    control_json::object_t items;
    platform_status status = dump_service_values(acl_list_tree, items);
    if (status == PLATFORM_OK) {
        status = dump_items(items);
    }
    if (status == PLATFORM_OK) {
        status = dump_service_values(datastore_imported_keys, items);
    }
    return status == PLATFORM_OK ? control_data_answer(std::move(items)) : failure("/", status);
}

namespace {

control_json show(const std::string& path) {
    const datastore_answer answer = datastore_read(path);
    switch (answer.status) {
        case DATASTORE_NO_SUCH_TREE:
            return no_data("%s: no operational data is available at this path", path);
        case DATASTORE_NO_DATA:
        case DATASTORE_NOTHING_TO_ENCODE:
            return no_data("%s: no data", path);
        case PLATFORM_OK:
            break;
        default:
            return failure(path, answer.status);
    }
    if (answer.records.empty()) {
        return no_data("%s: no data", path);
    }
    control_json records = control_json::array();
    for (const datastore_record& record : answer.records) {
        control_json json;
        const platform_status status = record_to_json(record, json);
        if (status != PLATFORM_OK) {
            return failure(path, status);
        }
        records.push_back(std::move(json));
    }
    control_json shown = control_data_answer(answer.is_list ? std::move(records) : std::move(records[0]));
    shown["record"] = answer.records[0].descriptor->name;
    return shown;
}

/// Returns the number of sessions that existed both times. The number is an upper bound if some sessions began while
/// others ended.
session_totals common_totals(const session_totals& before, const session_totals& after) {
    return {.incoming = std::min(before.incoming, after.incoming),
            .outgoing = std::min(before.outgoing, after.outgoing)};
}

/// An object, or null if the totals are unknown.
control_json totals_to_json(const std::optional<session_totals>& totals) {
    return totals ? control_json{{"incoming", totals->incoming}, {"outgoing", totals->outgoing}} : control_json();
}

/// Reads the totals before and after the records, so that a session that begins or ends in the meantime does not count as
/// missing.
control_json show_sessions(const std::string& path) {
    const std::optional<session_totals> before = control_ask_session_totals();
    control_json answer = show(path);
    const std::optional<session_totals> after = before ? control_ask_session_totals() : std::nullopt;
    answer["sessions"] = totals_to_json(after ? common_totals(*before, *after) : before);
    return answer;
}

}  // namespace

control_json control_call_show(const control_json& request, const control_peer& /*peer*/) {
    const auto [path, is_short, problem] = control_operational_path(request);
    if (!problem.is_null()) {
        return problem;
    }
    control_json answer = control_find_session_tree(path) == nullptr ? show(path) : show_sessions(path);
    if (is_short) {
        answer["path"] = path;
    }
    return answer;
}
