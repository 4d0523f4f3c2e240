#include "ocsystem_ssh_telemetry_edm.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "../agent_test.h"
#include "call_faults.h"
#include "core/debug.h"
#include "oper/record_schemas.h"
#include "platform/record_codec.h"
#include "vrf/vrf_appliers.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

struct openconfig_values {
    uint32_t enable;
    int32_t protocol_version;
    uint16_t timeout;
    uint16_t rate_limit;
    uint16_t session_limit;
};

class ocsystem_ssh_telemetry_edm_test : public agent_test {
  protected:
    ocsystem_ssh_telemetry_edm_test() {
        EXPECT_EQ(register_telemetry_records(), PLATFORM_OK);
        fake_platform::preset_debug_flag(debug_telemetry, true);
        fake_platform::clear_reports();
    }

    static openconfig_values filled() {
        const fake_platform::answer answer = fake_platform::ask(ssh_telemetry_fill_bag, "");
        EXPECT_EQ(answer.status, PLATFORM_OK);
        const std::string& bytes = answer.records.at(0).bytes;
        overlay_crypto_ssh_system record = {};
        EXPECT_EQ(
            record_decode(overlay_crypto_ssh_system_descriptor(), bytes.data(), bytes.size(), &record, sizeof record),
            PLATFORM_OK);
        const openconfig_ssh_server_state& state = record.SshServer.State;
        const openconfig_values values = {*state.Enable, *state.ProtocolVersion, *state.Timeout, *state.RateLimit,
                                          *state.SessionLimit};
        record_release(overlay_crypto_ssh_system_descriptor(), &record);
        return values;
    }

    /// Makes the `call`th allocation of a value fail in a read, and returns the message with which the process aborts.
    static std::string message_at_failed_allocation(uint32_t call) {
        int channel[2];
        EXPECT_EQ(pipe(channel), 0);
        const pid_t child = fork();
        if (child == 0) {
            // The handler passes the message to the test before the process ends.
            static int writer;
            writer = channel[1];
            struct sigaction action = {};
            action.sa_handler = [](int) {
                const std::string message = fake_platform::log_texts().empty() ? "" : fake_platform::log_texts()[0];
                _exit(::write(writer, message.data(), message.size()) < 0 ? 2 : 1);
            };
            sigaction(SIGABRT, &action, nullptr);
            call_faults::fail_call("malloc", ENOMEM, call_faults::once, call);
            fake_platform::ask(ssh_telemetry_fill_bag, "");
            _exit(0);
        }
        close(channel[1]);
        char message[256];
        const ssize_t size = ::read(channel[0], message, sizeof message);
        close(channel[0]);
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_EQ(WEXITSTATUS(status), 1) << "the process must abort";
        return std::string(message, size > 0 ? static_cast<size_t>(size) : 0);
    }
};

}  // namespace

TEST_F(ocsystem_ssh_telemetry_edm_test, unconfigured_settings_have_their_defaults) {
    const openconfig_values values = filled();
    EXPECT_EQ(values.enable, 0U);
    EXPECT_EQ(values.protocol_version, 0);
    EXPECT_EQ(values.timeout, 30U);
    EXPECT_EQ(values.rate_limit, 60U);
    EXPECT_EQ(values.session_limit, 64U);
}

TEST_F(ocsystem_ssh_telemetry_edm_test, the_enable_entry_enables) {
    server_config.parameters[SERVER_PROTOCOL].current = "2";
    EXPECT_EQ(filled().enable, 1U);
}

TEST_F(ocsystem_ssh_telemetry_edm_test, a_server_in_the_default_vrf_enables) {
    default_vrf_configured = 1;
    EXPECT_EQ(filled().enable, 1U);
    default_vrf_configured = 0;
    EXPECT_EQ(filled().enable, 0U);
}

TEST_F(ocsystem_ssh_telemetry_edm_test, numbers_are_truncated_to_16_bits) {
    server_config.parameters[SERVER_LOGIN_GRACE_TIME].current = "65566";
    server_config.parameters[SERVER_RATE_LIMIT].current = "131077";
    server_config.parameters[SERVER_SESSION_LIMIT].current = "-1";
    const openconfig_values values = filled();
    EXPECT_EQ(values.timeout, 30U);
    EXPECT_EQ(values.rate_limit, 5U);
    EXPECT_EQ(values.session_limit, 65535U);
}

TEST_F(ocsystem_ssh_telemetry_edm_test, prints_its_values_in_debug) {
    server_config.parameters[SERVER_PROTOCOL].current = "2";
    filled();
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre("In edm get function for OC SSH telemetry",
                            "Fill the bag with values: Enable= 1, Protocol version= v2 Timeout= 30, Session-limit= 64, "
                            "Rate-limit= 60",
                            MatchesRegex("In bag-fill function for SSH telemetry. Bag size = [0-9]+, rc= .*")));
}

TEST_F(ocsystem_ssh_telemetry_edm_test, prints_nothing_without_its_own_flag) {
    fake_platform::preset_debug_flag(debug_telemetry, false);
    fake_platform::preset_debug_flag(debug_cfg_agent, true);
    filled();
    EXPECT_THAT(fake_platform::debug_texts(), IsEmpty());
}

TEST_F(ocsystem_ssh_telemetry_edm_test, an_encoding_failure_is_logged) {
    call_faults::fail_call("record_encode", EIO);
    EXPECT_EQ(fake_platform::ask(ssh_telemetry_fill_bag, "").status, platform_status{EIO});
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains("Failed to encode oc ssh telemetry bag, error Input/output error."));
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_ERRNO: Error:=Input/output error(0x5), Failed to encode oc ssh telemetry bag"));
}

TEST_F(ocsystem_ssh_telemetry_edm_test, a_record_that_is_refused_ends_the_read) {
    fake_platform::fail("datastore_request_set_record", EMSGSIZE);
    EXPECT_EQ(fake_platform::ask(ssh_telemetry_fill_bag, "").status, platform_status{EMSGSIZE});
}

TEST_F(ocsystem_ssh_telemetry_edm_test, without_memory_for_a_value_the_process_ends_and_names_it) {
    const char* const values[] = {"enable", "protocol_version", "timeout", "session_limit", "rate_limit"};
    for (uint32_t i = 0; i < std::size(values); i++) {
        EXPECT_EQ(message_at_failed_allocation(i + 1),
                  std::string("ERR_DETAILS: Assertion failed: ret_bag.ssh_server.state.") + values[i] +
                      " != NULL src/ocsystem_ssh_telemetry_edm");
    }
}
