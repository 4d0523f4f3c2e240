#include "linux/control/fallback.h"

#include "linux/control/audit.h"
#include "linux/datastore/confirmation.h"
#include "unit/linux/datastore/datastore_fixture.h"
#include "unit/linux/platform_test_support.h"

namespace {

using datastore_test::number;
using datastore_test::rate_path;
using datastore_test::stored;
using datastore_test::timeout_path;

platform_status accept(const datastore_backend_call* call, void* failing) {
    if (call->accepted != nullptr) {
        *call->accepted = *static_cast<bool*>(failing) ? 0 : 1;
    }
    return PLATFORM_OK;
}

class fallback_test : public platform_test::loop_test {
  protected:
    void SetUp() override {
        loop_test::SetUp();
        control_audit_divert([this](const std::string& line) { audit.push_back(line); });
        open();
        datastore_test::set(timeout_path, number(30));
    }
    void TearDown() override {
        close();
        control_audit_divert({});
        loop_test::TearDown();
    }
    void open() {
        datastore_configure(nullptr, (folder / "datastore.db").c_str());
        ASSERT_EQ(datastore_bind(datastore_test::server_path, &binding), PLATFORM_OK);
        ASSERT_EQ(datastore_register_verification(binding, "", 7, accept, accept, nullptr, &refuses), PLATFORM_OK);
    }
    void close() {
        fallback_stop();
        datastore_unbind(std::exchange(binding, nullptr));
        datastore_close();
    }
    static void commit_for(uint64_t seconds) {
        datastore_commit_order order;
        order.author = {1000, "alice", "load", ""};
        order.confirm_seconds = seconds;
        datastore_commit({{timeout_path, number(45)}, {rate_path, number(10)}}, false, order);
    }

    datastore_test::scratch_folder folder;
    datastore_binding* binding = nullptr;
    bool refuses = false;
    std::vector<std::string> audit;
};

TEST_F(fallback_test, an_unconfirmed_commit_is_undone_also_after_a_restart) {
    for (const bool restarts : {false, true}) {
        ASSERT_EQ(fallback_start(manager), PLATFORM_OK);
        commit_for(1);
        if (restarts) {
            close();
            open();
            ASSERT_EQ(fallback_start(manager), PLATFORM_OK);
        }
        EXPECT_EQ(stored(timeout_path), "45");
        ASSERT_TRUE(run_until([] { return stored(rate_path) == "none"; }, 30000)) << restarts;
        EXPECT_EQ(stored(timeout_path), "30");
        datastore_confirmation awaited;
        EXPECT_EQ(datastore_confirmation_get(awaited), platform_status{DATASTORE_NO_SUCH_ITEM});
        EXPECT_THAT(audit.back(),
                    testing::HasSubstr("call:=fallback, result:=done, deleted " + std::string(rate_path)));
        datastore_visit_history([](const datastore_kept_commit& commit) {
            EXPECT_EQ(datastore_author_name(commit.author), "agent");
            EXPECT_THAT(commit.author.note, testing::MatchesRegex("commit [24] was not confirmed"));
            return false;
        });
    }
}

TEST_F(fallback_test, a_confirmed_commit_stays) {
    ASSERT_EQ(fallback_start(manager), PLATFORM_OK);
    commit_for(1);
    EXPECT_EQ(datastore_confirm(), PLATFORM_OK);
    EXPECT_FALSE(run_until([] { return stored(rate_path) == "none"; }, 1500));
}

TEST_F(fallback_test, a_refused_return_is_tried_again_and_the_confirmation_still_awaited) {
    ASSERT_EQ(fallback_start(manager), PLATFORM_OK);
    commit_for(1);
    refuses = true;
    ASSERT_TRUE(run_until([this] { return !audit.empty(); }, 30000));
    EXPECT_THAT(audit.back(), testing::HasSubstr("call:=fallback, result:=refused"));
    datastore_confirmation awaited;
    EXPECT_EQ(datastore_confirmation_get(awaited), PLATFORM_OK);
}

}  // namespace
