#include "reconcile/configuration_files.h"

#include <algorithm>
#include <climits>
#include <string>
#include <vector>

#include "config_files/config_writer.h"
#include "config_files/file_comparison.h"
#include "config_files/file_recreation.h"
#include "config_files/files.h"
#include "config_files/parameter_table.h"
#include "config_files/vrf_node.h"
#include "core/log.h"
#include "core/paths.h"

namespace {

std::string joined(const std::vector<std::string>& names) {
    std::string text;
    for (const std::string& name : names) {
        text += (text.empty() ? "" : ", ") + name;
    }
    return text;
}

std::string file_subject(const char* path) {
    return std::string("file ") + path;
}

std::string differs_in(const std::vector<std::string>& keywords) {
    return "differs in " + joined(keywords);
}

/// A file whose lines are determined by one of the tables.
struct table_file {
    const char* path;
    std::vector<keyword_value> (*wanted)();
    std::vector<std::string> (*differing)(const std::vector<keyword_value>& wanted,
                                          const std::vector<keyword_value>& present);
    int (*write_line)(const std::string& keyword);
    int (*make_again)();
};

int make_client_file() {
    return create_file_in_dir(paths::configuration_directory, paths::client_file);
}

constexpr table_file default_file = {paths::server_file, wanted_server_settings, differing_server_keywords,
                                     write_server_line_again, default_config_file_recreate};
constexpr table_file client_file = {paths::client_file, wanted_client_settings, differing_client_keywords,
                                    write_client_line_again, make_client_file};

/// Only VRFs' files have ports and a NETCONF subsystem. In the client's file a port would redirect every connection.
void add_foreign_lines(const vrf_lines& lines, std::vector<std::string>& keywords) {
    for (const std::string& line : lines) {
        const std::string keyword = line.substr(0, line.find_first_of(" \t="));
        const std::string named = keyword == "Subsystem" ? "Subsystem netconf" : keyword;
        if (std::ranges::find(keywords, named) == keywords.end()) {
            keywords.push_back(named);
        }
    }
}

/// The keywords in which the file differs. Returns 0, or -1 with errno if it cannot be read.
int find_differences(const table_file& file, std::vector<std::string>* keywords) {
    file_values present;
    if (read_file_values(file.path, &present) != 0) {
        return -1;
    }
    *keywords = file.differing(file.wanted(), present.settings);
    add_foreign_lines(present.own_lines, *keywords);
    return 0;
}

/// Rewrites the differing lines and compares again. Returns 0, or -1 with the reason.
int write_lines_again(const table_file& file, std::vector<std::string> keywords, std::string* reason) {
    for (const std::string& keyword : keywords) {
        if (file.write_line(keyword) != 0) {
            *reason = error_text();
            return -1;
        }
    }
    if (find_differences(file, &keywords) != 0) {
        *reason = error_text();
        return -1;
    }
    if (!keywords.empty()) {
        *reason = differs_in(keywords);
        return -1;
    }
    return 0;
}

/// For lines that the line editor does not find because of their blanks. Returns as above.
int write_file_again(const table_file& file, std::string* reason) {
    std::vector<std::string> keywords;
    if (file.make_again() != 0 || find_differences(file, &keywords) != 0) {
        return -1;
    }
    return write_lines_again(file, keywords, reason);
}

bool compare_table_file(comparison& run, const table_file& file) {
    std::vector<std::string> keywords;
    const std::string subject = file_subject(file.path);
    if (find_differences(file, &keywords) != 0) {
        if (!found(run, subject, error_text())) {
            return false;
        }
        if (file.make_again() != 0 || find_differences(file, &keywords) != 0) {
            not_removed(run, subject, error_text());
            return false;
        }
    } else if (keywords.empty()) {
        return true;
    } else if (!found(run, subject, differs_in(keywords))) {
        return false;
    }
    std::string reason;
    if (write_lines_again(file, keywords, &reason) != 0 && write_file_again(file, &reason) != 0) {
        not_removed(run, subject, reason);
        return false;
    }
    return true;
}

/// The lines that only this VRF's file has, in the form used for comparison.
vrf_lines wanted_own_lines(const vrf_node& node) {
    vrf_file_line lines[vrf_file_line_max];
    const size_t count = vrf_file_lines(node, lines);
    vrf_lines wanted;
    for (size_t i = 0; i < count; i++) {
        wanted.push_back(std::string(lines[i].keyword) + " " + lines[i].value);
    }
    std::ranges::sort(wanted);
    return wanted;
}

/// Describes the differences of a VRF's file; empty if there are none.
std::string vrf_file_difference(const vrf_node& node, const char* path, const std::vector<keyword_value>& wanted) {
    file_values present;
    if (read_file_values(path, &present) != 0) {
        return error_text();
    }
    std::vector<std::string> keywords = differing_server_keywords(wanted, present.settings);
    if (present.own_lines != wanted_own_lines(node)) {
        keywords.emplace_back("the VRF's own lines");
    }
    return keywords.empty() ? "" : differs_in(keywords);
}

void compare_vrf_file(comparison& run, const vrf_node& node, const std::vector<keyword_value>& wanted) {
    char path[PATH_MAX];
    vrf_config_file_path(node.name, path, sizeof path);
    const std::string difference = vrf_file_difference(node, path, wanted);
    const std::string subject = file_subject(path);
    if (difference.empty() || !found(run, subject, difference)) {
        return;
    }
    if (vrf_config_file_recreate(node.name) != 0) {
        not_removed(run, subject, error_text());
        return;
    }
    const std::string message = "The server file of VRF " + std::string(node.name) + " was replaced: it " + difference;
    log_text(WARNING_GENERAL, message.c_str());
}

}  // namespace

bool compare_default_file(comparison& run) {
    return compare_table_file(run, default_file);
}

void compare_client_file(comparison& run) {
    compare_table_file(run, client_file);
}

std::string server_file_difference(const vrf_node& node, const char* path) {
    return vrf_file_difference(node, path, wanted_server_settings());
}

void compare_vrf_files(comparison& run) {
    const std::vector<keyword_value> wanted = wanted_server_settings();
    for (const vrf_node* node = server_config.nodes; node != nullptr; node = node->next) {
        if (node->reference_count > 0) {
            compare_vrf_file(run, *node, wanted);
        }
    }
}
