#include "linux/datastore/confirmation.h"

#include "unit/linux/datastore/datastore_fixture.h"

namespace datastore_test {
namespace {

using testing::MatchesRegex;

constexpr int64_t noon = 1'800'000'000;

TEST(datastore_confirmation_left, is_measured_by_the_time_since_the_machine_started) {
    const datastore_confirmation awaited = {5, 300, {"boot", 1000, noon}};
    const struct {
        datastore_moment now;
        uint64_t left;
        const char* what;
    } rows[] = {
        {{"boot", 1000, noon}, 300, "at the commit"},
        {{"boot", 1299, noon + 299}, 1, "shortly before the end"},
        {{"boot", 1300, noon + 300}, 0, "at the end"},
        {{"boot", 9000, noon + 8000}, 0, "long after"},
        {{"boot", 1100, noon + 1'000'000}, 200, "the clock was set forward"},
        {{"boot", 1100, noon - 1'000'000}, 200, "the clock was set back"},
        {{"other", 20, noon + 100}, 200, "the machine was restarted"},
        {{"other", 20, noon + 400}, 0, "the machine was off for long"},
        {{"other", 20, noon - 400}, 300, "the machine was restarted with a wrong clock"},
        {{"boot", 20, noon + 100}, 200, "the machine cannot tell one start from another"},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(datastore_confirmation_left(awaited, row.now), row.left) << row.what;
    }
}

class datastore_confirmation_test : public served_datastore_test {
  protected:
    static datastore_commit_result set_for(uint64_t seconds) {
        datastore_commit_order order;
        order.author = {1000, "alice", "load", ""};
        order.confirm_seconds = seconds;
        return datastore_commit({{timeout_path, number(45)}}, false, order);
    }
    static uint64_t awaited() {
        datastore_confirmation confirmation;
        return datastore_confirmation_get(confirmation) == PLATFORM_OK ? confirmation.number : 0;
    }
};

TEST_F(datastore_confirmation_test, other_commits_are_refused_until_it_is_given) {
    set(rate_path, number(10));
    EXPECT_EQ(set_for(300).number, 2U);
    reopen();
    EXPECT_EQ(awaited(), 2U);
    const datastore_commit_result refused = set(rate_path, number(11));
    EXPECT_EQ(refused.refused_by, datastore_refused_by::confirmation);
    EXPECT_THAT(refused.message,
                MatchesRegex("commit 2 by alice of 2[-0-9]*T[:0-9]*Z must be confirmed first, until "
                             "2[-0-9]*T[:0-9]*Z: `ssh_cfg_ctl confirm` keeps it, `ssh_cfg_ctl rollback "
                             "1` undoes it"));
    EXPECT_EQ(stored(rate_path), "10");
    EXPECT_EQ(datastore_commit({{rate_path, number(11)}}, true).status, PLATFORM_OK) << "a check is not a commit";
    EXPECT_EQ(datastore_confirm(), PLATFORM_OK);
    EXPECT_EQ(awaited(), 0U);
}

TEST_F(datastore_confirmation_test, the_commit_on_trial_is_described) {
    EXPECT_FALSE(datastore_commit_on_trial().has_value());
    const int64_t before = datastore_present_moment().time;
    set_for(300);
    const std::optional<datastore_trial> trial = datastore_commit_on_trial();
    ASSERT_TRUE(trial.has_value());
    EXPECT_EQ(trial->number, 1U);
    EXPECT_EQ(trial->user, "alice");
    EXPECT_EQ(trial->note, "");
    EXPECT_GE(trial->until, before + 299);
    EXPECT_LE(trial->until, datastore_present_moment().time + 300);
}

TEST_F(datastore_confirmation_test, the_commit_that_undoes_it_ends_it) {
    set_for(300);
    datastore_commit_order order;
    order.undone_commit = 2;
    EXPECT_EQ(datastore_commit({{timeout_path, std::nullopt}}, false, order).refused_by,
              datastore_refused_by::confirmation)
        << "another commit's";
    order.undone_commit = 1;
    EXPECT_EQ(datastore_commit({{timeout_path, std::nullopt}}, false, order).status, PLATFORM_OK);
    EXPECT_EQ(awaited(), 0U);
    EXPECT_EQ(set(rate_path, number(11)).status, PLATFORM_OK);
}

TEST_F(datastore_confirmation_test, a_commit_that_changes_nothing_needs_none) {
    set(timeout_path, number(45));
    EXPECT_EQ(set_for(300).status, PLATFORM_OK);
    EXPECT_EQ(awaited(), 0U);
}

TEST_F(datastore_confirmation_test, it_is_stored_with_the_commit_or_neither_is) {
    memory = {};
    datastore_close();
    datastore_configure(&engine_in_memory, "memory");
    ASSERT_EQ(datastore_open(), PLATFORM_OK);
    // Begin, the item, the entry in the history, the confirmation, commit.
    for (memory.fail_at = 1; memory.fail_at <= 5; memory.fail_at++) {
        memory.operations = 0;
        EXPECT_EQ(set_for(300).refused_by, datastore_refused_by::store) << memory.fail_at;
        EXPECT_TRUE(memory.items.empty()) << memory.fail_at;
    }
    memory.fail_at = 0;
    EXPECT_EQ(set_for(300).status, PLATFORM_OK);
    EXPECT_EQ(awaited(), 1U);
}

TEST_F(datastore_confirmation_test, resuming_keeps_the_deadline_while_the_machine_runs) {
    set_for(300);
    datastore_confirmation before;
    ASSERT_EQ(datastore_confirmation_get(before), PLATFORM_OK);
    EXPECT_EQ(datastore_confirmation_resume(), PLATFORM_OK);
    datastore_confirmation after;
    ASSERT_EQ(datastore_confirmation_get(after), PLATFORM_OK);
    EXPECT_EQ(after.seconds, before.seconds);
    EXPECT_EQ(after.begin.uptime, before.begin.uptime);
    EXPECT_FALSE(after.begin.boot.empty());
}

}  // namespace
}  // namespace datastore_test
