/// Makes the pages of a session.
///
/// Part of the library that is preloaded into sshd and ssh, so nothing here allocates or throws.
#ifndef OPENSSH_REPORTER_PAGE_MAKER_H
#define OPENSSH_REPORTER_PAGE_MAKER_H

#include "openssh/reporter/session_page.h"

namespace openssh {

struct server_pages {
    session_page* monitors = nullptr;  ///< not mapped in children of this process
    session_page* reported = nullptr;  ///< for the child that becomes the user
};

/// Makes a server's pages, with these facts on the first, and then their file in `folder` in one step: whenever this
/// process ends, the file is whole or missing. All of the memory is allocated beforehand, so that writing to a page
/// cannot fail later. Returns 0 or an errno value; there are then no pages.
int make_server_pages(const char* folder, const session_facts& facts, server_pages& pages) noexcept;

/// Makes a client's page, which children of this process share. Returns 0 or an errno value.
int make_client_page(session_page*& page) noexcept;

}  // namespace openssh

#endif
