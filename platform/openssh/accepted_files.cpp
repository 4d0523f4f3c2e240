#include "openssh/accepted_files.h"

#include <functional>

#include "common/text.h"
#include "openssh/state_files.h"
#include "openssh/text.h"

namespace openssh {

namespace {

constexpr std::string_view title = "accepted by sshd 1\n";
constexpr std::string_view host_key = "HostKey ";

/// Servers of different kinds, such as those with NETCONF, have different texts.
constexpr size_t records_max = 16;

std::string path_of(const std::string& state_directory, const std::string& record) {
    return text_format("%s/~accepted.%zu", state_directory.c_str(), std::hash<std::string>()(record) % records_max);
}

/// Adds what identifies a file. Returns whether it could be examined.
bool add_identity(std::string& record, const std::string& path) {
    std::string identity;
    if (!identify_file(path, identity).empty()) {
        return false;
    }
    record.append(identity).append("\n");
    return true;
}

}  // namespace

std::string accepted_record(const std::string& sshd, std::string_view text) {
    std::string record(title);
    std::string lines;
    bool known = add_identity(record, sshd);
    for (const std::string_view line : split(text, "\n")) {
        if (line.starts_with(host_key)) {
            known = known && add_identity(record, std::string(line.substr(host_key.size())));
        }
        if (!line.starts_with('#')) {
            lines.append(line).append("\n");
        }
    }
    return known ? record + lines : std::string();
}

bool is_accepted(const std::string& state_directory, const std::string& record) {
    std::string kept;
    return !record.empty() && read_file(path_of(state_directory, record), kept).empty() && kept == record;
}

void keep_accepted(const std::string& state_directory, const std::string& record) {
    if (!record.empty()) {
        replace_file(path_of(state_directory, record), record);
    }
}

}  // namespace openssh
