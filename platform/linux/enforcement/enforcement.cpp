#include "platform/enforcement.h"

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <map>
#include <new>
#include <set>

#include "linux/enforcement/enforcement_internal.h"
#include "linux/enforcement/server_files.h"
#include "linux/enforcement/server_settings.h"
#include "linux/process/process_manager_internal.h"
#include "linux/reporting/log_message_internal.h"

namespace {

struct enforcement_state {
    std::map<std::string, enforcement_entry, std::less<>> failed;
    enforcement_callbacks callbacks = {};
    void* context = nullptr;
    enforcement_commit_callbacks commit_callbacks = {};
    void* commit_context = nullptr;
    enforcement_collector* collectors = nullptr;  ///< the innermost one
    uint64_t runs = 0;                            ///< comparisons so far
    uint64_t run = 0;                             ///< the current comparison; 0 if none
    void (*needed)(bool is_first) = nullptr;
    std::vector<enforcement_check> checks;
};

enforcement_state state;

/// The reports of a comparison so far.
struct reported_differences {
    std::vector<enforcement_difference> list;
    bool complete = true;  ///< false if memory ran out
};

void take_difference(const char* subject, const char* text, void* sink_context) {
    const errno_keeper keeper;
    auto* reported = static_cast<reported_differences*>(sink_context);
    try {
        reported->list.push_back({subject, text});
    } catch (const std::bad_alloc&) {
        reported->complete = false;
    }
}

void log_failure(const enforcement_entry& entry) {
    platform_log(LOG_ERR, "Not in force: %s: %s", entry.subject.c_str(), entry.reason.c_str());
}

void log_restoration(const std::string& subject) {
    platform_log(LOG_NOTICE, "In force again: %s", subject.c_str());
}

/// Marks as in force what a repair reported neither as a difference nor as a failure.
void forget_unnamed(uint64_t run, const std::vector<enforcement_difference>& differences) {
    std::set<std::string_view> named;
    for (const enforcement_difference& difference : differences) {
        named.insert(difference.subject);
    }
    std::vector<std::string> restored;
    for (const auto& [subject, entry] : state.failed) {
        if (entry.run != run && !named.contains(subject)) {
            restored.push_back(subject);
        }
    }
    for (const std::string& subject : restored) {
        enforcement_restored(subject.c_str());
    }
}

void ask_for_repair(bool is_first) {
    if (state.needed != nullptr && state.callbacks.reconcile != nullptr && !state.failed.empty()) {
        state.needed(is_first);
    }
}

void forget_all() {
    while (!state.failed.empty()) {
        const std::string subject = state.failed.begin()->first;
        enforcement_restored(subject.c_str());
    }
}

}  // namespace

/// Lets the platform's operations write into the collectors.
struct enforcement_record {
    static void failed(const std::string& subject) {
        for (enforcement_collector* each = state.collectors; each != nullptr; each = each->outer) {
            if (std::find(each->subjects.begin(), each->subjects.end(), subject) == each->subjects.end()) {
                each->subjects.push_back(subject);
            }
        }
    }
};

void enforcement_failed(const char* subject, const char* reason) {
    const errno_keeper keeper;
    // Something may be restored and fail again within one repair; that must not reset its back-off.
    const bool is_first = state.failed.empty() && state.run == 0;
    try {
        const auto [place, is_new] = state.failed.try_emplace(subject);
        enforcement_entry& entry = place->second;
        const bool is_news = is_new || entry.reason != reason;
        if (is_new) {
            entry.subject = subject;
            entry.since = time(nullptr);
        }
        entry.reason = reason;
        entry.run = state.run;
        if (is_news) {
            log_failure(entry);
        }
        enforcement_record::failed(entry.subject);
    } catch (const std::bad_alloc&) {
        platform_log(LOG_ERR, "Not in force: %s: %s; there is no memory to keep that in mind", subject, reason);
    }
    ask_for_repair(is_first);
}

void enforcement_restored(const char* subject) {
    const errno_keeper keeper;
    const auto found = state.failed.find(std::string_view(subject));
    if (found == state.failed.end()) {
        return;
    }
    log_restoration(found->first);
    state.failed.erase(found);
}

