/// The plan of a commit: what the commit does with each item and with each value of a service.
#ifndef LINUX_DATASTORE_COMMIT_PLAN_H
#define LINUX_DATASTORE_COMMIT_PLAN_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "linux/datastore/datastore_internal.h"
#include "linux/datastore/service_values.h"

/// What a commit does with one item or value.
struct planned_change {
    std::optional<datastore_stored> previous;
    std::optional<datastore_stored> value;
    bool known = true;  ///< false for a stored item missing from this version's schema; it can only be deleted
    const datastore_service_kind* kind = nullptr;  ///< of a service's value; null for an item

    datastore_outcome outcome() const {
        if (!value) {
            return previous ? datastore_outcome::deleted : datastore_outcome::unchanged;
        }
        if (!previous) {
            return datastore_outcome::created;
        }
        return *previous == *value ? datastore_outcome::unchanged : datastore_outcome::changed;
    }
    bool changes() const { return outcome() != datastore_outcome::unchanged; }
    bool changes_item() const { return kind == nullptr && known && changes(); }
};

/// All changes of a commit. The map sorts paths bytewise, which is the order in which appliers run.
using commit_plan = std::map<std::string, planned_change, std::less<>>;

/// Plans the requested changes and reads the present values. Returns false if it has refused the commit.
bool commit_make_plan(const std::vector<datastore_change_request>& requests, commit_plan& plan,
                      datastore_commit_result& result);

/// Stores a refusal in `result`. Returns false.
bool commit_refuse(datastore_commit_result& result, platform_status status, datastore_refused_by by,
                   const std::string& path, std::string message);

/// Stores in `result` that the database has failed. Returns false.
bool commit_refuse_store(datastore_commit_result& result, platform_status status);

#endif
