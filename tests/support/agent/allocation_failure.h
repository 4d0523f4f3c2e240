/// Exhausted memory, for code that allocates with new (std::nothrow).
#ifndef SUPPORT_ALLOCATION_FAILURE_H
#define SUPPORT_ALLOCATION_FAILURE_H

namespace allocation_failure {

/// Makes the next such allocation fail.
void fail_next();

}  // namespace allocation_failure

#endif
