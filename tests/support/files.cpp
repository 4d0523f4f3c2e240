#include "files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace fs = std::filesystem;

std::optional<std::string> file_content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return std::nullopt;
    }
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

std::string read_file(const std::string& path) {
    const std::optional<std::string> content = file_content(path);
    EXPECT_TRUE(content.has_value()) << "cannot read " << path;
    return content.value_or("");
}

std::vector<std::string> file_lines(const std::string& path) {
    std::istringstream content(read_file(path));
    std::vector<std::string> lines;
    for (std::string line; std::getline(content, line);) {
        lines.push_back(line);
    }
    return lines;
}

void write_file(const std::string& path, std::string_view content) {
    std::error_code error;
    fs::create_directories(fs::path(path).parent_path(), error);
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    EXPECT_TRUE(file.good()) << "cannot write " << path;
}

bool path_exists(const std::string& path) {
    std::error_code error;
    return fs::exists(fs::symlink_status(path, error));
}

void remove_path(const std::string& path) {
    std::error_code error;
    fs::remove_all(path, error);
    EXPECT_FALSE(path_exists(path)) << "cannot remove " << path;
}

std::vector<std::string> directory_names(const std::string& path) {
    std::vector<std::string> names;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(path, error)) {
        names.push_back(entry.path().filename());
    }
    std::sort(names.begin(), names.end());
    return names;
}
