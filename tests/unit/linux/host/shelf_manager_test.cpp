#include "platform/shelf_manager.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "linux/host/shelf_manager_internal.h"
#include "unit/linux/platform_test_support.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// A client like the agent: it registers whenever it is connected.
struct agent {
    shelf_manager* shelf = nullptr;
    bool acknowledges = true;
    std::vector<std::string> calls;

    static void on_connect(shelf_manager* shelf, void* context) {
        static_cast<agent*>(context)->calls.emplace_back("connect");
        EXPECT_EQ(shelf_manager_register_reload(shelf), PLATFORM_OK);
    }
    static void on_disconnect(shelf_manager*, void* context) {
        static_cast<agent*>(context)->calls.emplace_back("disconnect");
    }
    static void on_reload(shelf_manager* shelf, void* context) {
        auto* self = static_cast<agent*>(context);
        self->calls.emplace_back("reload");
        if (self->acknowledges) {
            EXPECT_EQ(shelf_manager_acknowledge_reload(shelf), PLATFORM_OK);
        }
    }
    std::vector<std::string> take() { return std::exchange(calls, {}); }
};

class shelf_manager_test : public platform_test::loop_test {
  protected:
    void TearDown() override {
        shelf_manager_reset();
        loop_test::TearDown();
    }

    void make(agent& client) {
        ASSERT_EQ(shelf_manager_create(event_manager_loop_handle(manager), &client.shelf), PLATFORM_OK);
        shelf_manager_set_reload_callback(client.shelf, agent::on_reload, &client);
        shelf_manager_set_connect_callback(client.shelf, agent::on_connect, &client);
        shelf_manager_set_disconnect_callback(client.shelf, agent::on_disconnect, &client);
        EXPECT_EQ(shelf_manager_connect(client.shelf), PLATFORM_OK);
    }

    void connect(agent& client) {
        make(client);
        EXPECT_TRUE(run_until([&] { return !client.calls.empty(); }));
        EXPECT_THAT(client.take(), ElementsAre("connect"));
    }

    static shelf_reload_phase phase() { return shelf_manager_reload_state().phase; }

    agent client;
};

TEST_F(shelf_manager_test, connects_when_the_loop_runs) {
    make(client);
    EXPECT_THAT(client.calls, IsEmpty());
    EXPECT_TRUE(run_until([&] { return !client.calls.empty(); }));
    EXPECT_THAT(client.take(), ElementsAre("connect"));
    EXPECT_EQ(shelf_manager_connect(client.shelf), PLATFORM_OK);
    run_for(50);
    EXPECT_THAT(client.take(), IsEmpty());
}

TEST_F(shelf_manager_test, delivers_the_notice_and_accepts_the_acknowledgement) {
    connect(client);
    EXPECT_EQ(phase(), shelf_reload_phase::none);
    EXPECT_EQ(shelf_manager_announce_reload(10), PLATFORM_OK);
    EXPECT_THAT(client.take(), ElementsAre("reload"));
    EXPECT_EQ(phase(), shelf_reload_phase::acknowledged);
    EXPECT_EQ(shelf_manager_acknowledge_reload(client.shelf), platform_status{EALREADY});
    EXPECT_EQ(shelf_manager_announce_reload(10), PLATFORM_OK);
    EXPECT_EQ(shelf_manager_reload_state().number, 2u);
}

TEST_F(shelf_manager_test, waits_for_a_later_acknowledgement) {
    client.acknowledges = false;
    connect(client);
    ASSERT_EQ(shelf_manager_announce_reload(10), PLATFORM_OK);
    EXPECT_EQ(phase(), shelf_reload_phase::waiting);
    EXPECT_EQ(shelf_manager_announce_reload(10), platform_status{EALREADY});
    EXPECT_THAT(client.take(), ElementsAre("reload"));
    EXPECT_EQ(shelf_manager_acknowledge_reload(client.shelf), PLATFORM_OK);
    EXPECT_EQ(phase(), shelf_reload_phase::acknowledged);
}

TEST_F(shelf_manager_test, gives_up_after_the_timeout_and_logs_it) {
    client.acknowledges = false;
    connect(client);
    platform_test::journal_listener journal;
    ASSERT_EQ(shelf_manager_announce_reload(1), PLATFORM_OK);
    EXPECT_EQ(phase(), shelf_reload_phase::waiting);
    run_for(2100);
    EXPECT_EQ(phase(), shelf_reload_phase::unanswered);
    EXPECT_EQ(phase(), shelf_reload_phase::unanswered);
    EXPECT_EQ(journal.messages(), "The reload notice was not acknowledged within 1 seconds\n");
    EXPECT_EQ(shelf_manager_acknowledge_reload(client.shelf), platform_status{ETIMEDOUT});
    EXPECT_EQ(phase(), shelf_reload_phase::unanswered);
    client.acknowledges = true;
    EXPECT_EQ(shelf_manager_announce_reload(1), PLATFORM_OK);
    EXPECT_EQ(phase(), shelf_reload_phase::acknowledged);
}

