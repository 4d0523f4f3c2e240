#include "linux/start.h"

#include <errno.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <vector>

#include "control_protocol/frame.h"
#include "linux/datastore/served_lists.h"
#include "linux/process/node_lock.h"
#include "linux/process/paths.h"
#include "linux/vrf/namespace_watch.h"
#include "platform/namespace_message.h"
#include "unit/linux/platform_test_support.h"

namespace {

// --- Any table -------------------------------------------------------------------------------------------------------

std::vector<std::string> events;
platform_status second_status;

constexpr uint32_t code = 0x1234;

platform_status start_first(struct event_manager*) {
    events.push_back("start first");
    return PLATFORM_OK;
}

platform_status start_second(struct event_manager*) {
    events.push_back("start second");
    return second_status;
}

platform_status start_third(struct event_manager*) {
    events.push_back("start third");
    return PLATFORM_OK;
}

platform_status start_sender(struct event_manager*) {
    events.push_back("start sender");
    return PLATFORM_OK;
}

void stop_first() {
    events.push_back("stop first");
}

void stop_second() {
    events.push_back("stop second");
}

void stop_sender() {
    events.push_back("stop sender");
}

class service_set_test : public testing::Test {
  protected:
    service_set_test() {
        events.clear();
        second_status = PLATFORM_OK;
    }

    platform_status start(service_moment moment, uint32_t message = 0) {
        return service_set_start(set, moment, message, nullptr);
    }

