#include "appliers/server_settings.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <optional>

#include "../agent_test.h"
#include "appliers/settings.h"
#include "config_files/default_contents.h"
#include "config_files/file_recreation.h"
#include "config_files/vrf_node.h"
#include "core/debug.h"
#include "core/upcalls.h"
#include "scratch_root.h"
#include "vrf/node_registry.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

constexpr uint32_t created = DATASTORE_EVENT_CREATE | DATASTORE_EVENT_SET;
constexpr uint32_t changed = DATASTORE_EVENT_SET;
constexpr uint32_t deleted = DATASTORE_EVENT_DELETE;

using applier = platform_status (*)(const datastore_change*, const datastore_path_components*);

/// A node with the initial lines in the default file, one VRF with a file and a namespace, and restarts and telemetry
/// that are recorded together with the file's content at that moment.
class server_settings_test : public agent_test {
  protected:
    server_settings_test() {
        agent_handles.respawn_count = 1;
        prepare_default_files();
        write_initial_lines();
        write_file("/var/opt/norvo/norvossh/sshd_config_red", read_file(paths::server_file) + "Port 22\n");
        create_vrf_node("red");
        scratch_root::add_namespace_file("vrf-red");
        agent_upcalls.ssh_process_restart = [](uint32_t start, const char* vrf_name) {
            fake_platform::record_call("restart(" + std::to_string(start) + ", " + vrf_name + ")");
            return 0;
        };
        agent_upcalls.ocssh_telemetry_publish = [] {
            fake_platform::record_call("telemetry, " + line_of("LoginGraceTime").value_or("no line"));
        };
        fake_platform::preset_debug_flag(debug_cfg_agent, true);
        forget();
    }

    ~server_settings_test() override { forget_vrf_nodes(); }

    static void forget() {
        fake_platform::clear_calls();
        fake_platform::clear_reports();
    }

    static platform_status set(applier handler, uint32_t value, uint32_t event = created) {
        const datastore_change change = {event, nullptr, &value, 0, sizeof value};
        return handler(&change, nullptr);
    }

    static platform_status remove(applier handler) {
        const uint32_t value = 1;
        const datastore_change change = {deleted, &value, nullptr, sizeof value, 0};
        return handler(&change, nullptr);
    }

    /// The keyword's only line in the default file; the VRF's file must contain the same.
    static std::optional<std::string> line_of(const std::string& keyword) {
        const auto find = [&keyword](const std::string& path) {
            std::vector<std::string> found;
            for (const std::string& line : file_lines(path)) {
                if (line.rfind(keyword + " ", 0) == 0) {
                    found.push_back(line);
                }
            }
            EXPECT_LE(found.size(), 1u) << path << " " << keyword;
            return found.empty() ? std::nullopt : std::optional<std::string>(found.front());
        };
        const auto line = find(paths::server_file);
        EXPECT_EQ(line, find("/var/opt/norvo/norvossh/sshd_config_red"));
        return line;
    }

    static const char* current(server_parameter parameter) { return server_config.parameters[parameter].current; }

    static std::vector<std::string> trail() { return fake_platform::calls(); }

    static std::vector<std::string> events_traced() {
        std::vector<std::string> found;
        for (const auto& line : fake_platform::trace_lines_of("ssh/cfg-agent/event")) {
            std::string text;
            for (const std::string& argument : line.arguments) {
                text += (text.empty() ? "" : " ") + argument;
            }
            found.push_back(text);
        }
        return found;
    }
};

// --- The rows --------------------------------------------------------------------------------------------------------

struct plain_setting {
    const char* name;
    applier handler;
    server_parameter parameter;
    const char* keyword;
    const char* default_text;
    const char* event_text;  ///< the debug line without its event mask
    bool keeps_default;      ///< a removal writes the default instead of deleting the line
    bool is_telemetry;
};

void PrintTo(const plain_setting& setting, std::ostream* output) {
    *output << setting.name;
}

class plain_setting_test : public server_settings_test, public testing::WithParamInterface<plain_setting> {};

TEST_P(plain_setting_test, its_number_is_written_and_the_server_restarts) {
    const plain_setting& setting = GetParam();
    EXPECT_EQ(set(setting.handler, 37), 0u);
    EXPECT_EQ(line_of(setting.keyword), std::string(setting.keyword) + " 37");
    EXPECT_STREQ(current(setting.parameter), "37");
    EXPECT_THAT(trail(), Contains("restart(1, red)"));
    EXPECT_EQ(fake_platform::debug_texts().front(), std::string("Event:=3, Config:=") + setting.event_text);
    EXPECT_THAT(events_traced(), Contains("3 37"));
}

