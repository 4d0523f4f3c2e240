#include "linux/process/termination.h"

#include <signal.h>
#include <sys/wait.h>

#include "linux/process/paths.h"
#include "linux/process/primary_wait.h"
#include "unit/linux/platform_test_support.h"

using platform_test::write_file;

namespace {

constexpr char done[] = "/tmp/termination_test_done";

/// Runs `work` in a child process. Returns its wait status.
int status_of(const std::function<void()>& work) {
    std::filesystem::remove(done);
    const pid_t child = fork();
    if (child == 0) {
        work();
        _exit(9);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return status;
}

void write_done(const std::string& text) {
    std::ofstream(done, std::ios::app) << text;
}

/// The agent's loop, after `prepare` was called with its manager.
void run_agent_loop(const std::function<void(struct event_manager*)>& prepare) {
    process_manager_reset();
    struct event_manager* manager = nullptr;
    if (event_manager_create("/dev/ssh_cfg_agent", &manager) != 0) {
        _exit(8);
    }
    prepare(manager);
    for (;;) {
        event_manager_event event;
        if (event_manager_block(manager, &event) == 0) {
            event_manager_dispatch(manager, &event);
        }
    }
}

int later(sd_event_source*, void*) {
    write_done("later ");
    return 0;
}

/// A handler that is running when the signal arrives, and leaves work to the loop.
int long_handler(sd_event_source* source, void* signal) {
    write_done("begun ");
    raise(*static_cast<int*>(signal));
    EXPECT_TRUE(termination_is_pending());
    sd_event_add_defer(sd_event_source_get_event(source), nullptr, later, nullptr);
    write_done("finished ");
    return 0;
}

class termination_test : public testing::Test {};

TEST_F(termination_test, the_running_handler_and_the_work_it_left_to_the_loop_are_completed) {
    for (int signal : {SIGTERM, SIGINT}) {
        const int status = status_of([&signal] {
            run_agent_loop([&signal](struct event_manager* manager) {
                sd_event_add_defer(event_manager_sd_event(manager), nullptr, long_handler, &signal);
            });
        });
        EXPECT_TRUE(WIFEXITED(status)) << signal;
        EXPECT_EQ(WEXITSTATUS(status), 0) << signal;
        EXPECT_EQ(platform_test::read_file(done), "begun finished later ");
    }
}

TEST_F(termination_test, a_signal_during_start_up_ends_the_process_in_its_loop) {
    const int status = status_of([] {
        run_agent_loop([](struct event_manager*) {
            raise(SIGTERM);
            write_done("started");
        });
    });
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(platform_test::read_file(done), "started");
}

int busy(sd_event_source*, void*) {
    usleep(1000);
    return 0;
}

TEST_F(termination_test, a_loop_that_always_has_work_ends_as_well) {
    const int status = status_of([] {
        run_agent_loop([](struct event_manager* manager) {
            sd_event_source* source = nullptr;
            sd_event_add_defer(event_manager_sd_event(manager), &source, busy, nullptr);
            sd_event_source_set_enabled(source, SD_EVENT_ON);
            raise(SIGTERM);
        });
    });
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST_F(termination_test, the_control_socket_is_removed_with_the_process) {
    std::filesystem::create_directories(runtime_directory);
    status_of([] { run_agent_loop([](struct event_manager*) { raise(SIGTERM); }); });
    EXPECT_FALSE(std::filesystem::exists(std::string(runtime_directory) + "/control.sock"));
}

TEST_F(termination_test, a_standby_ends_with_status_0) {
    const int status = status_of([] {
        write_file(platform_config_file, "role = standby\n");
        primary_wait_serve({[](sd_event*) -> platform_status {
                                raise(SIGTERM);
                                return PLATFORM_OK;
                            },
                            nullptr});
        primary_wait();
    });
    std::filesystem::remove(platform_config_file);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
