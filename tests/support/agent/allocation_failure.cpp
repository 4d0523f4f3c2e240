#include "allocation_failure.h"

#include <cstddef>
#include <new>

namespace allocation_failure {
namespace {

bool failing = false;

}  // namespace

void fail_next() {
    failing = true;
}

}  // namespace allocation_failure

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    if (allocation_failure::failing) {
        allocation_failure::failing = false;
        return nullptr;
    }
    try {
        return ::operator new(size);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}
