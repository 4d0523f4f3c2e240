#include "core/default_handlers.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "../agent_test.h"
#include "core/debug.h"

namespace {

using default_handlers_test = agent_test;

using testing::ElementsAre;

const datastore_change change{DATASTORE_EVENT_SET, nullptr, nullptr, 0, 0};
const datastore_path_components components{nullptr, 0};

TEST_F(default_handlers_test, the_verifier_accepts) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    char* text = nullptr;
    uint32_t accepted = 0;
    EXPECT_EQ(default_verifier(&change, &text, &accepted, &components), PLATFORM_OK);
    EXPECT_EQ(accepted, 1u);
    EXPECT_EQ(text, nullptr);
    EXPECT_THAT(fake_platform::debug_texts(), ElementsAre("SSH default verifier entered"));
}

TEST_F(default_handlers_test, the_applier_accepts_silently) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    EXPECT_EQ(default_applier(&change, &components), PLATFORM_OK);
    EXPECT_THAT(fake_platform::debug_texts(), ElementsAre("SSH default applier entered"));
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre());
}

// The debug line says "is" where the log message says "are".
TEST_F(default_handlers_test, an_unsupported_item_is_accepted_with_a_warning) {
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    EXPECT_EQ(unsupported_item_applier(&change, &components), PLATFORM_OK);
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("Backup server, netconf-port configs, ssh v1 is not supported in this platform and "
                            "release, will not take effect"));
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("WARNING_GENERAL: Backup server, netconf-port configs, ssh v1 are not supported in this "
                            "platform and release, will not take effect"));
}

}  // namespace