TEST_P(plain_setting_test, a_change_replaces_the_line) {
    const plain_setting& setting = GetParam();
    set(setting.handler, 37);
    forget();
    EXPECT_EQ(set(setting.handler, 5, changed), 0u);
    EXPECT_EQ(line_of(setting.keyword), std::string(setting.keyword) + " 5");
    EXPECT_THAT(trail(), Contains("restart(1, red)"));
    EXPECT_THAT(events_traced(), Contains("2 5"));
}

TEST_P(plain_setting_test, the_same_number_restarts_nothing) {
    set(GetParam().handler, 37);
    forget();
    set(GetParam().handler, 37, changed);
    EXPECT_THAT(trail(), Not(Contains(HasSubstr("restart"))));
}

// Some keywords get their default when the item is removed; the others lose their line.
TEST_P(plain_setting_test, a_removal_restores_the_default) {
    const plain_setting& setting = GetParam();
    set(setting.handler, 37);
    forget();
    EXPECT_EQ(remove(setting.handler), 0u);
    EXPECT_STREQ(current(setting.parameter), setting.default_text);
    if (setting.keeps_default) {
        EXPECT_EQ(line_of(setting.keyword), std::string(setting.keyword) + " " + setting.default_text);
    } else {
        EXPECT_EQ(line_of(setting.keyword), std::nullopt);
    }
    EXPECT_THAT(trail(), Contains("restart(1, red)"));
    EXPECT_EQ(fake_platform::debug_texts().front(), std::string("Event:=4, Config:=") + setting.event_text);
    EXPECT_THAT(events_traced(), Contains(std::string("4 ") + setting.default_text));
}

TEST_P(plain_setting_test, its_telemetry_is_published_before_the_file_is_written) {
    const plain_setting& setting = GetParam();
    const std::string before = "telemetry, " + line_of("LoginGraceTime").value();
    for (const bool removing : {false, true}) {
        set(setting.handler, 30);
        forget();
        removing ? remove(setting.handler) : set(setting.handler, 44);
        const auto calls = trail();
        ASSERT_FALSE(calls.empty());
        if (setting.is_telemetry) {
            EXPECT_EQ(calls.front(), before);
            EXPECT_EQ(std::count_if(calls.begin(), calls.end(),
                                    [](const std::string& call) { return call.rfind("telemetry", 0) == 0; }),
                      1);
        } else {
            EXPECT_THAT(calls, Not(Contains(HasSubstr("telemetry"))));
        }
    }
}

TEST_P(plain_setting_test, a_number_is_written_with_its_sign) {
    set(GetParam().handler, UINT32_MAX);
    EXPECT_STREQ(current(GetParam().parameter), "-1");
}

TEST_P(plain_setting_test, a_failed_edit_is_accepted) {
    std::filesystem::create_directory(paths::temporary_file);
    const std::string before = read_file(paths::server_file);
    EXPECT_EQ(set(GetParam().handler, 37), 0u);
    EXPECT_EQ(read_file(paths::server_file), before);
    EXPECT_STREQ(current(GetParam().parameter), "37");
    EXPECT_THAT(trail(), Not(Contains(HasSubstr("restart"))));
}

TEST_P(plain_setting_test, an_event_that_neither_sets_nor_deletes_does_nothing) {
    const std::string before = read_file(paths::server_file);
    const char* text = current(GetParam().parameter);
    EXPECT_EQ(set(GetParam().handler, 37, 0), 0u);
    EXPECT_EQ(set(GetParam().handler, 37, 8), 0u);
    EXPECT_EQ(read_file(paths::server_file), before);
    EXPECT_EQ(current(GetParam().parameter), text);
    EXPECT_THAT(trail(), ElementsAre());
}

TEST_P(plain_setting_test, its_text_is_kept_while_others_change) {
    set(GetParam().handler, 37);
    for (const applier other : {sshd_apply_timeout, sshd_apply_max_auth_limit, sshd_apply_rate_limit,
                                sshd_apply_session_limit, sshd_apply_tcp_window_scale, sshd_apply_dscp}) {
        if (other != GetParam().handler) {
            set(other, 99);
        }
    }
    set(sshd_apply_rekey_time, 99);
    EXPECT_STREQ(current(GetParam().parameter), "37");
}

