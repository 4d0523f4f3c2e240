#include "linux/vrf/namespace_watch.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <linux/nsfs.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <deque>
#include <exception>
#include <map>
#include <memory>
#include <set>

#include "linux/process/event_manager_internal.h"
#include "linux/reporting/log_message_internal.h"
#include "linux/vrf/vrf_table_internal.h"
#include "platform/namespace_message.h"

namespace {

constexpr char parent_directory[] = "/run";
constexpr char directory_name[] = "netns";
constexpr uint64_t first_retry = 20000;  ///< microseconds
constexpr uint64_t longest_retry = 2000000;
constexpr uint64_t look_accuracy = 1000;

/// Distinguishes a namespace from a later one of the same name.
struct namespace_identity {
    dev_t device;
    ino_t inode;
    bool operator==(const namespace_identity& other) const = default;
};

struct announcement {
    uint32_t code;
    std::string name;
};

struct namespace_watch {
    struct event_manager* manager = nullptr;
    sd_event_source* parent = nullptr;     ///< changes of /run
    sd_event_source* directory = nullptr;  ///< changes of /run/netns; null while there is no such directory
    sd_event_source* retry = nullptr;
    sd_event_source* delivery = nullptr;
    uint64_t retry_delay = first_retry;
    std::map<std::string, namespace_identity> known;
    std::set<std::string> pending;  ///< files that are not namespaces yet
    std::deque<announcement> queue;

    namespace_watch() = default;
    namespace_watch(const namespace_watch&) = delete;
    namespace_watch& operator=(const namespace_watch&) = delete;
    ~namespace_watch() {
        sd_event_source_disable_unref(parent);
        sd_event_source_disable_unref(directory);
        sd_event_source_disable_unref(retry);
        sd_event_source_disable_unref(delivery);
    }
};

std::unique_ptr<namespace_watch> active;

bool is_vrf_namespace_name(std::string_view name) {
    constexpr std::string_view prefix = namespace_name_prefix;
    return name.substr(0, prefix.size()) == prefix && vrf_name_is_valid(name.substr(prefix.size()));
}

/// Checks the file system first: opening any other kind of file could block.
bool identify(const std::string& name, namespace_identity& identity) {
    const std::string path = std::string(namespace_directory) + "/" + name;
    struct statfs file_system = {};
    if (statfs(path.c_str(), &file_system) != 0 || file_system.f_type != NSFS_MAGIC) {
        return false;
    }
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return false;
    }
    struct stat status = {};
    const bool is_network = ioctl(fd, NS_GET_NSTYPE) == CLONE_NEWNET && fstat(fd, &status) == 0;
    close(fd);
    identity = {status.st_dev, status.st_ino};
    return is_network;
}

/// The files of VRF namespaces. A missing directory has none.
std::set<std::string> read_directory() {
    std::set<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(namespace_directory), closedir);
    if (directory == nullptr) {
        if (errno != ENOENT) {
            platform_log(LOG_ERR, "Cannot read %s: %s", namespace_directory, strerror(errno));
        }
        return names;
    }
    while (const dirent* entry = readdir(directory.get())) {
        if (is_vrf_namespace_name(entry->d_name)) {
            names.insert(entry->d_name);
        }
    }
    return names;
}

/// A namespace that is deleted before its creation was announced is not announced at all: the handler of its creation
/// would wait for it in vain.
void announce(namespace_watch& watch, uint32_t code, const std::string& name) {
    const auto undelivered = std::find_if(watch.queue.rbegin(), watch.queue.rend(),
                                          [&](const announcement& queued) { return queued.name == name; });
    if (code == NAMESPACE_DELETED && undelivered != watch.queue.rend() && undelivered->code == NAMESPACE_CREATED) {
        watch.queue.erase(std::next(undelivered).base());
        return;
    }
    watch.queue.push_back({code, name});
    sd_event_source_set_enabled(watch.delivery, SD_EVENT_ONESHOT);
}

void arm_retry(namespace_watch& watch) {
    sd_event_source_set_time_relative(watch.retry, watch.retry_delay);
    sd_event_source_set_enabled(watch.retry, SD_EVENT_ONESHOT);
}

void retry_soon(namespace_watch& watch) {
    watch.retry_delay = first_retry;
    arm_retry(watch);
}

void namespace_is_gone(namespace_watch& watch, const std::string& name) {
    watch.pending.erase(name);
    if (watch.known.erase(name) == 1) {
        announce(watch, NAMESPACE_DELETED, name);
    }
}

void namespace_has_appeared(namespace_watch& watch, const std::string& name, const namespace_identity& identity) {
    watch.pending.erase(name);
    watch.known.emplace(name, identity);
    announce(watch, NAMESPACE_CREATED, name);
}

