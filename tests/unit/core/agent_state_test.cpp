#include "core/agent_state.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "../agent_test.h"
#include "core/paths.h"

namespace {

using agent_state_test = agent_test;

/// The answer is cached for the life of a process, so each question is asked in a child process.
template <typename Question>
int ask_in_child(Question question) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(question());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void install_library() {
    std::filesystem::create_directories(std::filesystem::path(paths::datastore_library).parent_path());
    std::ofstream(paths::datastore_library) << "library";
}

TEST_F(agent_state_test, the_datastore_is_available_when_its_library_is_readable) {
    install_library();
    EXPECT_EQ(ask_in_child([] { return datastore_client_available() ? 1 : 0; }), 1);
}

TEST_F(agent_state_test, the_datastore_is_not_available_without_its_library) {
    std::remove(paths::datastore_library);
    EXPECT_EQ(ask_in_child([] { return datastore_client_available() ? 1 : 0; }), 0);
}

TEST_F(agent_state_test, the_answer_is_cached) {
    install_library();
    EXPECT_EQ(ask_in_child([] {
                  const bool before = datastore_client_available();
                  std::remove(paths::datastore_library);
                  return before && datastore_client_available() ? 1 : 0;
              }),
              1);
    std::remove(paths::datastore_library);
    EXPECT_EQ(ask_in_child([] {
                  const bool before = datastore_client_available();
                  install_library();
                  return !before && !datastore_client_available() ? 1 : 0;
              }),
              1);
}

TEST_F(agent_state_test, binding_fails_without_the_library_and_is_not_attempted) {
    std::remove(paths::datastore_library);
    EXPECT_EQ(ask_in_child([] {
                  datastore_binding* binding = nullptr;
                  const platform_status status = bind_datastore(paths::server_tree, &binding);
                  const bool tried = fake_platform::count_calls("datastore_bind") != 0;
                  return status == DATASTORE_UNAVAILABLE && binding == nullptr && !tried ? 1 : 0;
              }),
              1);
}

TEST_F(agent_state_test, with_the_library_binding_goes_to_the_datastore) {
    install_library();
    EXPECT_EQ(ask_in_child([] {
                  datastore_binding* binding = nullptr;
                  const platform_status status = bind_datastore(paths::server_tree, &binding);
                  return status == PLATFORM_OK && binding != nullptr ? 1 : 0;
              }),
              1);
}

TEST_F(agent_state_test, initially_there_is_no_inotify_instance) {
    EXPECT_EQ(agent_state{}.pam_inotify, -1);
    EXPECT_EQ(agent_state{}.initial_scan_complete, 0u);
}

}  // namespace
