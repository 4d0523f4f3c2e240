#include "appliers/setting_row.h"

#include <gmock/gmock.h>

#include "../agent_test.h"
#include "appliers/trace_points.h"
#include "config_files/default_contents.h"
#include "core/debug.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr uint32_t created_and_set = DATASTORE_EVENT_CREATE | DATASTORE_EVENT_SET;

/// Rows for the client's file; server_settings_test covers the server's.
class setting_row_test : public agent_test {
  protected:
    setting_row_test() {
        prepare_default_files();
        write_initial_lines();
        fake_platform::preset_debug_flag(debug_cfg_agent, true);
        fake_platform::clear_reports();
        agent_upcalls.ocssh_telemetry_publish = [] { fake_platform::record_call("telemetry"); };
        fake_platform::clear_calls();
        row.entry = &client_config.parameters[CLIENT_IP_QOS];
        row.event_text = "Event:=%d, Config:=ssh client dscp";
        row.trace_point = appliers_trace_server_dscp;
        row.make_text = code_point_or_default;
        row.event = WRITE_AS_SET;
        row.write = write_client_setting;
    }

    platform_status set(uint32_t value) {
        return apply_setting(row, {created_and_set, nullptr, &value, 0, sizeof value});
    }

    platform_status remove() { return apply_setting(row, {DATASTORE_EVENT_DELETE, nullptr, nullptr, 0, 0}); }

    static std::string client_file() { return read_file(paths::client_file); }

    setting_row row{};
};

TEST_F(setting_row_test, a_client_row_is_written_only_to_the_clients_file) {
    const std::string server_file = read_file(paths::server_file);
    EXPECT_EQ(set(10), 0u);
    EXPECT_THAT(client_file(), HasSubstr("\nIPQoS 0x28\n"));
    EXPECT_STREQ(client_config.parameters[CLIENT_IP_QOS].current, "0xa");
    EXPECT_EQ(remove(), 0u);
    EXPECT_THAT(client_file(), HasSubstr("\nIPQoS 0x40\n"));
    EXPECT_EQ(read_file(paths::server_file), server_file);
    EXPECT_STREQ(server_config.parameters[SERVER_IP_QOS].current, "0x10");
    EXPECT_THAT(fake_platform::debug_texts(), Contains("Event:=4, Config:=ssh client dscp"));
}

TEST_F(setting_row_test, a_client_rekey_limit_has_two_halves) {
    row.entry = &client_config.parameters[CLIENT_REKEY_LIMIT];
    row.event = WRITE_AS_SET_ONCE_HELD;
    row.make_text = rekey_with_time;
    set(30);
    row.make_text = rekey_with_volume;
    set(512);
    EXPECT_THAT(client_file(), HasSubstr("RekeyLimit 512M 30m\n"));
    EXPECT_STREQ(server_config.parameters[SERVER_REKEY_LIMIT].current, "1024M 60m");
}

TEST_F(setting_row_test, a_row_without_writer_is_kept_in_memory) {
    const std::string before = client_file();
    row.entry = &client_config.parameters[CLIENT_WINDOW_SCALE];
    row.make_text = number_or_nothing;
    row.write = nullptr;
    set(7);
    EXPECT_STREQ(client_config.parameters[CLIENT_WINDOW_SCALE].current, "7");
    remove();
    EXPECT_EQ(client_config.parameters[CLIENT_WINDOW_SCALE].current, nullptr);
    EXPECT_EQ(client_file(), before);
}

TEST_F(setting_row_test, a_removal_by_the_items_own_event_deletes_the_line) {
    row.event = WRITE_AS_IT_CAME;
    set(10);
    remove();
    EXPECT_THAT(client_file(), Not(HasSubstr("IPQoS")));
}

TEST_F(setting_row_test, debug_line_and_telemetry_precede_the_file) {
    row.is_telemetry = true;
    row.announce = [](const char* text) { fake_platform::record_call(std::string("announced ") + text); };
    row.write = [](uint32_t event, const line_entry& entry, const char* value) {
        fake_platform::record_call("write(" + std::to_string(event) + ", " + entry.keyword + ", " + value + ")");
    };
    set(10);
    EXPECT_THAT(fake_platform::calls(), ElementsAre("announced 0xa", "telemetry", "write(3, IPQoS, 0x28)"));
}

TEST_F(setting_row_test, a_failed_check_prevents_the_change) {
    row.check = [](const datastore_change& change) -> platform_status { return change.event; };
    const std::string before = client_file();
    EXPECT_EQ(set(10), created_and_set);
    EXPECT_EQ(client_file(), before);
    EXPECT_STREQ(client_config.parameters[CLIENT_IP_QOS].current, "0x10");
    EXPECT_THAT(fake_platform::debug_texts(), Contains("Event:=3, Config:=ssh client dscp"));
    row.check = [](const datastore_change&) -> platform_status { return PLATFORM_OK; };
    EXPECT_EQ(set(10), 0u);
    EXPECT_STREQ(client_config.parameters[CLIENT_IP_QOS].current, "0xa");
}

TEST_F(setting_row_test, a_set_without_a_value_does_nothing) {
    const std::string before = client_file();
    EXPECT_EQ(apply_setting(row, {created_and_set, nullptr, nullptr, 0, 0}), 0u);
    EXPECT_EQ(client_file(), before);
    EXPECT_STREQ(client_config.parameters[CLIENT_IP_QOS].current, "0x10");
}

}  // namespace
