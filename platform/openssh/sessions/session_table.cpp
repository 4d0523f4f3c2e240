#include "openssh/sessions/session_table.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>

namespace openssh {

namespace {

/// Closes a descriptor at the end of its scope.
class open_file {
  public:
    explicit open_file(int descriptor) : descriptor_(descriptor) {}
    ~open_file() {
        if (descriptor_ >= 0) {
            close(descriptor_);
        }
    }
    open_file(const open_file&) = delete;
    open_file& operator=(const open_file&) = delete;

    int get() const { return descriptor_; }
    int release() {
        const int descriptor = descriptor_;
        descriptor_ = -1;
        return descriptor;
    }

  private:
    int descriptor_;
};

/// Follows no symbolic link and does not block, whatever the file is. Only regular files are read later.
int open_server_file(const session_table& table, const session_process& owner) {
    const std::string path = table.page_folder + "/" + session_name(owner);
    return open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
}

bool read_server_pages(int file, const session_process& owner, session_facts& facts) {
    session_facts known;
    if (!is_server_file(file) || !read_page(file, monitors_page, known) || known.pid != owner.pid ||
        known.start_time != owner.start_time) {
        return false;
    }
    session_facts reported;
    if (read_page(file, reported_page, reported)) {
        add_reported(known, reported);
    }
    facts = known;
    return true;
}

/// Reads the client's page from whichever descriptor refers to it.
bool read_client_page(const session_table& table, int process, session_facts& facts) {
    for (int number = first_page_descriptor; number < first_page_descriptor + page_descriptors; ++number) {
        const open_file file(table.processes.copy_descriptor(process, number));
        if (file.get() >= 0 && is_client_file(file.get()) && read_page(file.get(), 0, facts)) {
            return true;
        }
    }
    return false;
}

/// Reading the process again after opening the descriptor ensures that both refer to the same process.
int open_same_process(const session_table& table, pid_t pid, uint64_t start_time) {
    open_file descriptor(table.processes.open(pid));
    process_info process;
    if (descriptor.get() < 0 || !table.processes.read(pid, process) || process.start_time != start_time) {
        return -1;
    }
    return descriptor.release();
}

bool is_roots_server(const session_table& table, const process_info& process) {
    return process.is_roots && process.program == table.server_program;
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
    session_facts facts;
    process_info process;
    if (!parse_session_name(name, owner)) {
        return found_file::invalid;
    }
    const open_file file(open_server_file(table, owner));
    if (file.get() < 0 || !read_server_pages(file.get(), owner, facts) || !table.processes.read(owner.pid, process) ||
        process.start_time != owner.start_time || !is_roots_server(table, process)) {
        return found_file::invalid;
    }
    if (table.sessions.size() >= most_sessions) {
        return found_file::left_out;
    }
    const int descriptor = open_same_process(table, owner.pid, owner.start_time);
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
    open_file descriptor(open_same_process(table, pid, process.start_time));
    session_facts facts;
    if (descriptor.get() < 0 || !read_client_page(table, descriptor.get(), facts) || facts.pid != pid) {
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
        const open_file file(open_server_file(table, owner));
        is_read = file.get() >= 0 && read_server_pages(file.get(), owner, facts);
        if (is_read && facts.session_pid != before.session_pid) {
            facts.session_pid = checked_session_process(table, facts);
        }
    } else {
        is_read = read_client_page(table, session.process, facts) && facts.pid == before.pid;
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
    return read_client_page(table, session.process, facts) && facts.pid == session.facts.pid;
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
