#include <errno.h>
#include <syslog.h>

#include <cstdio>
#include <new>

#include "common/text.h"
#include "linux/datastore/datastore_internal.h"
#include "linux/datastore/history.h"
#include "linux/datastore/state.h"
#include "linux/reporting/log_message_internal.h"

namespace {

constexpr char default_path[] = "/var/lib/ssh_cfg_agent/datastore.db";

/// Prefix of the configuration's paths; the platform's own keys have other prefixes (stored_values.cpp).
constexpr char configuration_prefix[] = "/";

void report_failure(const std::string& path, const std::string& reason) {
    // An unreadable database is left alone: replacing it with an empty configuration would stop the router's servers.
    const std::string text = text_format(
        "The configuration database %s cannot be used: %s. Nothing has been changed; repair it, or restore it from a backup",
        path.c_str(), reason.c_str());
    platform_log(LOG_CRIT, "%s", text.c_str());
    fprintf(stderr, "ssh_cfg_agent: %s\n", text.c_str());
}

/// Checks that every stored value has the form that the schema prescribes.
platform_status check_items(std::string& reason) {
    std::string path;
    datastore_stored stored;
    datastore_value value;
    platform_status status = PLATFORM_OK;
    while ((status = datastore_stored_next(configuration_prefix, path, path, stored)) == PLATFORM_OK) {
        const schema_row* row = schema_find(path, nullptr);
        if (row == nullptr) {
            platform_log(LOG_WARNING, "The stored item %s is unknown to this version; it is kept but has no effect",
                         text_escape(path, 200).c_str());
        } else if (schema_load(*row, stored, value) != PLATFORM_OK) {
            reason = text_format("the value of %s is damaged", path.c_str());
            return EUCLEAN;
        }
    }
    if (status != DATASTORE_NO_SUCH_ITEM) {
        reason = the_datastore().engine->reason(the_datastore().store);
        return status;
    }
    return PLATFORM_OK;
}

platform_status try_open(datastore_state& state, std::string& reason) {
    platform_status status = state.engine->open(state.database_path.c_str(), &state.store, reason);
    if (status != PLATFORM_OK) {
        return status;
    }
    status = check_items(reason);
    if (status == PLATFORM_OK && (status = history_open(state)) != PLATFORM_OK) {
        reason = state.engine->reason(state.store);
    }
    if (status != PLATFORM_OK) {
        state.engine->close(state.store);
        state.store = nullptr;
    }
    return status;
}

}  // namespace

datastore_state& the_datastore() {
    static datastore_state state = {&datastore_engine_sqlite, default_path, nullptr, {}, {}, 0, nullptr};
    return state;
}

void datastore_configure(const datastore_engine* engine, const char* database_path) {
    the_datastore().engine = engine != nullptr ? engine : &datastore_engine_sqlite;
    the_datastore().database_path = database_path != nullptr ? database_path : default_path;
}

platform_status datastore_open() {
    datastore_state& state = the_datastore();
    if (state.store != nullptr) {
        return PLATFORM_OK;
    }
    std::string reason;
    platform_status status = ENOMEM;
    try {
        status = try_open(state, reason);
    } catch (const std::bad_alloc&) {
        reason = "out of memory";
    }
    if (status != PLATFORM_OK) {
        report_failure(state.database_path, reason);
    }
    return status;
}

void datastore_release() {
    datastore_state& state = the_datastore();
    if (state.store != nullptr) {
        state.engine->close(state.store);
        state.store = nullptr;
    }
}

void datastore_close() {
    datastore_release();
    datastore_configure(nullptr, nullptr);
    the_datastore().last_commit = 0;
    the_datastore().commits_kept = datastore_commits_kept_default;
}
