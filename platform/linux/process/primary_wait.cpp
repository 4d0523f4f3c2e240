#include "linux/process/primary_wait.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <exception>
#include <string>
#include <vector>

#include "linux/process/paths.h"
#include "linux/process/platform_config.h"
#include "linux/process/termination.h"
#include "linux/reporting/log_message_internal.h"
#include "platform/process_manager.h"

namespace {

/// An editor may remove the file for a moment while it writes the new one, so a change is examined once it is over.
constexpr uint64_t settle_time = 200'000;  ///< microseconds

standby_service service;

/// What the wait has open; closed at the end of its scope.
struct wait_resources {
    wait_resources() = default;
    ~wait_resources() {
        sd_event_source_disable_unref(files);
        sd_event_source_disable_unref(settled);
        sd_event_unref(loop);
        if (inotify >= 0) {
            close(inotify);
        }
    }
    wait_resources(const wait_resources&) = delete;
    wait_resources& operator=(const wait_resources&) = delete;

    int inotify = -1;
    sd_event* loop = nullptr;
    sd_event_source* files = nullptr;
    sd_event_source* settled = nullptr;
};

/// Only a usable line or the missing file ends the wait: a mistake in the file must not make a second primary.
bool is_primary() {
    platform_config config = {};
    std::vector<std::string> problems;
    const platform_status status = platform_config_read(config, problems);
    for (const std::string& problem : problems) {
        platform_log(LOG_ERR, "%s", problem.c_str());
    }
    if (status == ENOENT) {
        return true;
    }
    return config.role_is_stated && config.role == PROCESS_ROLE_PRIMARY;
}

int files_have_changed(sd_event_source*, int fd, uint32_t, void* userdata) {
    // Which file it was does not matter.
    char buffer[4096];
    while (read(fd, buffer, sizeof buffer) > 0) {
    }
    sd_event_source* settled = static_cast<wait_resources*>(userdata)->settled;
    sd_event_source_set_time_relative(settled, settle_time);
    sd_event_source_set_enabled(settled, SD_EVENT_ONESHOT);
    return 0;
}

int files_have_settled(sd_event_source* source, uint64_t, void*) {
    sd_event* loop = sd_event_source_get_event(source);
    try {
        if (is_primary()) {
            sd_event_exit(loop, 0);
        }
    } catch (const std::exception&) {
        sd_event_exit(loop, -ENOMEM);
    }
    return 0;
}

/// Returns 0 or a negative errno value.
int make_loop(wait_resources& resources) {
    int result = sd_event_new(&resources.loop);
    if (result >= 0) {
        result = termination_watch(resources.loop);
    }
    if (result >= 0) {
        result = sd_event_set_watchdog(resources.loop, 1);
    }
    if (result >= 0) {
        result = sd_event_add_io(resources.loop, &resources.files, resources.inotify, EPOLLIN, files_have_changed,
                                 &resources);
    }
    if (result >= 0) {
        result = sd_event_add_time_relative(resources.loop, &resources.settled, CLOCK_MONOTONIC, settle_time, 1000,
                                            files_have_settled, nullptr);
    }
    return result >= 0 ? sd_event_source_set_enabled(resources.settled, SD_EVENT_OFF) : result;
}

int run_loop(sd_event* loop) {
    if (service.start != nullptr) {
        service.start(loop);
    }
    const int result = sd_event_loop(loop);
    if (service.stop != nullptr) {
        service.stop();
    }
    return result;
}

}  // namespace

void primary_wait_serve(const standby_service& wanted) {
    service = wanted;
}

int primary_wait() {
    wait_resources resources;
    resources.inotify = inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
    if (resources.inotify < 0) {
        return errno;
    }
    // The watch is set before the file is read, so no change is missed.
    if (inotify_add_watch(resources.inotify, platform_config_directory,
                          IN_CLOSE_WRITE | IN_MOVE | IN_DELETE | IN_ONLYDIR) < 0) {
        return errno == ENOENT ? 0 : errno;
    }
    if (is_primary()) {
        return 0;
    }
    int result = make_loop(resources);
    if (result >= 0) {
        result = run_loop(resources.loop);
    }
    return result < 0 ? -result : 0;
}
