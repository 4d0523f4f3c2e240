#include "openssh/local_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

#include "common/file_descriptor.h"
#include "common/files.h"
#include "common/number.h"
#include "common/text.h"
#include "openssh/state_files.h"
#include "openssh/text.h"

namespace openssh {

namespace {

constexpr std::string_view accepted_title = "local directives 1\n";

bool is_trusted(const struct stat& status) {
    return (status.st_uid == 0 || status.st_uid == geteuid()) && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

constexpr const char* not_trusted = "it is not root's, or is writable by others";

/// Opens one of the files. Stores in `problem` why it cannot be used; leaves it empty if there is no such file.
int open_local_file(int folder, const std::string& name, std::string& problem) {
    struct stat status = {};
    const file_descriptor file(openat(folder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    if (file.get() < 0) {
        problem = errno == ENOENT ? "" : std::strerror(errno);
    } else if (fstat(file.get(), &status) != 0) {
        problem = std::strerror(errno);
    } else if (!S_ISREG(status.st_mode)) {
        problem = S_ISLNK(status.st_mode) ? "it is a symbolic link" : "it is not a regular file";
    } else if (!is_trusted(status)) {
        problem = not_trusted;
    } else {
        return open(("/proc/self/fd/" + std::to_string(file.get())).c_str(), O_RDONLY | O_CLOEXEC);
    }
    return -1;
}

/// Opens the folder. Stores in `problem` why it cannot be used; leaves it empty if there is none.
int open_local_folder(const std::string& directory, std::string& problem) {
    struct stat status = {};
    file_descriptor folder(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (folder.get() < 0) {
        problem = errno == ENOENT                      ? ""
                  : errno == ENOTDIR || errno == ELOOP ? "it is not a folder"
                                                       : std::strerror(errno);
    } else if (fstat(folder.get(), &status) != 0) {
        problem = std::strerror(errno);
    } else if (!is_trusted(status)) {
        problem = not_trusted;
    } else {
        return folder.release();
    }
    return -1;
}

void add_problem(local_source& source, const std::string& path, const std::string& reason) {
    source.problems.push_back(shown(path) + " refused: " + reason);
}

void read_one(int folder, const std::string& directory, std::string_view vrf_name, local_source& source) {
    const std::string path = local_file_path(directory, vrf_name);
    std::string problem;
    const file_descriptor file(open_local_file(folder, path.substr(path.rfind('/') + 1), problem));
    local_file read = {path, {}};
    if (problem.empty() && file.get() >= 0) {
        const platform_status status = file_read_regular(file.get(), largest_local_file, read.text);
        problem = status == EFBIG         ? text_format("it is larger than %zu bytes", largest_local_file)
                  : status != PLATFORM_OK ? std::strerror(static_cast<int>(status))
                                          : "";
    }
    if (!problem.empty()) {
        add_problem(source, path, problem);
    } else if (file.get() >= 0) {
        source.files.push_back(std::move(read));
    }
}

/// Consumes a line at the start of the text; empty at its end.
std::string_view take_text_line(std::string_view& text) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(text.size(), line.size() + 1));
    return line;
}

}  // namespace

std::string_view vrf_of_server_file(std::string_view server_file) {
    constexpr std::string_view prefix = "sshd_config_";
    server_file.remove_prefix(server_file.rfind('/') + 1);
    return server_file.starts_with(prefix) ? server_file.substr(prefix.size()) : std::string_view();
}

std::string local_file_path(const std::string& directory, std::string_view vrf_name) {
    return directory + "/" + std::string(vrf_name.empty() ? "all" : vrf_name) + ".conf";
}

local_source read_local_files(const std::string& directory, std::string_view vrf_name) {
    local_source source;
    std::string problem;
    const file_descriptor folder(open_local_folder(directory, problem));
    if (!problem.empty()) {
        add_problem(source, directory, problem);
    }
    if (folder.get() < 0) {
        return source;
    }
    // The file of a VRF called "all" is that of all VRFs.
    if (!vrf_name.empty() && vrf_name != "all") {
        read_one(folder.get(), directory, vrf_name, source);
    }
    read_one(folder.get(), directory, {}, source);
    return source;
}

std::string keep_accepted_files(const std::string& path, const std::vector<local_file>& files) {
    if (files == read_accepted_files(path)) {
        return {};
    }
    if (files.empty()) {
        return unlink(path.c_str()) == 0 || errno == ENOENT ? std::string()
                                                            : "cannot remove " + path + ": " + std::strerror(errno);
    }
    std::string text(accepted_title);
    for (const local_file& file : files) {
        text += text_format("%s\n%zu\n", file.path.c_str(), file.text.size()) + file.text;
    }
    const std::string error = ensure_directory(file_folder(path), 0700);
    return error.empty() ? replace_file(path, text) : error;
}

std::vector<local_file> read_accepted_files(const std::string& path) {
    std::string whole;
    std::vector<local_file> files;
    if (!read_file(path, whole).empty() || !whole.starts_with(accepted_title)) {
        return files;
    }
    std::string_view rest = std::string_view(whole).substr(accepted_title.size());
    while (!rest.empty()) {
        const std::string_view name = take_text_line(rest);
        const auto size = number_parse<size_t>(take_text_line(rest), 0, largest_local_file);
        if (name.empty() || !size || *size > rest.size()) {
            return {};
        }
        files.push_back({std::string(name), std::string(rest.substr(0, *size))});
        rest.remove_prefix(*size);
    }
    return files;
}

}  // namespace openssh
