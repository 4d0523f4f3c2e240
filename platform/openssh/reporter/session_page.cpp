#include "openssh/reporter/session_page.h"

#include <fcntl.h>

#include <cstring>

namespace openssh {

const unsigned client_page_seals = F_SEAL_SEAL | F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_FUTURE_WRITE;

void write_page(session_page& page, const session_facts& facts) noexcept {
    // Already odd if a previous writer died in the middle of a change.
    const uint32_t changing = __atomic_load_n(&page.sequence, __ATOMIC_RELAXED) | 1U;
    __atomic_store_n(&page.sequence, changing, __ATOMIC_RELAXED);
    __atomic_thread_fence(__ATOMIC_SEQ_CST);
    page.magic = session_page_magic;
    page.version = session_page_version;
    page.facts_size = sizeof(facts);
    std::memcpy(&page.facts, &facts, sizeof(facts));
    __atomic_store_n(&page.sequence, changing + 1, __ATOMIC_RELEASE);
}

}  // namespace openssh
