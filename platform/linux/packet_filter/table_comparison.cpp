#include "linux/packet_filter/table_comparison.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>

#include "common/file_descriptor.h"
#include "linux/packet_filter/table_dump.h"
#include "linux/process/child_output.h"
#include "linux/vrf/namespace_watch.h"
#include "linux/vrf/vrf_table_internal.h"

namespace {

constexpr char nft_program[] = "/usr/sbin/nft";
constexpr std::chrono::seconds comparison_limit{20};
constexpr std::chrono::seconds nft_limit{10};

/// A table as it should be, if it could be made.
struct wanted_table {
    bool made = false;
    table_dump dump;
};

using wanted_tables = std::map<const table_maker*, wanted_table>;

bool write_all(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count < 0 && errno != EINTR) {
            return false;
        }
        text.remove_prefix(count < 0 ? 0 : static_cast<size_t>(count));
    }
    return true;
}

[[noreturn]] void become_nft(int commands) {
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(commands, STDIN_FILENO);
    dup2(nowhere, STDOUT_FILENO);
    dup2(nowhere, STDERR_FILENO);
    execl(nft_program, "nft", "-f", "-", nullptr);
    _exit(EXIT_FAILURE);
}

int enter_vrf(const std::string& vrf_name) {
    const std::string path = std::string(namespace_directory) + '/' + namespace_name_prefix + vrf_name;
    const file_descriptor target(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return target.get() >= 0 && setns(target.get(), CLONE_NEWNET) == 0 ? 0 : errno;
}

/// Each table is made in a namespace of its own, because the last one's may have the same name.
wanted_table make_wanted(const table_place& place) {
    wanted_table wanted;
    wanted.made =
        unshare(CLONE_NEWNET) == 0 && (*place.maker)() && table_dump_read(place.family, place.table, wanted.dump) == 0;
    return wanted;
}

wanted_tables make_all_wanted(const std::vector<table_place>& places) {
    wanted_tables wanted;
    for (const table_place& place : places) {
        if (place.maker != nullptr && !wanted.contains(place.maker)) {
            wanted[place.maker] = make_wanted(place);
        }
    }
    return wanted;
}

packet_filter_finding compare_table(const table_place& place, const wanted_tables& wanted) {
    table_dump present;
    if (table_dump_read(place.family, place.table, present) != 0) {
        return {PACKET_FILTER_UNKNOWN, 0, 0};
    }
    if (place.maker == nullptr) {
        return {present.lets_pass ? PACKET_FILTER_AS_WANTED : PACKET_FILTER_DIFFERS, present.rules, 0};
    }
    const wanted_table& table = wanted.at(place.maker);
    const packet_filter_verdict verdict = !table.made             ? PACKET_FILTER_UNKNOWN
                                          : table.dump == present ? PACKET_FILTER_AS_WANTED
                                                                  : PACKET_FILTER_DIFFERS;
    return {verdict, present.rules, table.dump.rules};
}

/// The child: writes one finding for each place.
int write_findings(const std::vector<table_place>& places, int fd) {
    const wanted_tables wanted = make_all_wanted(places);
    const std::string* entered = nullptr;
    bool inside = false;
    std::string output;
    for (const table_place& place : places) {
        if (entered == nullptr || *entered != place.vrf_name) {
            entered = &place.vrf_name;
            inside = enter_vrf(place.vrf_name) == 0;
        }
        const packet_filter_finding finding =
            inside ? compare_table(place, wanted) : packet_filter_finding{PACKET_FILTER_UNKNOWN, 0, 0};
        output.append(reinterpret_cast<const char*>(&finding), sizeof finding);
    }
    return write_all(fd, output) ? EXIT_SUCCESS : EXIT_FAILURE;
}

}  // namespace

bool run_nft_here(std::string_view commands) {
    const file_descriptor input(memfd_create("commands", MFD_CLOEXEC));
    if (input.get() < 0 || !write_all(input.get(), commands)) {
        return false;
    }
    lseek(input.get(), 0, SEEK_SET);
    const pid_t child = fork();
    if (child == 0) {
        become_nft(input.get());
    }
    int status = -1;
    while (child > 0 && waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return child > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

platform_status run_nft_in_vrf(const std::string& vrf_name, std::string_view commands) {
    std::string nothing;
    return child_output(
        [&](int) { return enter_vrf(vrf_name) == 0 && run_nft_here(commands) ? EXIT_SUCCESS : EXIT_FAILURE; },
        nft_limit, nothing);
}

platform_status compare_tables(const std::vector<table_place>& places, std::vector<packet_filter_finding>& findings) {
    findings.clear();
    if (places.empty()) {
        return PLATFORM_OK;
    }
    std::string output;
    const platform_status status =
        child_output([&places](int fd) { return write_findings(places, fd); }, comparison_limit, output);
    if (status == PLATFORM_OK && output.size() != places.size() * sizeof(packet_filter_finding)) {
        return EIO;
    }
    if (status == PLATFORM_OK) {
        findings.resize(places.size());
        std::memcpy(findings.data(), output.data(), output.size());
    }
    return status;
}
