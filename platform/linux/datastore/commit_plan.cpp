#include "linux/datastore/commit_plan.h"

#include <errno.h>

#include <functional>

#include "common/text.h"
#include "linux/datastore/state.h"

namespace {

/// Reads the stored value; a missing one is not a failure.
bool read_previous(const std::string& path, planned_change& planned, datastore_commit_result& result) {
    datastore_stored stored;
    const platform_status status = planned.kind == nullptr ? datastore_stored_get(path, stored)
                                                           : datastore_service_get(*planned.kind, path, stored);
    if (status == PLATFORM_OK) {
        planned.previous = std::move(stored);
    }
    return status == PLATFORM_OK || status == DATASTORE_NO_SUCH_ITEM || commit_refuse_store(result, status);
}

bool plan_deletion(const datastore_change_request& request, planned_change& planned, datastore_commit_result& result) {
    const std::string& path = request.path;
    std::string refusal;
    planned.known = planned.kind != nullptr || schema_find(path, &refusal) != nullptr;
    if (!read_previous(path, planned, result)) {
        return false;
    }
    if (planned.previous) {
        return true;
    }
    if (!planned.known) {
        return commit_refuse(result, EINVAL, datastore_refused_by::schema, path, std::move(refusal));
    }
    return request.absent_ok || commit_refuse(result, DATASTORE_NO_SUCH_ITEM, datastore_refused_by::absent, path,
                                              text_format("%s: cannot delete, not configured", path.c_str()));
}

bool plan_value(const datastore_change_request& request, planned_change& planned, datastore_commit_result& result) {
    std::string refusal;
    datastore_stored stored;
    const schema_row* row = schema_find(request.path, &refusal);
    if (row == nullptr || !request.value ||
        schema_store(*row, request.path, *request.value, stored, refusal) != PLATFORM_OK) {
        return commit_refuse(result, EINVAL, datastore_refused_by::schema, request.path, std::move(refusal));
    }
    planned.value = std::move(stored);
    return read_previous(request.path, planned, result);
}

bool plan_service_value(const datastore_change_request& request, planned_change& planned,
                        datastore_commit_result& result) {
    planned.value = datastore_stored{0, *request.service_value};
    return read_previous(request.path, planned, result);
}

bool is_tree_deletion(const datastore_change_request& request) {
    return request.deletes() && !request.path.empty() && request.path.front() == '/' && request.path.back() == '/';
}

bool plan_item(const datastore_change_request& request, commit_plan& plan, datastore_commit_result& result) {
    const auto [place, is_new] = plan.try_emplace(request.path);
    if (!is_new) {
        return commit_refuse(result, EINVAL, datastore_refused_by::schema, request.path,
                             text_format("%s: changed twice in one commit; expected one change per item",
                                         schema_shown_path(request.path).c_str()));
    }
    planned_change& planned = place->second;
    planned.kind = datastore_service_kind_of(request.path);
    if (request.deletes()) {
        return plan_deletion(request, planned, result);
    }
    return request.service_value && planned.kind != nullptr ? plan_service_value(request, planned, result)
                                                            : plan_value(request, planned, result);
}

/// Plans the deletion of an item or value that was found below a path, unless the commit names it itself.
void plan_found(const std::string& path, const datastore_stored& stored, commit_plan& plan) {
    const auto [place, is_new] = plan.try_emplace(path);
    if (is_new) {
        planned_change& planned = place->second;
        planned.kind = datastore_service_kind_of(path);
        planned.known = planned.kind != nullptr || schema_find(path, nullptr) != nullptr;
        planned.previous = stored;
    }
}

platform_status visit_items(const std::string& tree,
                            const std::function<void(const std::string& path, const datastore_stored& value)>& visit) {
    std::string path;
    datastore_stored stored;
    platform_status status = PLATFORM_OK;
    while ((status = datastore_stored_next(tree, path, path, stored)) == PLATFORM_OK) {
        visit(path, stored);
    }
    return status == DATASTORE_NO_SUCH_ITEM ? platform_status{PLATFORM_OK} : status;
}

/// Plans the deletion of everything below a path, except what the commit names itself.
bool plan_tree_deletion(const datastore_change_request& request, commit_plan& plan, datastore_commit_result& result) {
    const std::string& tree = request.path;
    bool any = false;
    const auto plan_each = [&](const std::string& path, const datastore_stored& stored) {
        any = true;
        plan_found(path, stored, plan);
    };
    const platform_status status = datastore_is_service_tree(tree) ? datastore_visit_service_values(tree, plan_each)
                                                                   : visit_items(tree, plan_each);
    if (status != PLATFORM_OK) {
        return commit_refuse_store(result, status);
    }
    if (!any && !request.absent_ok) {
        return commit_refuse(
            result, DATASTORE_NO_SUCH_ITEM, datastore_refused_by::absent, tree,
            text_format("%s: cannot delete, nothing is configured below this path", schema_shown_path(tree).c_str()));
    }
    return true;
}

}  // namespace

bool commit_make_plan(const std::vector<datastore_change_request>& requests, commit_plan& plan,
                      datastore_commit_result& result) {
    for (const datastore_change_request& request : requests) {
        if (!is_tree_deletion(request) && !plan_item(request, plan, result)) {
            return false;
        }
    }
    for (const datastore_change_request& request : requests) {
        if (is_tree_deletion(request) && !plan_tree_deletion(request, plan, result)) {
            return false;
        }
    }
    return true;
}

bool commit_refuse(datastore_commit_result& result, platform_status status, datastore_refused_by by,
                   const std::string& path, std::string message) {
    result.status = status;
    result.refused_by = by;
    result.path = path;
    result.message = std::move(message);
    return false;
}

bool commit_refuse_store(datastore_commit_result& result, platform_status status) {
    const datastore_state& state = the_datastore();
    const std::string reason =
        state.store == nullptr ? platform_status_text(status) : state.engine->reason(state.store);
    return commit_refuse(result, status, datastore_refused_by::store, {},
                         text_format("the configuration could not be stored in %s: %s; nothing has been changed",
                                     state.database_path.c_str(), reason.c_str()));
}
