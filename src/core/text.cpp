#include "core/text.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

size_t format_text(char* buffer, size_t size, const char* format, ...) {
    const int saved_errno = errno;
    va_list arguments;
    va_start(arguments, format);
    const int wanted = std::vsnprintf(buffer, size, format, arguments);
    va_end(arguments);
    errno = saved_errno;
    if (wanted < 0) {
        buffer[0] = '\0';
        return 0;
    }
    const auto length = static_cast<size_t>(wanted);
    return length < size ? length : size - 1;
}

size_t copy_text(char* buffer, size_t size, const char* text) {
    const size_t length = text != nullptr ? strnlen(text, size - 1) : 0;
    if (length > 0) {
        std::memmove(buffer, text, length);
    }
    buffer[length] = '\0';
    return length;
}

bool begins_with(const char* text, const char* prefix) {
    return std::strncmp(text, prefix, std::strlen(prefix)) == 0;
}
