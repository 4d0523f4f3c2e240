#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <security/pam_appl.h>
#include <security/pam_ext.h>
#include <security/pam_modules.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "aaa_pam/session_limit.h"

using testing::ElementsAre;
using testing::IsEmpty;

/// A PAM transaction: the server's own, or the one that the module starts.
struct pam_handle {
    std::string user;
    std::map<int, const void*> items;
    std::vector<std::string> environment;
    void* data = nullptr;
    void (*clean_up)(pam_handle*, void*, int) = nullptr;
    /// The data of the session count.
    void* session_data = nullptr;
    void (*leave_session)(pam_handle*, void*, int) = nullptr;
};

namespace {

/// A fake libpam; the module calls nothing else.
struct fake_pam {
    pam_handle machine;
    std::string service;
    int started = 0;
    int ended_with = -1;
    std::vector<std::string> stages;
    int flags = 0;
    /// The items of the machine's transaction when a stage runs.
    std::map<int, const void*> items_seen;
    /// Calls that fail, each with its status.
    std::map<std::string, int> failing;
    /// What a stage changes in the machine's transaction.
    std::string renames_user_to;
    std::vector<std::string> adds_to_environment;
    bool has_no_memory_for_environment = false;
    std::vector<std::string> logged;
    std::vector<std::string> messages;

    int result_of(const std::string& call) const {
        const auto row = failing.find(call);
        return row == failing.end() ? PAM_SUCCESS : row->second;
    }

    int run(const char* stage, pam_handle* handle, int with_flags) {
        EXPECT_EQ(handle, &machine) << "the server's own transaction must not be entered again";
        stages.emplace_back(stage);
        flags = with_flags;
        items_seen = handle->items;
        if (!renames_user_to.empty()) {
            handle->user = renames_user_to;
        }
        for (const std::string& variable : adds_to_environment) {
            handle->environment.push_back(variable);
        }
        return result_of(stage);
    }
};

fake_pam* pam = nullptr;

class aaa_pam : public testing::Test {
  protected:
    void SetUp() override {
        pam = &pam_;
        server_.user = "alice";
        server_.items = {{PAM_CONV, &conversation_}, {PAM_RHOST, "192.0.2.1"}, {PAM_TTY, "ssh"}, {PAM_RUSER, nullptr}};
    }
    void TearDown() override { pam = nullptr; }

    void end(int status = PAM_SUCCESS) {
        if (server_.clean_up != nullptr) {
            server_.clean_up(&server_, server_.data, status);
        }
        if (server_.leave_session != nullptr) {
            server_.leave_session(&server_, server_.session_data, status);
        }
    }

    fake_pam pam_;
    pam_handle server_;
    pam_conv conversation_ = {};
};

}  // namespace

