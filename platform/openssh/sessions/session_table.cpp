#include "openssh/sessions/session_table.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "openssh/reporter/log_line.h"
#include "openssh/sessions/fact_rows.h"

namespace openssh {

namespace {

/// A parsed report and the process that sent it.
struct known_report {
    const report_sender& sender;
    report_header header;
    process_info process;
    log_line line;
};

bool parse_report(std::string_view report, report_header& header, log_line& line) {
    if (report.size() <= sizeof(header)) {
        return false;
    }
    std::memcpy(&header, report.data(), sizeof(header));
    report.remove_prefix(sizeof(header));
    return header.magic == report_header().magic && report.size() <= longest_reported_line &&
           std::all_of(report.begin(), report.end(), [](char c) { return c >= ' ' && c <= '~'; }) &&
           parse_log_line(report, line);
}

bool is_root(const report_sender& sender) {
    return sender.user == 0;
}

size_t sessions_of(const session_table& table, uid_t user) {
    return static_cast<size_t>(std::count_if(table.sessions.begin(), table.sessions.end(),
                                             [&](const auto& one) { return one.second.facts.user_number == user; }));
}

/// The kind of session that the reporting process has itself.
bool kind_of(const session_table& table, const known_report& report, session_kind& kind) {
    if (report.process.program == table.server_program && is_root(report.sender)) {
        kind = session_kind::incoming;
        return true;
    }
    kind = session_kind::outgoing;
    const std::string& name = report.process.name;
    return report.process.program == table.client_program &&
           (name == table.client_name || name.starts_with(table.client_name + " "));
}

session_entry* find_session(session_table& table, pid_t pid) {
    const auto found = table.sessions.find(pid);
    return found == table.sessions.end() ? nullptr : &found->second;
}

/// Reading the process again after opening the descriptor ensures that both refer to the same process.
int open_same_process(const session_table& table, pid_t pid, uint64_t start_time) {
    const int descriptor = table.processes.open(pid);
    process_info process;
    if (descriptor >= 0 && (!table.processes.read(pid, process) || process.start_time != start_time)) {
        close(descriptor);
        return -1;
    }
    return descriptor;
}

/// Takes over the facts of a session that continues in another process of the same user. The previous process may still
/// exist; it then only displays the session and has none of its own.
bool take_over(session_table& table, const known_report& report, session_facts& facts) {
    const auto before = static_cast<pid_t>(report.header.forked_from);
    if (before <= 0) {
        return false;
    }
    if (const session_entry* session = find_session(table, before)) {
        facts = session->facts;
    } else if (const auto ended = table.ended.find(before); ended != table.ended.end()) {
        facts = ended->second.facts;
    } else {
        return false;
    }
    return facts.kind == session_kind::outgoing && facts.user_number == report.sender.user &&
           facts.start_time <= report.process.start_time;
}

void leave_behind(session_table& table, pid_t pid) {
    table.ended.erase(pid);
    if (session_entry* session = find_session(table, pid)) {
        session->moved = true;
    }
}

void learn_peer(const session_table& table, session_entry& entry) {
    std::string peer;
    table.processes.look_at_connection(entry.process, entry.facts.pid, &peer, nullptr);
    set_field(entry.facts.host, peer);
}

session_entry* begin_session(session_table& table, const known_report& report, session_kind kind) {
    const bool is_too_many =
        table.sessions.size() >= most_sessions ||
        (!is_root(report.sender) && sessions_of(table, report.sender.user) >= most_sessions_of_user);
    if (is_too_many) {
        return nullptr;
    }
    session_entry entry;
    entry.process = open_same_process(table, report.sender.pid, report.process.start_time);
    if (entry.process < 0) {
        return nullptr;
    }
    session_facts before;
    if (kind == session_kind::outgoing && take_over(table, report, before)) {
        entry.facts = before;
        leave_behind(table, before.pid);
    } else {
        entry.facts.session_id = ++table.last_session_id;
    }
    entry.facts.start_time = report.process.start_time;
    entry.facts.pid = report.sender.pid;
    entry.facts.kind = kind;
    entry.facts.user_number = report.sender.user;
    if (kind == session_kind::incoming) {
        learn_peer(table, entry);
    } else {
        entry.facts.session_pid = report.sender.pid;
    }
    return &table.sessions.insert_or_assign(report.sender.pid, entry).first->second;
}

/// The session of a worker's parent: the sessions of ordinary users run in children of sshd.
session_entry* session_of_parent(session_table& table, const known_report& report) {
    if (report.process.program != table.server_program) {
        return nullptr;
    }
    session_entry* session = find_session(table, report.process.parent);
    const bool is_servers = session != nullptr && session->facts.kind == session_kind::incoming;
    return is_servers && is_alive(*session) ? session : nullptr;
}

session_entry* session_of(session_table& table, const known_report& report) {
    session_entry* session = find_session(table, report.sender.pid);
    if (session != nullptr && session->facts.start_time != report.process.start_time) {
        forget_session(table, report.sender.pid);
        session = nullptr;
    }
    if (session != nullptr) {
        return session;
    }
    if (session_entry* of_parent = session_of_parent(table, report)) {
        return of_parent;
    }
    session_kind kind = session_kind::incoming;
    return kind_of(table, report, kind) ? begin_session(table, report, kind) : nullptr;
}

bool learn(session_table& table, session_entry& session, const known_report& report) {
    line_context context;
    context.from_monitor = report.sender.pid == session.facts.pid;
    context.now = table.processes.now();
    context.own_terminal = report.process.terminal;
    if (counts_bytes(report.line)) {
        table.processes.look_at_connection(session.process, session.facts.pid, nullptr, &context.bytes);
    }
    if (!learn_from_line(session.facts, report.line, context)) {
        return false;
    }
    // After authentication the session runs in the process that logs about keys and channels: a child that has become
    // the user or, for root, sshd itself.
    if (session.facts.state == session_established && report.line.function != "monitor_child_preauth") {
        session.facts.session_pid = report.sender.pid;
    }
    return true;
}

void remember_ended(session_table& table, const session_facts& facts, bool moved) {
    const uint64_t now = table.processes.now();
    std::erase_if(table.ended, [&](const auto& one) { return one.second.at + seconds_to_go_on < now; });
    if (facts.kind == session_kind::outgoing && !moved && table.ended.size() < most_ended_sessions) {
        table.ended.insert_or_assign(facts.pid, ended_session{.facts = facts, .at = now});
    }
}

}  // namespace

pid_t take_report(session_table& table, const report_sender& sender, std::string_view report) {
    known_report known{.sender = sender, .header = {}, .process = {}, .line = {}};
    const uint64_t& start_time = known.header.start_time;
    if (!parse_report(report, known.header, known.line) || !table.processes.read(sender.pid, known.process) ||
        (start_time != 0 && start_time != known.process.start_time)) {
        return 0;
    }
    session_entry* session = session_of(table, known);
    if (session == nullptr || !learn(table, *session, known)) {
        return 0;
    }
    session->changed = true;
    return session->facts.pid;
}

bool restore_session(session_table& table, const session_facts& facts) {
    const int process = open_same_process(table, facts.pid, facts.start_time);
    if (process < 0) {
        return false;
    }
    table.sessions.insert_or_assign(facts.pid, session_entry{.facts = facts, .process = process});
    table.last_session_id = std::max(table.last_session_id, facts.session_id);
    return true;
}

void forget_session(session_table& table, pid_t pid) {
    const auto found = table.sessions.find(pid);
    if (found != table.sessions.end()) {
        remember_ended(table, found->second.facts, found->second.moved);
        close(found->second.process);
        table.sessions.erase(found);
    }
}

bool is_alive(const session_entry& session) {
    pollfd ended = {.fd = session.process, .events = POLLIN, .revents = 0};
    return poll(&ended, 1, 0) == 0;
}

}  // namespace openssh
