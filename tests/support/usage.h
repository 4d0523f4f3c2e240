/// What this process uses, to find leaks on failure paths.
#ifndef SUPPORT_USAGE_H
#define SUPPORT_USAGE_H

#include <malloc.h>

#include <cstddef>

#include "files.h"

/// Allocated bytes; 0 under the address sanitizer, which finds leaks itself.
inline size_t allocated_bytes() {
    return mallinfo2().uordblks;
}

inline size_t open_descriptors() {
    return directory_names("/proc/self/fd").size();
}

/// Bytes that remain allocated after further runs of `work`. The first runs fill the caches of the allocator, whose content
/// counts as allocated.
template <typename function>
size_t bytes_left_by(const function& work) {
    constexpr int runs = 10;
    for (int i = 0; i < runs; i++) {
        work();
    }
    const size_t before = allocated_bytes();
    for (int i = 0; i < runs; i++) {
        work();
    }
    return allocated_bytes() - before;
}

#endif
