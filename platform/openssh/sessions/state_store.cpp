#include "openssh/sessions/state_store.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <vector>

namespace openssh {

namespace {

/// Files of a responder with a different layout are ignored.
struct stored_session {
    uint32_t magic = 0x31736573;  // "ses1"
    uint32_t size = sizeof(session_facts);
    uint32_t last_session_id = 0;
    uint32_t reserved = 0;
    session_facts facts;
};

/// Holds only the last session id, for when there are no sessions.
constexpr const char* counter_name = "last";

bool write_whole(const std::string& path, const void* bytes, size_t size) {
    const std::string candidate = path + ".new";
    const int file = open(candidate.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (file < 0) {
        return false;
    }
    const bool written = write(file, bytes, size) == static_cast<ssize_t>(size);
    return close(file) == 0 && written && rename(candidate.c_str(), path.c_str()) == 0;
}

bool read_stored(const std::string& path, stored_session& stored) {
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (file < 0) {
        return false;
    }
    const ssize_t length = read(file, &stored, sizeof(stored));
    close(file);
    return length == static_cast<ssize_t>(sizeof(stored)) && stored.magic == stored_session().magic &&
           stored.size == sizeof(session_facts);
}

std::vector<std::string> names_in(const std::string& folder) {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(folder.c_str()), closedir);
    while (const dirent* entry = entries != nullptr ? readdir(entries.get()) : nullptr) {
        if (entry->d_name[0] != '.') {
            names.emplace_back(entry->d_name);
        }
    }
    return names;
}

}  // namespace

void load_sessions(session_table& table, const std::string& folder) {
    for (const std::string& name : names_in(folder)) {
        const std::string path = std::string(folder).append("/").append(name);
        stored_session stored;
        const bool is_read = read_stored(path, stored);
        if (is_read) {
            table.last_session_id = std::max(table.last_session_id, stored.last_session_id);
        }
        if (name != counter_name &&
            !(is_read && name == std::to_string(stored.facts.pid) && restore_session(table, stored.facts))) {
            unlink(path.c_str());
        }
    }
}

bool store_session(const session_table& table, const session_facts& facts, const std::string& folder) {
    stored_session stored;
    stored.last_session_id = table.last_session_id;
    stored.facts = facts;
    return write_whole(folder + "/" + std::to_string(facts.pid), &stored, sizeof(stored)) &&
           (facts.session_id != table.last_session_id ||
            write_whole(folder + "/" + counter_name, &stored, sizeof(stored)));
}

void remove_stored_session(pid_t pid, const std::string& folder) {
    unlink((folder + "/" + std::to_string(pid)).c_str());
}

}  // namespace openssh
