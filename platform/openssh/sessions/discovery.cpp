#include "openssh/sessions/discovery.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <set>

namespace openssh {

namespace {

/// The end of the title of sshd's monitor.
constexpr std::string_view monitor_mark = "[priv]";

/// A process that may belong to a session.
struct candidate {
    pid_t pid = 0;
    process_info process;
};

/// The processes of sshd and ssh, in the order in which they started.
std::vector<candidate> list_candidates(const session_table& table) {
    std::vector<candidate> found;
    for (const pid_t pid : table.processes.list()) {
        const std::string program = table.processes.program_of(pid);
        candidate one = {.pid = pid, .process = {}};
        if ((program == table.server_program || program == table.client_program) &&
            table.processes.read(pid, one.process)) {
            found.push_back(one);
        }
    }
    std::sort(found.begin(), found.end(), [](const candidate& one, const candidate& other) {
        return one.process.start_time < other.process.start_time;
    });
    return found;
}

bool ends_with_mark(const process_info& process, std::string_view mark) {
    return process.name.ends_with(mark);
}

/// The sshd monitors whose child is still talking to an unauthenticated peer. They are not sessions yet.
std::set<pid_t> monitors_at_login(const std::vector<candidate>& candidates) {
    std::set<pid_t> monitors;
    for (const candidate& one : candidates) {
        if (ends_with_mark(one.process, "[net]")) {
            monitors.insert(one.process.parent);
        }
    }
    return monitors;
}

bool has_connection(const session_table& table, pid_t pid) {
    byte_counters bytes;
    const int process = table.processes.open(pid);
    const bool is_connected = process >= 0 && table.processes.look_at_connection(process, pid, bytes);
    if (process >= 0) {
        close(process);
    }
    return is_connected;
}

/// A user's session has a monitor, "norvosshd: USER [priv]". Root's has none: "norvosshd: root@pts/0".
bool is_server_session(const session_table& table, const candidate& one, const std::set<pid_t>& at_login) {
    const std::string& name = one.process.name;
    const bool has_user =
        ends_with_mark(one.process, monitor_mark) || (name.find('@') != std::string::npos && !name.ends_with(']'));
    return one.process.program == table.server_program && one.process.is_roots && has_user &&
           at_login.count(one.pid) == 0;
}

/// A connection on which nobody is authenticated. The title is "norvosshd: [accepted]", and "norvosshd: USER [priv]" once
/// the peer has sent a user name.
bool is_at_login(const session_table& table, const candidate& one, const std::set<pid_t>& at_login) {
    return one.process.program == table.server_program && one.process.is_roots &&
           (at_login.count(one.pid) != 0 || ends_with_mark(one.process, "[accepted]"));
}

/// Returns the user in "norvosshd: USER [priv]", or an empty string for "unknown", which is what sshd calls users that do not
/// exist.
std::string user_in_title(std::string_view title) {
    const size_t start = title.find(": ");
    title.remove_suffix(monitor_mark.size());
    if (start == std::string_view::npos || start + 2 >= title.size()) {
        return {};
    }
    std::string user(title.substr(start + 2, title.size() - start - 3));
    const bool is_plain = std::all_of(user.begin(), user.end(), [](char c) { return c >= ' ' && c <= '~'; });
    return is_plain && user != "unknown" ? user : std::string();
}

/// A client that shares another process's connection is not a session of its own.
bool is_client_session(const session_table& table, const candidate& one) {
    return is_client(table, one.process) && has_connection(table, one.pid);
}

std::vector<session_process> list_files(const session_table& table) {
    std::vector<session_process> files;
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(table.page_folder.c_str()), closedir);
    while (const dirent* entry = entries != nullptr ? readdir(entries.get()) : nullptr) {
        session_process owner;
        if (parse_session_name(entry->d_name, owner)) {
            files.push_back(owner);
        } else if (entry->d_name[0] != '.') {
            unlink((table.page_folder + "/" + entry->d_name).c_str());
        }
    }
    std::sort(files.begin(), files.end(), [](const session_process& one, const session_process& other) {
        return one.start_time < other.start_time;
    });
    return files;
}

bool is_known(const session_table& table, const session_process& owner) {
    const auto found = table.sessions.find(owner.pid);
    return found != table.sessions.end() && found->second.facts.start_time == owner.start_time;
}

}  // namespace

pid_t find_server(session_table& table, const std::string& name) {
    session_process owner;
    if (parse_session_name(name, owner) && is_known(table, owner)) {
        return 0;
    }
    const found_file found = take_server_file(table, name);
    if (found == found_file::invalid) {
        unlink((table.page_folder + "/" + name).c_str());
    }
    return found == found_file::taken ? owner.pid : 0;
}

std::vector<pid_t> find_servers(session_table& table) {
    std::vector<pid_t> added;
    for (const session_process& owner : list_files(table)) {
        if (const pid_t pid = find_server(table, session_name(owner)); pid != 0) {
            added.push_back(pid);
        }
    }
    return added;
}

std::vector<pid_t> find_clients(session_table& table, session_totals& totals) {
    const std::vector<candidate> candidates = list_candidates(table);
    const std::set<pid_t> at_login = monitors_at_login(candidates);
    std::vector<pid_t> added;
    totals = {};
    for (const candidate& one : candidates) {
        const auto known = table.sessions.find(one.pid);
        const bool is_known_now = known != table.sessions.end();
        if (is_known_now) {
            ++(known->second.facts.kind == session_kind::incoming ? totals.incoming : totals.outgoing);
        } else if (take_client(table, one.pid, one.process)) {
            added.push_back(one.pid);
            ++totals.outgoing;
        } else if (is_server_session(table, one, at_login)) {
            ++totals.incoming;
        } else if (is_client_session(table, one)) {
            ++totals.outgoing;
        }
    }
    return added;
}

std::vector<unlisted_server> find_unlisted_servers(const session_table& table) {
    const std::vector<candidate> candidates = list_candidates(table);
    const std::set<pid_t> at_login = monitors_at_login(candidates);
    std::vector<unlisted_server> found;
    for (const candidate& one : candidates) {
        if (table.sessions.count(one.pid) == 0 &&
            (is_server_session(table, one, at_login) || is_at_login(table, one, at_login))) {
            const bool has_user = ends_with_mark(one.process, monitor_mark);
            found.push_back({.pid = one.pid,
                             .process = one.process,
                             .user = has_user ? user_in_title(one.process.name) : std::string(),
                             .has_user = has_user,
                             .is_at_login = is_at_login(table, one, at_login)});
        }
    }
    return found;
}

std::vector<pid_t> find_left_pages(const session_table& table) {
    std::vector<pid_t> left;
    for (const auto& [pid, session] : table.sessions) {
        if (session.facts.kind == session_kind::outgoing && !still_has_page(table, session)) {
            left.push_back(pid);
        }
    }
    return left;
}

}  // namespace openssh
