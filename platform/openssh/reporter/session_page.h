/// The memory in which a process of sshd or ssh keeps what is known about its session, so that others can read it
/// whenever they want. Writing is a copy: it makes no system call, waits for nobody and cannot overflow.
///
/// A server's session is a file of two pages, made by sshd's monitor when the user is let in. The first page is written by
/// the monitor alone; the second is what the session's own process, which is the user's, reports. A client's session is
/// a sealed memory file of one page, at a descriptor where the responder looks for it.
///
/// Part of the library that is preloaded into sshd and ssh, so nothing here allocates or throws.
#ifndef OPENSSH_REPORTER_SESSION_PAGE_H
#define OPENSSH_REPORTER_SESSION_PAGE_H

#include <cstddef>
#include <cstdint>

#include "openssh/reporter/session_facts.h"

namespace openssh {

struct session_page {
    uint32_t magic = 0;  ///< 0 until something was written
    uint32_t version = 0;
    uint32_t facts_size = 0;
    uint32_t sequence = 0;  ///< odd while the facts are being changed
    session_facts facts;
};

constexpr uint32_t session_page_magic = 0x31676170;  // "pag1"
/// To be increased with every change of the facts' layout: sessions outlive an update of the responder.
constexpr uint32_t session_page_version = 1;

constexpr size_t session_page_size = 4096;
static_assert(sizeof(session_page) <= session_page_size);

/// Offsets of a server's pages, and the size of its file.
constexpr size_t monitors_page = 0;
constexpr size_t reported_page = session_page_size;
constexpr size_t server_file_size = 2 * session_page_size;

/// Where servers' files are, named PID.START: the monitor's pid, and its start time in clock ticks since boot. Only root
/// has access.
constexpr const char* session_file_folder = "/run/ssh_cfg_agent/sessions";

/// A client's page is at the first free one of these descriptors.
constexpr int first_page_descriptor = 100;
constexpr int page_descriptors = 8;

/// What makes a client's page safe to read: nobody can shorten it or write to it through another descriptor.
extern const unsigned client_page_seals;

/// Copies the facts into a page. Only one process may write to a page at a time.
void write_page(session_page& page, const session_facts& facts) noexcept;

}  // namespace openssh

#endif
