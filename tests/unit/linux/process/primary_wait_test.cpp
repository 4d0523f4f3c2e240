#include "linux/process/primary_wait.h"

#include <thread>

#include "linux/process/paths.h"
#include "unit/linux/platform_test_support.h"

using platform_test::write_file;

namespace {

int starts;
int stops;

/// Makes this node the primary.
int write_primary(sd_event_source*, uint64_t, void*) {
    write_file(platform_config_file, "role = primary\n");
    return 0;
}

/// Ends the wait from its own loop, which shows that the loop is running.
platform_status start_service(sd_event* loop) {
    starts++;
    EXPECT_LE(0, sd_event_add_time_relative(loop, nullptr, CLOCK_MONOTONIC, 1000, 0, write_primary, nullptr));
    return PLATFORM_OK;
}

void stop_service() {
    stops++;
}

class primary_wait_test : public testing::Test {
  protected:
    void SetUp() override { primary_wait_serve({start_service, stop_service}); }
    void TearDown() override {
        primary_wait_serve({nullptr, nullptr});
        std::filesystem::remove(platform_config_file);
    }
};

TEST_F(primary_wait_test, a_service_runs_while_the_node_is_standby) {
    write_file(platform_config_file, "role = standby\n");
    EXPECT_EQ(0, primary_wait());
    EXPECT_EQ(starts, 1);
    EXPECT_EQ(stops, 1);
}

TEST_F(primary_wait_test, a_primary_node_starts_no_service) {
    write_file(platform_config_file, "role = primary\n");
    EXPECT_EQ(0, primary_wait());
    EXPECT_EQ(starts, 0);
    EXPECT_EQ(stops, 0);
}

}  // namespace
