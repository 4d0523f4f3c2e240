#include "core/refusal.h"

#include <cerrno>
#include <cstdlib>

#include "../agent_test.h"
#include "call_faults.h"
#include "core/debug.h"

namespace {

using refusal_test = agent_test;

TEST_F(refusal_test, carries_its_text_and_status) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    char* text = nullptr;
    uint32_t accepted = 1;
    EXPECT_EQ(refuse_change(&text, &accepted, EINVAL, trace_error_point{0x4ff}, "unknown name %s", "x"),
              uint32_t{EINVAL});
    EXPECT_EQ(accepted, 0u);
    EXPECT_STREQ(text, "unknown name x");
    EXPECT_TRUE(fake_platform::debugged("unknown name x"));
    EXPECT_EQ(fake_platform::trace_lines_of("ssh/cfg-agent/error").back().code, 0x4ffu);
    free(text);
}

TEST_F(refusal_test, a_text_is_truncated_to_511_characters) {
    for (const size_t length : {511u, 512u}) {
        char* text = nullptr;
        uint32_t accepted = 1;
        refuse_change(&text, &accepted, EINVAL, trace_error_point{0x4ff}, "%s", std::string(length, 't').c_str());
        EXPECT_EQ(std::string(text), std::string(511, 't'));
        free(text);
    }
}

TEST_F(refusal_test, without_memory_it_has_no_text) {
    call_faults::fail_call("strdup", ENOMEM, call_faults::once);
    char* text = nullptr;
    uint32_t accepted = 1;
    EXPECT_EQ(refuse_change(&text, &accepted, EINVAL, trace_error_point{0x4ff}, "text"), uint32_t{EINVAL});
    EXPECT_EQ(accepted, 0u);
    EXPECT_EQ(text, nullptr);
}

}  // namespace
