#include "core/debug_level.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "../agent_test.h"
#include "appliers/server_settings.h"
#include "core/debug.h"
#include "platform/debug.h"

namespace {

constexpr uint32_t on = DEBUG_ACTION_ON;
constexpr uint32_t off = DEBUG_ACTION_OFF;
constexpr const char* nothing = nullptr;

/// The levels of one side that are switched on and off, in this order, and the resulting LogLevel.
struct switches {
    std::vector<int> on_levels;
    int off_level;  ///< 0: none
    bool logging;
    const char* log_level;
};

// The two sides differ only by the logging item, which clients do not have.
const switches without_logging[] = {
    {{1}, 0, false, "DEBUG1"},       {{2}, 0, false, "DEBUG2"},       {{3}, 0, false, "DEBUG3"},
    {{1, 2}, 0, false, "DEBUG2"},    {{2, 1}, 0, false, "DEBUG2"},    {{3, 2}, 0, false, "DEBUG3"},
    {{3, 1}, 0, false, "DEBUG3"},    {{2, 3}, 0, false, "DEBUG3"},    {{1, 3}, 0, false, "DEBUG3"},
    {{1}, 1, false, nothing},        {{1, 2}, 1, false, "DEBUG2"},    {{1, 3}, 1, false, "DEBUG3"},
    {{1, 2, 3}, 1, false, "DEBUG3"}, {{2}, 2, false, nothing},        {{1, 2}, 2, false, "DEBUG1"},
    {{2, 3}, 2, false, "DEBUG3"},    {{1, 2, 3}, 2, false, "DEBUG3"}, {{3}, 3, false, nothing},
    {{1, 3}, 3, false, "DEBUG1"},    {{2, 3}, 3, false, "DEBUG2"},    {{1, 2, 3}, 3, false, "DEBUG2"},
    {{}, 1, false, nothing},         {{}, 2, false, nothing},         {{}, 3, false, nothing},
};

const switches with_logging[] = {
    {{1}, 0, true, "DEBUG1"},
    // Logging is restored when level 1 is switched off, even while a higher level is on.
    {{1}, 1, true, "VERBOSE"},
    {{1, 2}, 1, true, "VERBOSE"},
    {{1, 3}, 1, true, "VERBOSE"},
    {{}, 1, true, "VERBOSE"},
    // Because of logging, level 2 falls back to level 1 although that is off.
    {{2}, 2, true, "DEBUG1"},
    {{1, 2}, 2, true, "DEBUG1"},
    {{2, 3}, 2, true, "DEBUG3"},
    // Level 3 ignores logging.
    {{3}, 3, true, nothing},
    {{1, 3}, 3, true, "DEBUG1"},
    {{2, 3}, 3, true, "DEBUG2"},
};

class debug_level_test : public agent_test {
  protected:
    debug_level_test() {
        write_file(paths::server_file, "UsePAM yes\n");
        write_file(paths::client_file, "MACs x\n");
    }

    static std::string file_with(const char* line, const char* log_level) {
        return std::string(line) + (log_level != nullptr ? std::string("LogLevel ") + log_level + "\n" : "");
    }

    static std::string describe(const switches& test) {
        std::string text = "on";
        for (const int level : test.on_levels) {
            text += " " + std::to_string(level);
        }
        return text + ", off " + std::to_string(test.off_level) + (test.logging ? ", logging" : "");
    }

    /// Starts with all levels off.
    static void run(const switches& test, uint32_t first_flag) {
        server_logging_configured = 0;
        for (uint32_t level = 0; level < 3; level++) {
            debug_level_handler(off, first_flag + 2 - level, nullptr);
        }
        server_logging_configured = test.logging ? 1 : 0;
        for (const int level : test.on_levels) {
            debug_level_handler(on, first_flag + static_cast<uint32_t>(level) - 1, nullptr);
        }
        if (test.off_level != 0) {
            debug_level_handler(off, first_flag + static_cast<uint32_t>(test.off_level) - 1, nullptr);
        }
    }

    static void expect_server(const switches& test) {
        SCOPED_TRACE("server: " + describe(test));
        run(test, debug_server_l1);
        EXPECT_STREQ(server_config.parameters[SERVER_LOG_LEVEL].current, test.log_level);
        EXPECT_EQ(read_file(paths::server_file), file_with("UsePAM yes\n", test.log_level));
        EXPECT_EQ(client_config.parameters[CLIENT_LOG_LEVEL].current, nullptr);
        EXPECT_EQ(read_file(paths::client_file), "MACs x\n");
    }

    static void expect_client(const switches& test) {
        SCOPED_TRACE("client: " + describe(test));
        run(test, debug_client_l1);
        EXPECT_STREQ(client_config.parameters[CLIENT_LOG_LEVEL].current, test.log_level);
        EXPECT_EQ(read_file(paths::client_file), file_with("MACs x\n", test.log_level));
        EXPECT_EQ(server_config.parameters[SERVER_LOG_LEVEL].current, nullptr);
        EXPECT_EQ(read_file(paths::server_file), "UsePAM yes\n");
    }
};

TEST_F(debug_level_test, the_servers_levels) {
    for (const switches& test : without_logging) {
        expect_server(test);
    }
}

TEST_F(debug_level_test, the_servers_levels_with_logging_configured) {
    for (const switches& test : with_logging) {
        expect_server(test);
    }
}

TEST_F(debug_level_test, the_clients_levels) {
    for (const switches& test : without_logging) {
        expect_client(test);
    }
}

TEST_F(debug_level_test, the_clients_levels_ignore_the_servers_logging) {
    for (switches test : without_logging) {
        test.logging = true;
        expect_client(test);
    }
}

TEST_F(debug_level_test, server_and_client_are_independent) {
    debug_level_handler(on, debug_server_l3, nullptr);
    debug_level_handler(on, debug_client_l1, nullptr);
    EXPECT_STREQ(server_config.parameters[SERVER_LOG_LEVEL].current, "DEBUG3");
    EXPECT_STREQ(client_config.parameters[CLIENT_LOG_LEVEL].current, "DEBUG1");
    debug_level_handler(off, debug_server_l3, nullptr);
    EXPECT_STREQ(client_config.parameters[CLIENT_LOG_LEVEL].current, "DEBUG1");
}

TEST_F(debug_level_test, other_flags_and_actions_change_nothing) {
    server_config.parameters[SERVER_LOG_LEVEL].current = "VERBOSE";
    for (const uint32_t flag : {0u, 7u, 8u, 9u, 10u, 11u, 31u}) {
        debug_level_handler(on, flag, nullptr);
        debug_level_handler(off, flag, nullptr);
    }
    EXPECT_EQ(read_file(paths::server_file), "UsePAM yes\n");
    EXPECT_EQ(read_file(paths::client_file), "MACs x\n");
    debug_level_handler(0, debug_server_l1, nullptr);
    debug_level_handler(3, debug_server_l1, nullptr);
    EXPECT_STREQ(server_config.parameters[SERVER_LOG_LEVEL].current, "VERBOSE");
}

}  // namespace
