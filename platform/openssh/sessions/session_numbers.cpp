#include "openssh/sessions/session_numbers.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "common/files.h"
#include "openssh/reporter/line_pattern.h"

namespace openssh {

namespace {

constexpr std::string_view last_name = "last";
constexpr size_t most_digits = 10;

std::string path_of(const session_numbers& numbers, std::string_view name) {
    return std::string(numbers.folder).append("/").append(name);
}

/// 0 if there is none.
uint32_t read_number(const session_numbers& numbers, std::string_view name) {
    std::string text;
    unsigned long long number = 0;
    const bool is_read = file_read(path_of(numbers, name), most_digits, text, file_links::refused) == PLATFORM_OK &&
                         number_of(text, number) && number <= UINT32_MAX;
    return is_read ? static_cast<uint32_t>(number) : 0;
}

void write_number(const session_numbers& numbers, std::string_view name, uint32_t number) {
    file_replace(path_of(numbers, name), std::to_string(number), {});
}

}  // namespace

void load_session_numbers(session_numbers& numbers) {
    numbers.last = std::max(numbers.last, read_number(numbers, last_name));
}

uint32_t session_number(session_numbers& numbers, const std::string& key) {
    if (const uint32_t known = read_number(numbers, key); known != 0) {
        numbers.last = std::max(numbers.last, known);
        return known;
    }
    ++numbers.last;
    write_number(numbers, last_name, numbers.last);
    write_number(numbers, key, numbers.last);
    return numbers.last;
}

void forget_session_number(const session_numbers& numbers, const std::string& key) {
    unlink(path_of(numbers, key).c_str());
}

void forget_unused_numbers(const session_numbers& numbers, const std::function<bool(std::string_view key)>& in_use) {
    const std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(numbers.folder.c_str()), closedir);
    while (const dirent* entry = entries != nullptr ? readdir(entries.get()) : nullptr) {
        const std::string name = entry->d_name;
        if (name.front() != '.' && name != last_name && !in_use(name)) {
            forget_session_number(numbers, name);
        }
    }
}

}  // namespace openssh
