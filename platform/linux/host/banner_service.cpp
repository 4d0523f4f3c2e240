#include "platform/banner_service.h"

#include <syslog.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <string>

#include "common/files.h"
#include "linux/datastore/datastore_internal.h"
#include "linux/host/banner_service_internal.h"
#include "linux/host/banner_tokens.h"
#include "linux/reporting/log_message_internal.h"

namespace {

constexpr char aaa_item[] = "/cfg/gl/aaa/banner/0x0";
constexpr size_t platform_file_max = 8192;

struct kind_row {
    uint32_t kind;
    const char* item;
    const char* platform_file;
};

constexpr kind_row kinds[] = {
    {BANNER_MESSAGE_OF_THE_DAY, "/cfg/gl/banner/0x2", banner_platform_motd_file},
    {BANNER_LOGIN, "/cfg/gl/banner/0x3", banner_platform_login_file},
};

const kind_row* row_of(uint32_t kind) {
    for (const kind_row& row : kinds) {
        if (row.kind == kind) {
            return &row;
        }
    }
    return nullptr;
}

/// Expands the text between the delimiters, which could themselves be part of a token.
std::string expanded(const std::string& delimited) {
    const std::string inner = banner_expand_tokens(std::string_view(delimited).substr(1, delimited.size() - 2));
    return delimited.front() + inner + delimited.back();
}

/// The expanded text of an item for a caller who frees it; null if there is none.
char* expanded_item(const char* item) {
    try {
        datastore_value value;
        if (datastore_get_value(item, value) != PLATFORM_OK) {
            return nullptr;
        }
        const std::string* text = std::get_if<std::string>(&value);
        return text == nullptr || text->size() < 2 ? nullptr : strdup(expanded(*text).c_str());
    } catch (const std::exception&) {
        return nullptr;
    }
}

int read_file(const char* path, std::string& text) {
    const platform_status status = file_read(path, platform_file_max, text);
    return status == PLATFORM_OK && text.find('\0') != std::string::npos ? EILSEQ : static_cast<int>(status);
}

/// The text of one of the platform's own banners without its final newline; empty if there is none.
std::string platform_text(const kind_row& row) {
    std::string text;
    const int error = read_file(row.platform_file, text);
    if (error == ENOENT) {
        return {};
    }
    if (error != 0) {
        platform_log(LOG_ERR, "Error:=%s(0x%x), Path:=%s, Failed to read the platform's banner", strerror(error), error,
                     row.platform_file);
        return {};
    }
    if (text.ends_with('\n')) {
        text.pop_back();
    }
    return text;
}

}  // namespace

char* banner_service_configured(uint32_t kind) {
    const kind_row* row = row_of(kind);
    return row == nullptr ? nullptr : expanded_item(row->item);
}

char* banner_service_platform(uint32_t kind) try {
    const kind_row* row = row_of(kind);
    const std::string text = row == nullptr ? std::string() : platform_text(*row);
    return text.empty() ? nullptr : strdup(text.c_str());
} catch (const std::exception&) {
    return nullptr;
}

char* banner_service_aaa(void) {
    return expanded_item(aaa_item);
}