INSTANTIATE_TEST_SUITE_P(settings, plain_setting_test,
                         testing::Values(plain_setting{"timeout", sshd_apply_timeout, SERVER_LOGIN_GRACE_TIME,
                                                       "LoginGraceTime", "30", "ssh timeout", true, true},
                                         plain_setting{"max_auth_limit", sshd_apply_max_auth_limit,
                                                       SERVER_MAX_AUTH_TRIES, "MaxAuthTries", "20",
                                                       "ssh server max auth limit", true, false},
                                         plain_setting{"rate_limit", sshd_apply_rate_limit, SERVER_RATE_LIMIT,
                                                       "RateLimitQd", "60", "ssh server rate limit", false, true},
                                         plain_setting{"session_limit", sshd_apply_session_limit, SERVER_SESSION_LIMIT,
                                                       "SessionLimitQd", "64", "ssh server sessionlimit", false, true}),
                         [](const auto& info) { return info.param.name; });

TEST_F(server_settings_test, timeout_and_retries_are_printed_in_debug) {
    set(sshd_apply_timeout, 37);
    EXPECT_THAT(fake_platform::debug_texts(), Contains("(sshd_apply_timeout), timeout:=37"));
    set(sshd_apply_max_auth_limit, 4);
    EXPECT_THAT(fake_platform::debug_texts(), Contains("(sshd_apply_max_auth_limit), Retries:=4"));
    remove(sshd_apply_max_auth_limit);
    EXPECT_THAT(fake_platform::debug_texts(), Contains("(sshd_apply_max_auth_limit), Retries:=20"));
}

// --- DSCP ------------------------------------------------------------------------------------------------------------

// The table contains the code point, the file has it in the upper six bits of the type of service.
TEST_F(server_settings_test, a_code_point_is_written_as_type_of_service) {
    EXPECT_EQ(line_of("IPQoS"), "IPQoS 0x40");
    EXPECT_EQ(set(sshd_apply_dscp, 46), 0u);
    EXPECT_EQ(line_of("IPQoS"), "IPQoS 0xb8");
    EXPECT_STREQ(current(SERVER_IP_QOS), "0x2e");
    EXPECT_THAT(fake_platform::debug_texts(), Contains("Event:=3, Config:=ssh server dscp"));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("Setting DSCP for ssh server: 0x2e"));
    EXPECT_THAT(events_traced(), Contains("3 0x2e"));
    EXPECT_THAT(trail(), ElementsAre("restart(1, red)"));
}

TEST_F(server_settings_test, the_lowest_and_the_highest_code_point) {
    set(sshd_apply_dscp, 0);
    EXPECT_EQ(line_of("IPQoS"), "IPQoS 0x0");
    set(sshd_apply_dscp, 63);
    EXPECT_EQ(line_of("IPQoS"), "IPQoS 0xfc");
}

TEST_F(server_settings_test, removing_the_code_point_leaves_the_default_in_the_file) {
    set(sshd_apply_dscp, 46);
    EXPECT_EQ(remove(sshd_apply_dscp), 0u);
    EXPECT_EQ(line_of("IPQoS"), "IPQoS 0x40");
    EXPECT_STREQ(current(SERVER_IP_QOS), "0x10");
}

// --- Rekey limit -----------------------------------------------------------------------------------------------------

// Two items share one line, one half each.
TEST_F(server_settings_test, the_two_halves_of_the_rekey_limit_are_independent) {
    EXPECT_EQ(set(sshd_apply_rekey_time, 30), 0u);
    EXPECT_EQ(line_of("RekeyLimit"), "RekeyLimit 1024M 30m");
    EXPECT_EQ(set(sshd_apply_rekey_volume, 512), 0u);
    EXPECT_EQ(line_of("RekeyLimit"), "RekeyLimit 512M 30m");
    EXPECT_EQ(remove(sshd_apply_rekey_time), 0u);
    EXPECT_EQ(line_of("RekeyLimit"), "RekeyLimit 512M 60m");
    EXPECT_EQ(remove(sshd_apply_rekey_volume), 0u);
    EXPECT_EQ(line_of("RekeyLimit"), "RekeyLimit 1024M 60m");
    EXPECT_STREQ(current(SERVER_REKEY_LIMIT), "1024M 60m");
}

TEST_F(server_settings_test, removing_the_volume_keeps_the_time) {
    set(sshd_apply_rekey_time, 30);
    set(sshd_apply_rekey_volume, 512);
    remove(sshd_apply_rekey_volume);
    EXPECT_EQ(line_of("RekeyLimit"), "RekeyLimit 1024M 30m");
}

