#include "openssh/sessions/state_store.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <vector>

#include "common/files.h"

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

bool write_whole(const std::string& path, const stored_session& stored) {
    const platform_status status = file_replace(path, {reinterpret_cast<const char*>(&stored), sizeof(stored)}, {});
    errno = static_cast<int>(status);
    return status == PLATFORM_OK;
}

bool read_stored(const std::string& path, stored_session& stored) {
    std::string bytes;
    if (file_read(path, sizeof(stored), bytes, file_links::refused) != PLATFORM_OK || bytes.size() != sizeof(stored)) {
        return false;
    }
    std::memcpy(&stored, bytes.data(), sizeof(stored));
    return stored.magic == stored_session().magic && stored.size == sizeof(session_facts);
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
    return write_whole(folder + "/" + std::to_string(facts.pid), stored) &&
           (facts.session_id != table.last_session_id || write_whole(folder + "/" + counter_name, stored));
}

void remove_stored_session(pid_t pid, const std::string& folder) {
    unlink((folder + "/" + std::to_string(pid)).c_str());
}

}  // namespace openssh
