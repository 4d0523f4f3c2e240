#include "command_trail.h"

#include "call_faults.h"
#include "fake/fake_platform.h"

namespace command_trail {
namespace {

std::function<void()> sleep_action;

}  // namespace

void begin() {
    end();
    call_faults::observe_commands([](const std::string& command) { fake_platform::record_call("$ " + command); });
    call_faults::observe_sleeps([](unsigned int seconds) {
        fake_platform::record_call("sleep(" + std::to_string(seconds) + ")");
        if (sleep_action) {
            sleep_action();
        }
    });
}

void end() {
    call_faults::clear();
    call_faults::observe_commands({});
    call_faults::observe_sleeps({});
    sleep_action = {};
}

void fail_shell(std::string_view prefix, int error) {
    call_faults::fail_call("command", error, call_faults::always, 1, prefix);
}

void on_sleep(std::function<void()> action) {
    sleep_action = std::move(action);
}

}  // namespace command_trail