extern "C" {

int pam_start(const char* service, const char* user, const pam_conv* conversation, pam_handle_t** handle) {
    if (pam->result_of("start") != PAM_SUCCESS) {
        return pam->result_of("start");
    }
    EXPECT_NE(conversation, nullptr);
    ++pam->started;
    pam->service = service;
    pam->machine.user = user;
    *handle = &pam->machine;
    return PAM_SUCCESS;
}

int pam_end(pam_handle_t* handle, int status) {
    EXPECT_EQ(handle, &pam->machine);
    EXPECT_EQ(pam->ended_with, -1) << "ended twice";
    pam->ended_with = status;
    return PAM_SUCCESS;
}

int pam_get_user(pam_handle_t* handle, const char** user, const char*) {
    *user = handle->user.c_str();
    return pam->result_of("get_user");
}

int pam_get_item(const pam_handle_t* handle, int item, const void** value) {
    if (item == PAM_USER) {
        *value = handle->user.c_str();
        return pam->result_of("get_user_item");
    }
    const auto row = handle->items.find(item);
    *value = row == handle->items.end() ? nullptr : row->second;
    return pam->result_of(item == PAM_CONV ? "get_conversation" : "get_item");
}

int pam_set_item(pam_handle_t* handle, int item, const void* value) {
    if (item == PAM_USER) {
        handle->user = static_cast<const char*>(value);
    } else {
        handle->items[item] = value;
    }
    return pam->result_of("set_item");
}

int pam_set_data(pam_handle_t* handle, const char* name, void* data, void (*clean_up)(pam_handle_t*, void*, int)) {
    if (std::string(name) == "ssh_cfg_session") {
        handle->session_data = data;
        handle->leave_session = clean_up;
        return pam->result_of("set_session_data");
    }
    if (pam->result_of("set_data") == PAM_SUCCESS) {
        handle->data = data;
        handle->clean_up = clean_up;
    }
    return pam->result_of("set_data");
}

int pam_get_data(const pam_handle_t* handle, const char*, const void** data) {
    *data = handle->data;
    return handle->data == nullptr ? PAM_NO_MODULE_DATA : PAM_SUCCESS;
}

char** pam_getenvlist(pam_handle_t* handle) {
    if (pam->has_no_memory_for_environment) {
        return nullptr;
    }
    auto** list = static_cast<char**>(calloc(handle->environment.size() + 1, sizeof(char*)));
    for (size_t i = 0; i < handle->environment.size(); ++i) {
        list[i] = strdup(handle->environment[i].c_str());
    }
    return list;
}

int pam_putenv(pam_handle_t* handle, const char* variable) {
    if (pam->result_of("putenv") == PAM_SUCCESS) {
        handle->environment.emplace_back(variable);
    }
    return pam->result_of("putenv");
}

const char* pam_strerror(pam_handle_t*, int) {
    return "an error";
}

void pam_syslog(const pam_handle_t*, int, const char* format, ...) {
    pam->logged.emplace_back(format);
}

int pam_prompt(pam_handle_t*, int style, char**, const char* format, ...) {
    EXPECT_EQ(style, PAM_ERROR_MSG);
    pam->messages.emplace_back(format);
    return PAM_SUCCESS;
}

int pam_authenticate(pam_handle_t* handle, int flags) {
    return pam->run("authenticate", handle, flags);
}
int pam_setcred(pam_handle_t* handle, int flags) {
    return pam->run("setcred", handle, flags);
}
int pam_acct_mgmt(pam_handle_t* handle, int flags) {
    return pam->run("acct_mgmt", handle, flags);
}
int pam_open_session(pam_handle_t* handle, int flags) {
    return pam->run("open_session", handle, flags);
}
int pam_close_session(pam_handle_t* handle, int flags) {
    return pam->run("close_session", handle, flags);
}
}

TEST_F(aaa_pam, each_stage_runs_in_the_machines_service) {
    EXPECT_EQ(pam_sm_authenticate(&server_, PAM_DISALLOW_NULL_AUTHTOK, 0, nullptr), PAM_SUCCESS);
    EXPECT_EQ(pam_.flags, PAM_DISALLOW_NULL_AUTHTOK);
    EXPECT_EQ(pam_sm_acct_mgmt(&server_, 0, 0, nullptr), PAM_SUCCESS);
    EXPECT_EQ(pam_sm_setcred(&server_, PAM_ESTABLISH_CRED, 0, nullptr), PAM_SUCCESS);
    EXPECT_EQ(pam_.flags, PAM_ESTABLISH_CRED);
    EXPECT_EQ(pam_sm_open_session(&server_, PAM_SILENT, 0, nullptr), PAM_SUCCESS);
    EXPECT_EQ(pam_.flags, PAM_SILENT);
    EXPECT_EQ(pam_sm_close_session(&server_, 0, 0, nullptr), PAM_SUCCESS);
    EXPECT_THAT(pam_.stages, ElementsAre("authenticate", "acct_mgmt", "setcred", "open_session", "close_session"));
}

TEST_F(aaa_pam, one_transaction_serves_all_stages_and_ends_with_the_servers) {
    pam_sm_acct_mgmt(&server_, 0, 0, nullptr);
    pam_sm_open_session(&server_, 0, 0, nullptr);
    EXPECT_EQ(pam_.started, 1);
    EXPECT_EQ(pam_.service, "ssh_cfg_aaa");
    EXPECT_EQ(pam_.machine.user, "alice");
    EXPECT_EQ(pam_.ended_with, -1);
    end(PAM_PERM_DENIED);
    EXPECT_EQ(pam_.ended_with, PAM_PERM_DENIED);
}

