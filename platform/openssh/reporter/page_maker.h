/// Creates the pages of a session.
///
/// Part of the library that is preloaded into sshd and ssh, so nothing here allocates or throws.
#ifndef OPENSSH_REPORTER_PAGE_MAKER_H
#define OPENSSH_REPORTER_PAGE_MAKER_H

#include "openssh/reporter/session_page.h"

namespace openssh {

struct server_pages {
    session_page* monitors = nullptr;  ///< not mapped in children of this process
    session_page* reported = nullptr;  ///< for the child that runs as the user
};

/// Creates a server's pages, writes these facts to the first one, and then creates their file in `folder` atomically:
/// if this process dies, the file is either complete or absent. All memory is allocated in advance, so later writes to
/// a page cannot fail. Returns 0, or an errno value if there are no pages.
int make_server_pages(const char* folder, const session_facts& facts, server_pages& pages) noexcept;

/// Removes a server's file; its pages remain usable.
void remove_server_file(const char* folder, const session_facts& facts) noexcept;

/// Creates a client's page, which children of this process share. Returns 0 or an errno value.
int make_client_page(session_page*& page) noexcept;

}  // namespace openssh

#endif
