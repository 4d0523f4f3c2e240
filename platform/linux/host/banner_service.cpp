#include "platform/banner_service.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <string>

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

/// Expands what stands between the delimiters, which themselves might be part of a token.
std::string expanded(const std::string& delimited) {
    const std::string inner = banner_expand_tokens(std::string_view(delimited).substr(1, delimited.size() - 2));
    return delimited.front() + inner + delimited.back();
}

/// The expanded text of an item for a caller who frees it; null when there is none.
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

/// Reads a regular file, so that nothing can block here. Returns 0 or an errno value.
int read_text(int fd, std::string& text) {
    struct stat status = {};
    if (fstat(fd, &status) != 0) {
        return errno;
    }
    if (!S_ISREG(status.st_mode)) {
        return EINVAL;
    }
    text.resize(platform_file_max + 1);
    size_t size = 0;
    while (size < text.size()) {
        const ssize_t count = read(fd, text.data() + size, text.size() - size);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return errno;
        }
        if (count == 0) {
            break;
        }
        size += static_cast<size_t>(count);
    }
    text.resize(size);
    return size > platform_file_max ? EFBIG : text.find('\0') != std::string::npos ? EILSEQ : 0;
}

int read_file(const char* path, std::string& text) {
    const int fd = open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) {
        return errno;
    }
    const int result = read_text(fd, text);
    close(fd);
    return result;
}

/// The text of one of the platform's own banners without the newline at its end; empty when there is none.
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