TEST_F(server_settings_test, rekey_items_are_printed_in_debug) {
    set(sshd_apply_rekey_time, 30);
    EXPECT_THAT(fake_platform::debug_texts(), Contains("Event:=3, Config:=ssh server rekey-time"));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("RekeyOld:=1024M 60m"));
    EXPECT_THAT(events_traced(), Contains("3 1024M 30m"));
    remove(sshd_apply_rekey_volume);
    EXPECT_THAT(fake_platform::debug_texts(), Contains("Event:=4, Config:=ssh server rekey-volume"));
    EXPECT_THAT(fake_platform::debug_texts(), Contains("RekeyOld:=1024M 30m"));
    EXPECT_THAT(trail(), ElementsAre("restart(1, red)"));
}

// Only an entry that has never had a value is written with the item's own event.
TEST_F(server_settings_test, removing_a_rekey_item_without_a_limit_deletes_the_line) {
    server_config.parameters[SERVER_REKEY_LIMIT].current = nullptr;
    remove(sshd_apply_rekey_time);
    EXPECT_EQ(line_of("RekeyLimit"), std::nullopt);
    EXPECT_STREQ(current(SERVER_REKEY_LIMIT), "1024M 60m");
    server_config.parameters[SERVER_REKEY_LIMIT].current = nullptr;
    set(sshd_apply_rekey_volume, 7);
    EXPECT_EQ(line_of("RekeyLimit"), "RekeyLimit 7M 60m");
    EXPECT_THAT(fake_platform::debug_texts(), Not(Contains(HasSubstr("RekeyOld"))));
}

TEST_F(server_settings_test, the_longest_rekey_limit_fits) {
    set(sshd_apply_rekey_time, INT32_MAX);
    set(sshd_apply_rekey_volume, INT32_MAX);
    EXPECT_EQ(line_of("RekeyLimit"), "RekeyLimit 2147483647M 2147483647m");
    set(sshd_apply_rekey_volume, UINT32_MAX);
    EXPECT_EQ(line_of("RekeyLimit"), "RekeyLimit -1M 2147483647m");
}

// --- Logging ---------------------------------------------------------------------------------------------------------

TEST_F(server_settings_test, logging_makes_the_servers_verbose_whatever_the_value) {
    for (const uint32_t value : {1u, 0u, 9u}) {
        EXPECT_EQ(set(sshd_apply_logging, value), 0u);
        EXPECT_EQ(line_of("LogLevel"), "LogLevel VERBOSE");
        EXPECT_STREQ(current(SERVER_LOG_LEVEL), "VERBOSE");
        EXPECT_EQ(server_logging_configured, 1u);
    }
    EXPECT_THAT(fake_platform::debug_texts(), Contains("Event:=3, Config:=ssh server logging"));
    EXPECT_THAT(events_traced(), Contains("3 VERBOSE"));
    EXPECT_THAT(trail(), ElementsAre("restart(1, red)"));
}

TEST_F(server_settings_test, without_logging_there_is_no_log_level) {
    set(sshd_apply_logging, 1);
    EXPECT_EQ(remove(sshd_apply_logging), 0u);
    EXPECT_EQ(line_of("LogLevel"), std::nullopt);
    EXPECT_EQ(current(SERVER_LOG_LEVEL), nullptr);
    EXPECT_EQ(server_logging_configured, 0u);
}

TEST_F(server_settings_test, a_server_debug_level_overrides_logging) {
    for (const debug_flag level : {debug_server_l1, debug_server_l2, debug_server_l3}) {
        fake_platform::preset_debug_flag(level, true);
        EXPECT_EQ(set(sshd_apply_logging, 1), 0u);
        EXPECT_EQ(server_logging_configured, 1u);
        EXPECT_EQ(line_of("LogLevel"), std::nullopt);
        EXPECT_EQ(current(SERVER_LOG_LEVEL), nullptr);
        server_config.parameters[SERVER_LOG_LEVEL].current = "DEBUG1";
        EXPECT_EQ(remove(sshd_apply_logging), 0u);
        EXPECT_EQ(server_logging_configured, 0u);
        EXPECT_STREQ(current(SERVER_LOG_LEVEL), "DEBUG1");
        server_config.parameters[SERVER_LOG_LEVEL].current = nullptr;
        fake_platform::preset_debug_flag(level, false);
    }
    EXPECT_THAT(trail(), ElementsAre());
    EXPECT_THAT(events_traced(), Contains("3 NULL"));
}

