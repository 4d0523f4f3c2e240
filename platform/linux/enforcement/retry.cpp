#include "linux/enforcement/retry.h"

#include <syslog.h>
#include <systemd/sd-event.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <exception>

#include "linux/enforcement/enforcement_internal.h"
#include "linux/process/event_manager_internal.h"
#include "linux/reporting/log_message_internal.h"

namespace {

constexpr uint64_t second = 1'000'000;
constexpr uint64_t accuracy = second / 10;
constexpr uint32_t longest_delay = 60;  ///< seconds

struct retry_state {
    sd_event* loop = nullptr;
    sd_event_source* timer = nullptr;
    uint32_t attempts = 0;  ///< repairs since everything was in force
    bool due = false;       ///< the timer is running
};

retry_state retry;

void repair() {
    try {
        enforcement_reconcile(true);
    } catch (const std::exception& exception) {
        platform_log(LOG_ERR, "What is not in force could not be repaired: %s", exception.what());
    }
}

int repair_is_due(sd_event_source*, uint64_t, void*);

/// The loop's own clock does not advance while a handler runs, and a repair may take longer than the delay.
uint64_t present_time() {
    struct timespec now = {};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * second + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

int set_timer(uint64_t delay) {
    const uint64_t due = present_time() + delay;
    if (retry.timer == nullptr) {
        const int result =
            sd_event_add_time(retry.loop, &retry.timer, CLOCK_BOOTTIME, due, accuracy, repair_is_due, nullptr);
        // Answers and other events go first.
        return result < 0 ? result : sd_event_source_set_priority(retry.timer, SD_EVENT_PRIORITY_IDLE);
    }
    const int result = sd_event_source_set_time(retry.timer, due);
    return result < 0 ? result : sd_event_source_set_enabled(retry.timer, SD_EVENT_ONESHOT);
}

void schedule() {
    const int result = set_timer(enforcement_retry_delay(retry.attempts) * second);
    retry.due = result >= 0;
    if (result < 0) {
        platform_log(LOG_ERR, "What is not in force will not be repaired by itself: %s", strerror(-result));
    }
}

int repair_is_due(sd_event_source*, uint64_t, void*) {
    // A commit may have restored it in the meantime.
    if (enforcement_any_failed()) {
        retry.attempts++;
        repair();
    }
    retry.due = false;
    if (enforcement_any_failed()) {
        schedule();
    } else {
        retry.attempts = 0;
    }
    return 0;
}

/// A failure that occurs while another one awaits its repair is repaired with it.
void repair_is_needed(bool is_first) {
    if (is_first) {
        retry.attempts = 0;
    }
    if (is_first || !retry.due) {
        schedule();
    }
}

}  // namespace

uint32_t enforcement_retry_delay(uint32_t attempt) {
    constexpr uint32_t doublings_max = 6;
    return std::min(1U << std::min(attempt, doublings_max), longest_delay);
}

platform_status enforcement_retry_start(struct event_manager* manager) {
    if (retry.loop == nullptr) {
        retry.loop = sd_event_ref(event_manager_sd_event(manager));
        enforcement_on_failure(repair_is_needed);
    }
    return PLATFORM_OK;
}

void enforcement_retry_stop() {
    enforcement_on_failure(nullptr);
    sd_event_source_disable_unref(retry.timer);
    sd_event_unref(retry.loop);
    retry = {};
}
