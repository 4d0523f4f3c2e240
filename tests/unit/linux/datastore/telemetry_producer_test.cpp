#include "platform/telemetry_producer.h"

#include <errno.h>
#include <time.h>

#include <fstream>
#include <iterator>
#include <string>

#include "linux/datastore/telemetry_producer_internal.h"
#include "unit/linux/datastore/datastore_fixture.h"
#include "unit/linux/datastore/telemetry_test_support.h"

using telemetry_test::event_path;
using telemetry_test::fill_state;
using telemetry_test::server_state;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

uint64_t nanoseconds_now() {
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

void keep(const control_json& notification, void* context) {
    static_cast<std::vector<control_json>*>(context)->push_back(notification);
}

class telemetry_producer_test : public datastore_test::database_test {
  protected:
    void SetUp() override {
        database_test::SetUp();
        telemetry_test::register_state_record();
        ASSERT_EQ(datastore_provider_register(telemetry_test::tree_path, fill_state, nullptr, &state, &provider),
                  PLATFORM_OK);
        ASSERT_EQ(telemetry_producer_init("OCSSH", event_path, nullptr), PLATFORM_OK);
    }
    void TearDown() override {
        telemetry_unlisten(keep, &received);
        telemetry_unlisten(keep, &told_too);
        EXPECT_EQ(datastore_provider_unregister(provider), PLATFORM_OK);
        database_test::TearDown();
    }

    platform_status publish() { return telemetry_producer_publish(event_path, fill_state, &state); }

    server_state state;
    datastore_provider* provider = nullptr;
    std::vector<control_json> received;
    std::vector<control_json> told_too;
};

TEST_F(telemetry_producer_test, an_event_is_a_notification_in_terms_of_the_model) {
    telemetry_listen(keep, &received);
    const uint64_t before = nanoseconds_now();
    EXPECT_EQ(publish(), PLATFORM_OK);
    ASSERT_EQ(received.size(), 1U);
    const uint64_t timestamp = received[0]["timestamp"].get<uint64_t>();
    EXPECT_LE(before, timestamp);
    EXPECT_LE(timestamp, nanoseconds_now());
    received[0]["timestamp"] = 0;
    EXPECT_EQ(control_json_text(received[0]),
              R"({"timestamp":0,"prefix":"/openconfig-system:system/ssh-server/state","update":[)"
              R"({"path":"enable","val":true},{"path":"protocol-version","val":"V2"},{"path":"timeout","val":30},)"
              R"({"path":"rate-limit","val":60},{"path":"session-limit","val":64}]})");
}

TEST_F(telemetry_producer_test, absent_values_are_omitted) {
    state.has_timeout = false;
    state.has_enable = false;
    telemetry_listen(keep, &received);
    EXPECT_EQ(publish(), PLATFORM_OK);
    EXPECT_EQ(control_json_text(received[0]["update"]), R"([{"path":"protocol-version","val":"V2"},)"
                                                        R"({"path":"rate-limit","val":60},)"
                                                        R"({"path":"session-limit","val":64}])");
}

TEST_F(telemetry_producer_test, enumerations_are_published_by_name_or_not_at_all) {
    const auto version_told = [](int32_t number) {
        const control_json record = {{"SshServer", {{"State", {{"ProtocolVersion", number}}}}}};
        return control_json_text(telemetry_notification(record, 7)["update"]);
    };
    EXPECT_EQ(version_told(0), R"([{"path":"protocol-version","val":"V2"}])");
    EXPECT_EQ(version_told(1), R"([{"path":"protocol-version","val":"V1"}])");
    EXPECT_EQ(version_told(2), R"([{"path":"protocol-version","val":"V1_V2"}])");
    EXPECT_EQ(version_told(3), "[]");
    EXPECT_EQ(version_told(-1), "[]");
}

TEST_F(telemetry_producer_test, a_timestamp_keeps_all_digits) {
    const control_json record = {{"SshServer", {{"State", control_json::object()}}}};
    EXPECT_THAT(control_json_text(telemetry_notification(record, 1'700'000'000'123'456'789)),
                HasSubstr(R"("timestamp":1700000000123456789,)"));
}

TEST_F(telemetry_producer_test, every_listener_is_called_until_it_leaves) {
    telemetry_listen(keep, &received);
    telemetry_listen(keep, &received);
    telemetry_listen(keep, &told_too);
    EXPECT_EQ(publish(), PLATFORM_OK);
    EXPECT_EQ(received.size(), 1U);
    EXPECT_EQ(told_too.size(), 1U);
    telemetry_unlisten(keep, &received);
    EXPECT_EQ(publish(), PLATFORM_OK);
    EXPECT_EQ(received.size(), 1U);
    EXPECT_EQ(told_too.size(), 2U);
}

TEST_F(telemetry_producer_test, a_listener_may_leave_while_it_is_called) {
    static bool called;
    called = false;
    const telemetry_listener once = [](const control_json&, void* context) {
        called = true;
        telemetry_unlisten(keep, context);
    };
    telemetry_listen(once, &received);
    telemetry_listen(keep, &received);
    telemetry_listen(keep, &told_too);
    EXPECT_EQ(publish(), PLATFORM_OK);
    EXPECT_TRUE(called);
    EXPECT_EQ(told_too.size(), 1U);
    telemetry_unlisten(once, &received);
}

TEST_F(telemetry_producer_test, without_listeners_no_record_is_made) {
    EXPECT_EQ(publish(), PLATFORM_OK);
    EXPECT_EQ(state.filled, 0);
}

TEST_F(telemetry_producer_test, publishes_only_paths_that_it_was_opened_for) {
    telemetry_listen(keep, &received);
    EXPECT_EQ(telemetry_producer_publish("/oper/other", fill_state, &state), platform_status{EINVAL});
    EXPECT_EQ(telemetry_producer_publish(nullptr, fill_state, &state), platform_status{EINVAL});
    EXPECT_EQ(telemetry_producer_publish(event_path, nullptr, &state), platform_status{EINVAL});
    EXPECT_EQ(telemetry_producer_init(nullptr, event_path, nullptr), platform_status{EINVAL});
    EXPECT_EQ(telemetry_producer_init("OCSSH", nullptr, nullptr), platform_status{EINVAL});
    EXPECT_TRUE(received.empty());
}

TEST_F(telemetry_producer_test, a_record_that_cannot_be_made_is_not_published) {
    telemetry_listen(keep, &received);
    state.result = EIO;
    EXPECT_EQ(publish(), platform_status{EIO});
    state.result = PLATFORM_OK;
    state.garbage = true;
    EXPECT_NE(publish(), PLATFORM_OK);
    EXPECT_TRUE(received.empty());
}

TEST_F(telemetry_producer_test, a_snapshot_is_the_event_of_the_current_state) {
    telemetry_listen(keep, &received);
    EXPECT_EQ(publish(), PLATFORM_OK);
    std::vector<control_json> snapshot = telemetry_snapshot();
    ASSERT_EQ(snapshot.size(), 1U);
    EXPECT_LE(received[0]["timestamp"].get<uint64_t>(), snapshot[0]["timestamp"].get<uint64_t>());
    snapshot[0]["timestamp"] = received[0]["timestamp"];
    EXPECT_EQ(snapshot[0], received[0]);
}

TEST_F(telemetry_producer_test, a_snapshot_omits_what_cannot_be_read) {
    ASSERT_EQ(telemetry_producer_init("OTHER", "/oper/nobody/serves/this", nullptr), PLATFORM_OK);
    EXPECT_EQ(telemetry_snapshot().size(), 1U);
    state.result = DATASTORE_NOTHING_TO_ENCODE;
    EXPECT_TRUE(telemetry_snapshot().empty());
}

TEST(telemetry_model, is_the_one_named_in_the_documentation) {
    for (const char* document : {"docs/operators_guide.md", "packaging/ssh_cfg_ctl.1"}) {
        std::ifstream file(std::string(TEST_SOURCE_DIR "/../../") + document);
        std::string text{std::istreambuf_iterator<char>(file), {}};
        // The manual page escapes its hyphens.
        std::erase(text, '\\');
        EXPECT_NE(text.find(telemetry_model), std::string::npos) << document;
        EXPECT_NE(text.find(telemetry_model_revision), std::string::npos) << document;
    }
}

}  // namespace
