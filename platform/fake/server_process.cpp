#include "platform/server_process.h"

#include <cstdio>
#include <map>
#include <utility>

#include "fake_internal.h"

namespace fake_platform {
namespace {

std::map<std::string, server_process> processes;

}  // namespace

void set_server_process(std::string vrf_name, server_process process) {
    processes[std::move(vrf_name)] = std::move(process);
}

namespace internal {

void reset_server_processes() {
    processes.clear();
}

}  // namespace internal
}  // namespace fake_platform

using namespace fake_platform;

void server_process_examine(const char* vrf_name, int32_t, struct server_process_report* report) {
    *report = {};
    const auto found = processes.find(vrf_name);
    if (found != processes.end()) {
        snprintf(report->difference, sizeof report->difference, "%s", found->second.difference.c_str());
        snprintf(report->file, sizeof report->file, "%s", found->second.file.c_str());
    }
}