TEST_F(server_settings_test, a_client_debug_level_does_not_override_logging) {
    fake_platform::preset_debug_flag(debug_client_l3, true);
    set(sshd_apply_logging, 1);
    EXPECT_EQ(line_of("LogLevel"), "LogLevel VERBOSE");
}

TEST_F(server_settings_test, logging_ignores_events_that_neither_set_nor_delete) {
    EXPECT_EQ(set(sshd_apply_logging, 1, 0), 0u);
    EXPECT_EQ(server_logging_configured, 0u);
    EXPECT_THAT(trail(), ElementsAre());
}

// --- Port forwarding -------------------------------------------------------------------------------------------------

TEST_F(server_settings_test, port_forwarding_is_local_or_none) {
    EXPECT_EQ(set(sshd_apply_port_forwarding, 1), 0u);
    EXPECT_EQ(line_of("AllowTcpForwarding"), "AllowTcpForwarding local");
    EXPECT_EQ(set(sshd_apply_port_forwarding, 0, changed), 0u);
    EXPECT_EQ(line_of("AllowTcpForwarding"), "AllowTcpForwarding no");
    set(sshd_apply_port_forwarding, 1);
    EXPECT_EQ(remove(sshd_apply_port_forwarding), 0u);
    EXPECT_EQ(line_of("AllowTcpForwarding"), "AllowTcpForwarding no");
    EXPECT_STREQ(current(SERVER_ALLOW_TCP_FORWARDING), "no");
    EXPECT_THAT(fake_platform::debug_texts(), Contains("Event:=3, Config:=ssh server port forwarding"));
    EXPECT_THAT(events_traced(), Contains("4 no"));
}

TEST_F(server_settings_test, another_value_of_port_forwarding_is_refused) {
    const std::string before = read_file(paths::server_file);
    for (const uint32_t value : {2u, UINT32_MAX}) {
        forget();
        EXPECT_EQ(set(sshd_apply_port_forwarding, value), 1u);
        EXPECT_THAT(fake_platform::log_texts(),
                    ElementsAre("ERR_GENERAL: invalid create/set value for port forwarding"));
        EXPECT_EQ(fake_platform::log_lines().front().severity, 3u);
        EXPECT_THAT(fake_platform::debug_texts(), Contains("Event:=3, Config:=ssh server port forwarding"));
        EXPECT_THAT(trail(), ElementsAre());
    }
    EXPECT_EQ(read_file(paths::server_file), before);
    EXPECT_STREQ(current(SERVER_ALLOW_TCP_FORWARDING), "no");
}

TEST_F(server_settings_test, an_event_that_neither_sets_nor_deletes_port_forwarding_is_refused) {
    const std::string before = read_file(paths::server_file);
    EXPECT_EQ(set(sshd_apply_port_forwarding, 1, 0), 1u);
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_GENERAL: invalid event type received for port forwarding"));
    EXPECT_EQ(read_file(paths::server_file), before);
    EXPECT_THAT(trail(), ElementsAre());
}

// --- Window scale ----------------------------------------------------------------------------------------------------

// Only the table keeps it: no file is written and no server restarted.
TEST_F(server_settings_test, the_window_scale_is_written_with_the_next_recreated_file) {
    const std::string before = read_file(paths::server_file);
    EXPECT_EQ(set(sshd_apply_tcp_window_scale, 7), 0u);
    EXPECT_STREQ(current(SERVER_WINDOW_SCALE), "7");
    EXPECT_EQ(read_file(paths::server_file), before);
    EXPECT_THAT(trail(), ElementsAre());
    EXPECT_THAT(fake_platform::debug_texts(), ElementsAre("Event:=3, Config:=ssh server windowscale"));
    EXPECT_THAT(events_traced(), ElementsAre("3 7"));
    std::filesystem::remove(paths::server_file);
    default_config_file_recreate();
    EXPECT_THAT(read_file(paths::server_file), HasSubstr("WindowScaleQd 7\n"));
}

TEST_F(server_settings_test, a_removed_window_scale_is_omitted_instead_of_the_default) {
    set(sshd_apply_tcp_window_scale, 7);
    EXPECT_EQ(remove(sshd_apply_tcp_window_scale), 0u);
    EXPECT_EQ(current(SERVER_WINDOW_SCALE), nullptr);
    std::filesystem::remove(paths::server_file);
    default_config_file_recreate();
    EXPECT_THAT(read_file(paths::server_file), Not(HasSubstr("WindowScaleQd")));
}

}  // namespace
