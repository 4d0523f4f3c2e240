/// The pages of a session. Whatever they contain, either the facts fit their fields or none are read, the session's
/// reports leave the monitor's facts unchanged, and the answer's texts are terminated.
///
/// Input: a byte that selects which of the two pages begin with a valid header, the monitor's page, which may be
/// truncated, and the page that the session reports.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "openssh/sessions/page_reader.h"
#include "openssh/sessions/snapshot.h"
#include "require.h"

namespace {

using namespace openssh;

template <size_t size>
void require_plain(const char (&field)[size]) {
    const char* end = static_cast<const char*>(memchr(field, '\0', size));
    require(end != nullptr && std::all_of(field, end, [](char c) { return c >= ' ' && c <= '~'; }));
}

void check_facts(const session_facts& facts) {
    require_plain(facts.user);
    require_plain(facts.host);
    require_plain(facts.method);
    require_plain(facts.algorithms.kex);
    require_plain(facts.algorithms.host_key);
    require_plain(facts.algorithms.in_cipher);
    require_plain(facts.algorithms.out_cipher);
    require_plain(facts.algorithms.in_mac);
    require_plain(facts.algorithms.out_mac);
    require(facts.state <= session_established);
    const session_snapshot answer = make_snapshot(facts, facts.rekey.keyed_at / 2, facts.rekey.at_keying);
    require_plain(answer.user_id);
    require_plain(answer.time_to_rekey);
    require(answer.open_channels <= SESSION_CHANNELS);
    // A client's answer omits the last byte.
    require(reinterpret_cast<const unsigned char*>(&answer)[sizeof(answer) - 1] == 0);
}

void make_valid(std::string& bytes) {
    session_page page;
    page.magic = session_page_magic;
    page.version = session_page_version;
    page.facts_size = sizeof(session_facts);
    bytes.resize(session_page_size);
    std::memcpy(bytes.data(), &page, offsetof(session_page, facts));
}

bool read_from(const std::string& bytes, session_facts& facts) {
    const int file = memfd_create("page", MFD_CLOEXEC);
    require(write(file, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()));
    const bool is_read = read_page(file, 0, facts);
    close(file);
    return is_read;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const unsigned switches = data[0];
    const std::string_view rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    std::string monitors(rest.substr(0, session_page_size));
    std::string reports(rest.substr(monitors.size()));
    if ((switches & 1U) != 0) {
        make_valid(monitors);
    }
    if ((switches & 2U) != 0) {
        make_valid(reports);
    }
    session_facts facts;
    session_facts reported;
    const bool has_facts = read_from(monitors, facts);
    require(has_facts || facts.pid == 0);
    const session_facts before = facts;
    if (read_from(reports, reported)) {
        check_facts(reported);
        add_reported(facts, reported);
    }
    check_facts(facts);
    require(std::strcmp(facts.user, before.user) == 0 && std::strcmp(facts.host, before.host) == 0 &&
            std::strcmp(facts.method, before.method) == 0 && facts.state == before.state && facts.pid == before.pid);
    return 0;
}
