#include "platform/enforcement.h"

#include <errno.h>

#include <algorithm>

#include "fake_internal.h"

namespace fake_platform {
namespace {

struct failure_report {
    unenforced what;
    bool valid;    ///< false once restored, or replaced by a later report
    uint64_t run;  ///< the comparison that it was reported in; 0 for none
};

struct enforcement_state {
    std::vector<failure_report> reports;
    enforcement_callbacks callbacks = {};
    void* context = nullptr;
    enforcement_commit_callbacks commit_callbacks = {};
    void* commit_context = nullptr;
    uint64_t runs = 0;
    uint64_t run = 0;  ///< the current comparison; 0 if none
};

enforcement_state enforcement;

void take_difference(const char* subject, const char* text, void* sink_context) {
    static_cast<comparison*>(sink_context)->differences.push_back({subject, text});
}

/// Withdraws the reports about the subject. Returns whether there were any.
bool withdraw(std::string_view subject) {
    bool any = false;
    for (failure_report& report : enforcement.reports) {
        any = any || (report.valid && report.what.subject == subject);
        report.valid = report.valid && report.what.subject != subject;
    }
    return any;
}

bool names(const comparison& result, const std::string& subject) {
    return std::any_of(result.differences.begin(), result.differences.end(),
                       [&subject](const difference& each) { return each.subject == subject; });
}

/// Updates the reports after a repair.
void clear_after(uint64_t run, const comparison& result) {
    for (failure_report& report : enforcement.reports) {
        const bool named = report.run == run || names(result, report.what.subject);
        report.valid = report.valid && result.remaining != 0 && (result.remaining < 0 || named);
    }
}

}  // namespace

std::vector<unenforced> not_in_force() {
    return internal::unenforced_since(0);
}

bool is_not_in_force(std::string_view subject) {
    const std::vector<unenforced> all = not_in_force();
    return std::any_of(all.begin(), all.end(), [subject](const unenforced& each) { return each.subject == subject; });
}

comparison reconcile(bool repair) {
    comparison result;
    result.registered = enforcement.callbacks.reconcile != nullptr;
    if (!result.registered) {
        return result;
    }
    const uint64_t run = ++enforcement.runs;
    enforcement.run = run;
    result.remaining = enforcement.callbacks.reconcile(repair ? 1 : 0, take_difference, &result, enforcement.context);
    enforcement.run = 0;
    if (repair) {
        clear_after(run, result);
    }
    return result;
}

namespace internal {

size_t enforcement_reports() {
    return enforcement.reports.size();
}

std::vector<unenforced> unenforced_since(size_t count) {
    std::vector<unenforced> list;
    for (size_t i = count; i < enforcement.reports.size(); i++) {
        if (enforcement.reports[i].valid) {
            list.push_back(enforcement.reports[i].what);
        }
    }
    return list;
}

announced_commit::announced_commit() {
    if (enforcement.commit_callbacks.begin != nullptr) {
        enforcement.commit_callbacks.begin(enforcement.commit_context);
    }
}

announced_commit::~announced_commit() {
    if (enforcement.commit_callbacks.end != nullptr) {
        enforcement.commit_callbacks.end(enforcement.commit_context);
    }
}

void reset_enforcement() {
    enforcement = enforcement_state();
}

}  // namespace internal
}  // namespace fake_platform

using namespace fake_platform;

void enforcement_failed(const char* subject, const char* reason) {
    const int error = errno;
    internal::enter("enforcement_failed", {subject, reason});
    withdraw(subject);
    enforcement.reports.push_back({{subject, reason}, true, enforcement.run});
    errno = error;
}

void enforcement_restored(const char* subject) {
    const int error = errno;
    if (withdraw(subject)) {
        internal::enter("enforcement_restored", {subject});
    }
    errno = error;
}

platform_status enforcement_register(const struct enforcement_callbacks* callbacks, void* context) {
    const platform_status status = internal::enter("enforcement_register", {});
    if (status != PLATFORM_OK) {
        return status;
    }
    if (callbacks == nullptr || callbacks->reconcile == nullptr) {
        return EINVAL;
    }
    enforcement.callbacks = *callbacks;
    enforcement.context = context;
    return PLATFORM_OK;
}

platform_status enforcement_announce_commits(const struct enforcement_commit_callbacks* callbacks, void* context) {
    if (callbacks == nullptr || callbacks->begin == nullptr || callbacks->end == nullptr) {
        return EINVAL;
    }
    enforcement.commit_callbacks = *callbacks;
    enforcement.commit_context = context;
    return PLATFORM_OK;
}
