#include "platform/enforcement.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fake/fake_platform.h"

namespace {

using fake_platform::difference;
using fake_platform::unenforced;
using testing::ElementsAre;
using testing::IsEmpty;

/// The registered comparison: what it finds, leaves and reports.
struct script {
    std::vector<difference> found;
    int remaining = 0;
    std::vector<std::string> failing;  ///< reported by a repair
    std::vector<uint32_t> runs;        ///< the argument of each run
};

int reconcile(uint32_t repair, enforcement_difference_sink sink, void* sink_context, void* context) {
    auto& running = *static_cast<script*>(context);
    running.runs.push_back(repair);
    for (const difference& each : running.found) {
        sink(each.subject.c_str(), each.text.c_str(), sink_context);
    }
    for (const std::string& subject : running.failing) {
        enforcement_failed(subject.c_str(), "still broken");
    }
    return running.remaining;
}

constexpr enforcement_callbacks callbacks = {reconcile};

TEST(fake_enforcement, a_report_remains_until_it_is_restored) {
    enforcement_failed("server mgmt", "exit status 1");
    enforcement_failed("file /tmp/x", "no space");
    enforcement_failed("server mgmt", "timed out");
    EXPECT_THAT(fake_platform::not_in_force(),
                ElementsAre(unenforced{"file /tmp/x", "no space"}, unenforced{"server mgmt", "timed out"}));
    enforcement_restored("server mgmt");
    EXPECT_FALSE(fake_platform::is_not_in_force("server mgmt"));
    EXPECT_TRUE(fake_platform::is_not_in_force("file /tmp/x"));
}

TEST(fake_enforcement, reports_are_recorded_but_restoring_something_in_force_is_not) {
    errno = ENOTTY;
    enforcement_failed("banner", "no space");
    enforcement_restored("unit mgmt");
    enforcement_restored("banner");
    EXPECT_EQ(errno, ENOTTY);
    EXPECT_THAT(fake_platform::calls_of("enforcement_"),
                ElementsAre("enforcement_failed(banner, no space)", "enforcement_restored(banner)"));
}

TEST(fake_enforcement, a_registration_can_fail_and_needs_a_comparison) {
    fake_platform::fail("enforcement_register", ENOMEM, 1);
    script running;
    EXPECT_EQ(enforcement_register(&callbacks, &running), static_cast<platform_status>(ENOMEM));
    const enforcement_callbacks empty = {};
    EXPECT_EQ(enforcement_register(&empty, nullptr), static_cast<platform_status>(EINVAL));
    EXPECT_FALSE(fake_platform::reconcile(true).registered);
}

TEST(fake_enforcement, a_comparison_reports_differences_and_changes_nothing) {
    script running = {{{"file /a", "Ciphers"}}, 1, {}, {}};
    ASSERT_EQ(enforcement_register(&callbacks, &running), PLATFORM_OK);
    enforcement_failed("server mgmt", "exit status 1");
    const fake_platform::comparison result = fake_platform::reconcile(false);
    EXPECT_EQ(result.remaining, 1);
    EXPECT_THAT(result.differences, ElementsAre(difference{"file /a", "Ciphers"}));
    EXPECT_THAT(running.runs, ElementsAre(0U));
    EXPECT_TRUE(fake_platform::is_not_in_force("server mgmt"));
}

TEST(fake_enforcement, a_complete_repair_clears_everything) {
    script running = {{{"server mgmt", "runs an old file"}}, 0, {}, {}};
    ASSERT_EQ(enforcement_register(&callbacks, &running), PLATFORM_OK);
    enforcement_failed("server mgmt", "exit status 1");
    EXPECT_EQ(fake_platform::reconcile(true).remaining, 0);
    EXPECT_THAT(running.runs, ElementsAre(1U));
    EXPECT_THAT(fake_platform::not_in_force(), IsEmpty());
}

TEST(fake_enforcement, an_incomplete_repair_clears_what_it_did_not_report) {
    script running = {{{"file /a", "Ciphers"}}, 2, {"unit red"}, {}};
    ASSERT_EQ(enforcement_register(&callbacks, &running), PLATFORM_OK);
    enforcement_failed("server mgmt", "exit status 1");
    enforcement_failed("file /a", "no space");
    fake_platform::reconcile(true);
    EXPECT_THAT(fake_platform::not_in_force(),
                ElementsAre(unenforced{"file /a", "no space"}, unenforced{"unit red", "still broken"}));
    running.remaining = -1;
    running.found.clear();
    running.failing.clear();
    fake_platform::reconcile(true);
    EXPECT_TRUE(fake_platform::is_not_in_force("file /a")) << "the comparison has failed";
}

TEST(fake_enforcement, a_reset_clears_the_reports_and_the_registration) {
    script running;
    ASSERT_EQ(enforcement_register(&callbacks, &running), PLATFORM_OK);
    enforcement_failed("server mgmt", "exit status 1");
    fake_platform::end_process();
    EXPECT_THAT(fake_platform::not_in_force(), IsEmpty());
    EXPECT_FALSE(fake_platform::reconcile(false).registered);
}

// --- Commits ---------------------------------------------------------------------------------------------------------

platform_status report_two(const datastore_backend_call*, void*) {
    enforcement_failed("file /a", "no space");
    enforcement_failed("server mgmt", "exit status 1");
    enforcement_restored("file /a");
    return PLATFORM_OK;
}

std::vector<std::string> announced;

platform_status note_applier(const datastore_backend_call* call, void*) {
    announced.push_back(std::string("apply ") + call->item);
    return PLATFORM_OK;
}

void note_notification(const datastore_notification* notification, void*) {
    announced.push_back(std::string("notify ") + notification->item);
}

void record_call(void* word) {
    announced.push_back(static_cast<const char*>(word));
}

constexpr enforcement_commit_callbacks note_commits = {[](void*) { announced.push_back("begin"); },
                                                       [](void*) { announced.push_back("end"); }};

TEST(fake_enforcement, a_commit_is_announced_around_its_handlers) {
    EXPECT_EQ(enforcement_announce_commits(nullptr, nullptr), static_cast<platform_status>(EINVAL));
    const enforcement_commit_callbacks incomplete = {record_call, nullptr};
    EXPECT_EQ(enforcement_announce_commits(&incomplete, nullptr), static_cast<platform_status>(EINVAL));
    ASSERT_EQ(enforcement_announce_commits(&note_commits, nullptr), PLATFORM_OK);
    datastore_binding* binding = nullptr;
    ASSERT_EQ(datastore_bind("/cfg/", &binding), PLATFORM_OK);
    ASSERT_EQ(datastore_register_verification(binding, "", 7, nullptr, note_applier, nullptr, nullptr), PLATFORM_OK);
    ASSERT_EQ(datastore_register_notification(binding, "", 7, note_notification, nullptr, nullptr), PLATFORM_OK);
    fake_platform::commit({fake_platform::set_number("/cfg/a", 1), fake_platform::set_number("/cfg/b", 1)});
    EXPECT_THAT(announced, ElementsAre("begin", "apply a", "apply b", "notify a", "notify b", "end"));
}

TEST(fake_enforcement, a_commit_returns_what_was_reported_during_it) {
    datastore_binding* binding = nullptr;
    ASSERT_EQ(datastore_bind("/cfg/", &binding), PLATFORM_OK);
    ASSERT_EQ(datastore_register_verification(binding, "", 7, nullptr, report_two, nullptr, nullptr), PLATFORM_OK);
    enforcement_failed("unit red", "earlier");
    const fake_platform::commit_result result = fake_platform::commit(fake_platform::set_number("/cfg/a", 1));
    EXPECT_THAT(result.not_in_force, ElementsAre(unenforced{"server mgmt", "exit status 1"}));
    EXPECT_THAT(fake_platform::commit(fake_platform::set_number("/cfg/a", 1)).not_in_force, IsEmpty());
}

}  // namespace