TEST_F(aaa_pam, a_refusal_by_the_machine_is_returned) {
    const std::pair<const char*, int> refusals[] = {
        {"authenticate", PAM_AUTH_ERR}, {"acct_mgmt", PAM_ACCT_EXPIRED}, {"open_session", PAM_SESSION_ERR}};
    for (const auto& [stage, status] : refusals) {
        pam_.failing[stage] = status;
    }
    EXPECT_EQ(pam_sm_authenticate(&server_, 0, 0, nullptr), PAM_AUTH_ERR);
    EXPECT_EQ(pam_sm_acct_mgmt(&server_, 0, 0, nullptr), PAM_ACCT_EXPIRED);
    EXPECT_EQ(pam_sm_open_session(&server_, 0, 0, nullptr), PAM_SESSION_ERR);
    pam_.failing["acct_mgmt"] = PAM_NEW_AUTHTOK_REQD;
    EXPECT_EQ(pam_sm_acct_mgmt(&server_, 0, 0, nullptr), PAM_NEW_AUTHTOK_REQD);
    end();
}

TEST_F(aaa_pam, items_that_the_server_changes_are_passed_on_again) {
    pam_sm_acct_mgmt(&server_, 0, 0, nullptr);
    EXPECT_EQ(pam_.items_seen[PAM_CONV], &conversation_);
    EXPECT_STREQ(static_cast<const char*>(pam_.items_seen[PAM_RHOST]), "192.0.2.1");
    EXPECT_STREQ(static_cast<const char*>(pam_.items_seen[PAM_TTY]), "ssh");
    pam_conv another = {};
    server_.items[PAM_CONV] = &another;
    server_.items[PAM_TTY] = "pts/3";
    pam_sm_open_session(&server_, 0, 0, nullptr);
    EXPECT_EQ(pam_.items_seen[PAM_CONV], &another);
    EXPECT_STREQ(static_cast<const char*>(pam_.items_seen[PAM_TTY]), "pts/3");
    end();
}

TEST_F(aaa_pam, the_session_gets_the_environment_of_the_machines_modules) {
    pam_.adds_to_environment = {"LANG=C.UTF-8", "XDG_SESSION_ID=4"};
    EXPECT_EQ(pam_sm_open_session(&server_, 0, 0, nullptr), PAM_SUCCESS);
    EXPECT_THAT(server_.environment, ElementsAre("LANG=C.UTF-8", "XDG_SESSION_ID=4"));
    end();
}

TEST_F(aaa_pam, a_user_renamed_by_the_machine_gets_the_new_name) {
    pam_.renames_user_to = "alice.smith";
    EXPECT_EQ(pam_sm_authenticate(&server_, 0, 0, nullptr), PAM_SUCCESS);
    EXPECT_EQ(server_.user, "alice.smith");
    end();
}

TEST_F(aaa_pam, nobody_gets_in_when_the_machines_service_cannot_be_used) {
    for (const char* call : {"start", "set_data", "get_user", "get_conversation", "get_item", "set_item"}) {
        fake_pam fresh;
        pam = &fresh;
        server_.data = nullptr;
        server_.clean_up = nullptr;
        fresh.failing[call] = PAM_SYSTEM_ERR;
        EXPECT_EQ(pam_sm_authenticate(&server_, 0, 0, nullptr), PAM_SYSTEM_ERR) << call;
        EXPECT_THAT(fresh.stages, IsEmpty()) << call;
        EXPECT_THAT(fresh.logged, ElementsAre("cannot use the service %s: %s")) << call;
        EXPECT_TRUE(fresh.started == 0 || server_.data != nullptr || fresh.ended_with == PAM_SYSTEM_ERR) << call;
    }
}

TEST_F(aaa_pam, a_result_that_cannot_be_copied_is_a_failure) {
    pam_.adds_to_environment = {"A=1"};
    pam_.failing["putenv"] = PAM_BUF_ERR;
    EXPECT_EQ(pam_sm_open_session(&server_, 0, 0, nullptr), PAM_BUF_ERR);
    pam_.failing.clear();
    pam_.has_no_memory_for_environment = true;
    EXPECT_EQ(pam_sm_open_session(&server_, 0, 0, nullptr), PAM_BUF_ERR);
    pam_.has_no_memory_for_environment = false;
    pam_.failing["get_user_item"] = PAM_BAD_ITEM;
    EXPECT_EQ(pam_sm_open_session(&server_, 0, 0, nullptr), PAM_BAD_ITEM);
    // A refusal keeps its status.
    pam_.failing["open_session"] = PAM_PERM_DENIED;
    EXPECT_EQ(pam_sm_open_session(&server_, 0, 0, nullptr), PAM_PERM_DENIED);
    end();
}

