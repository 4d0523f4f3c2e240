#include "linux/datastore/rehearsal.h"

#include <errno.h>

#include "linux/datastore/datastore_internal.h"
#include "linux/datastore/state.h"
#include "unit/linux/datastore/datastore_fixture.h"

namespace datastore_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// A rehearsal that notes what it is asked and returns what it is handlers.
struct scripted_rehearsal {
    std::vector<std::string> asked;
    std::vector<std::string> stored_meanwhile;
    bool carries_out = false;
    rehearsal_report report;
};

scripted_rehearsal script;

rehearsal_report rehearse(const rehearsal_request& request) {
    std::string text = request.is_detailed ? "in detail:" : "";
    for (const auto& [path, value] : request.changes) {
        text += (text.empty() ? "" : " ") + path.substr(strlen(server_path)) + (value ? "" : " deleted");
    }
    script.asked.push_back(text);
    script.stored_meanwhile.push_back(stored(timeout_path));
    if (script.carries_out) {
        request.carry_out();
    }
    return script.report;
}

class datastore_rehearsal_test : public served_datastore_test {
  protected:
    void SetUp() override {
        served_datastore_test::SetUp();
        script = {};
        the_datastore().rehearse = rehearse;
    }
    void TearDown() override {
        the_datastore().rehearse = nullptr;
        served_datastore_test::TearDown();
    }

    static void reject(bool was_rejected) {
        script.report.rejections = {{"/etc/file", "Bad key types", was_rejected, {}}};
    }
};

TEST_F(datastore_rehearsal_test, comes_after_the_verifiers_and_before_the_store) {
    script.carries_out = true;
    EXPECT_EQ(set(timeout_path, number(30)).status, PLATFORM_OK);
    EXPECT_THAT(script.asked, ElementsAre("cmn/timeout"));
    EXPECT_THAT(script.stored_meanwhile, ElementsAre("none"));
    EXPECT_THAT(take_calls(), ElementsAre("verify 3 cmn/timeout - -> 30", "apply 3 cmn/timeout - -> 30",
                                          "apply 3 cmn/timeout - -> 30"));
}

TEST_F(datastore_rehearsal_test, has_all_changes_and_only_these) {
    set(timeout_path, number(30));
    set(rate_path, number(10));
    script.asked.clear();
    datastore_commit({{timeout_path, std::nullopt}, {rate_path, number(10)}, {limit_path, number(5)}}, true);
    EXPECT_THAT(script.asked, ElementsAre("in detail: cmn/session_limit cmn/timeout deleted"));
    script.asked.clear();
    EXPECT_FALSE(set(rate_path, number(10)).rehearsal.has_value());
    EXPECT_THAT(script.asked, IsEmpty()) << "nothing would change";
}

TEST_F(datastore_rehearsal_test, a_commit_that_a_verifier_refuses_is_not_rehearsed) {
    handlers.verify_results["cmn/timeout"] = EINVAL;
    EXPECT_EQ(set(timeout_path, number(30)).refused_by, datastore_refused_by::verifier);
    EXPECT_THAT(script.asked, IsEmpty());
}

TEST_F(datastore_rehearsal_test, a_commit_with_which_sshd_would_not_start_is_refused) {
    reject(false);
    const datastore_commit_result result = set(timeout_path, number(30));
    EXPECT_EQ(result.status, EINVAL);
    EXPECT_EQ(result.refused_by, datastore_refused_by::rehearsal);
    EXPECT_EQ(result.path, timeout_path);
    EXPECT_EQ(result.message,
              std::string(timeout_path) + ": sshd would reject /etc/file: Bad key types; nothing has been stored");
    EXPECT_EQ(stored(timeout_path), "none");
    EXPECT_THAT(take_calls(), ElementsAre("verify 3 cmn/timeout - -> 30"));
    const datastore_commit_result both = datastore_commit({{timeout_path, number(30)}, {rate_path, number(10)}}, false);
    EXPECT_EQ(both.path, "");
    EXPECT_EQ(both.message, "sshd would reject /etc/file: Bad key types; nothing has been stored");
}

