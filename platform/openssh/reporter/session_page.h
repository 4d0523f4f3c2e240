/// The memory in which a process of sshd or ssh keeps the facts about its session, for other processes to read at any
/// time. Writing only copies memory: it makes no system call, never waits and cannot overflow.
///
/// A server's session has a file of two pages, which sshd's monitor creates when the user is authenticated. Only the
/// monitor writes to the first page; the session's own process, which runs as the user, reports its facts on the
/// second. A client's session has a sealed memory file of one page, at a descriptor where the responder looks for it.
///
/// Part of the library that is preloaded into sshd and ssh, so nothing here allocates or throws.
#ifndef OPENSSH_REPORTER_SESSION_PAGE_H
#define OPENSSH_REPORTER_SESSION_PAGE_H

#include <cstddef>
#include <cstdint>

#include "openssh/reporter/session_facts.h"

namespace openssh {

struct session_page {
    uint32_t magic = 0;  ///< 0 until the first write
    uint32_t version = 0;
    uint32_t facts_size = 0;
    uint32_t sequence = 0;  ///< odd while the facts are being changed
    session_facts facts;
};

constexpr uint32_t session_page_magic = 0x31676170;  // "pag1"
/// Must be incremented whenever the layout of the facts changes: sessions outlive an update of the responder. New facts
/// are appended, so that pages of earlier versions can still be read.
constexpr uint32_t session_page_version = 2;

constexpr size_t session_page_size = 4096;
static_assert(sizeof(session_page) <= session_page_size);

/// Offsets of a server's pages, and the size of its file.
constexpr size_t monitors_page = 0;
constexpr size_t reported_page = session_page_size;
constexpr size_t server_file_size = 2 * session_page_size;

/// The folder of the servers' files, which are named PID.START: the monitor's pid and its start time in clock ticks
/// since boot. Accessible only to root.
constexpr const char* session_file_folder = "/run/ssh_cfg_agent/sessions";

/// A client's page is at the first of these descriptors that was free.
constexpr int first_page_descriptor = 100;
constexpr int page_descriptors = 8;

/// The seals that make a client's page safe to read: nobody can shrink it or write to it through another descriptor.
extern const unsigned client_page_seals;

/// Copies the facts into a page. Only one process may write to a page at a time.
void write_page(session_page& page, const session_facts& facts) noexcept;

}  // namespace openssh

#endif
