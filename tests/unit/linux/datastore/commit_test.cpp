#include <errno.h>

#include "linux/datastore/datastore_internal.h"
#include "unit/linux/datastore/datastore_fixture.h"
#include "unit/linux/enforcement/enforcement_test_support.h"

namespace datastore_test {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

class datastore_commit_test : public served_datastore_test {};

std::vector<std::string> outcomes(const datastore_commit_result& result) {
    constexpr const char* names[] = {"unchanged", "created", "changed", "deleted"};
    std::vector<std::string> lines;
    for (const datastore_item_outcome& item : result.items) {
        lines.push_back(std::string(names[static_cast<size_t>(item.outcome)]) + " " +
                        item.path.substr(strlen(server_path)));
    }
    return lines;
}

TEST_F(datastore_commit_test, delivers_creation_change_and_removal) {
    EXPECT_EQ(set(timeout_path, number(30)).status, PLATFORM_OK);
    EXPECT_THAT(take_calls(), ElementsAre("verify 3 cmn/timeout - -> 30", "apply 3 cmn/timeout - -> 30"));
    EXPECT_EQ(set(timeout_path, number(45)).status, PLATFORM_OK);
    EXPECT_THAT(take_calls(), ElementsAre("verify 2 cmn/timeout 30 -> 45", "apply 2 cmn/timeout 30 -> 45"));
    EXPECT_EQ(erase(timeout_path).status, PLATFORM_OK);
    EXPECT_THAT(take_calls(), ElementsAre("verify 4 cmn/timeout 45 -> -", "apply 4 cmn/timeout 45 -> -"));
    EXPECT_EQ(stored(timeout_path), "none");
}

TEST_F(datastore_commit_test, calls_all_verifiers_then_all_appliers_in_byte_order) {
    const datastore_commit_result result =
        datastore_commit({{vrf_path, datastore_fields()}, {timeout_path, number(30)}, {rate_path, number(10)}}, false);
    EXPECT_EQ(result.status, PLATFORM_OK);
    EXPECT_THAT(outcomes(result),
                ElementsAre("created cmn/rate_limit", "created cmn/timeout", "created sshd/vrf/blue"));
    std::vector<std::string> order;
    for (const std::string& call : take_calls()) {
        order.push_back(call.substr(0, call.find(' ', call.find('/'))));
    }
    EXPECT_THAT(order, ElementsAre("verify 3 cmn/rate_limit", "verify 3 cmn/timeout", "verify 3 sshd/vrf/blue",
                                   "apply 3 cmn/rate_limit", "apply 3 cmn/timeout", "apply 3 sshd/vrf/blue"));
}

TEST_F(datastore_commit_test, verifiers_read_items_as_after_the_commit) {
    set(timeout_path, number(30));
    set(rate_path, number(10));
    const auto read = [this](const char* item) -> std::string {
        uint32_t value = 0;
        const platform_status status = datastore_item_get(server, item, &value, sizeof value, nullptr);
        return status == PLATFORM_OK ? std::to_string(value) : status == DATASTORE_NO_SUCH_ITEM ? "none" : "failure";
    };
    std::vector<std::string> seen;
    handlers.in_verify = [&] { seen.push_back(read("cmn/timeout") + " " + read("cmn/rate_limit")); };
    EXPECT_EQ(datastore_commit({{timeout_path, number(45)}, {rate_path, std::nullopt}}, true).status, PLATFORM_OK);
    EXPECT_THAT(seen, ElementsAre("45 none", "45 none"));
    // Checking has changed nothing, and neither does a refusal.
    EXPECT_EQ(read("cmn/timeout") + " " + read("cmn/rate_limit"), "30 10");
    handlers.verify_results["cmn/timeout"] = EINVAL;
    EXPECT_EQ(set(timeout_path, number(60)).status, platform_status{EINVAL});
    EXPECT_EQ(seen.back(), "60 10");
    EXPECT_EQ(read("cmn/timeout"), "30");
}

TEST_F(datastore_commit_test, verifiers_list_what_remains_after_the_commit) {
    set(timeout_path, number(30));
    set(rate_path, number(10));
    const auto names = [this] {
        datastore_list* list = nullptr;
        uint32_t count = 0;
        std::string text;
        if (datastore_list_get(server, "cmn/", -1, &list, &count) == PLATFORM_OK) {
            for (uint32_t i = 0; i < count; i++) {
                text += std::string(datastore_list_name(list, i)) + ' ';
            }
        }
        datastore_list_free(list);
        return text;
    };
    std::string seen;
    handlers.in_verify = [&] { seen = names(); };
    datastore_commit({{limit_path, number(5)}, {rate_path, std::nullopt}}, true);
    EXPECT_EQ(seen, "session_limit timeout ");
    EXPECT_EQ(names(), "rate_limit timeout ");
    datastore_commit({{rate_path, std::nullopt}, {timeout_path, std::nullopt}}, true);
    EXPECT_EQ(seen, "") << "the list no longer exists";
}

TEST_F(datastore_commit_test, stores_before_it_applies) {
    std::string seen;
    handlers.in_apply = [&] { seen = stored(timeout_path); };
    set(timeout_path, number(30));
    EXPECT_EQ(seen, "30");
}

TEST_F(datastore_commit_test, calls_nothing_for_an_equal_value) {
    set(timeout_path, number(30));
    take_calls();
    const datastore_commit_result result =
        datastore_commit({{timeout_path, number(30)}, {rate_path, number(5)}}, false);
    EXPECT_THAT(outcomes(result), ElementsAre("created cmn/rate_limit", "unchanged cmn/timeout"));
    EXPECT_THAT(take_calls(), ElementsAre("verify 3 cmn/rate_limit - -> 5", "apply 3 cmn/rate_limit - -> 5"));
    EXPECT_THAT(outcomes(set(timeout_path, number(30))), ElementsAre("unchanged cmn/timeout"));
    EXPECT_THAT(take_calls(), IsEmpty());
}

TEST_F(datastore_commit_test, the_schema_refuses_before_any_verifier_runs) {
    const datastore_commit_result result =
        datastore_commit({{rate_path, number(10)}, {timeout_path, number(500)}}, false);
    EXPECT_EQ(result.status, platform_status{EINVAL});
    EXPECT_EQ(result.refused_by, datastore_refused_by::schema);
    EXPECT_EQ(result.path, timeout_path);
    EXPECT_EQ(result.message,
              "/cfg/gl/crypto/ssh/server/cmn/timeout: 500 is out of range; expected a number from 5 to 120 (seconds, "
              "login grace time)");
    EXPECT_THAT(result.items, IsEmpty());
    EXPECT_THAT(take_calls(), IsEmpty());
    EXPECT_EQ(stored(rate_path), "none");
}

TEST_F(datastore_commit_test, refuses_an_unknown_path) {
    const datastore_commit_result result = set("/cfg/gl/crypto/ssh/server/cmn/timeouts", number(30));
    EXPECT_EQ(result.refused_by, datastore_refused_by::schema);
    EXPECT_THAT(result.message, HasSubstr("the closest match is /cfg/gl/crypto/ssh/server/cmn/timeout"));
    EXPECT_EQ(erase("/cfg/nothing").refused_by, datastore_refused_by::schema);
    EXPECT_EQ(erase("").refused_by, datastore_refused_by::schema);
    EXPECT_EQ(set("/cfg/gl/crypto/ssh/server/cmn/", number(1)).refused_by, datastore_refused_by::schema);
}

TEST_F(datastore_commit_test, the_deletion_of_what_is_absent_may_be_accepted) {
    const datastore_commit_result result =
        datastore_commit({{timeout_path, std::nullopt, true}, {rate_path, number(10)}}, false);
    ASSERT_EQ(result.items.size(), 2U);
    EXPECT_EQ(result.items[1].path, timeout_path);
    EXPECT_EQ(result.items[1].outcome, datastore_outcome::unchanged);
    EXPECT_THAT(take_calls(), ElementsAre("verify 3 cmn/rate_limit - -> 10", "apply 3 cmn/rate_limit - -> 10"));
    EXPECT_EQ(datastore_commit({{"/cfg/gl/banner/", std::nullopt, true}}, false).status, PLATFORM_OK);
    EXPECT_EQ(datastore_commit({{"/cfg/nothing", std::nullopt, true}}, false).refused_by, datastore_refused_by::schema);
}

TEST_F(datastore_commit_test, a_refusal_by_a_verifier_stores_nothing) {
    handlers.verify_results["cmn/timeout"] = EPERM;
    const datastore_commit_result result =
        datastore_commit({{rate_path, number(10)}, {timeout_path, number(30)}}, false);
    EXPECT_EQ(result.status, platform_status{EPERM});
    EXPECT_EQ(result.refused_by, datastore_refused_by::verifier);
    EXPECT_EQ(result.path, timeout_path);
    EXPECT_EQ(result.message, "/cfg/gl/crypto/ssh/server/cmn/timeout: the verifier says no");
    EXPECT_THAT(take_calls(), ElementsAre("verify 3 cmn/rate_limit - -> 10", "verify 3 cmn/timeout - -> 30"));
    EXPECT_EQ(stored(rate_path), "none");
    EXPECT_EQ(stored(timeout_path), "none");
}

TEST_F(datastore_commit_test, a_refusal_without_a_text_is_described_by_its_status) {
    handlers.verify_results["cmn/timeout"] = EPERM;
    handlers.refusal.clear();
    EXPECT_EQ(set(timeout_path, number(30)).message,
              "/cfg/gl/crypto/ssh/server/cmn/timeout: refused by the agent: Operation not permitted");
}

TEST_F(datastore_commit_test, a_verifier_that_does_not_accept_refuses) {
    handlers.verify_results["cmn/timeout"] = PLATFORM_OK;
    EXPECT_EQ(set(timeout_path, number(30)).status, platform_status{EINVAL});
    EXPECT_EQ(stored(timeout_path), "none");
}

TEST_F(datastore_commit_test, reports_items_that_are_not_served) {
    handlers.verify_results["cmn/timeout"] = DATASTORE_NO_HANDLER;
    const datastore_commit_result dispatched = set(timeout_path, number(30));
    EXPECT_EQ(dispatched.status, platform_status{DATASTORE_NO_HANDLER});
    EXPECT_EQ(dispatched.message, "/cfg/gl/crypto/ssh/server/cmn/timeout: not supported by this version");
    const datastore_commit_result unbound = set("/cfg/gl/crypto/ssh/client/dscp", number(3));
    EXPECT_EQ(unbound.refused_by, datastore_refused_by::verifier);
    EXPECT_EQ(unbound.message, "/cfg/gl/crypto/ssh/client/dscp: not supported by this version");
    EXPECT_EQ(stored("/cfg/gl/crypto/ssh/client/dscp"), "none");
}

// --- Stored, but not in force ----------------------------------------------------------------------------------------

std::vector<std::string> not_in_force(const datastore_commit_result& result) {
    std::vector<std::string> lines;
    for (const enforcement_entry& entry : result.not_in_force) {
        lines.push_back(entry.subject + ": " + entry.reason);
    }
    return lines;
}

class datastore_enforcement_test : public datastore_commit_test {
  protected:
    enforcement_test::reset_at_end reset;
};

TEST_F(datastore_enforcement_test, a_failed_applier_leaves_its_item_stored_and_not_in_force) {
    handlers.apply_results["cmn/rate_limit"] = 1;
    const datastore_commit_result result =
        datastore_commit({{rate_path, number(10)}, {timeout_path, number(30)}}, false);
    EXPECT_EQ(result.status, PLATFORM_OK);
    EXPECT_THAT(not_in_force(result),
                ElementsAre("/cfg/gl/crypto/ssh/server/cmn/rate_limit: failed (0x1); the agent's log says why"));
    EXPECT_EQ(stored(rate_path), "10");
    EXPECT_EQ(stored(timeout_path), "30");
    EXPECT_EQ(take_calls().back(), "apply 3 cmn/timeout - -> 30");
    EXPECT_EQ(enforcement_list().size(), 1U);
}

std::vector<std::string> announced;

constexpr enforcement_commit_callbacks note_commits = {[](void*) { announced.push_back("begin"); },
                                                       [](void*) { announced.push_back("end"); }};

TEST_F(datastore_enforcement_test, a_commit_is_announced_around_its_appliers_and_notifications) {
    announced.clear();
    EXPECT_EQ(enforcement_announce_commits(nullptr, nullptr), static_cast<platform_status>(EINVAL));
    ASSERT_EQ(enforcement_announce_commits(&note_commits, nullptr), PLATFORM_OK);
    handlers.in_apply = [] { announced.push_back("apply"); };
    ASSERT_EQ(datastore_register_notification(
                  server, "", 7, [](const datastore_notification*, void*) { announced.push_back("notify"); }, nullptr,
                  nullptr),
              PLATFORM_OK);
    datastore_commit({{rate_path, number(10)}, {timeout_path, number(30)}}, false);
    EXPECT_THAT(announced, ElementsAre("begin", "apply", "apply", "notify", "notify", "end"));
}

TEST_F(datastore_enforcement_test, a_report_at_the_end_of_a_commit_belongs_to_it) {
    constexpr enforcement_commit_callbacks fail_at_end = {
        [](void*) {}, [](void*) { enforcement_failed("server blue", "exit status 1"); }};
    enforcement_announce_commits(&fail_at_end, nullptr);
    EXPECT_THAT(not_in_force(set(timeout_path, number(30))), ElementsAre("server blue: exit status 1"));
}

TEST_F(datastore_enforcement_test, a_commit_that_stores_nothing_is_not_announced) {
    announced.clear();
    enforcement_announce_commits(&note_commits, nullptr);
    datastore_commit({{timeout_path, number(30)}}, true);
    handlers.verify_results["cmn/timeout"] = EINVAL;
    EXPECT_NE(set(timeout_path, number(30)).status, PLATFORM_OK);
    EXPECT_THAT(announced, IsEmpty());
}

TEST_F(datastore_enforcement_test, an_item_is_in_force_once_its_applier_succeeds) {
    handlers.apply_results["cmn/rate_limit"] = 1;
    set(rate_path, number(10));
    handlers.apply_results.clear();
    EXPECT_THAT(not_in_force(set(rate_path, number(11))), ElementsAre());
    EXPECT_FALSE(enforcement_any_failed());
}

TEST_F(datastore_enforcement_test, an_item_without_a_handler_is_not_in_force) {
    handlers.apply_results["cmn/rate_limit"] = DATASTORE_NO_HANDLER;
    EXPECT_THAT(not_in_force(set(rate_path, number(10))),
                ElementsAre("/cfg/gl/crypto/ssh/server/cmn/rate_limit: not supported by this version"));
}

TEST_F(datastore_enforcement_test, a_change_returns_only_what_was_reported_during_it) {
    enforcement_failed("unit red", "exit status 1");
    handlers.in_apply = [] { enforcement_failed("server blue", "exit status 1"); };
    EXPECT_THAT(not_in_force(set(timeout_path, number(30))), ElementsAre("server blue: exit status 1"));
    handlers.in_apply = {};
    EXPECT_THAT(not_in_force(set(timeout_path, number(31))), ElementsAre());
}

TEST_F(datastore_enforcement_test, setting_the_same_value_again_repairs_the_rest) {
    enforcement_test::comparison_script script;
    ASSERT_EQ(enforcement_test::register_comparison(script), PLATFORM_OK);
    set(timeout_path, number(30));
    EXPECT_THAT(not_in_force(set(timeout_path, number(30))), ElementsAre());
    EXPECT_TRUE(script.runs.empty()) << "everything is in force";
    enforcement_failed("server blue", "exit status 1");
    enforcement_failed("unit red", "exit status 1");
    take_calls();
    script.remaining = 1;
    script.found = {{"server blue", "does not run"}};
    EXPECT_THAT(not_in_force(set(timeout_path, number(30))), ElementsAre("server blue: exit status 1"));
    EXPECT_THAT(script.runs, ElementsAre(1U));
    EXPECT_TRUE(take_calls().empty()) << "events are never delivered again";
    script.remaining = 0;
    EXPECT_THAT(not_in_force(set(timeout_path, number(30))), ElementsAre());
    EXPECT_EQ(script.runs.size(), 2U);
}

TEST_F(datastore_enforcement_test, setting_the_same_value_again_fails_without_a_comparison) {
    set(timeout_path, number(30));
    enforcement_failed("server blue", "exit status 1");
    EXPECT_THAT(not_in_force(set(timeout_path, number(30))), ElementsAre("server blue: exit status 1"));
}

TEST_F(datastore_enforcement_test, a_check_repairs_and_reports_nothing) {
    enforcement_test::comparison_script script;
    ASSERT_EQ(enforcement_test::register_comparison(script), PLATFORM_OK);
    set(timeout_path, number(30));
    enforcement_failed("server blue", "exit status 1");
    EXPECT_THAT(not_in_force(datastore_commit({{timeout_path, number(30)}}, true)), ElementsAre());
    EXPECT_TRUE(script.runs.empty());
}

TEST_F(datastore_commit_test, checks_without_changing_anything) {
    set(timeout_path, number(30));
    take_calls();
    const datastore_commit_result result =
        datastore_commit({{timeout_path, number(31)}, {rate_path, number(10)}}, true);
    EXPECT_EQ(result.status, PLATFORM_OK);
    EXPECT_THAT(outcomes(result), ElementsAre("created cmn/rate_limit", "changed cmn/timeout"));
    EXPECT_THAT(take_calls(), ElementsAre("verify 3 cmn/rate_limit - -> 10", "verify 2 cmn/timeout 30 -> 31"));
    EXPECT_EQ(stored(timeout_path), "30");
    EXPECT_EQ(stored(rate_path), "none");
    handlers.verify_results["cmn/timeout"] = EINVAL;
    EXPECT_EQ(datastore_commit({{timeout_path, number(31)}}, true).refused_by, datastore_refused_by::verifier);
}

TEST_F(datastore_commit_test, refuses_to_delete_a_missing_item) {
    const datastore_commit_result result = erase(timeout_path);
    EXPECT_EQ(result.status, platform_status{DATASTORE_NO_SUCH_ITEM});
    EXPECT_EQ(result.refused_by, datastore_refused_by::absent);
    EXPECT_EQ(result.message, "/cfg/gl/crypto/ssh/server/cmn/timeout: cannot delete, not configured");
}

TEST_F(datastore_commit_test, refuses_an_item_named_twice) {
    const datastore_commit_result result =
        datastore_commit({{timeout_path, number(30)}, {timeout_path, std::nullopt}}, false);
    EXPECT_EQ(result.refused_by, datastore_refused_by::schema);
    EXPECT_THAT(result.message, HasSubstr("changed twice in one commit"));
    EXPECT_EQ(stored(timeout_path), "none");
}

TEST_F(datastore_commit_test, deletes_everything_below_a_path) {
    datastore_commit({{timeout_path, number(30)}, {rate_path, number(10)}, {vrf_path, datastore_fields()}}, false);
    take_calls();
    EXPECT_THAT(outcomes(erase("/cfg/gl/crypto/ssh/server/cmn/")),
                ElementsAre("deleted cmn/rate_limit", "deleted cmn/timeout"));
    EXPECT_THAT(take_calls(), ElementsAre("verify 4 cmn/rate_limit 10 -> -", "verify 4 cmn/timeout 30 -> -",
                                          "apply 4 cmn/rate_limit 10 -> -", "apply 4 cmn/timeout 30 -> -"));
    EXPECT_EQ(stored(vrf_path), "[null, null, null]");
    const datastore_commit_result again = erase("/cfg/gl/crypto/ssh/server/cmn/");
    EXPECT_EQ(again.status, platform_status{DATASTORE_NO_SUCH_ITEM});
    EXPECT_THAT(again.message, HasSubstr("cannot delete, nothing is configured below this path"));
}

TEST_F(datastore_commit_test, replaces_a_subtree_with_the_items_of_the_commit) {
    datastore_commit({{timeout_path, number(30)}, {rate_path, number(10)}, {limit_path, number(5)}}, false);
    take_calls();
    const datastore_commit_result result =
        datastore_commit({{server_path, std::nullopt}, {timeout_path, number(31)}, {rate_path, number(10)}}, false);
    EXPECT_THAT(outcomes(result),
                ElementsAre("unchanged cmn/rate_limit", "deleted cmn/session_limit", "changed cmn/timeout"));
}

TEST_F(datastore_commit_test, is_refused_inside_a_handler) {
    datastore_commit_result inner;
    handlers.in_apply = [&] { inner = set(rate_path, number(10)); };
    EXPECT_EQ(set(timeout_path, number(30)).status, PLATFORM_OK);
    EXPECT_EQ(inner.status, platform_status{EBUSY});
    EXPECT_EQ(inner.refused_by, datastore_refused_by::busy);
    EXPECT_EQ(stored(rate_path), "none");
    handlers.in_apply = nullptr;
    EXPECT_EQ(set(rate_path, number(10)).status, PLATFORM_OK);
}

TEST_F(datastore_commit_test, notifies_after_the_appliers) {
    ASSERT_EQ(datastore_register_notification(server, "cmn/timeout", 7, recorder::on_notification, nullptr, &handlers),
              PLATFORM_OK);
    datastore_commit({{timeout_path, number(30)}, {vrf_path, datastore_fields()}}, false);
    EXPECT_EQ(take_calls().back(), "notify 3 cmn/timeout 30");
    erase(timeout_path);
    EXPECT_EQ(take_calls().back(), "notify 4 cmn/timeout -");
    datastore_commit({{timeout_path, number(30)}}, true);
    EXPECT_THAT(take_calls(), ElementsAre("verify 3 cmn/timeout - -> 30"));
}

TEST_F(datastore_commit_test, survives_reopening) {
    datastore_commit({{timeout_path, number(30)}, {vrf_path, datastore_fields{std::nullopt, std::string("v4")}}},
                     false);
    reopen();
    EXPECT_EQ(stored(timeout_path), "30");
    EXPECT_EQ(stored(vrf_path), "[null, \"v4\", null]");
}

TEST_F(datastore_commit_test, is_refused_without_a_database) {
    datastore_close();
    const datastore_commit_result result = set(timeout_path, number(30));
    EXPECT_EQ(result.status, platform_status{DATASTORE_UNAVAILABLE});
    EXPECT_EQ(result.refused_by, datastore_refused_by::store);
    EXPECT_EQ(stored(timeout_path), "unreadable");
}

/// With an engine that fails on request.
class datastore_commit_failure_test : public served_datastore_test {
  protected:
    void SetUp() override {
        memory = {};
        served_datastore_test::SetUp();
        datastore_close();
        datastore_configure(&engine_in_memory, "memory");
        ASSERT_EQ(datastore_open(), PLATFORM_OK);
    }
    void fail_at(uint32_t operation) {
        memory.operations = 0;
        memory.fail_at = operation;
    }
};

void expect_refused_by_the_store(const datastore_commit_result& result, uint32_t operation) {
    EXPECT_NE(result.status, PLATFORM_OK) << operation;
    EXPECT_EQ(result.refused_by, datastore_refused_by::store) << operation;
    EXPECT_EQ(result.message,
              "the configuration could not be stored in memory: failed as requested; nothing has been changed");
    EXPECT_THAT(result.items, IsEmpty()) << operation;
}

TEST_F(datastore_commit_failure_test, stores_all_or_nothing_wherever_the_engine_fails) {
    set(timeout_path, number(30));
    take_calls();
    const auto before = memory.items;
    // Begin, two puts, one erase, the entry in the history, commit.
    for (uint32_t operation = 1; operation <= 6; operation++) {
        fail_at(operation);
        expect_refused_by_the_store(
            datastore_commit({{rate_path, number(10)}, {limit_path, number(5)}, {timeout_path, std::nullopt}}, false),
            operation);
        EXPECT_EQ(memory.items, before) << operation;
        EXPECT_THAT(take_calls(), testing::Each(testing::StartsWith("verify"))) << operation;
    }
    EXPECT_EQ(datastore_last_commit(), 1U);
    fail_at(0);
    EXPECT_EQ(datastore_commit({{rate_path, number(10)}, {timeout_path, std::nullopt}}, false).status, PLATFORM_OK);
    EXPECT_EQ(datastore_last_commit(), 2U);
}

TEST_F(datastore_commit_failure_test, reports_a_failure_to_store_a_single_change) {
    fail_at(1);
    EXPECT_EQ(set(timeout_path, number(30)).refused_by, datastore_refused_by::store);
    EXPECT_EQ(stored(timeout_path), "none");
    EXPECT_EQ(set(timeout_path, number(30)).status, PLATFORM_OK);
}

TEST_F(datastore_commit_failure_test, deletes_an_item_outside_the_schema_without_calling_handlers) {
    memory.items["/cfg/gl/crypto/ssh/server/old"] = {DATASTORE_VALUE_NUMBER, "1234"};
    EXPECT_EQ(erase("/cfg/gl/crypto/ssh/server/old").status, PLATFORM_OK);
    EXPECT_THAT(take_calls(), IsEmpty());
    EXPECT_FALSE(memory.items.contains("/cfg/gl/crypto/ssh/server/old"));
    memory.items["/cfg/gl/crypto/ssh/server/old"] = {DATASTORE_VALUE_NUMBER, "1234"};
    EXPECT_EQ(erase(server_path).status, PLATFORM_OK);
    EXPECT_FALSE(memory.items.contains("/cfg/gl/crypto/ssh/server/old"));
}

}  // namespace
}  // namespace datastore_test