    platform_service rows[4] = {
        {"first", service_moment::manager_created, 0, true, start_first, stop_first},
        {"second", service_moment::manager_created, 0, true, start_second, stop_second},
        {"sender", service_moment::message_attached, code, true, start_sender, stop_sender},
        {"third", service_moment::first_wait, 0, false, start_third, nullptr},
    };
    service_set set = {rows, {}};
};

using strings = std::vector<std::string>;

TEST_F(service_set_test, services_start_in_the_order_of_the_table_and_stop_in_reverse) {
    EXPECT_EQ(start(service_moment::manager_created), 0U);
    EXPECT_EQ(start(service_moment::message_attached, code), 0U);
    EXPECT_EQ(start(service_moment::first_wait), 0U);
    EXPECT_EQ(events, (strings{"start first", "start second", "start sender", "start third"}));
    events.clear();
    service_set_stop(set);
    EXPECT_EQ(events, (strings{"stop sender", "stop second", "stop first"}));
    events.clear();
    service_set_stop(set);
    EXPECT_EQ(events, strings{}) << "a stopped service is not stopped again";
}

TEST_F(service_set_test, a_running_service_is_not_started_again) {
    start(service_moment::manager_created);
    events.clear();
    EXPECT_EQ(start(service_moment::manager_created), 0U);
    EXPECT_EQ(events, strings{});
    service_set_stop(set);
    events.clear();
    start(service_moment::manager_created);
    EXPECT_EQ(events, (strings{"start first", "start second"})) << "unless it was stopped in between";
}

TEST_F(service_set_test, another_message_starts_nothing) {
    EXPECT_EQ(start(service_moment::message_attached, code + 1), 0U);
    EXPECT_EQ(events, strings{});
}

TEST_F(service_set_test, a_failed_required_service_ends_the_start) {
    second_status = EBUSY;
    rows[2] = {"after it", service_moment::manager_created, 0, true, start_third, nullptr};
    EXPECT_EQ(start(service_moment::manager_created), static_cast<platform_status>(EBUSY));
    EXPECT_EQ(events, (strings{"start first", "start second"}));
    events.clear();
    service_set_stop(set);
    EXPECT_EQ(events, strings{"stop first"}) << "a failed service is not stopped";
}

TEST_F(service_set_test, the_start_continues_without_an_optional_service) {
    second_status = EIO;
    rows[1].required = false;
    rows[2] = {"after it", service_moment::manager_created, 0, true, start_third, nullptr};
    EXPECT_EQ(start(service_moment::manager_created), 0U);
    EXPECT_EQ(events, (strings{"start first", "start second", "start third"}));
    events.clear();
    service_set_stop(set);
    EXPECT_EQ(events, strings{"stop first"});
}

// --- The platform's own table ----------------------------------------------------------------------------------------

strings names_at(service_moment moment) {
    strings names;
    for (const platform_service& service : platform_services().services) {
        if (service.moment == moment) {
            names.push_back(service.name);
        }
    }
    return names;
}

TEST(platform_services_test, start_in_this_order) {
    EXPECT_EQ(names_at(service_moment::manager_created),
              (strings{"log", "node lock", "start count", "control socket", "standby calls", "access lists",
                       "imported keys", "AAA users"}));
    EXPECT_EQ(names_at(service_moment::message_attached), strings{"namespace watch"});
    EXPECT_EQ(names_at(service_moment::first_wait), (strings{"key store", "own packet filters", "repairs", "rehearsals",
                                                             "fallback", "control calls", "readiness"}));
}

bool exists(const char* path) {
    return access(path, F_OK) == 0;
}

bool lists_are_served(const char* path) {
    std::vector<datastore_list_entry> entries;
    platform_status status = PLATFORM_OK;
    return datastore_served_list(path, entries, status);
}

constexpr char account_list[] = "/cfg/gl/aaa/username/";

class platform_start_test : public platform_test::loop_test {};

TEST_F(platform_start_test, a_manager_starts_and_stops_its_services) {
    EXPECT_TRUE(exists(runtime_respawn_file));
    EXPECT_TRUE(exists(control_socket_path));
    EXPECT_TRUE(lists_are_served(account_list));
    event_manager_free(manager);
    manager = nullptr;
    EXPECT_FALSE(exists(control_socket_path));
    EXPECT_FALSE(lists_are_served(account_list));
    EXPECT_TRUE(platform_services().running.none());
    EXPECT_EQ(node_lock_take(), 0);
}

TEST_F(platform_start_test, a_manager_can_be_created_again) {
    event_manager_free(manager);
    ASSERT_EQ(event_manager_create("/dev/ssh_cfg_agent", &manager), 0);
    EXPECT_TRUE(exists(control_socket_path));
    EXPECT_TRUE(lists_are_served(account_list));
}

TEST_F(platform_start_test, the_namespaces_are_watched_once_a_handler_is_attached) {
    const event_message_handler handler = [](struct event_message*, void*) {};
    ASSERT_EQ(event_manager_attach_message(manager, code, handler, nullptr), 0U);
    ASSERT_EQ(namespace_watch_start(manager), 0U) << "another message does not begin the watch";
    namespace_watch_stop();
    ASSERT_EQ(event_manager_attach_message(manager, NAMESPACE_MESSAGE, handler, nullptr), 0U);
    EXPECT_EQ(namespace_watch_start(manager), static_cast<platform_status>(EALREADY));
    event_manager_free(manager);
    manager = nullptr;
    ASSERT_EQ(event_manager_create("/dev/ssh_cfg_agent", &manager), 0);
    EXPECT_EQ(namespace_watch_start(manager), 0U) << "the watch has ended with the manager";
    namespace_watch_stop();
}

TEST_F(platform_start_test, calls_are_answered_from_the_first_wait_on) {
    const auto answers = [] {
        return std::any_of(platform_services().services.begin(), platform_services().services.end(),
                           [](const platform_service& service) {
                               const auto place = static_cast<size_t>(&service - platform_services().services.data());
                               return std::string(service.name) == "control calls" &&
                                      platform_services().running[place];
                           });
    };
    EXPECT_FALSE(answers());
    int fds[2] = {};
    ASSERT_EQ(pipe(fds), 0);
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    ASSERT_EQ(event_manager_attach_fd(
                  manager, fds[0], EVENT_MANAGER_READ, [](int, uint32_t, void*) {}, nullptr),
              0U);
    event_manager_event event = {};
    ASSERT_EQ(event_manager_block(manager, &event), 0);
    EXPECT_TRUE(answers());
    close(fds[0]);
    close(fds[1]);
}

}  // namespace
