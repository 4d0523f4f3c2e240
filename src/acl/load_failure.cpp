#include "acl/load_failure.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace {

constexpr int reason_size = 512;
char reason[reason_size];

}  // namespace

void clear_load_failure() {
    reason[0] = '\0';
}

void note_load_failure(const char* format, ...) {
    if (reason[0] != '\0') {
        return;
    }
    const int error = errno;
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(reason, sizeof reason, format, arguments);
    va_end(arguments);
    errno = error;
}

const char* load_failure() {
    return reason[0] != '\0' ? reason : "the rules were not loaded";
}
