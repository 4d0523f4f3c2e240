#include "platform/enforcement.h"

#include <gmock/gmock.h>

#include "unit/linux/enforcement/enforcement_test_support.h"
#include "unit/linux/platform_test_support.h"

namespace {

using enforcement_test::subjects;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class enforcement_record_test : public testing::Test {
  protected:
    enforcement_test::reset_at_end reset;
};

TEST_F(enforcement_record_test, a_subject_remains_until_it_is_restored) {
    EXPECT_FALSE(enforcement_any_failed());
    enforcement_failed("server mgmt", "exit status 1");
    enforcement_failed("file /a", "no space");
    ASSERT_EQ(enforcement_list().size(), 2U);
    EXPECT_EQ(enforcement_list()[0].subject, "file /a");
    EXPECT_EQ(enforcement_list()[1].reason, "exit status 1");
    EXPECT_GT(enforcement_list()[1].since, 0);
    enforcement_restored("file /a");
    enforcement_restored("never heard of");
    EXPECT_THAT(subjects(enforcement_list()), ElementsAre("server mgmt"));
    enforcement_restored("server mgmt");
    EXPECT_FALSE(enforcement_any_failed());
}

TEST_F(enforcement_record_test, errno_is_left_alone) {
    errno = ENOTTY;
    enforcement_failed("banner", "no space");
    EXPECT_EQ(errno, ENOTTY);
    enforcement_restored("banner");
    EXPECT_EQ(errno, ENOTTY);
}

TEST_F(enforcement_record_test, each_reason_is_logged_once) {
    platform_test::journal_listener journal;
    enforcement_failed("server mgmt", "exit status 1");
    enforcement_failed("server mgmt", "exit status 1");
    EXPECT_EQ(journal.messages(), "Not in force: server mgmt: exit status 1\n");
    enforcement_failed("server mgmt", "timed out");
    EXPECT_EQ(journal.messages(), "Not in force: server mgmt: timed out\n");
    EXPECT_EQ(enforcement_list()[0].reason, "timed out");
    enforcement_restored("server mgmt");
    enforcement_restored("server mgmt");
    EXPECT_EQ(journal.messages(), "In force again: server mgmt\n");
}

TEST_F(enforcement_record_test, a_collector_contains_what_was_reported_during_its_lifetime) {
    enforcement_failed("unit red", "earlier");
    const enforcement_collector outer;
    enforcement_failed("server mgmt", "exit status 1");
    {
        const enforcement_collector inner;
        enforcement_failed("file /a", "no space");
        enforcement_failed("key alice", "no space");
        enforcement_restored("key alice");
        EXPECT_THAT(subjects(inner.entries()), ElementsAre("file /a"));
    }
    enforcement_failed("file /a", "read-only");
    EXPECT_THAT(subjects(outer.entries()), ElementsAre("server mgmt", "file /a"));
    EXPECT_EQ(outer.entries()[1].reason, "read-only");
    const enforcement_collector later;
    EXPECT_THAT(later.entries(), IsEmpty());
    enforcement_failed("server mgmt", "exit status 1");
    EXPECT_THAT(subjects(later.entries()), ElementsAre("server mgmt")) << "it has failed again";
}

// --- Comparisons -----------------------------------------------------------------------------------------------------

TEST_F(enforcement_record_test, without_a_registration_nothing_can_be_compared) {
    EXPECT_FALSE(enforcement_can_compare());
    EXPECT_EQ(enforcement_reconcile(true).remaining, -1);
    EXPECT_EQ(enforcement_register(nullptr, nullptr), static_cast<platform_status>(EINVAL));
    const enforcement_callbacks empty = {};
    EXPECT_EQ(enforcement_register(&empty, nullptr), static_cast<platform_status>(EINVAL));
    EXPECT_FALSE(enforcement_can_compare());
}

TEST_F(enforcement_record_test, a_comparison_without_repair_leaves_the_record_alone) {
    enforcement_test::comparison_script script = {{{"file /a", "Ciphers"}, {"server mgmt", "old"}}, 2, {}, {}};
    ASSERT_EQ(enforcement_test::register_comparison(script), PLATFORM_OK);
    enforcement_failed("unit red", "exit status 1");
    const enforcement_comparison result = enforcement_reconcile(false);
    EXPECT_EQ(result.remaining, 2);
    ASSERT_EQ(result.differences.size(), 2U);
    EXPECT_EQ(result.differences[0].subject, "file /a");
    EXPECT_EQ(result.differences[1].text, "old");
    EXPECT_THAT(script.runs, ElementsAre(0U));
    script.remaining = 0;
    script.found.clear();
    enforcement_reconcile(false);
    EXPECT_THAT(subjects(enforcement_list()), ElementsAre("unit red"));
}

TEST_F(enforcement_record_test, a_repair_on_request_differs_from_an_automatic_one) {
    enforcement_test::comparison_script script;
    ASSERT_EQ(enforcement_test::register_comparison(script), PLATFORM_OK);
    enforcement_reconcile(true, true);
    enforcement_reconcile(true);
    enforcement_reconcile(false, true);
    EXPECT_THAT(script.runs, ElementsAre(2U, 1U, 0U));
}

TEST_F(enforcement_record_test, a_complete_repair_clears_the_record) {
    platform_test::journal_listener journal;
    enforcement_test::comparison_script script = {{{"server mgmt", "old"}}, 0, {}, {}};
    ASSERT_EQ(enforcement_test::register_comparison(script), PLATFORM_OK);
    enforcement_failed("server mgmt", "exit status 1");
    enforcement_failed("unit red", "exit status 1");
    journal.messages();
    EXPECT_EQ(enforcement_reconcile(true).remaining, 0);
    EXPECT_THAT(script.runs, ElementsAre(1U));
    EXPECT_FALSE(enforcement_any_failed());
    EXPECT_EQ(journal.messages(), "In force again: server mgmt\nIn force again: unit red\n");
}

TEST_F(enforcement_record_test, an_incomplete_repair_clears_what_it_did_not_report) {
    enforcement_test::comparison_script script = {
        {{"file /a", "Ciphers"}}, 2, [] { enforcement_failed("unit red", "still broken"); }, {}};
    ASSERT_EQ(enforcement_test::register_comparison(script), PLATFORM_OK);
    enforcement_failed("server mgmt", "exit status 1");
    enforcement_failed("file /a", "no space");
    enforcement_reconcile(true);
    EXPECT_THAT(subjects(enforcement_list()), ElementsAre("file /a", "unit red"));
    script = {{}, 1, {}, {}};
    enforcement_reconcile(true);
    EXPECT_THAT(enforcement_list(), IsEmpty()) << "reports of the previous run no longer count";
}

TEST_F(enforcement_record_test, a_failed_repair_clears_nothing) {
    enforcement_test::comparison_script script = {{}, -1, {}, {}};
    ASSERT_EQ(enforcement_test::register_comparison(script), PLATFORM_OK);
    enforcement_failed("server mgmt", "exit status 1");
    EXPECT_EQ(enforcement_reconcile(true).remaining, -1);
    EXPECT_THAT(subjects(enforcement_list()), ElementsAre("server mgmt"));
}

TEST_F(enforcement_record_test, a_comparison_cannot_start_another) {
    enforcement_test::comparison_script script;
    int inner = 0;
    script.meanwhile = [&inner] { inner = enforcement_reconcile(true).remaining; };
    ASSERT_EQ(enforcement_test::register_comparison(script), PLATFORM_OK);
    EXPECT_EQ(enforcement_reconcile(true).remaining, 0);
    EXPECT_EQ(inner, -1);
    EXPECT_EQ(script.runs.size(), 1U);
}

}  // namespace
