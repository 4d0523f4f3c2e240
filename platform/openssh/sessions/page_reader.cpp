#include "openssh/sessions/page_reader.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "common/number.h"

namespace openssh {

namespace {

constexpr int most_attempts = 5;

bool read_bytes(int file, size_t offset, void* place, size_t size) {
    return pread(file, place, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size);
}

bool read_sequence(int file, size_t offset, uint32_t& sequence) {
    return read_bytes(file, offset + offsetof(session_page, sequence), &sequence, sizeof(sequence));
}

/// Copies the page. Tries again if it was changed during the copy.
bool read_whole(int file, size_t offset, session_page& page) {
    for (int attempt = 0; attempt < most_attempts; ++attempt) {
        uint32_t before = 0;
        uint32_t after = 0;
        if (!read_sequence(file, offset, before) || !read_bytes(file, offset, &page, sizeof(page)) ||
            !read_sequence(file, offset, after)) {
            return false;
        }
        if (before == after && before % 2 == 0) {
            return true;
        }
        sched_yield();
    }
    return false;
}

/// Clears a text that contains unprintable characters.
template <size_t size>
void clean(char (&field)[size]) {
    char* end = std::find(std::begin(field), std::end(field) - 1, '\0');
    const bool is_plain = std::all_of(field, end, [](char c) { return c >= ' ' && c <= '~'; });
    std::fill(is_plain ? end : field, std::end(field), '\0');
}

void clean(algorithm_facts& algorithms) {
    clean(algorithms.kex);
    clean(algorithms.host_key);
    clean(algorithms.in_cipher);
    clean(algorithms.out_cipher);
    clean(algorithms.in_mac);
    clean(algorithms.out_mac);
}

void clean(channel_facts& channel) {
    if (channel.state > channel_running || channel.type > connection_forwarding) {
        channel = {};
    }
}

void clean(session_facts& facts) {
    clean(facts.user);
    clean(facts.host);
    clean(facts.method);
    clean(facts.attempt);
    clean(facts.algorithms);
    facts.state = std::min<uint32_t>(facts.state, session_established);
    for (channel_facts& channel : facts.channels) {
        clean(channel);
    }
    clean(facts.login.vrf);
    clean(facts.login.key_type);
    clean(facts.login.key_fingerprint);
    facts.login.port = std::min<uint32_t>(facts.login.port, UINT16_MAX);
}

/// The layouts that have been in use.
bool is_current(const session_page& page) {
    return page.version == session_page_version && page.facts_size == sizeof(page.facts);
}
bool is_of_first_version(const session_page& page) {
    return page.version == 1 && page.facts_size == first_session_facts_size;
}

}  // namespace

bool read_page(int file, size_t offset, session_facts& facts) {
    session_page page;
    if (!read_whole(file, offset, page) || page.magic != session_page_magic ||
        !(is_current(page) || is_of_first_version(page))) {
        return false;
    }
    facts = page.facts;
    if (!is_current(page)) {
        facts.login = {};
    }
    clean(facts);
    return true;
}

bool is_server_file(int file) {
    constexpr mode_t of_others = S_IRWXG | S_IRWXO;
    struct stat status = {};
    return fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid() &&
           (status.st_mode & of_others) == 0 && status.st_nlink == 1 &&
           status.st_size == static_cast<off_t>(server_file_size);
}

bool is_client_file(int file) {
    const int seals = fcntl(file, F_GET_SEALS);
    struct stat status = {};
    return seals >= 0 && (static_cast<unsigned>(seals) & client_page_seals) == client_page_seals &&
           fstat(file, &status) == 0 && status.st_size == static_cast<off_t>(session_page_size);
}

void add_reported(session_facts& facts, const session_facts& reported) {
    if (reported.rekey.count != 0) {
        facts.algorithms = reported.algorithms;
    }
    facts.session_pid = reported.session_pid;
    facts.rekey = reported.rekey;
    std::copy(std::begin(reported.channels), std::end(reported.channels), std::begin(facts.channels));
}

bool parse_session_name(std::string_view name, session_process& process) {
    const size_t dot = name.find('.');
    if (dot == std::string_view::npos) {
        return false;
    }
    const auto pid = number_parse<pid_t>(name.substr(0, dot));
    const auto start_time = number_parse<uint64_t>(name.substr(dot + 1));
    if (!pid || *pid <= 0 || !start_time) {
        return false;
    }
    process = {.pid = *pid, .start_time = *start_time};
    return session_name(process) == name;
}

std::string session_name(const session_process& process) {
    return std::to_string(process.pid) + "." + std::to_string(process.start_time);
}

}  // namespace openssh
