#include "ssh_cfg_ctl/backup.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "fake_agent.h"

namespace {

using testing::HasSubstr;

class ctl_backup_test : public testing::Test {
  protected:
    void SetUp() override {
        if (geteuid() != 0) {
            GTEST_SKIP() << "only root may make and restore backups";
        }
        std::ofstream(file) << "";
    }
    void TearDown() override { unlink(file.c_str()); }

    static ctl_connection_settings settings() { return {fake_agent::path(), 5, false, ctl_progress::none}; }

    /// Restores this text, from an agent that must not be asked.
    control_json restore(const std::string& text) const {
        std::ofstream(file) << text;
        return ctl_restore({"/nonexistent/control.sock", 1, false, ctl_progress::none}, {file});
    }

    std::string file = testing::TempDir() + "ctl_backup_test.json";
};

constexpr char empty_members[] = R"("format":"ssh_cfg_ctl backup","version":1,"access_lists":[])";

TEST_F(ctl_backup_test, another_document_is_refused) {
    EXPECT_THAT(restore("{}").value("message", ""), HasSubstr("not a backup"));
    EXPECT_THAT(restore("[]").value("message", ""), HasSubstr("not a backup"));
    EXPECT_THAT(restore(R"({"format":"ssh_cfg_ctl backup","version":3})").value("message", ""),
                HasSubstr("a backup of another version"));
    EXPECT_THAT(restore(std::string("{") + empty_members + "}").value("message", ""),
                HasSubstr("member \"configuration\" is missing or of the wrong kind"));
    EXPECT_THAT(restore(std::string("{") + empty_members + R"(,"configuration":{},"files":{}})").value("message", ""),
                HasSubstr("member \"keys\" is missing or of the wrong kind"));
    EXPECT_THAT(restore(R"({"format":"ssh_cfg_ctl backup","version":2,"configuration":[]})").value("message", ""),
                HasSubstr("member \"configuration\" is missing or of the wrong kind"));
}

TEST_F(ctl_backup_test, a_backup_cannot_write_to_other_files) {
    for (const char* path :
         {"/etc/passwd", "/pkg/../etc/passwd", "/pkg/rsa/../../etc/passwd", "pkg/rsa", "/etc/pam.d/sshd"}) {
        const control_json answer = restore(std::string("{") + empty_members +
                                            R"(,"configuration":{},"keys":[],"files":{")" + path + R"(":"x"}})");
        EXPECT_EQ(answer["result"], "refused") << path;
        EXPECT_THAT(answer.value("message", ""),
                    HasSubstr(std::string(path) + " is not a file that a backup contains"));
    }
}

TEST_F(ctl_backup_test, all_missing_users_are_named_before_anything_is_restored) {
    const control_json answer = restore(std::string("{") + empty_members +
                                        R"(,"configuration":{"/cfg/gl/crypto/ssh/server/cmn/username/no_such_a":true,)"
                                        R"("/cfg/gl/crypto/ssh/server/cmn/username/no_such_b/keystr":"x"},)"
                                        R"("keys":[{"user":"no_such_c","key":"x"}],"files":{}})");
    EXPECT_EQ(answer["result"], "refused");
    EXPECT_THAT(answer.value("message", ""), HasSubstr("no_such_a, no_such_b, no_such_c; create them"));
}

// Otherwise the files would be restored, but nothing else.
TEST_F(ctl_backup_test, nothing_is_restored_while_a_commit_awaits_its_confirmation) {
    fake_agent agent({R"({"result":"done","confirmation_awaited":4,"warnings":["commit 4 must be confirmed first"]})"});
    std::ofstream(file) << "{" << empty_members << R"(,"configuration":{},"keys":[],"files":{}})";
    const control_json answer = ctl_restore(settings(), {file});
    EXPECT_EQ(answer["result"], "refused");
    EXPECT_EQ(answer["message"], "commit 4 must be confirmed first");
    EXPECT_EQ(agent.requests.size(), 1U);
}

TEST_F(ctl_backup_test, all_that_the_agent_stores_is_restored_by_one_load) {
    for (
        const char* backup :
        {R"({"format":"ssh_cfg_ctl backup","version":2,"files":{},"configuration":{"/access-lists/ipv4/ops":[1],)"
         R"("/cfg/a":1,"/keys/root":"ssh-rsa A"}})",
         R"({"format":"ssh_cfg_ctl backup","version":1,"files":{},"configuration":{"/cfg/a":1},)"
         R"("access_lists":[{"family":"ipv4","name":"ops","entries":[1]}],"keys":[{"user":"root","key":"ssh-rsa A"}]})"}) {
        fake_agent agent({R"({"result":"done"})", R"({"result":"done"})"});
        std::ofstream(file) << backup;
        EXPECT_EQ(ctl_restore(settings(), {file})["data"]["restored"], control_json::array({"configuration"}));
        ASSERT_EQ(agent.requests.size(), 2U);
        const control_json items = control_json::parse(
            R"({"/cfg/a":1,"/access-lists/ipv4/ops":[1],"/keys/root":"ssh-rsa A","/access-lists/":null,"/keys/":null})");
        EXPECT_EQ(control_json::parse(agent.requests[0]).value("check", false), true);
        for (const std::string& text : agent.requests) {
            const control_json request = control_json::parse(text);
            EXPECT_EQ(request["call"], "load");
            EXPECT_EQ(request["replace"], true);
            ASSERT_EQ(request["items"].size(), items.size());
            for (const auto& [path, value] : items.items()) {
                EXPECT_EQ(request["items"].at(path), value) << path;
            }
        }
    }
}

TEST_F(ctl_backup_test, the_file_is_for_root_only) {
    fake_agent agent(
        {R"({"result":"done","data":{"/access-lists/ipv4/ops":[],"/cfg/a":1,"/keys/alice":"ssh-rsa A"}})"});
    const control_json answer = ctl_backup(settings(), {file});
    ASSERT_EQ(answer["result"], "done") << answer.dump();
    EXPECT_EQ(answer["data"]["items"], 1);
    EXPECT_EQ(answer["data"]["access_lists"], 1);
    EXPECT_EQ(answer["data"]["keys"], 1);
    struct stat status = {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    std::ifstream stream(file);
    const std::string text{std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
    EXPECT_THAT(text, HasSubstr("ssh-rsa A"));
}

}  // namespace
