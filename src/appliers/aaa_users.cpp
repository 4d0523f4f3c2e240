#include "appliers/aaa_users.h"

#include <climits>
#include <cstring>

#include "appliers/trace_points.h"
#include "core/agent_state.h"
#include "core/log.h"
#include "core/paths.h"
#include "core/text.h"
#include "core/trace.h"

namespace {

/// Below an index there is only the user's tree, so its first path element is the user's name.
platform_status compare_user(datastore_binding* binding, const char* index, const char* user_name, bool* found) {
    char path[PATH_MAX];
    format_text(path, sizeof path, "%s/", index);
    datastore_list* users = nullptr;
    uint32_t count = 0;
    const platform_status status = datastore_list_get(binding, path, -1, &users, &count);
    if (status != PLATFORM_OK) {
        // Another index may still hold the user.
        log_status(ERR_ERRNO, status, "datastore list failed");
        trace_error(appliers_trace_user_list, {path, status});
        return PLATFORM_OK;
    }
    if (count > 1) {
        log_error("Something wrong in datastore. More than one user under single index value ");
        trace_error(appliers_trace_user_duplicate, {path, count});
        datastore_list_free(users);
        return 1;
    }
    const char* name = datastore_list_name(users, 0);
    *found = name != nullptr && std::strcmp(name, user_name) == 0;
    datastore_list_free(users);
    return PLATFORM_OK;
}

platform_status search_indexes(datastore_binding* binding, const char* user_name, bool* found) {
    datastore_list* indexes = nullptr;
    uint32_t count = 0;
    platform_status status = datastore_list_get(binding, "", -1, &indexes, &count);
    if (status != PLATFORM_OK) {
        log_status(ERR_ERRNO, status, " No OrderingIndex in List ");
        trace_error(appliers_trace_user_list, {"username/", status});
        const bool nobody = status == DATASTORE_NO_SUCH_LIST || status == DATASTORE_NO_SUCH_TREE;
        return nobody ? platform_status{PLATFORM_OK} : status;
    }
    for (uint32_t i = 0; i < count && !*found && status == PLATFORM_OK; i++) {
        status = compare_user(binding, datastore_list_name(indexes, i), user_name, found);
    }
    datastore_list_free(indexes);
    return status;
}

}  // namespace

platform_status find_aaa_user(const char* user_name, bool* found) {
    *found = false;
    char path[PATH_MAX];
    format_text(path, sizeof path, "%s%s/", paths::aaa_tree, "username");
    datastore_binding* binding = nullptr;
    platform_status status = bind_datastore(path, &binding);
    if (status != PLATFORM_OK) {
        log_bind_failure(status, "AAA CFG BASE");
        trace_error(appliers_trace_user_list, {path, status});
        return status;
    }
    status = search_indexes(binding, user_name, found);
    datastore_unbind(binding);
    return status;
}
