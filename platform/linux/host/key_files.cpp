#include "linux/host/key_files.h"

#include <sys/stat.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "linux/host/key_store_internal.h"
#include "user_keys/key_file.h"

namespace {

constexpr mode_t wanted_mode = S_IFREG | 0600;

/// What is wrong with a user's file; null if nothing is.
const char* difference_of(const std::string& user, const std::string& lines) {
    struct stat file = {};
    std::string present;
    if (lstat((std::string(key_file_directory) + "/" + user).c_str(), &file) != 0) {
        return "the file that sshd reads is missing";
    }
    if (key_file_read(user, present) != PLATFORM_OK || present != lines) {
        return "the file that sshd reads has other keys";
    }
    const bool is_private = file.st_uid == 0 && file.st_gid == 0 && file.st_mode == wanted_mode;
    return is_private ? nullptr : "the file that sshd reads has another owner or mode than root and 0600";
}

/// One comparison.
class key_files_run {
  public:
    key_files_run(bool repair, enforcement_difference_sink sink, void* sink_context)
        : repair_(repair), sink_(sink), sink_context_(sink_context) {}

    int compare() {
        std::vector<key_store_entry> entries;
        std::vector<std::string> files;
        platform_status status = key_store_list(entries);
        if (status == PLATFORM_OK) {
            status = key_file_list(files);
        }
        if (status != PLATFORM_OK) {
            cannot_compare("keys", std::string("they cannot be compared: ") + platform_status_text(status));
            return remaining_;
        }
        for (const key_store_entry& entry : entries) {
            compare_key(entry);
        }
        remove_others(entries, files);
        return remaining_;
    }

  private:
    void compare_key(const key_store_entry& entry) {
        const std::string lines = key_record_lines(entry.record);
        const char* difference = difference_of(entry.user, lines);
        if (difference != nullptr) {
            settle("key " + entry.user, difference, repair_ ? key_file_write(entry.user, lines) : PLATFORM_OK);
        }
    }

    void remove_others(const std::vector<key_store_entry>& entries, const std::vector<std::string>& files) {
        std::set<std::string> users;
        for (const key_store_entry& entry : entries) {
            users.insert(entry.user);
        }
        for (const std::string& user : files) {
            if (!users.contains(user)) {
                settle("key " + user, "there is a file for sshd, but no key is stored",
                       repair_ ? key_file_remove(user) : PLATFORM_OK);
            }
        }
    }

    /// Reports what no repair can put right.
    void cannot_compare(const std::string& subject, const std::string& text) {
        sink_(subject.c_str(), text.c_str(), sink_context_);
        remaining_++;
        if (repair_) {
            enforcement_failed(subject.c_str(), text.c_str());
        }
    }

    /// Reports a difference; `status` tells how its repair ended.
    void settle(const std::string& subject, const std::string& text, platform_status status) {
        sink_(subject.c_str(), text.c_str(), sink_context_);
        remaining_ += !repair_ || status != PLATFORM_OK ? 1 : 0;
        if (repair_ && status != PLATFORM_OK) {
            enforcement_failed(subject.c_str(), (text + ": " + platform_status_text(status)).c_str());
        }
    }

    bool repair_;
    enforcement_difference_sink sink_;
    void* sink_context_;
    int remaining_ = 0;
};

}  // namespace

int key_files_compare(bool repair, enforcement_difference_sink sink, void* sink_context) {
    return key_files_run(repair, sink, sink_context).compare();
}