namespace {

constexpr const char* refusal = "session refused: %u of at most %u sessions are open in this VRF";

/// A limit of one session, and one open session.
class aaa_pam_limit : public aaa_pam {
  protected:
    void SetUp() override {
        aaa_pam::SetUp();
        std::filesystem::create_directories(session_limit_directory);
        ASSERT_EQ(session_limit_set(session_limit_directory, 1), 0);
    }
    void open_another() {
        session_count count;
        ASSERT_EQ(session_limit_enter(session_limit_directory, &count, &another_), 0);
        ASSERT_GE(another_, 0);
    }

    int another_ = -1;
};

}  // namespace

TEST_F(aaa_pam_limit, a_session_is_counted_until_it_ends) {
    session_count count;
    EXPECT_EQ(pam_sm_acct_mgmt(&server_, 0, 0, nullptr), PAM_SUCCESS);
    EXPECT_EQ(session_limit_count(session_limit_directory, &count), 0);
    EXPECT_EQ(count.open, 0U);
    EXPECT_EQ(pam_sm_open_session(&server_, 0, 0, nullptr), PAM_SUCCESS);
    EXPECT_EQ(session_limit_count(session_limit_directory, &count), 0);
    EXPECT_EQ(count.open, 1U);
    end();
    EXPECT_EQ(session_limit_count(session_limit_directory, &count), 0);
    EXPECT_EQ(count.open, 0U);
    EXPECT_THAT(pam_.logged, IsEmpty());
}

TEST_F(aaa_pam_limit, a_session_above_the_limit_is_refused_and_the_user_informed) {
    open_another();
    EXPECT_EQ(pam_sm_acct_mgmt(&server_, 0, 0, nullptr), PAM_PERM_DENIED);
    EXPECT_THAT(pam_.logged, ElementsAre(refusal));
    EXPECT_THAT(pam_.messages, ElementsAre("Too many sessions: %u of at most %u are open."));
    end();
}

TEST_F(aaa_pam_limit, a_user_refused_by_the_machine_learns_nothing_about_the_limit) {
    open_another();
    pam_.failing["acct_mgmt"] = PAM_ACCT_EXPIRED;
    EXPECT_EQ(pam_sm_acct_mgmt(&server_, 0, 0, nullptr), PAM_ACCT_EXPIRED);
    EXPECT_THAT(pam_.messages, IsEmpty());
    end();
}

TEST_F(aaa_pam_limit, two_logins_that_passed_the_check_together_get_one_session) {
    EXPECT_EQ(pam_sm_acct_mgmt(&server_, 0, 0, nullptr), PAM_SUCCESS);
    open_another();
    EXPECT_EQ(pam_sm_open_session(&server_, 0, 0, nullptr), PAM_PERM_DENIED);
    EXPECT_THAT(pam_.stages, ElementsAre("acct_mgmt"));
    end();
}

TEST_F(aaa_pam_limit, a_session_that_cannot_be_recorded_is_not_counted) {
    pam_.failing["set_session_data"] = PAM_BUF_ERR;
    EXPECT_EQ(pam_sm_open_session(&server_, 0, 0, nullptr), PAM_BUF_ERR);
    session_count count;
    EXPECT_EQ(session_limit_count(session_limit_directory, &count), 0);
    EXPECT_EQ(count.open, 0U);
}

TEST_F(aaa_pam_limit, a_limit_that_cannot_be_enforced_locks_nobody_out) {
    std::filesystem::remove_all(session_limit_directory);
    std::filesystem::create_directories(std::filesystem::path(session_limit_directory).parent_path());
    ASSERT_EQ(symlink(session_limit_directory, session_limit_directory), 0);
    EXPECT_EQ(pam_sm_acct_mgmt(&server_, 0, 0, nullptr), PAM_SUCCESS);
    EXPECT_EQ(pam_sm_open_session(&server_, 0, 0, nullptr), PAM_SUCCESS);
    EXPECT_THAT(pam_.logged, ElementsAre("the limit of concurrent sessions is not in force: %s",
                                         "the limit of concurrent sessions is not in force: %s"));
    end();
}
