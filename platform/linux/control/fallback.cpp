#include "linux/control/fallback.h"

#include <syslog.h>
#include <systemd/sd-event.h>
#include <unistd.h>

#include <cinttypes>
#include <cstring>
#include <ctime>
#include <exception>

#include "common/text.h"
#include "control_protocol/answer.h"
#include "linux/control/history_calls.h"
#include "linux/datastore/confirmation.h"
#include "linux/process/event_manager_internal.h"
#include "linux/process/platform_config.h"
#include "linux/reporting/log_message_internal.h"

namespace {

constexpr uint64_t clock_second = 1'000'000;
constexpr uint64_t accuracy = clock_second / 10;
constexpr uint64_t retry_delay = 60;  ///< seconds

struct fallback_state {
    sd_event* loop = nullptr;
    sd_event_source* timer = nullptr;
};

fallback_state fallback;

int time_is_over(sd_event_source*, uint64_t, void*);

/// Sets the timer relative to the present time, because the event loop's own clock does not advance while a handler runs.
void set_timer(uint64_t seconds) {
    struct timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    const uint64_t due =
        (static_cast<uint64_t>(now.tv_sec) + seconds) * clock_second + static_cast<uint64_t>(now.tv_nsec) / 1000;
    fallback.timer = sd_event_source_disable_unref(fallback.timer);
    const int result =
        sd_event_add_time(fallback.loop, &fallback.timer, CLOCK_BOOTTIME, due, accuracy, time_is_over, nullptr);
    if (result < 0) {
        platform_log(LOG_CRIT, "An unconfirmed commit will not be undone by itself: %s", strerror(-result));
    }
}

/// Returns the authority of the author of the latest commit, who was allowed to change the items that are restored.
datastore_authority authority_behind(uint64_t number) {
    auto authority = datastore_authority::administrator;
    datastore_visit_history([&](const datastore_kept_commit& commit) {
        if (commit.number == number && commit.author.uid == 0U) {
            authority = datastore_authority::root;
        }
        return false;
    });
    return authority;
}

void fall_back(const datastore_confirmation& confirmation) {
    platform_log(LOG_WARNING, "Commit %" PRIu64 " has not been confirmed in time and is undone", confirmation.number);
    const control_peer self = {getpid(), getuid(), getgid(), true};
    const control_change_call call = {.name = "fallback",
                                      .peer = self,
                                      .note = text_format("commit %" PRIu64 " was not confirmed", confirmation.number),
                                      .undone_commit = confirmation.number,
                                      .by_agent = authority_behind(confirmation.number)};
    const control_json answer = control_roll_back(call, confirmation.number - 1);
    const control_result result = control_result_of_name(answer.value("result", ""));
    if (result != control_result::done && result != control_result::not_in_force) {
        platform_log(LOG_CRIT, "The unconfirmed commit %" PRIu64 " cannot be undone: %s", confirmation.number,
                     answer.value("message", "").c_str());
        set_timer(retry_delay);
    }
}

int time_is_over(sd_event_source*, uint64_t, void*) {
    try {
        datastore_confirmation confirmation;
        if (datastore_confirmation_get(confirmation) != PLATFORM_OK) {
            return 0;
        }
        const uint64_t left = datastore_confirmation_left(confirmation, datastore_present_moment());
        left > 0 ? set_timer(left) : fall_back(confirmation);
    } catch (const std::exception& exception) {
        platform_log(LOG_CRIT, "An unconfirmed commit cannot be undone: %s", exception.what());
        set_timer(retry_delay);
    }
    return 0;
}

/// Sets the timer if a commit awaits its confirmation.
void expect_confirmation() {
    datastore_confirmation confirmation;
    if (fallback.loop != nullptr && datastore_confirmation_get(confirmation) == PLATFORM_OK) {
        set_timer(datastore_confirmation_left(confirmation, datastore_present_moment()));
    }
}

void limit_history() {
    platform_config config = {};
    std::vector<std::string> problems;
    // A fault in the file was already reported when the role was read from it.
    platform_config_read(config, problems);
    datastore_keep_commits(config.commits_kept);
}

}  // namespace

platform_status fallback_start(struct event_manager* manager) {
    if (fallback.loop != nullptr) {
        return PLATFORM_OK;
    }
    fallback.loop = sd_event_ref(event_manager_sd_event(manager));
    try {
        limit_history();
        const platform_status status = datastore_confirmation_resume();
        if (status != PLATFORM_OK && status != DATASTORE_NO_SUCH_ITEM && status != DATASTORE_UNAVAILABLE) {
            platform_log(LOG_ERR, "Error:=%s(0x%x), Failed to resume the wait for a confirmation",
                         platform_status_text(status), status);
        }
        expect_confirmation();
        datastore_on_confirmation_awaited(expect_confirmation);
    } catch (const std::exception& exception) {
        platform_log(LOG_ERR, "Failed to resume the wait for a confirmation: %s", exception.what());
    }
    return PLATFORM_OK;
}

void fallback_stop() {
    datastore_on_confirmation_awaited(nullptr);
    fallback.timer = sd_event_source_disable_unref(fallback.timer);
    fallback.loop = sd_event_unref(fallback.loop);
}
