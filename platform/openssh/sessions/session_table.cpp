#include "openssh/sessions/session_table.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>

#include "common/file_descriptor.h"

namespace openssh {

namespace {

/// Follows no symbolic link and does not block, whatever the file is. Returns -1 if it is not a server's file.
int open_server_file(const session_table& table, const session_process& owner) {
    const std::string path = table.page_folder + "/" + session_name(owner);
    file_descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    return file.get() >= 0 && is_server_file(file.get()) ? file.release() : -1;
}

/// Returns false if the monitor's page is just being written, or has another layout.
bool read_server_pages(int file, session_facts& facts) {
    session_facts reported;
    if (!read_page(file, monitors_page, facts)) {
        return false;
    }
    if (read_page(file, reported_page, reported)) {
        add_reported(facts, reported);
    }
    return true;
}

bool belong_to(const session_facts& facts, const session_process& owner) {
    return facts.pid == owner.pid && facts.start_time == owner.start_time;
}

enum class page_reading {
    none,
    unreadable,  ///< is just being written, or has another layout
    done,
};

/// Reads the client's page from whichever descriptor refers to it.
page_reading read_client_page(const session_table& table, int process, session_facts& facts) {
    page_reading result = page_reading::none;
    for (int number = first_page_descriptor; number < first_page_descriptor + page_descriptors; ++number) {
        const file_descriptor file(table.processes.copy_descriptor(process, number));
        if (file.get() < 0 || !is_client_file(file.get())) {
            continue;
        }
        if (read_page(file.get(), 0, facts)) {
            return page_reading::done;
        }
        result = page_reading::unreadable;
    }
    return result;
}

/// Reading the process again after opening the descriptor ensures that both refer to the same process.
int open_same_process(const session_table& table, pid_t pid, uint64_t start_time) {
    file_descriptor descriptor(table.processes.open(pid));
    process_info process;
    if (descriptor.get() < 0 || !table.processes.read(pid, process) || process.start_time != start_time) {
        return -1;
    }
    return descriptor.release();
}

bool is_running_server(const session_table& table, const session_process& owner) {
    process_info process;
    return table.processes.read(owner.pid, process) && process.start_time == owner.start_time && process.is_roots &&
           process.program == table.server_program;
}

size_t sessions_of(const session_table& table, uid_t user) {
    return static_cast<size_t>(std::count_if(table.sessions.begin(), table.sessions.end(), [&](const auto& one) {
        return one.second.facts.kind == session_kind::outgoing && one.second.facts.user_number == user;
    }));
}

/// Whether another session of the same user claims to have begun in the same process. A number belongs to only one
/// session.
bool is_numbered(const session_table& table, const session_facts& facts) {
    return std::any_of(table.sessions.begin(), table.sessions.end(), [&](const auto& one) {
        const session_facts& other = one.second.facts;
        return other.kind == session_kind::outgoing && other.user_number == facts.user_number &&
               other.first_pid == facts.first_pid && other.first_start_time == facts.first_start_time;
    });
}

void add_session(session_table& table, session_facts facts, int process) {
    if (facts.kind == session_kind::outgoing && is_numbered(table, facts)) {
        facts.first_pid = facts.pid;
        facts.first_start_time = facts.start_time;
    }
    facts.session_id = session_number(table.numbers, number_key(facts));
    table.sessions.insert_or_assign(facts.pid, session_entry{.facts = facts, .process = process});
}

/// Only the monitor or a child of the monitor can run its session, whatever the session reports.
pid_t checked_session_process(const session_table& table, const session_facts& facts) {
    process_info process;
    const bool is_believed =
        facts.session_pid == facts.pid || (facts.session_pid > 0 && table.processes.read(facts.session_pid, process) &&
                                           process.parent == facts.pid && process.program == table.server_program);
    return is_believed ? facts.session_pid : 0;
}

/// Restores the facts that the pages do not contain, or for which they are not trusted.
void keep_own_facts(session_facts& facts, const session_facts& before) {
    facts.pid = before.pid;
    facts.start_time = before.start_time;
    facts.kind = before.kind;
    facts.user_number = before.user_number;
    facts.session_id = before.session_id;
    facts.first_pid = before.first_pid;
    facts.first_start_time = before.first_start_time;
}

}  // namespace

found_file take_server_file(session_table& table, const std::string& name) {
    session_process owner;
    if (!parse_session_name(name, owner)) {
        return found_file::invalid;
    }
    const file_descriptor file(open_server_file(table, owner));
    if (file.get() < 0 || !is_running_server(table, owner)) {
        return found_file::invalid;
    }
    session_facts facts;
    if (table.sessions.size() >= most_sessions || !read_server_pages(file.get(), facts)) {
        return found_file::left_out;
    }
    const int descriptor = belong_to(facts, owner) ? open_same_process(table, owner.pid, owner.start_time) : -1;
    if (descriptor < 0) {
        return found_file::invalid;
    }
    facts.kind = session_kind::incoming;
    facts.user_number = 0;
    facts.session_pid = checked_session_process(table, facts);
    add_session(table, facts, descriptor);
    return found_file::taken;
}

bool is_client(const session_table& table, const process_info& process) {
    const std::string& name = process.name;
    return process.program == table.client_program &&
           (name == table.client_name || name.starts_with(table.client_name + " "));
}

bool take_client(session_table& table, pid_t pid, const process_info& process) {
    const bool is_too_many = table.sessions.size() >= most_sessions ||
                             (process.user != 0 && sessions_of(table, process.user) >= most_sessions_of_user);
    if (is_too_many || !is_client(table, process)) {
        return false;
    }
    file_descriptor descriptor(open_same_process(table, pid, process.start_time));
    session_facts facts;
    if (descriptor.get() < 0 || read_client_page(table, descriptor.get(), facts) != page_reading::done ||
        facts.pid != pid) {
        return false;
    }
    facts.start_time = process.start_time;
    facts.kind = session_kind::outgoing;
    facts.user_number = process.user;
    facts.session_pid = pid;
    add_session(table, facts, descriptor.release());
    return true;
}

const session_facts& current_facts(const session_table& table, session_entry& session) {
    session_facts facts;
    const session_facts& before = session.facts;
    bool is_read = false;
    if (before.kind == session_kind::incoming) {
        const session_process owner = {.pid = before.pid, .start_time = before.start_time};
        const file_descriptor file(open_server_file(table, owner));
        is_read = file.get() >= 0 && read_server_pages(file.get(), facts) && belong_to(facts, owner);
        if (is_read && facts.session_pid != before.session_pid) {
            facts.session_pid = checked_session_process(table, facts);
        }
    } else {
        is_read = read_client_page(table, session.process, facts) == page_reading::done && facts.pid == before.pid;
        facts.session_pid = before.pid;
    }
    if (is_read) {
        keep_own_facts(facts, before);
        session.facts = facts;
    }
    return session.facts;
}

bool still_has_page(const session_table& table, const session_entry& session) {
    session_facts facts;
    const page_reading reading = read_client_page(table, session.process, facts);
    return reading == page_reading::unreadable || (reading == page_reading::done && facts.pid == session.facts.pid);
}

std::string number_key(const session_facts& facts) {
    if (facts.kind == session_kind::incoming) {
        return session_name({.pid = facts.pid, .start_time = facts.start_time});
    }
    return "client." + std::to_string(facts.user_number) + "." +
           session_name({.pid = facts.first_pid, .start_time = facts.first_start_time});
}

void forget_session(session_table& table, pid_t pid) {
    const auto found = table.sessions.find(pid);
    if (found != table.sessions.end()) {
        close(found->second.process);
        table.sessions.erase(found);
    }
}

bool is_alive(const session_entry& session) {
    pollfd ended = {.fd = session.process, .events = POLLIN, .revents = 0};
    return poll(&ended, 1, 0) == 0;
}

}  // namespace openssh
