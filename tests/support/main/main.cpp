/// Entry of the test programs: each test runs in its own process and scratch root.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "golden.h"
#include "run_separately.h"
#include "scratch_root.h"
#ifdef TEST_WITH_FAKE_PLATFORM
#include "agent_harness.h"
#endif

namespace {

void enter_scratch_root() {
    scratch_root::settings settings;
    if (renewing_golden_files()) {
        settings.writable = {PROJECT_SOURCE_DIR, PROJECT_BINARY_DIR};
    } else {
        settings.readable = {PROJECT_SOURCE_DIR};
        settings.writable = {PROJECT_BINARY_DIR};
    }
    scratch_root::enter(settings);
}

}  // namespace

int main(int argc, char** argv) {
    testing::InitGoogleMock(&argc, argv);
    if (testing::GTEST_FLAG(list_tests)) {
        return RUN_ALL_TESTS();
    }
    if (const std::optional<int> status = run_separately()) {
        return *status;
    }
    enter_scratch_root();
#ifdef TEST_WITH_FAKE_PLATFORM
    agent_harness::set_up();
#endif
    return RUN_ALL_TESTS();
}
