#include "command_trail.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string_view>

#include "fake/fake_platform.h"

namespace command_trail {
namespace {

struct trail_state {
    bool recording = false;
    std::map<std::string, int> failures;
    std::function<void()> sleep_action;
};

trail_state state;

/// Records a command; the error that its shell fails with, or 0.
int enter_shell(std::string_view command) {
    const int saved_errno = errno;
    fake_platform::record_call("$ " + std::string(command));
    errno = saved_errno;
    for (const auto& [prefix, error] : state.failures) {
        if (command.substr(0, prefix.size()) == prefix) {
            return error;
        }
    }
    return 0;
}

/// The function that this one stands before.
template <typename Function>
Function next(const char* name) {
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void begin() {
    state = {};
    state.recording = true;
}

void end() {
    state = {};
}

void fail_shell(std::string prefix, int error) {
    state.failures[std::move(prefix)] = error;
}

void on_sleep(std::function<void()> action) {
    state.sleep_action = std::move(action);
}

}  // namespace command_trail

using command_trail::state;

extern "C" int system(const char* command) {
    static const auto library_system = command_trail::next<int (*)(const char*)>("system");
    if (state.recording) {
        if (const int error = command_trail::enter_shell(command); error != 0) {
            errno = error;
            return -1;
        }
    }
    return library_system(command);
}

extern "C" FILE* popen(const char* command, const char* mode) {
    static const auto library_popen = command_trail::next<FILE* (*)(const char*, const char*)>("popen");
    if (state.recording) {
        if (const int error = command_trail::enter_shell(command); error != 0) {
            errno = error;
            return nullptr;
        }
    }
    return library_popen(command, mode);
}

extern "C" unsigned int sleep(unsigned int seconds) {
    static const auto library_sleep = command_trail::next<unsigned int (*)(unsigned int)>("sleep");
    if (!state.recording) {
        return library_sleep(seconds);
    }
    fake_platform::record_call("sleep(" + std::to_string(seconds) + ")");
    if (state.sleep_action) {
        state.sleep_action();
    }
    return 0;
}
