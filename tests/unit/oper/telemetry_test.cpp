#include "oper/telemetry.h"

#include <gmock/gmock.h>

#include <cerrno>

#include "../agent_test.h"
#include "call_faults.h"
#include "core/debug.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr char telemetry_tree[] = "/oper/overlays/gl/crypto_ssh/openconfig-system/";
constexpr char event[] = "/oper/overlays/gl/crypto_ssh/openconfig-system/system__bag_overlay_crypto_ssh_system";

class telemetry_test : public agent_test {
  protected:
    telemetry_test() {
        fake_platform::preset_debug_flag(debug_cfg_agent, true);
        fake_platform::clear_reports();
    }
};

}  // namespace

TEST_F(telemetry_test, the_tree_is_served) {
    EXPECT_EQ(ocssh_edm_init(), PLATFORM_OK);
    EXPECT_THAT(fake_platform::calls_of("datastore_provider"),
                ElementsAre(std::string("datastore_provider_register(") + telemetry_tree + ")"));
    EXPECT_EQ(fake_platform::read(telemetry_tree).records.size(), 1U);
}

TEST_F(telemetry_test, needs_the_datastores_library) {
    remove_path(paths::datastore_library);
    EXPECT_EQ(ocssh_edm_init(), platform_status{DATASTORE_UNAVAILABLE});
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre(testing::EndsWith("Location:=EDM INIT SSHD DATASTORE, Failed to bind to datastore")));
}

TEST_F(telemetry_test, reports_that_the_provider_is_refused) {
    fake_platform::fail("datastore_provider_register", EIO);
    EXPECT_EQ(ocssh_edm_init(), platform_status{EIO});
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_ERRNO: Error:=Input/output error(0x5), Failed to register oc ssh telemetry edm"));
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre(MatchesRegex(
                    "ocssh_edm_init:[0-9]+ Failed to register oc ssh telemetry edm, error: Input/output error")));
}

TEST_F(telemetry_test, reports_that_the_record_is_refused) {
    call_faults::fail_call("record_register", EIO, call_faults::always, 1, "overlay_crypto_ssh_system");
    EXPECT_EQ(ocssh_edm_init(), platform_status{EIO});
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_ERRNO: Error:=Input/output error(0x5), Failed to register ssh telemetry oper bag"));
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre(MatchesRegex(
                    "ocssh_edm_init:[0-9]+ Failed to register ssh telemetry oper bag, error: Input/output error")));
    EXPECT_EQ(fake_platform::providers(), 0U);
}

TEST_F(telemetry_test, the_producer_is_opened_for_one_path) {
    ocssh_telemetry_init();
    EXPECT_THAT(fake_platform::calls_of("telemetry"),
                ElementsAre(std::string("telemetry_producer_init(OCSSH, ") + event + ")"));
    EXPECT_THAT(fake_platform::log_texts(), IsEmpty());
}

TEST_F(telemetry_test, a_producer_that_cannot_be_opened_is_logged) {
    fake_platform::fail("telemetry_producer_init", EIO);
    ocssh_telemetry_init();
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre("ERR_ERRNO: Error:=Input/output error(0x5), OCSSH"));
}

TEST_F(telemetry_test, an_event_contains_the_state_in_force) {
    EXPECT_EQ(ocssh_edm_init(), PLATFORM_OK);
    ocssh_telemetry_publish();
    ASSERT_EQ(fake_platform::published().size(), 1U);
    EXPECT_EQ(fake_platform::published()[0].path, event);
    EXPECT_EQ(fake_platform::published()[0].answer.records.size(), 1U);
    EXPECT_EQ(fake_platform::published()[0].answer.records[0].bytes,
              fake_platform::read(telemetry_tree).records[0].bytes);
}

TEST_F(telemetry_test, an_event_that_is_not_published_is_printed_in_debug) {
    fake_platform::preset_debug_flag(debug_telemetry, true);
    fake_platform::fail("telemetry_producer_publish", EIO);
    ocssh_telemetry_publish();
    EXPECT_THAT(
        fake_platform::debug_texts(),
        ElementsAre(MatchesRegex("ocssh_telemetry_publish:[0-9]+ Failed to publish, error: Input/output error")));
    EXPECT_THAT(fake_platform::log_texts(), IsEmpty());
}
