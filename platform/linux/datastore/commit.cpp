#include <errno.h>
#include <stdlib.h>
#include <syslog.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <new>

#include "common/text.h"
#include "linux/datastore/confirmation.h"
#include "linux/datastore/datastore_internal.h"
#include "linux/datastore/history.h"
#include "linux/datastore/state.h"
#include "linux/enforcement/server_files.h"
#include "linux/reporting/log_message_internal.h"
#include "platform/process_manager.h"

namespace {

/// What a commit does with one item.
struct planned_change {
    std::optional<datastore_stored> previous;
    std::optional<datastore_stored> value;
    bool known = true;  ///< false for a stored item missing from this version's schema; it can only be deleted

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
};

/// All changes of a commit. The map sorts paths bytewise, which is the order in which appliers run.
using commit_plan = std::map<std::string, planned_change>;

struct outcome_row {
    datastore_outcome outcome;
    uint32_t event;
};

/// The plan that is being verified; null otherwise.
const commit_plan* plan_under_verification = nullptr;

struct verification_scope {
    explicit verification_scope(const commit_plan& plan) { plan_under_verification = &plan; }
    ~verification_scope() { plan_under_verification = nullptr; }
    verification_scope(const verification_scope&) = delete;
    verification_scope& operator=(const verification_scope&) = delete;
};

uint32_t event_of(datastore_outcome outcome) {
    constexpr outcome_row rows[] = {
        {datastore_outcome::unchanged, 0},
        {datastore_outcome::created, DATASTORE_EVENT_CREATE | DATASTORE_EVENT_SET},
        {datastore_outcome::changed, DATASTORE_EVENT_SET},
        {datastore_outcome::deleted, DATASTORE_EVENT_DELETE},
    };
    return rows[static_cast<size_t>(outcome)].event;
}

datastore_change change_of(const planned_change& planned) {
    datastore_change change = {};
    change.event = event_of(planned.outcome());
    if (planned.previous) {
        change.previous = planned.previous->bytes.data();
        change.previous_size = planned.previous->bytes.size();
    }
    if (planned.value) {
        change.value = planned.value->bytes.data();
        change.value_size = planned.value->bytes.size();
    }
    return change;
}

bool refuse(datastore_commit_result& result, platform_status status, datastore_refused_by by, const std::string& path,
            std::string message) {
    result.status = status;
    result.refused_by = by;
    result.path = path;
    result.message = std::move(message);
    return false;
}

bool refuse_store(datastore_commit_result& result, platform_status status) {
    const datastore_state& state = the_datastore();
    const std::string reason =
        state.store == nullptr ? platform_status_text(status) : state.engine->reason(state.store);
    return refuse(result, status, datastore_refused_by::store, {},
                  text_format("the configuration could not be stored in %s: %s; nothing has been changed",
                              state.database_path.c_str(), reason.c_str()));
}

// The functions below fill or carry out a plan; they return false if they have refused the commit.

/// Reads the stored values; a missing item is not a failure.
bool read_previous(const std::string& path, planned_change& planned, datastore_commit_result& result) {
    datastore_stored stored;
    const platform_status status = datastore_stored_get(path, stored);
    if (status == PLATFORM_OK) {
        planned.previous = std::move(stored);
    }
    return status == PLATFORM_OK || status == DATASTORE_NO_SUCH_ITEM || refuse_store(result, status);
}

bool plan_deletion(const datastore_change_request& request, planned_change& planned, datastore_commit_result& result) {
    const std::string& path = request.path;
    std::string refusal;
    planned.known = schema_find(path, &refusal) != nullptr;
    if (!read_previous(path, planned, result)) {
        return false;
    }
    if (planned.previous) {
        return true;
    }
    if (!planned.known) {
        return refuse(result, EINVAL, datastore_refused_by::schema, path, std::move(refusal));
    }
    return request.absent_ok || refuse(result, DATASTORE_NO_SUCH_ITEM, datastore_refused_by::absent, path,
                                       text_format("%s: cannot delete, not configured", path.c_str()));
}

bool plan_value(const datastore_change_request& request, planned_change& planned, datastore_commit_result& result) {
    std::string refusal;
    datastore_stored stored;
    const schema_row* row = schema_find(request.path, &refusal);
    if (row == nullptr || schema_store(*row, request.path, *request.value, stored, refusal) != PLATFORM_OK) {
        return refuse(result, EINVAL, datastore_refused_by::schema, request.path, std::move(refusal));
    }
    planned.value = std::move(stored);
    return read_previous(request.path, planned, result);
}

bool is_tree_deletion(const datastore_change_request& request) {
    return !request.value && !request.path.empty() && request.path.front() == '/' && request.path.back() == '/';
}

bool plan_item(const datastore_change_request& request, commit_plan& plan, datastore_commit_result& result) {
    const auto [place, is_new] = plan.try_emplace(request.path);
    if (!is_new) {
        return refuse(result, EINVAL, datastore_refused_by::schema, request.path,
                      text_format("%s: changed twice in one commit; expected one change per item",
                                  schema_shown_path(request.path).c_str()));
    }
    return request.value ? plan_value(request, place->second, result) : plan_deletion(request, place->second, result);
}

/// Plans the deletion of everything below a path, except what the commit names itself.
bool plan_tree_deletion(const datastore_change_request& request, commit_plan& plan, datastore_commit_result& result) {
    const std::string& tree = request.path;
    std::string path;
    datastore_stored stored;
    platform_status status = PLATFORM_OK;
    bool any = false;
    while ((status = datastore_stored_next(tree, path, path, stored)) == PLATFORM_OK) {
        any = true;
        const auto [place, is_new] = plan.try_emplace(path);
        if (is_new) {
            place->second.known = schema_find(path, nullptr) != nullptr;
            place->second.previous = std::move(stored);
        }
    }
    if (status != DATASTORE_NO_SUCH_ITEM) {
        return refuse_store(result, status);
    }
    if (!any && !request.absent_ok) {
        return refuse(
            result, DATASTORE_NO_SUCH_ITEM, datastore_refused_by::absent, tree,
            text_format("%s: cannot delete, nothing is configured below this path", schema_shown_path(tree).c_str()));
    }
    return true;
}

bool make_plan(const std::vector<datastore_change_request>& requests, commit_plan& plan,
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

bool check_authority(const commit_plan& plan, datastore_authority authority, datastore_commit_result& result) {
    if (authority == datastore_authority::root) {
        return true;
    }
    for (const auto& [path, planned] : plan) {
        const std::string reason = planned.changes() ? datastore_item_reserved(path) : std::string();
        if (!reason.empty()) {
            return refuse(result, EPERM, datastore_refused_by::authority, path,
                          text_format("%s: %s", path.c_str(), reason.c_str()));
        }
    }
    return true;
}

std::string refusal_text(const std::string& path, platform_status status, char* error_text) {
    if (status == DATASTORE_NO_HANDLER) {
        return text_format("%s: not supported by this version", path.c_str());
    }
    if (error_text != nullptr && *error_text != '\0') {
        return text_format("%s: %s", path.c_str(), error_text);
    }
    return text_format("%s: refused by the agent: %s", path.c_str(), platform_status_text(status));
}

/// Calls one verifier.
bool verify(const datastore_registration& registration, const std::string& path, std::string_view item,
            const datastore_change& change, datastore_commit_result& result) {
    char* error_text = nullptr;
    uint32_t accepted = 0;
    const datastore_backend_call call = {item.data(), &change, &error_text, &accepted};
    platform_status status = registration.verify(&call, registration.context);
    if (status == PLATFORM_OK && accepted == 0) {
        status = EINVAL;
    }
    const bool refused = status != PLATFORM_OK && !refuse(result, status, datastore_refused_by::verifier, path,
                                                          refusal_text(path, status, error_text));
    free(error_text);
    return !refused;
}

/// Calls every verifier concerned. Items without a registered callback are refused.
bool verify_item(const std::string& path, const planned_change& planned, datastore_commit_result& result) {
    const datastore_change change = change_of(planned);
    bool served = false;
    const auto& registrations = the_datastore().registrations;
    for (size_t i = 0; i < registrations.size(); i++) {
        const datastore_registration& registration = *registrations[i];
        const std::string_view item = datastore_concerned_item(registration, path, change.event);
        if (item.data() == nullptr) {
            continue;
        }
        served = true;
        if (registration.verify != nullptr && !verify(registration, path, item, change, result)) {
            return false;
        }
    }
    return served || refuse(result, DATASTORE_NO_HANDLER, datastore_refused_by::verifier, path,
                            refusal_text(path, DATASTORE_NO_HANDLER, nullptr));
}

bool verify_all(const commit_plan& plan, datastore_commit_result& result) {
    const verification_scope scope(plan);
    for (const auto& [path, planned] : plan) {
        if (planned.known && planned.changes() && !verify_item(path, planned, result)) {
            return false;
        }
    }
    return true;
}

platform_status store_item(const datastore_state& state, const std::string& path, const planned_change& planned) {
    return planned.value ? state.engine->put(state.store, path, *planned.value)
                         : state.engine->erase(state.store, path);
}

platform_status store_items(const datastore_state& state, const commit_plan& plan) {
    for (const auto& [path, planned] : plan) {
        if (!planned.changes()) {
            continue;
        }
        if (const platform_status status = store_item(state, path, planned); status != PLATFORM_OK) {
            return status;
        }
    }
    return PLATFORM_OK;
}

datastore_kept_commit kept_commit_of(const commit_plan& plan, const datastore_commit_order& order) {
    datastore_kept_commit kept = {the_datastore().last_commit + 1, time(nullptr), order.author, {}};
    for (const auto& [path, planned] : plan) {
        if (planned.changes()) {
            kept.changes.push_back({path, planned.previous, planned.value});
        }
    }
    return kept;
}

/// Stores the confirmation that the commit awaits, or removes the one that it makes unnecessary. Must be called within the
/// commit's transaction.
platform_status settle_confirmation(const datastore_state& state, const datastore_commit_order& order,
                                    uint64_t number) {
    if (order.confirm_seconds > 0) {
        return confirmation_store(state, {number, order.confirm_seconds, datastore_present_moment()});
    }
    return order.undone_commit > 0 ? confirmation_remove(state) : platform_status{PLATFORM_OK};
}

platform_status store_transaction(const datastore_state& state, const commit_plan& plan,
                                  const datastore_commit_order& order, const datastore_kept_commit& kept) {
    platform_status status = state.engine->begin(state.store);
    if (status == PLATFORM_OK) {
        status = store_items(state, plan);
    }
    if (status == PLATFORM_OK && !kept.changes.empty()) {
        status = history_append(state, kept);
    }
    if (status == PLATFORM_OK) {
        status = settle_confirmation(state, order, kept.number);
    }
    return status == PLATFORM_OK ? state.engine->commit(state.store) : status;
}

/// Stores the changes and their entry in the history in one transaction. Returns false if that fails.
bool store_all(const commit_plan& plan, const datastore_commit_order& order, datastore_commit_result& result) {
    datastore_state& state = the_datastore();
    const datastore_kept_commit kept = kept_commit_of(plan, order);
    if (kept.changes.empty() && order.undone_commit == 0) {
        return true;
    }
    const platform_status status = store_transaction(state, plan, order, kept);
    if (status == PLATFORM_OK) {
        if (!kept.changes.empty()) {
            state.last_commit = result.number = kept.number;
        }
        return true;
    }
    refuse_store(result, status);
    state.engine->rollback(state.store);
    return false;
}

/// After a failed applier its item is not in force.
void report_apply(const std::string& path, platform_status status) {
    if (status == DATASTORE_NO_HANDLER) {
        enforcement_failed(path.c_str(), "not supported by this version");
    } else {
        enforcement_failed(path.c_str(), text_format("failed (0x%x); the agent's log says why", status).c_str());
    }
}

void apply_item(const std::string& path, const planned_change& planned) {
    const datastore_change change = change_of(planned);
    const auto& registrations = the_datastore().registrations;
    bool applied = true;
    for (size_t i = 0; i < registrations.size(); i++) {
        const datastore_registration& registration = *registrations[i];
        const std::string_view item = datastore_concerned_item(registration, path, change.event);
        if (item.data() == nullptr || registration.apply == nullptr) {
            continue;
        }
        const datastore_backend_call call = {item.data(), &change, nullptr, nullptr};
        const platform_status status = registration.apply(&call, registration.context);
        process_manager_progress();
        if (status != PLATFORM_OK) {
            report_apply(path, status);
            applied = false;
        }
    }
    if (applied) {
        enforcement_restored(path.c_str());
    }
}

void notify_item(const std::string& path, const planned_change& planned) {
    const datastore_change change = change_of(planned);
    const auto& registrations = the_datastore().registrations;
    for (size_t i = 0; i < registrations.size(); i++) {
        const datastore_registration& registration = *registrations[i];
        const std::string_view item = datastore_concerned_item(registration, path, change.event);
        if (item.data() != nullptr && registration.notify != nullptr) {
            const datastore_notification notification = {item.data(), change.event, change.value, change.value_size};
            registration.notify(&notification, registration.context);
            process_manager_progress();
        }
    }
}

uint32_t count_of_changes(const commit_plan& plan) {
    return static_cast<uint32_t>(
        std::count_if(plan.begin(), plan.end(), [](const auto& item) { return item.second.changes(); }));
}

void carry_out(const commit_plan& plan) {
    const enforcement_announced_commit announced;
    const uint32_t total = count_of_changes(plan);
    uint32_t done = 0;
    for (const auto& [path, planned] : plan) {
        if (planned.known && planned.changes()) {
            process_manager_step(("applying " + path).c_str(), done++, total);
            apply_item(path, planned);
        }
    }
    for (const auto& [path, planned] : plan) {
        if (planned.known && planned.changes()) {
            notify_item(path, planned);
        }
    }
}

bool changes_anything(const commit_plan& plan) {
    return std::any_of(plan.begin(), plan.end(), [](const auto& item) { return item.second.changes(); });
}

rehearsal_request rehearsal_request_of(const commit_plan& plan, bool check_only, bool with_lines) {
    rehearsal_request request = {{}, [&plan] { carry_out(plan); }, check_only, with_lines};
    for (const auto& [path, planned] : plan) {
        if (planned.changes()) {
            request.changes.emplace(path, planned.value);
        }
    }
    return request;
}

bool refuse_rehearsed(const commit_plan& plan, const std::string& reason, datastore_commit_result& result) {
    const std::string path = plan.size() == 1 ? plan.begin()->first : std::string();
    return refuse(
        result, EINVAL, datastore_refused_by::rehearsal, path,
        text_format("%s%s%s; nothing has been stored", path.c_str(), path.empty() ? "" : ": ", reason.c_str()));
}

/// Refuses a commit that would prevent the start of a server that starts now. If the server does not start anyway, the
/// commit may be a step towards a configuration with which it does.
bool refuse_rejected(const commit_plan& plan, datastore_commit_result& result) {
    for (const rehearsed_rejection& rejection : result.rehearsal->rejections) {
        if (!rejection.was_rejected) {
            return refuse_rehearsed(plan, rehearsed_rejection_text(rejection), result);
        }
    }
    return true;
}

/// A router must stay configurable: a commit that cannot be rehearsed is carried out anyway, unless it would crash the
/// agent.
bool rehearse(const commit_plan& plan, bool check_only, bool with_lines, datastore_commit_result& result) {
    const auto rehearse_commit = the_datastore().rehearse;
    if (rehearse_commit == nullptr || !changes_anything(plan)) {
        return true;
    }
    result.rehearsal = rehearse_commit(rehearsal_request_of(plan, check_only, with_lines));
    const std::string& problem = result.rehearsal->problem;
    if (problem.empty()) {
        return refuse_rejected(plan, result);
    }
    if (const std::string& crash = result.rehearsal->crash; !crash.empty()) {
        platform_log(LOG_ERR, "The rehearsal of a commit crashed: %s", crash.c_str());
        return refuse_rehearsed(plan, "this change would crash the agent (" + crash + ")", result);
    }
    platform_log(LOG_WARNING, "The commit was not rehearsed: %s", problem.c_str());
    return !check_only || refuse(result, ENOTSUP, datastore_refused_by::unrehearsed, {},
                                 text_format("the change could not be rehearsed: %s", problem.c_str()));
}

/// Whether an item has its new value already.
bool repeats_a_value(const commit_plan& plan) {
    return std::any_of(plan.begin(), plan.end(), [](const auto& item) { return !item.second.changes(); });
}

/// Executes the stored plan. Setting an unchanged value that is not in force causes a repair: no applier is called for
/// it.
std::vector<enforcement_entry> put_in_force(const commit_plan& plan) {
    const enforcement_collector collector;
    carry_out(plan);
    server_files_report();
    if (!repeats_a_value(plan) || !enforcement_any_failed()) {
        return collector.entries();
    }
    enforcement_reconcile(true);
    return enforcement_list();
}

/// Refuses the commit if an earlier commit awaits its confirmation, unless this commit undoes that commit. Returns whether
/// the commit may continue.
bool check_confirmation(const datastore_commit_order& order, datastore_commit_result& result) {
    datastore_confirmation awaited;
    const platform_status status = datastore_confirmation_get(awaited);
    if (status == DATASTORE_NO_SUCH_ITEM || (status == PLATFORM_OK && awaited.number == order.undone_commit)) {
        return true;
    }
    return status == PLATFORM_OK
               ? refuse(result, EBUSY, datastore_refused_by::confirmation, {}, datastore_confirmation_demand(awaited))
               : refuse_store(result, status);
}

/// Asks the judge of the order. Returns whether the commit may continue.
bool ask_judge(const datastore_commit_order& order, const std::vector<datastore_item_outcome>& items, bool check_only,
               datastore_commit_result& result) {
    const rehearsal_report* rehearsal = result.rehearsal ? &*result.rehearsal : nullptr;
    const std::string reason = order.judge ? order.judge(items, rehearsal) : std::string();
    return reason.empty() || check_only || refuse(result, ECANCELED, datastore_refused_by::judge, {}, reason);
}

/// `stored` says, even after an exception, whether the changes are in the database.
void commit(const std::vector<datastore_change_request>& requests, bool check_only, const datastore_commit_order& order,
            datastore_commit_result& result, bool& stored) {
    commit_plan plan;
    const datastore_handler_scope scope;
    if (!check_only && !check_confirmation(order, result)) {
        return;
    }
    if (!make_plan(requests, plan, result) || !check_authority(plan, order.authority, result) ||
        !verify_all(plan, result) || !rehearse(plan, check_only, check_only || order.judge, result)) {
        return;
    }
    std::vector<datastore_item_outcome> items;
    for (const auto& [path, planned] : plan) {
        items.push_back({path, planned.outcome(), planned.previous, planned.value});
    }
    if (!ask_judge(order, items, check_only, result)) {
        return;
    }
    if (!check_only) {
        stored = store_all(plan, order, result);
        if (!stored) {
            return;
        }
        if (order.confirm_seconds > 0 && result.number > 0 && the_datastore().confirmation_awaited != nullptr) {
            the_datastore().confirmation_awaited();
        }
        result.not_in_force = put_in_force(plan);
    }
    result.items = std::move(items);
}

}  // namespace

platform_status datastore_proposed_get(std::string_view path, datastore_stored& value) {
    if (plan_under_verification != nullptr) {
        const auto planned = plan_under_verification->find(std::string(path));
        if (planned != plan_under_verification->end()) {
            if (!planned->second.value) {
                return DATASTORE_NO_SUCH_ITEM;
            }
            value = *planned->second.value;
            return PLATFORM_OK;
        }
    }
    return datastore_stored_get(path, value);
}

platform_status datastore_proposed_children(const std::string& prefix, std::map<std::string, std::string>& children) {
    if (plan_under_verification == nullptr) {
        return datastore_stored_children(prefix, children);
    }
    const commit_plan& plan = *plan_under_verification;
    std::string path;
    datastore_stored value;
    platform_status status = PLATFORM_OK;
    while ((status = datastore_stored_next(prefix, path, path, value)) == PLATFORM_OK) {
        if (!plan.contains(path)) {
            datastore_add_child(prefix, path, value, children);
        }
    }
    for (auto item = plan.lower_bound(prefix); item != plan.end() && item->first.starts_with(prefix); ++item) {
        if (item->second.value) {
            datastore_add_child(prefix, item->first, *item->second.value, children);
        }
    }
    return status == DATASTORE_NO_SUCH_ITEM ? PLATFORM_OK : status;
}

datastore_commit_result datastore_commit(const std::vector<datastore_change_request>& requests, bool check_only,
                                         const datastore_commit_order& order) {
    datastore_commit_result result;
    if (the_datastore().handlers_running != 0) {
        refuse(result, EBUSY, datastore_refused_by::busy, {},
               "a commit is in progress; the configuration cannot be changed from within it");
        return result;
    }
    if (the_datastore().store == nullptr) {
        refuse_store(result, DATASTORE_UNAVAILABLE);
        return result;
    }
    bool stored = false;
    try {
        commit(requests, check_only, order, result, stored);
    } catch (const std::bad_alloc&) {
        if (!stored) {
            refuse(result, ENOMEM, datastore_refused_by::store, {}, "out of memory");
        }
    }
    return result;
}
