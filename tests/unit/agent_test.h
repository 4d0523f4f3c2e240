/// Fixture of the agent's tests: a node on which the agent has never run.
#ifndef UNIT_AGENT_TEST_H
#define UNIT_AGENT_TEST_H

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "config_files/parameter_table.h"
#include "core/agent_state.h"
#include "core/paths.h"
#include "core/start_up.h"
#include "core/trace_table.h"
#include "core/upcalls.h"
#include "fake/fake_platform.h"
#include "files.h"
#include "golden.h"
#include "stub_commands.h"
#include "vrf/node_registry.h"

class agent_test : public testing::Test {
  protected:
    agent_test() {
        std::filesystem::create_directories("/var/opt/norvo");
        trace_initialise(agent_trace_table);
        fake_platform::clear_calls();
        fill_parameter_tables();
    }

    /// No trace entry has more arguments than its trace point has labels.
    ~agent_test() override {
        for (const fake_platform::trace_line& line : fake_platform::trace_lines()) {
            if (line.point != nullptr && !line.arguments.empty()) {
                EXPECT_NE(line.point->labels[line.arguments.size() - 1], nullptr) << line.point->name;
            }
        }
    }

    /// Starts the agent in a process that has registered nothing yet, as each of its processes does.
    static start_up_status start_agent() {
        fake_platform::end_process();
        return start_up();
    }

    static void forget_vrf_nodes() {
        while (server_config.nodes != nullptr) {
            delete_vrf_node(server_config.nodes);
        }
    }

    static event_manager* new_event_manager() {
        event_manager* manager = nullptr;
        EXPECT_EQ(event_manager_create("/dev/test", &manager), 0);
        return manager;
    }

    static mode_t mode_of(const std::string& path) {
        struct stat status = {};
        return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
    }
};

#endif