TEST_F(datastore_rehearsal_test, a_refusal_names_every_file_but_not_endlessly) {
    reject(false);
    script.report.rejections[0].others = {"/etc/b", "/etc/c"};
    EXPECT_EQ(set(timeout_path, number(30)).message,
              std::string(timeout_path) +
                  ": sshd would reject /etc/file: Bad key types (also b, c); nothing has been stored");
    script.report.rejections[0].others.assign(10, "/etc/same");
    EXPECT_THAT(set(timeout_path, number(30)).message,
                testing::HasSubstr("(also same, same, same, same, same, same, same, same and 2 more)"));
}

TEST_F(datastore_rehearsal_test, a_commit_with_which_the_agent_would_crash_is_refused) {
    script.report.problem = "it ended without a result";
    script.report.crash = "signal 11, Segmentation fault";
    for (const bool check_only : {true, false}) {
        const datastore_commit_result result = datastore_commit({{timeout_path, number(30)}}, check_only);
        EXPECT_EQ(result.status, EINVAL);
        EXPECT_EQ(result.refused_by, datastore_refused_by::rehearsal);
        EXPECT_EQ(result.path, timeout_path);
        EXPECT_EQ(result.message, std::string(timeout_path) +
                                      ": this change would crash the agent (signal 11, Segmentation fault); "
                                      "nothing has been stored");
    }
    EXPECT_EQ(stored(timeout_path), "none");
}

TEST_F(datastore_rehearsal_test, a_commit_is_not_refused_for_what_was_wrong_before) {
    reject(true);
    EXPECT_EQ(set(timeout_path, number(30)).status, PLATFORM_OK);
    EXPECT_EQ(stored(timeout_path), "30");
}

TEST_F(datastore_rehearsal_test, what_cannot_be_rehearsed_is_stored_but_a_check_fails) {
    script.report.problem = "no namespaces";
    const datastore_commit_result check = datastore_commit({{timeout_path, number(30)}}, true);
    EXPECT_EQ(check.refused_by, datastore_refused_by::unrehearsed);
    EXPECT_EQ(check.message, "the change could not be rehearsed: no namespaces");
    EXPECT_EQ(stored(timeout_path), "none");
    const datastore_commit_result result = set(timeout_path, number(30));
    EXPECT_EQ(result.status, PLATFORM_OK);
    ASSERT_TRUE(result.rehearsal.has_value());
    EXPECT_EQ(result.rehearsal->problem, "no namespaces");
    EXPECT_EQ(stored(timeout_path), "30");
}

TEST_F(datastore_rehearsal_test, a_judge_sees_items_and_rehearsal_and_can_refuse) {
    std::vector<std::string> judged;
    std::string reason = "it would lock you out";
    datastore_commit_order order;
    order.judge = [&](const std::vector<datastore_item_outcome>& items, const rehearsal_report* rehearsal) {
        judged.push_back(items[0].path + (rehearsal != nullptr ? " rehearsed" : ""));
        return reason;
    };
    const datastore_commit_result refused = datastore_commit({{timeout_path, number(30)}}, false, order);
    EXPECT_EQ(refused.refused_by, datastore_refused_by::judge);
    EXPECT_EQ(refused.message, reason);
    EXPECT_EQ(stored(timeout_path), "none");
    EXPECT_THAT(judged, ElementsAre(std::string(timeout_path) + " rehearsed"));
    EXPECT_EQ(datastore_commit({{timeout_path, number(30)}}, true, order).status, PLATFORM_OK) << "only checked";
    reason = "";
    EXPECT_EQ(datastore_commit({{timeout_path, number(30)}}, false, order).status, PLATFORM_OK);
    EXPECT_EQ(stored(timeout_path), "30");
}

}  // namespace
}  // namespace datastore_test
