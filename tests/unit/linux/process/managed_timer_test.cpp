#include "platform/managed_timer.h"

#include <chrono>
#include <vector>

#include "unit/linux/platform_test_support.h"

namespace {

const platform_status invalid = EINVAL;

struct expiries {
    std::vector<managed_timer_leaf*> leaves;
    bool start_again = false;
    bool free_it = false;
    int32_t detach = -1;
};

void note_expiry(managed_timer_leaf* leaf, void* context) {
    auto* noted = static_cast<expiries*>(context);
    noted->leaves.push_back(leaf);
    if (noted->start_again && noted->leaves.size() == 1) {
        EXPECT_EQ(0u, managed_timer_leaf_start(leaf, 0));
    }
    if (noted->free_it) {
        managed_timer_leaf_free(leaf);
    }
    if (noted->detach >= 0) {
        EXPECT_EQ(0u, managed_timer_detach(noted->detach));
    }
}

class managed_timer_test : public platform_test::loop_test {
  protected:
    void SetUp() override {
        loop_test::SetUp();
        ASSERT_EQ(0u, managed_timer_attach(manager, note_expiry, &noted, &handle));
        ASSERT_LE(0, handle);
        ASSERT_EQ(0u, managed_timer_leaf_create(handle, &leaf));
    }
    void TearDown() override {
        managed_timer_leaf_free(leaf);
        managed_timer_detach(handle);
        loop_test::TearDown();
    }
    bool expired(size_t times = 1) {
        return run_until([&] { return noted.leaves.size() >= times; }, 10'000);
    }

    expiries noted;
    int32_t handle = -1;
    managed_timer_leaf* leaf = nullptr;
};

TEST_F(managed_timer_test, a_timer_expires_once_after_its_time) {
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_EQ(0u, managed_timer_leaf_start(leaf, 1));
    ASSERT_TRUE(expired());
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_GE(took, std::chrono::milliseconds(1000));
    EXPECT_LT(took, std::chrono::milliseconds(1900));
    run_for(100);
    EXPECT_EQ(std::vector<managed_timer_leaf*>{leaf}, noted.leaves);
}

TEST_F(managed_timer_test, a_stopped_timer_does_not_expire) {
    ASSERT_EQ(0u, managed_timer_leaf_start(leaf, 0));
    managed_timer_leaf_stop(leaf);
    managed_timer_leaf_stop(leaf);
    run_for(50);
    EXPECT_TRUE(noted.leaves.empty());
    ASSERT_EQ(0u, managed_timer_leaf_start(leaf, 0));
    EXPECT_TRUE(expired());
}

TEST_F(managed_timer_test, a_timer_that_was_never_started_can_be_stopped) {
    managed_timer_leaf_stop(leaf);
    managed_timer_leaf_stop(nullptr);
    managed_timer_leaf_free(nullptr);
}

TEST_F(managed_timer_test, a_running_timer_can_be_restarted) {
    ASSERT_EQ(0u, managed_timer_leaf_start(leaf, 0));
    ASSERT_EQ(0u, managed_timer_leaf_start(leaf, 3600));
    run_for(50);
    EXPECT_TRUE(noted.leaves.empty());
}

TEST_F(managed_timer_test, the_handler_may_restart_its_timer) {
    noted.start_again = true;
    ASSERT_EQ(0u, managed_timer_leaf_start(leaf, 0));
    EXPECT_TRUE(expired(2));
    run_for(50);
    EXPECT_EQ(2u, noted.leaves.size());
}

TEST_F(managed_timer_test, the_handler_may_free_its_timer) {
    noted.free_it = true;
    ASSERT_EQ(0u, managed_timer_leaf_start(leaf, 0));
    EXPECT_TRUE(expired());
    leaf = nullptr;
}

TEST_F(managed_timer_test, the_handler_may_detach_itself) {
    noted.detach = handle;
    ASSERT_EQ(0u, managed_timer_leaf_start(leaf, 0));
    EXPECT_TRUE(expired());
}

TEST_F(managed_timer_test, timers_of_a_detached_handler_do_not_expire) {
    ASSERT_EQ(0u, managed_timer_leaf_start(leaf, 0));
    ASSERT_EQ(0u, managed_timer_detach(handle));
    int32_t other = -1;
    ASSERT_EQ(0u, managed_timer_attach(manager, note_expiry, &noted, &other));
    EXPECT_NE(handle, other) << "an old timer must not call another handler";
    run_for(50);
    EXPECT_TRUE(noted.leaves.empty());
    EXPECT_EQ(invalid, managed_timer_leaf_start(leaf, 1));
    managed_timer_detach(other);
}

TEST_F(managed_timer_test, unknown_handles_are_refused) {
    managed_timer_leaf* none = nullptr;
    EXPECT_EQ(invalid, managed_timer_detach(-1));
    EXPECT_EQ(invalid, managed_timer_detach(handle + 1));
    EXPECT_EQ(invalid, managed_timer_leaf_create(-1, &none));
    EXPECT_EQ(invalid, managed_timer_leaf_create(handle, nullptr));
    EXPECT_EQ(invalid, managed_timer_leaf_start(nullptr, 1));
    EXPECT_EQ(nullptr, none);
    EXPECT_EQ(invalid, managed_timer_attach(nullptr, note_expiry, nullptr, &handle));
    EXPECT_EQ(invalid, managed_timer_attach(manager, nullptr, nullptr, &handle));
    EXPECT_EQ(invalid, managed_timer_attach(manager, note_expiry, nullptr, nullptr));
}

TEST_F(managed_timer_test, the_longest_time_is_accepted) {
    EXPECT_EQ(0u, managed_timer_leaf_start(leaf, UINT32_MAX));
    run_for(20);
    EXPECT_TRUE(noted.leaves.empty());
}

}  // namespace
