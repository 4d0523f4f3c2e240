#include "config_files/name_list.h"

#include <algorithm>
#include <cstring>

#include "core/text.h"

bool append_name(char* list, size_t size, const char* name) {
    const size_t used = std::strlen(list);
    const char* const separator = used > 0 ? "," : "";
    format_text(list + used, size - used, "%s%s", separator, name);
    return used + std::strlen(separator) + std::strlen(name) < size;
}

bool next_name(const char** rest, const char* separators, char* name, size_t size) {
    const char* const begin = *rest + std::strspn(*rest, separators);
    const size_t length = std::strcspn(begin, separators);
    const size_t kept = std::min(length, size - 1);
    std::memcpy(name, begin, kept);
    name[kept] = '\0';
    *rest = begin + length;
    return length > 0;
}