TEST_F(shelf_manager_test, a_notice_without_followers_can_be_repeated) {
    client.acknowledges = false;
    connect(client);
    ASSERT_EQ(shelf_manager_announce_reload(3600), PLATFORM_OK);
    run_for(1500);
    EXPECT_EQ(shelf_manager_announce_reload(3600), platform_status{EALREADY});
    shelf_manager_follow_reload();
    run_for(1500);
    EXPECT_EQ(shelf_manager_announce_reload(3600), platform_status{EALREADY});
    run_for(4100);
    EXPECT_EQ(phase(), shelf_reload_phase::waiting);
    EXPECT_EQ(shelf_manager_announce_reload(3600), PLATFORM_OK);
    EXPECT_EQ(shelf_manager_reload_state().number, 2u);
    EXPECT_THAT(client.take(), ElementsAre("reload", "reload"));
}

TEST_F(shelf_manager_test, accepts_an_acknowledgement_while_the_handler_runs) {
    connect(client);
    shelf_manager_set_reload_callback(
        client.shelf,
        [](shelf_manager* shelf, void*) {
            usleep(2100000);
            EXPECT_EQ(shelf_manager_acknowledge_reload(shelf), PLATFORM_OK);
        },
        nullptr);
    ASSERT_EQ(shelf_manager_announce_reload(1), PLATFORM_OK);
    EXPECT_EQ(phase(), shelf_reload_phase::acknowledged);
}

TEST_F(shelf_manager_test, without_a_registration_there_is_nobody_to_notify) {
    EXPECT_EQ(shelf_manager_announce_reload(1), platform_status{ENOENT});
    make(client);
    EXPECT_EQ(shelf_manager_announce_reload(1), platform_status{ENOENT});
    EXPECT_EQ(phase(), shelf_reload_phase::none);
}

TEST_F(shelf_manager_test, reconnects_and_registers_again) {
    connect(client);
    shelf_manager_link(false);
    EXPECT_THAT(client.take(), ElementsAre("disconnect"));
    EXPECT_EQ(shelf_manager_announce_reload(1), platform_status{ENOENT});
    EXPECT_EQ(shelf_manager_register_reload(client.shelf), platform_status{ENOTCONN});
    EXPECT_EQ(shelf_manager_acknowledge_reload(client.shelf), platform_status{ENOTCONN});
    run_for(50);
    EXPECT_THAT(client.take(), IsEmpty());
    shelf_manager_link(true);
    EXPECT_TRUE(run_until([&] { return !client.calls.empty(); }));
    EXPECT_THAT(client.take(), ElementsAre("connect"));
    EXPECT_EQ(shelf_manager_announce_reload(1), PLATFORM_OK);
    EXPECT_THAT(client.take(), ElementsAre("reload"));
}

TEST_F(shelf_manager_test, repeats_a_registration_made_before_the_connection) {
    make(client);
    shelf_manager_set_connect_callback(client.shelf, nullptr, nullptr);
    EXPECT_EQ(shelf_manager_register_reload(client.shelf), platform_status{ENOTCONN});
    run_for(50);
    EXPECT_EQ(shelf_manager_announce_reload(1), PLATFORM_OK);
    EXPECT_THAT(client.take(), ElementsAre("reload"));
}

TEST_F(shelf_manager_test, waits_for_all_clients_that_were_notified) {
    agent other;
    connect(client);
    connect(other);
    other.acknowledges = false;
    ASSERT_EQ(shelf_manager_announce_reload(10), PLATFORM_OK);
    EXPECT_EQ(phase(), shelf_reload_phase::waiting);
    EXPECT_EQ(shelf_manager_acknowledge_reload(client.shelf), platform_status{EALREADY});
    EXPECT_EQ(phase(), shelf_reload_phase::waiting);
    EXPECT_EQ(shelf_manager_acknowledge_reload(other.shelf), PLATFORM_OK);
    EXPECT_EQ(phase(), shelf_reload_phase::acknowledged);
}

TEST_F(shelf_manager_test, refuses_invalid_arguments) {
    shelf_manager* shelf = nullptr;
    EXPECT_EQ(shelf_manager_create(nullptr, &shelf), platform_status{EINVAL});
    EXPECT_EQ(shelf, nullptr);
    EXPECT_EQ(shelf_manager_create(event_manager_loop_handle(manager), nullptr), platform_status{EINVAL});
    EXPECT_EQ(shelf_manager_connect(nullptr), platform_status{EINVAL});
    EXPECT_EQ(shelf_manager_register_reload(nullptr), platform_status{EINVAL});
    EXPECT_EQ(shelf_manager_acknowledge_reload(nullptr), platform_status{EINVAL});
}

}  // namespace
