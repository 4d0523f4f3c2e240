#include "openssh/reporter/recorder.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>

#include "openssh/reporter/connection.h"
#include "openssh/reporter/fact_rows.h"
#include "openssh/reporter/own_process.h"
#include "openssh/reporter/page_maker.h"

namespace openssh {

namespace {

/// Children start with a copy of what their parent knew at the fork.
session_facts own_facts;
uint32_t own_terminal_number = no_terminal;
bool has_tried_to_share = false;
server_pages own_pages;
session_page* client_page = nullptr;

bool is_plain(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

/// From now on, the facts are those of the calling process.
void take_over(pid_t self) {
    process_stat own;
    read_own_stat(own);
    own_facts.pid = self;
    own_facts.start_time = own.start_time;
    if (own_facts.first_pid == 0) {
        own_facts.first_pid = self;
        own_facts.first_start_time = own.start_time;
    }
    own_terminal_number = own.terminal;
}

void begin_server_session(pid_t self) {
    peer_address peer;
    take_over(self);
    own_facts.kind = session_kind::incoming;
    look_at_own_connection(&peer, nullptr);
    set_field(own_facts.host, peer.text);
    own_facts.login.port = peer.port;
    if (const char* vrf = getenv(vrf_variable)) {
        set_field(own_facts.login.vrf, vrf);
    }
}

bool learn(const log_line& line, bool from_monitor) {
    line_context context;
    context.from_monitor = from_monitor;
    context.now = seconds_since_boot();
    context.own_terminal = own_terminal_number;
    if (counts_bytes(line)) {
        look_at_own_connection(nullptr, &context.bytes);
    }
    return is_plain(line.text) && learn_from_line(own_facts, line, context);
}

/// Root's sessions run in the monitor itself; an ordinary user's process reports on a separate page.
session_page* page_of(bool is_monitor) {
    if (is_monitor) {
        return own_pages.monitors;
    }
    return geteuid() != 0 ? own_pages.reported : nullptr;
}

int follow_server_line(const log_line& line) {
    const pid_t self = getpid();
    if (own_facts.pid == 0) {
        if (geteuid() != 0) {
            return 0;
        }
        begin_server_session(self);
    }
    const bool is_monitor = self == own_facts.pid;
    if (!learn(line, is_monitor)) {
        return 0;
    }
    if (own_facts.state == session_established && line.function != "monitor_child_preauth") {
        own_facts.session_pid = self;
    }
    if (is_monitor && own_facts.state == session_established && !has_tried_to_share) {
        has_tried_to_share = true;
        return make_server_pages(session_file_folder, own_facts, own_pages);
    }
    if (session_page* page = page_of(is_monitor)) {
        write_page(*page, own_facts);
    }
    return 0;
}

int follow_client_line(const log_line& line) {
    // When ssh goes to the background, it continues in a child, and its session continues there too.
    const pid_t self = getpid();
    if (self != own_facts.pid) {
        take_over(self);
        own_facts.kind = session_kind::outgoing;
        own_facts.session_pid = self;
    }
    if (!learn(line, true)) {
        return 0;
    }
    int error = 0;
    if (!has_tried_to_share) {
        has_tried_to_share = true;
        error = make_client_page(client_page);
    }
    if (client_page != nullptr) {
        write_page(*client_page, own_facts);
    }
    return error;
}

}  // namespace

int record_server_line(const log_line& line) noexcept {
    const int error = errno;
    const int result = follow_server_line(line);
    errno = error;
    return result;
}

void end_server_record() noexcept {
    if (own_pages.monitors != nullptr && getpid() == own_facts.pid) {
        remove_server_file(session_file_folder, own_facts);
    }
}

int record_client_line(const log_line& line) noexcept {
    const int error = errno;
    const int result = follow_client_line(line);
    errno = error;
    return result;
}

}  // namespace openssh
