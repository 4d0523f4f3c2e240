#include <errno.h>
#include <stdlib.h>
#include <syslog.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <new>

#include "common/text.h"
#include "linux/datastore/commit_plan.h"
#include "linux/datastore/confirmation.h"
#include "linux/datastore/datastore_internal.h"
#include "linux/datastore/history.h"
#include "linux/datastore/state.h"
#include "linux/enforcement/server_files.h"
#include "linux/reporting/log_message_internal.h"
#include "platform/process_manager.h"

namespace {

struct outcome_row {
    datastore_outcome outcome;
    uint32_t event;
};

/// The plan that is being verified; null otherwise.
const commit_plan* plan_under_verification = nullptr;

/// The plan that is being verified or carried out; null otherwise.
const commit_plan* plan_in_progress = nullptr;

/// Makes a plan known during its lifetime.
class plan_scope {
  public:
    plan_scope(const commit_plan*& place, const commit_plan& plan) : place_(place) { place_ = &plan; }
    ~plan_scope() { place_ = nullptr; }
    plan_scope(const plan_scope&) = delete;
    plan_scope& operator=(const plan_scope&) = delete;

  private:
    const commit_plan*& place_;
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

// The functions below verify or carry out a plan; those that return a bool return false if they have refused the commit.

bool check_authority(const commit_plan& plan, datastore_authority authority, datastore_commit_result& result) {
    if (authority == datastore_authority::root) {
        return true;
    }
    for (const auto& [path, planned] : plan) {
        const std::string reason = planned.changes() ? datastore_item_reserved(path) : std::string();
        if (!reason.empty()) {
            return commit_refuse(result, EPERM, datastore_refused_by::authority, path,
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
    const bool refused = status != PLATFORM_OK && !commit_refuse(result, status, datastore_refused_by::verifier, path,
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
    return served || commit_refuse(result, DATASTORE_NO_HANDLER, datastore_refused_by::verifier, path,
                                   refusal_text(path, DATASTORE_NO_HANDLER, nullptr));
}

/// Has the service that a value belongs to check it. A value can always be deleted.
bool verify_service_value(const std::string& path, const planned_change& planned, datastore_commit_result& result) {
    if (!planned.value || planned.kind->check == nullptr) {
        return true;
    }
    const datastore_objection objection = planned.kind->check(datastore_service_name(path), planned.value->bytes);
    std::string message;
    for (const std::string& reason : objection.reasons) {
        message += text_format("%s%s: %s", message.empty() ? "" : "\n", path.c_str(), reason.c_str());
    }
    return objection.status == PLATFORM_OK ||
           commit_refuse(result, objection.status,
                         objection.is_unchecked ? datastore_refused_by::unchecked : datastore_refused_by::verifier,
                         path, std::move(message));
}

bool verify_all(const commit_plan& plan, datastore_commit_result& result) {
    const plan_scope scope(plan_under_verification, plan);
    for (const auto& [path, planned] : plan) {
        const bool is_accepted = !planned.changes() || (planned.kind == nullptr && !planned.known) ||
                                 (planned.kind == nullptr ? verify_item(path, planned, result)
                                                          : verify_service_value(path, planned, result));
        if (!is_accepted) {
            return false;
        }
    }
    return true;
}

platform_status store_item(const datastore_state& state, const std::string& path, const planned_change& planned) {
    const std::string key = datastore_storage_key(path);
    return planned.value ? state.engine->put(state.store, key, *planned.value) : state.engine->erase(state.store, key);
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
            kept.changes.push_back({path, planned.previous, planned.kind == nullptr ? planned.value : std::nullopt});
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
    commit_refuse_store(result, status);
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

/// Applies the changes of a plan one after the other and reports the progress.
class plan_application {
  public:
    explicit plan_application(const commit_plan& plan) : plan_(plan), total_(count_of_changes(plan)) {}

    void apply_items() {
        for (const auto& [path, planned] : plan_) {
            if (planned.changes_item()) {
                report_progress(path);
                apply_item(path, planned);
            }
        }
    }

    /// Applies the values of services whose turn is before the items, or those whose turn is after them.
    void apply_service_values(bool before_items) {
        for (const auto& [path, planned] : plan_) {
            if (planned.kind == nullptr || is_applied_before_items(planned) != before_items) {
                continue;
            }
            if (planned.changes()) {
                report_progress(path);
            }
            planned.kind->apply(datastore_service_name(path), planned.value ? &planned.value->bytes : nullptr,
                                planned.changes());
            process_manager_progress();
        }
    }

  private:
    static bool is_applied_before_items(const planned_change& planned) {
        return planned.kind->is_set_before_items == planned.value.has_value();
    }

    void report_progress(const std::string& path) {
        process_manager_step(("applying " + path).c_str(), done_++, total_);
    }

    const commit_plan& plan_;
    uint32_t total_;
    uint32_t done_ = 0;
};

void carry_out(const commit_plan& plan) {
    const enforcement_announced_commit announced;
    plan_application application(plan);
    application.apply_service_values(true);
    application.apply_items();
    application.apply_service_values(false);
    for (const auto& [path, planned] : plan) {
        if (planned.changes_item()) {
            notify_item(path, planned);
        }
    }
}

/// Whether the rehearsal of a commit can show anything. Values of services are in no file that sshd could reject, so a
/// commit of such values alone is rehearsed only to show what it would change.
bool is_worth_rehearsing(const commit_plan& plan, bool check_only) {
    return std::any_of(plan.begin(), plan.end(), [check_only](const auto& item) {
        return item.second.changes() && (check_only || item.second.kind == nullptr);
    });
}

rehearsal_request rehearsal_request_of(const commit_plan& plan, bool check_only, bool with_lines) {
    rehearsal_request request = {{}, [&plan] { carry_out(plan); }, check_only, with_lines};
    for (const auto& [path, planned] : plan) {
        if (planned.changes()) {
            request.changes.emplace(datastore_storage_key(path), planned.value);
        }
    }
    return request;
}

bool refuse_rehearsed(const commit_plan& plan, const std::string& reason, datastore_commit_result& result) {
    const std::string path = plan.size() == 1 ? plan.begin()->first : std::string();
    return commit_refuse(
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
    if (rehearse_commit == nullptr || !is_worth_rehearsing(plan, check_only)) {
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
    return !check_only || commit_refuse(result, ENOTSUP, datastore_refused_by::unrehearsed, {},
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
    return status == PLATFORM_OK ? commit_refuse(result, EBUSY, datastore_refused_by::confirmation, {},
                                                 datastore_confirmation_demand(awaited))
                                 : commit_refuse_store(result, status);
}

/// Asks the judge of the order. Returns whether the commit may continue.
bool ask_judge(const datastore_commit_order& order, const std::vector<datastore_item_outcome>& items, bool check_only,
               datastore_commit_result& result) {
    const rehearsal_report* rehearsal = result.rehearsal ? &*result.rehearsal : nullptr;
    const std::string reason = order.judge ? order.judge(items, rehearsal) : std::string();
    return reason.empty() || check_only || commit_refuse(result, ECANCELED, datastore_refused_by::judge, {}, reason);
}

/// `stored` says, even after an exception, whether the changes are in the database.
void commit(const std::vector<datastore_change_request>& requests, bool check_only, const datastore_commit_order& order,
            datastore_commit_result& result, bool& stored) {
    commit_plan plan;
    const datastore_handler_scope scope;
    if (!check_only && !check_confirmation(order, result)) {
        return;
    }
    const plan_scope in_progress(plan_in_progress, plan);
    if (!commit_make_plan(requests, plan, result) || !check_authority(plan, order.authority, result) ||
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

bool datastore_is_being_changed(std::string_view path) {
    if (plan_in_progress == nullptr) {
        return false;
    }
    const auto planned = plan_in_progress->find(path);
    return planned != plan_in_progress->end() && planned->second.changes();
}

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
        commit_refuse(result, EBUSY, datastore_refused_by::busy, {},
                      "a commit is in progress; the configuration cannot be changed from within it");
        return result;
    }
    if (the_datastore().store == nullptr) {
        commit_refuse_store(result, DATASTORE_UNAVAILABLE);
        return result;
    }
    bool stored = false;
    try {
        commit(requests, check_only, order, result, stored);
    } catch (const std::bad_alloc&) {
        if (!stored) {
            commit_refuse(result, ENOMEM, datastore_refused_by::store, {}, "out of memory");
        }
    }
    return result;
}
