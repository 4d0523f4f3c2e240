#include "linux/process/termination.h"

#include <sys/signalfd.h>
#include <syslog.h>
#include <systemd/sd-daemon.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>

#include "linux/process/service_moment.h"
#include "linux/reporting/log_message_internal.h"

namespace {

constexpr int signals[] = {SIGTERM, SIGINT};

/// Before all others: the end is scheduled immediately, after everything that is due.
constexpr int64_t termination_priority = -130;

/// Time limit for what is due in the loop. Callers that keep polling must not delay the end of the process.
constexpr uint64_t last_time = 2'000'000;  ///< microseconds

bool requested = false;

[[noreturn]] void end_process() {
    stop_platform_services();
    exit(EXIT_SUCCESS);
}

int nothing_is_due(sd_event_source*, void*) {
    end_process();
}

int time_is_up(sd_event_source*, uint64_t, void*) {
    end_process();
}

/// Gives a new source its priority and leaves it to the loop.
int hand_over(sd_event_source* source, int64_t priority) {
    int result = sd_event_source_set_priority(source, priority);
    if (result >= 0) {
        result = sd_event_source_set_floating(source, 1);
    }
    sd_event_source_unref(source);
    return result;
}

/// Ends the process when nothing else is due, or when the time limit is reached.
int schedule_end(sd_event* loop) {
    sd_event_source* source = nullptr;
    int result = sd_event_add_defer(loop, &source, nothing_is_due, nullptr);
    if (result >= 0) {
        result = hand_over(source, SD_EVENT_PRIORITY_IDLE);
    }
    if (result >= 0) {
        result = sd_event_add_time_relative(loop, &source, CLOCK_MONOTONIC, last_time, 1, time_is_up, nullptr);
    }
    return result < 0 ? result : hand_over(source, termination_priority);
}

int signal_has_arrived(sd_event_source* source, const signalfd_siginfo* signal, void*) {
    if (requested) {
        return 0;
    }
    requested = true;
    platform_log(LOG_INFO, "Ending after signal %u", signal->ssi_signo);
    sd_notify(0, "STOPPING=1");
    if (schedule_end(sd_event_source_get_event(source)) < 0) {
        end_process();
    }
    return 0;
}

}  // namespace

int termination_watch(sd_event* loop) {
    sigset_t blocked;
    sigemptyset(&blocked);
    for (const int signal : signals) {
        sigaddset(&blocked, signal);
    }
    if (sigprocmask(SIG_BLOCK, &blocked, nullptr) != 0) {
        return -errno;
    }
    for (const int signal : signals) {
        sd_event_source* source = nullptr;
        int result = sd_event_add_signal(loop, &source, signal, signal_has_arrived, nullptr);
        if (result >= 0) {
            result = hand_over(source, termination_priority);
        }
        if (result < 0) {
            return result;
        }
    }
    return 0;
}

bool termination_is_pending() {
    sigset_t pending;
    sigemptyset(&pending);
    sigpending(&pending);
    return requested || sigismember(&pending, SIGTERM) == 1 || sigismember(&pending, SIGINT) == 1;
}
