#include "linux/enforcement/retry.h"

#include <gmock/gmock.h>

#include <chrono>
#include <thread>

#include "unit/linux/datastore/datastore_fixture.h"
#include "unit/linux/enforcement/enforcement_test_support.h"
#include "unit/linux/platform_test_support.h"

namespace {

using testing::Each;

using steady = std::chrono::steady_clock;

TEST(enforcement_retry_delays, double_from_a_second_to_a_minute) {
    const uint32_t expected[] = {1, 2, 4, 8, 16, 32, 60, 60};
    for (uint32_t attempt = 0; attempt < std::size(expected); attempt++) {
        EXPECT_EQ(enforcement_retry_delay(attempt), expected[attempt]) << attempt;
    }
    EXPECT_EQ(enforcement_retry_delay(UINT32_MAX), 60U);
}

class enforcement_retry_test : public platform_test::loop_test {
  protected:
    void SetUp() override {
        loop_test::SetUp();
        // The users' keys are part of every comparison.
        datastore_configure(nullptr, (folder / "datastore.db").c_str());
        ASSERT_EQ(datastore_open(), PLATFORM_OK);
        script.remaining = 1;
        script.found = {{"server mgmt", "does not run"}};
        script.meanwhile = [this] { times.push_back(steady::now()); };
        ASSERT_EQ(enforcement_test::register_comparison(script), PLATFORM_OK);
    }
    void TearDown() override {
        enforcement_retry_stop();
        enforcement_reset();
        datastore_close();
        loop_test::TearDown();
    }
    bool repaired(size_t count, uint64_t milliseconds) {
        return run_until([&] { return script.runs.size() >= count; }, milliseconds);
    }
    double seconds_after(steady::time_point start, size_t repair) const {
        return std::chrono::duration<double>(times.at(repair) - start).count();
    }

    datastore_test::scratch_folder folder;
    enforcement_test::comparison_script script;
    std::vector<steady::time_point> times;
};

TEST_F(enforcement_retry_test, failures_are_repaired_with_growing_pauses) {
    ASSERT_EQ(enforcement_retry_start(manager), PLATFORM_OK);
    const auto start = steady::now();
    enforcement_failed("server mgmt", "exit status 1");
    ASSERT_TRUE(repaired(2, 4000));
    EXPECT_NEAR(seconds_after(start, 0), 1.0, 0.5);
    EXPECT_NEAR(seconds_after(times[0], 1), 2.0, 0.5);
    EXPECT_THAT(script.runs, Each(1U));
}

TEST_F(enforcement_retry_test, the_pause_begins_at_the_end_of_a_repair) {
    ASSERT_EQ(enforcement_retry_start(manager), PLATFORM_OK);
    script.meanwhile = [this] {
        times.push_back(steady::now());
        std::this_thread::sleep_for(std::chrono::seconds(2));
    };
    enforcement_failed("server mgmt", "exit status 1");
    ASSERT_TRUE(repaired(2, 8000));
    EXPECT_GE(seconds_after(times[0], 1), 3.9);
}

TEST_F(enforcement_retry_test, pending_events_are_handled_before_a_repair) {
    ASSERT_EQ(enforcement_retry_start(manager), PLATFORM_OK);
    enforcement_failed("server mgmt", "exit status 1");
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    // Both are due when the loop runs.
    struct {
        const std::vector<uint32_t>& runs;
        size_t repairs_before = 1;
    } answer{script.runs};
    sd_event_source* source = nullptr;
    const auto answered = [](sd_event_source*, uint64_t, void* userdata) {
        auto& seen = *static_cast<decltype(answer)*>(userdata);
        seen.repairs_before = seen.runs.size();
        return 0;
    };
    ASSERT_GE(sd_event_add_time(event_manager_sd_event(manager), &source, CLOCK_BOOTTIME, 0, 0, answered, &answer), 0);
    EXPECT_TRUE(repaired(1, 2000));
    EXPECT_EQ(answer.repairs_before, 0U);
    sd_event_source_disable_unref(source);
}

TEST_F(enforcement_retry_test, repairs_end_when_everything_is_in_force) {
    ASSERT_EQ(enforcement_retry_start(manager), PLATFORM_OK);
    script.remaining = 0;
    enforcement_failed("server mgmt", "exit status 1");
    ASSERT_TRUE(repaired(1, 2000));
    EXPECT_FALSE(enforcement_any_failed());
    run_for(2500);
    EXPECT_EQ(script.runs.size(), 1U);
}

TEST_F(enforcement_retry_test, a_later_failure_is_repaired_within_a_second_again) {
    ASSERT_EQ(enforcement_retry_start(manager), PLATFORM_OK);
    enforcement_failed("server mgmt", "exit status 1");
    ASSERT_TRUE(repaired(1, 2000));
    enforcement_restored("server mgmt");
    const auto start = steady::now();
    enforcement_failed("server mgmt", "exit status 1");
    ASSERT_TRUE(repaired(2, 4000));
    EXPECT_NEAR(seconds_after(start, 1), 1.0, 0.5);
}

TEST_F(enforcement_retry_test, a_failure_that_returns_within_its_repair_waits_longer) {
    ASSERT_EQ(enforcement_retry_start(manager), PLATFORM_OK);
    script.meanwhile = [this] {
        times.push_back(steady::now());
        enforcement_restored("server mgmt");
        enforcement_failed("server mgmt", "exit status 1");
    };
    enforcement_failed("server mgmt", "exit status 1");
    ASSERT_TRUE(repaired(2, 4000));
    EXPECT_NEAR(seconds_after(times[0], 1), 2.0, 0.5);
}

TEST_F(enforcement_retry_test, nothing_is_repaired_that_was_restored_meanwhile) {
    ASSERT_EQ(enforcement_retry_start(manager), PLATFORM_OK);
    enforcement_failed("server mgmt", "exit status 1");
    enforcement_restored("server mgmt");
    run_for(1500);
    EXPECT_TRUE(script.runs.empty());
}

TEST_F(enforcement_retry_test, failures_during_start_up_are_repaired_from_the_first_wait_on) {
    enforcement_failed("server mgmt", "exit status 1");
    EXPECT_TRUE(repaired(1, 2000));
}

TEST_F(enforcement_retry_test, failures_before_the_registration_are_repaired_after_it) {
    enforcement_reset();
    ASSERT_EQ(enforcement_retry_start(manager), PLATFORM_OK);
    enforcement_failed("server mgmt", "exit status 1");
    run_for(1200);
    ASSERT_EQ(enforcement_test::register_comparison(script), PLATFORM_OK);
    EXPECT_TRUE(repaired(1, 2000));
}

}  // namespace