/// Records what currently has the name.
void look_at(namespace_watch& watch, const std::string& name) {
    namespace_identity identity = {};
    const bool attached = identify(name, identity);
    const auto known = watch.known.find(name);
    if (known != watch.known.end() && attached && known->second == identity) {
        return;
    }
    namespace_is_gone(watch, name);
    if (attached) {
        namespace_has_appeared(watch, name, identity);
    } else {
        watch.pending.insert(name);
        retry_soon(watch);
    }
}

/// Synchronises the known namespaces with the directory, whatever events were missed.
void rescan(namespace_watch& watch) {
    const std::set<std::string> present = read_directory();
    std::set<std::string> absent = watch.pending;
    for (const auto& [name, identity] : watch.known) {
        absent.insert(name);
    }
    for (const std::string& name : present) {
        absent.erase(name);
        look_at(watch, name);
    }
    for (const std::string& name : absent) {
        namespace_is_gone(watch, name);
    }
}

int directory_has_changed(sd_event_source*, const inotify_event* event, void* userdata);

/// Watches a directory. Returns 0 and stores the source, or a negative errno value.
int add_watch(namespace_watch& watch, const char* path, uint32_t events, sd_event_inotify_handler_t handler,
              sd_event_source** source) {
    sd_event_source* added = nullptr;
    int result =
        sd_event_add_inotify(event_manager_sd_event(watch.manager), &added, path, events | IN_ONLYDIR, handler, &watch);
    if (result >= 0) {
        result = sd_event_source_set_priority(added, EVENT_PRIORITY_WATCH);
    }
    if (result < 0) {
        sd_event_source_disable_unref(added);
        return result;
    }
    *source = added;
    return 0;
}

/// Returns 0 or a negative errno value. A missing directory is not a failure: the watch on its parent reports its
/// creation.
int watch_directory(namespace_watch& watch) {
    constexpr uint32_t events = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_DELETE_SELF | IN_MOVE_SELF;
    watch.directory = sd_event_source_disable_unref(watch.directory);
    const int result = add_watch(watch, namespace_directory, events, directory_has_changed, &watch.directory);
    return result == -ENOENT ? 0 : result;
}

void watch_directory_again(namespace_watch& watch) {
    const int result = watch_directory(watch);
    if (result < 0) {
        platform_log(LOG_ERR, "Cannot watch %s: %s", namespace_directory, strerror(-result));
        arm_retry(watch);
    }
    rescan(watch);
}