platform_status enforcement_register(const struct enforcement_callbacks* callbacks, void* context) {
    if (callbacks == nullptr || callbacks->reconcile == nullptr) {
        return EINVAL;
    }
    state.callbacks = *callbacks;
    state.context = context;
    ask_for_repair(true);
    return PLATFORM_OK;
}

platform_status enforcement_announce_commits(const struct enforcement_commit_callbacks* callbacks, void* context) {
    if (callbacks == nullptr || callbacks->begin == nullptr || callbacks->end == nullptr) {
        return EINVAL;
    }
    state.commit_callbacks = *callbacks;
    state.commit_context = context;
    return PLATFORM_OK;
}

enforcement_announced_commit::enforcement_announced_commit()
    : callbacks_(state.commit_callbacks), context_(state.commit_context) {
    if (callbacks_.begin != nullptr) {
        callbacks_.begin(context_);
    }
}

enforcement_announced_commit::~enforcement_announced_commit() {
    if (callbacks_.end != nullptr) {
        callbacks_.end(context_);
    }
    process_manager_forget_step();
}

std::vector<enforcement_entry> enforcement_list() {
    std::vector<enforcement_entry> list;
    for (const auto& [subject, entry] : state.failed) {
        list.push_back(entry);
    }
    return list;
}

bool enforcement_any_failed() {
    return !state.failed.empty();
}

enforcement_collector::enforcement_collector() : outer(state.collectors) {
    state.collectors = this;
}

enforcement_collector::~enforcement_collector() {
    state.collectors = outer;
}

std::vector<enforcement_entry> enforcement_collector::entries() const {
    std::vector<enforcement_entry> list;
    for (const std::string& subject : subjects) {
        const auto found = state.failed.find(subject);
        if (found != state.failed.end()) {
            list.push_back(found->second);
        }
    }
    return list;
}

bool enforcement_can_compare() {
    return state.callbacks.reconcile != nullptr;
}

namespace {

/// Adds the findings of the platform itself: whether the servers run with their current files, and whether their settings
/// could be compared.
void add_server_files(bool repair, reported_differences& reported, int& remaining) {
    std::vector<server_file_difference> differences = server_file_differences();
    if (const std::string failure = server_settings_failure(); !failure.empty()) {
        differences.push_back({"server settings", failure});
    }
    for (server_file_difference& difference : differences) {
        if (repair) {
            enforcement_failed(difference.subject.c_str(), difference.text.c_str());
        }
        reported.list.push_back({std::move(difference.subject), std::move(difference.text)});
        remaining += remaining >= 0 ? 1 : 0;
    }
}

}  // namespace

enforcement_comparison enforcement_reconcile(bool repair, bool on_request) {
    enforcement_comparison comparison;
    if (!enforcement_can_compare() || state.run != 0) {
        return comparison;
    }
    reported_differences reported;
    server_settings_forget();
    const uint64_t run = ++state.runs;
    state.run = run;
    // First, because the agent's repair also makes some of what they would find.
    int checked = 0;
    for (const enforcement_check check : state.checks) {
        checked += check(repair, take_difference, &reported);
    }
    const uint32_t kind = !repair ? 0 : on_request ? 2 : 1;
    comparison.remaining = state.callbacks.reconcile(kind, take_difference, &reported, state.context);
    comparison.remaining += comparison.remaining >= 0 ? checked : 0;
    state.run = 0;
    add_server_files(repair, reported, comparison.remaining);
    if (!reported.complete) {
        comparison.remaining = -1;
    }
    comparison.differences = std::move(reported.list);
    if (repair && comparison.remaining == 0) {
        forget_all();
    } else if (repair && comparison.remaining > 0) {
        forget_unnamed(run, comparison.differences);
    }
    return comparison;
}

void enforcement_add_check(enforcement_check check) {
    enforcement_remove_check(check);
    state.checks.push_back(check);
}

void enforcement_remove_check(enforcement_check check) {
    std::erase(state.checks, check);
}

void enforcement_on_failure(void (*needed)(bool is_first)) {
    state.needed = needed;
    ask_for_repair(true);
}

void enforcement_reset() {
    state.failed.clear();
    state.callbacks = {};
    state.context = nullptr;
    state.commit_callbacks = {};
    state.commit_context = nullptr;
    state.needed = nullptr;
    state.checks.clear();
}
