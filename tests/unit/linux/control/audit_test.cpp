#include "linux/control/audit.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "unit/linux/platform_test_support.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

constexpr control_peer peer = {42, 1000, 1001};

class control_audit_test : public testing::Test {
  protected:
    void SetUp() override {
        control_audit_divert([this](const std::string& line) { lines.push_back(line); });
    }
    void TearDown() override { control_audit_divert({}); }

    std::vector<std::string> lines;
};

TEST_F(control_audit_test, records_user_action_and_result) {
    control_audit(peer, "load", control_result::done, {"created /a", "deleted /b"});
    control_audit(peer, "set", control_result::refused, {});
    EXPECT_THAT(lines, ElementsAre("Control: uid:=1000, pid:=42, call:=load, result:=done, created /a, deleted /b",
                                   "Control: uid:=1000, pid:=42, call:=set, result:=refused, nothing to change"));
}

TEST_F(control_audit_test, records_every_change_however_many_there_are) {
    std::vector<std::string> entries;
    for (int number = 0; number < 1000; number++) {
        entries.push_back("created /cfg/gl/item/number/" + std::to_string(number) + "/");
    }
    control_audit(peer, "load", control_result::done, entries);
    std::string all;
    for (const std::string& line : lines) {
        EXPECT_THAT(line, HasSubstr("uid:=1000, pid:=42, call:=load"));
        EXPECT_LT(line.size(), 2200U);
        all += line;
    }
    for (const std::string& entry : entries) {
        ASSERT_THAT(all, HasSubstr(entry));
    }
}

TEST_F(control_audit_test, text_sent_by_a_peer_cannot_leave_its_line) {
    control_audit(peer, "set", control_result::refused, {"/a\nControl: uid:=0", std::string(5000, 'x')});
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_THAT(lines[0], HasSubstr("/a\\x0aControl: uid:=0"));
    EXPECT_LT(lines[0].size(), 1000U);
}

TEST_F(control_audit_test, is_sent_to_the_journal_with_its_own_fields) {
    platform_test::journal_listener journal;
    control_audit_divert({});
    control_audit(peer, "set", control_result::done, {"changed /a"});
    auto entry = journal.receive_entry();
    EXPECT_EQ(entry["MESSAGE"], "Control: uid:=1000, pid:=42, call:=set, result:=done, changed /a");
    EXPECT_EQ(entry["SSH_CFG_UID"], "1000");
    EXPECT_EQ(entry["SSH_CFG_PID"], "42");
    EXPECT_EQ(entry["SSH_CFG_CALL"], "set");
    EXPECT_EQ(entry["SSH_CFG_RESULT"], "done");
}

}  // namespace