void handle_entry_change(namespace_watch& watch, uint32_t mask, const std::string& name) {
    if ((mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
        namespace_is_gone(watch, name);
    } else {
        look_at(watch, name);
    }
}

void handle_directory_change(namespace_watch& watch, uint32_t mask, const std::string& name) {
    // An overflow is reported to both watches; the parent's rereads the directory.
    if ((mask & IN_Q_OVERFLOW) != 0) {
        return;
    }
    if ((mask & (IN_IGNORED | IN_UNMOUNT | IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
        watch_directory_again(watch);
    } else if (is_vrf_namespace_name(name)) {
        handle_entry_change(watch, mask, name);
    }
}

void handle_parent_change(namespace_watch& watch, uint32_t mask, const std::string& name) {
    if ((mask & IN_Q_OVERFLOW) != 0) {
        platform_log(LOG_WARNING, "The watch on %s overflowed; reading the directory again", namespace_directory);
        watch_directory_again(watch);
    } else if (name == directory_name) {
        watch_directory_again(watch);
    }
}

/// No exception may cross the loop, which is written in C.
template <void (*handle)(namespace_watch&, uint32_t, const std::string&)>
int follow(const inotify_event& event, void* userdata) {
    try {
        handle(*static_cast<namespace_watch*>(userdata), event.mask, event.len > 0 ? event.name : "");
    } catch (const std::exception& failure) {
        platform_log(LOG_ERR, "Failed to handle changes in %s: %s", namespace_directory, failure.what());
    }
    return 0;
}

int directory_has_changed(sd_event_source*, const inotify_event* event, void* userdata) {
    return follow<handle_directory_change>(*event, userdata);
}

int parent_has_changed(sd_event_source*, const inotify_event* event, void* userdata) {
    return follow<handle_parent_change>(*event, userdata);
}

/// Rechecks a file that is not a namespace yet, at growing intervals, as long as it exists.
void look_at_pending(namespace_watch& watch) {
    if (watch.directory == nullptr) {
        watch_directory_again(watch);
    }
    const std::set<std::string> waiting = watch.pending;
    for (const std::string& name : waiting) {
        namespace_identity identity = {};
        if (identify(name, identity)) {
            namespace_has_appeared(watch, name, identity);
        }
    }
    if (!watch.pending.empty()) {
        watch.retry_delay = std::min(watch.retry_delay * 2, longest_retry);
        arm_retry(watch);
    }
}

int look_is_due(sd_event_source*, uint64_t, void* userdata) {
    try {
        look_at_pending(*static_cast<namespace_watch*>(userdata));
    } catch (const std::exception& failure) {
        platform_log(LOG_ERR, "Failed to recheck the namespaces: %s", failure.what());
    }
    return 0;
}

void check_reply(const announcement& told, platform_status status, const char* reply, size_t size) {
    const bool handled = std::all_of(reply, reply + NAMESPACE_REPLY_SIZE, [](char byte) { return byte == 0; });
    if (status != PLATFORM_OK || size != NAMESPACE_REPLY_SIZE || !handled) {
        platform_log(LOG_ERR, "The %s of namespace %s was not handled",
                     told.code == NAMESPACE_CREATED ? "creation" : "deletion", told.name.c_str());
    }
}

/// Drops creations whose namespaces are gone while their deletion is still to be read: the handler would wait for each of
/// them in vain, and everybody else with it.
void drop_what_is_gone(namespace_watch& watch) {
    try {
        std::string looked_at;
        while (!watch.queue.empty() && watch.queue.front().code == NAMESPACE_CREATED &&
               watch.queue.front().name != looked_at) {
            looked_at = watch.queue.front().name;
            look_at(watch, looked_at);
        }
    } catch (const std::exception& failure) {
        platform_log(LOG_ERR, "Failed to recheck a namespace: %s", failure.what());
    }
}

/// Announces one namespace; the next one has to wait for the loop.
int deliver(sd_event_source*, void* userdata) {
    auto& watch = *static_cast<namespace_watch*>(userdata);
    drop_what_is_gone(watch);
    if (watch.queue.empty()) {
        return 0;
    }
    const announcement next = std::move(watch.queue.front());
    watch.queue.pop_front();
    if (!watch.queue.empty()) {
        sd_event_source_set_enabled(watch.delivery, SD_EVENT_ONESHOT);
    }
    namespace_message message = {};
    message.code = next.code;
    next.name.copy(message.name, sizeof message.name - 1);
    char reply[NAMESPACE_REPLY_SIZE] = {};
    size_t size = 0;
    const platform_status status = event_manager_send_message(watch.manager, NAMESPACE_MESSAGE, &message,
                                                              sizeof message, reply, sizeof reply, &size);
    check_reply(next, status, reply, size);
    return 0;
}

/// The sources besides the watches. Returns 0 or a negative errno value.
int add_sources(namespace_watch& watch) {
    sd_event* loop = event_manager_sd_event(watch.manager);
    int result = sd_event_add_time_relative(loop, &watch.retry, CLOCK_MONOTONIC, first_retry, look_accuracy,
                                            look_is_due, &watch);
    if (result >= 0) {
        result = sd_event_source_set_enabled(watch.retry, SD_EVENT_OFF);
    }
    if (result >= 0) {
        result = sd_event_add_defer(loop, &watch.delivery, deliver, &watch);
    }
    return result < 0 ? result : sd_event_source_set_enabled(watch.delivery, SD_EVENT_OFF);
}

/// The directory's watch is set up before the directory is read, so nothing is missed in between.
int begin(namespace_watch& watch) {
    int result = add_sources(watch);
    if (result >= 0) {
        result = add_watch(watch, parent_directory, IN_CREATE | IN_MOVED_TO, parent_has_changed, &watch.parent);
    }
    if (result >= 0) {
        result = watch_directory(watch);
    }
    if (result < 0) {
        return result;
    }
    rescan(watch);
    // The agent discovers existing namespaces by itself.
    watch.queue.clear();
    return 0;
}

}  // namespace

bool namespace_is_attached(const std::string& name) {
    namespace_identity identity = {};
    return identify(name, identity);
}

std::vector<std::string> namespace_list() {
    std::vector<std::string> attached;
    for (const std::string& name : read_directory()) {
        if (namespace_is_attached(name)) {
            attached.push_back(name);
        }
    }
    return attached;
}

platform_status namespace_watch_start(struct event_manager* manager) {
    if (manager == nullptr) {
        return EINVAL;
    }
    if (active != nullptr) {
        return EALREADY;
    }
    try {
        auto watch = std::make_unique<namespace_watch>();
        watch->manager = manager;
        const int result = begin(*watch);
        if (result < 0) {
            return static_cast<platform_status>(-result);
        }
        active = std::move(watch);
        return PLATFORM_OK;
    } catch (const std::exception&) {
        return ENOMEM;
    }
}

void namespace_watch_stop() {
    active.reset();
}
