#include "oper/providers.h"

#include <malloc.h>

#include <cerrno>
#include <fstream>
#include <regex>

#include "call_faults.h"
#include "oper/server_params.h"
#include "oper/telemetry.h"
#include "oper/trace_points.h"
#include "session_test.h"

namespace {

using testing::IsEmpty;

/// A provider and the last record that it registers; null if it registers none.
struct provider_case {
    const char* name;
    platform_status (*start)();
    const record_descriptor* (*last_record)();
};

const provider_case cases[] = {
    {"session_records", register_session_record_provider, ssh_session_rekey_descriptor},
    {"server_sessions", register_server_session_provider, sshd_rekey_descriptor},
    {"client_sessions", register_client_session_provider, nullptr},
    {"server_params", sshd_params_edm_init, ssh_server_params_descriptor},
};

class providers_test : public agent_test, public testing::WithParamInterface<provider_case> {
  protected:
    providers_test() {
        fake_platform::preset_debug_flag(debug_cfg_agent, true);
        fake_platform::clear_reports();
    }

    /// Starts the provider, and compares its status, calls, log, debug lines and trace entries with a golden file.
    static void expect_reports(const std::string& failure) {
        static const std::regex source_line(":[0-9]+ ");
        fake_platform::clear_calls();
        std::string text = platform_status_text(GetParam().start()) + std::string("\n");
        for (const std::string& call : fake_platform::calls_of("datastore_provider")) {
            text += "    " + call + '\n';
        }
        for (const std::string& line : fake_platform::log_texts()) {
            text += "    " + line + '\n';
        }
        for (const std::string& line : fake_platform::debug_texts()) {
            text += "    debug: " + std::regex_replace(line, source_line, ":LINE ") + '\n';
        }
        for (const auto& line : fake_platform::trace_lines_of("ssh/cfg-agent/error")) {
            text += "    trace:";
            for (const std::string& argument : line.arguments) {
                text += ' ' + argument;
            }
            text += '\n';
        }
        expect_golden("oper/golden/provider_failures/" + failure + '/' + GetParam().name, text);
    }
};

INSTANTIATE_TEST_SUITE_P(trees, providers_test, testing::ValuesIn(cases),
                         [](const auto& provider) { return std::string(provider.param.name); });

class provider_items_test : public session_test {};

/// Makes the pipelines that list processes return the same process ids each time, without a shell.
class quick_listing {
  public:
    quick_listing(int server, int client) {
        call_faults::observe_commands([server, client](const std::string& command) {
            const bool servers = command.find("norvo_ssh_oper_pid") != std::string::npos;
            std::ofstream(servers ? "/tmp/norvo_ssh_oper_pid.txt" : "/tmp/norvossh_client_oper_pid.txt")
                << (servers ? server : client) << '\n';
        });
        call_faults::answer_command("ps -ef", 0, 0);
    }
    ~quick_listing() {
        call_faults::observe_commands({});
        call_faults::clear();
    }
    quick_listing(const quick_listing&) = delete;
    quick_listing& operator=(const quick_listing&) = delete;
};

const char* const session_items[] = {
    "/oper/crypto-ssh/gl/session_xml/brief", "/oper/crypto-ssh/gl/session_xml/detail",
    "/oper/crypto-ssh/gl/session_xml/rekey", "/oper/crypto-ssh/gl/sshddata/brief",
    "/oper/crypto-ssh/gl/sshddata/detail",   "/oper/crypto-ssh/gl/sshddata/rekey",
    "/oper/crypto-ssh/client/brief",         "/oper/crypto-ssh/client/detail",
    "/oper/crypto-ssh/client/rekey",
};

}  // namespace

TEST_P(providers_test, needs_the_datastores_library) {
    remove_path(paths::datastore_library);
    expect_reports("library_missing");
    EXPECT_EQ(fake_platform::providers(), 0U);
}

TEST_P(providers_test, refuses_with_a_message_when_it_cannot_be_registered) {
    fake_platform::fail("datastore_provider_register", EIO);
    expect_reports("provider_refused");
    const auto traced = fake_platform::trace_lines_of("ssh/cfg-agent/error");
    ASSERT_EQ(traced.size(), 1U);
    EXPECT_EQ(traced[0].code, static_cast<uint32_t>(oper_trace_provider));
}

TEST_P(providers_test, is_unregistered_when_its_records_are_refused) {
    call_faults::fail_call("record_registration_begin", EIO);
    expect_reports("records_refused");
    EXPECT_EQ(fake_platform::providers(), GetParam().last_record == nullptr ? 1U : 0U);
}

TEST_P(providers_test, has_registered_its_records_when_it_answers) {
    EXPECT_EQ(GetParam().start(), PLATFORM_OK);
    EXPECT_EQ(fake_platform::providers(), 1U);
    EXPECT_THAT(fake_platform::log_texts(), IsEmpty());
    if (GetParam().last_record != nullptr) {
        EXPECT_GT(call_faults::count_calls("record_register"), 0U);
        ssh_server_params largest = {};
        void* encoded = nullptr;
        size_t size = 0;
        EXPECT_EQ(record_encode(GetParam().last_record(), &largest, &encoded, &size), PLATFORM_OK);
        free(encoded);
    }
}

TEST_F(provider_items_test, history_exists_and_has_no_data) {
    for (const char* item : {"history", "history_detail"}) {
        EXPECT_EQ(fake_platform::read(std::string("/oper/crypto-ssh/gl/session_xml/") + item).status,
                  platform_status{DATASTORE_NO_DATA});
    }
    EXPECT_THAT(fake_platform::log_texts(), IsEmpty());
    EXPECT_THAT(stub_commands::log_of("ps"), IsEmpty());
}

TEST_F(provider_items_test, a_missing_item_has_nothing_to_encode) {
    for (const char* path : {"/oper/crypto-ssh/gl/session_xml/", "/oper/crypto-ssh/gl/session_xml/brie",
                             "/oper/crypto-ssh/gl/sshddata/history", "/oper/crypto-ssh/client/brief/1"}) {
        EXPECT_EQ(fake_platform::read(path).status, platform_status{DATASTORE_NOTHING_TO_ENCODE}) << path;
    }
    EXPECT_THAT(stub_commands::log_of("ps"), IsEmpty());
}

TEST_F(provider_items_test, every_failure_is_answered_with_nothing_to_encode) {
    peers.answer(31, usual_snapshot(5));
    peers.answer(41, usual_snapshot(6));
    peers.start();
    list_processes(session_peers::listing_of_servers({31}) + session_peers::listing_of_clients({41}));
    for (const uint32_t status : {uint32_t{EIO}, uint32_t{RECORD_MALFORMED}, uint32_t{DATASTORE_NO_SUCH_ITEM}}) {
        call_faults::clear();
        call_faults::fail_call("record_encode", static_cast<int>(status));
        for (const char* item : session_items) {
            EXPECT_EQ(fake_platform::read(item).status, platform_status{DATASTORE_NOTHING_TO_ENCODE}) << item;
        }
    }
}

TEST_F(provider_items_test, a_read_runs_the_listing_and_leaves_neither_file_nor_descriptor) {
    peers.answer(31, usual_snapshot(5));
    peers.hang_up(32);
    peers.answer(41, usual_snapshot(6));
    peers.start();
    list_processes(session_peers::listing_of_servers({31, 32, 33}) + session_peers::listing_of_clients({41}));
    const size_t descriptors = directory_names("/proc/self/fd").size();
    const auto files = directory_names("/tmp");
    for (const char* item : session_items) {
        EXPECT_EQ(fake_platform::read(item).status, PLATFORM_OK) << item;
    }
    EXPECT_EQ(directory_names("/proc/self/fd").size(), descriptors);
    EXPECT_EQ(directory_names("/tmp"), files);
}

TEST_F(provider_items_test, ten_thousand_reads_leave_nothing_behind) {
    peers.answer(31, usual_snapshot(5));
    peers.answer(41, usual_snapshot(6));
    peers.start();
    const quick_listing listing(31, 41);
    fake_platform::set_recording(false);
    EXPECT_EQ(sshd_params_edm_init(), PLATFORM_OK);
    EXPECT_EQ(ocssh_edm_init(), PLATFORM_OK);
    std::vector<std::string> items(std::begin(session_items), std::end(session_items));
    items.insert(items.end(), {paths::server_parameters_tree, paths::telemetry_tree});
    const auto read_all = [&items](size_t rounds) {
        int answered = 0;
        for (size_t i = 0; i < rounds; i++) {
            answered += fake_platform::read(items[i % items.size()]).status == PLATFORM_OK;
        }
        return answered;
    };
    read_all(100);
    const size_t descriptors = directory_names("/proc/self/fd").size();
    const auto files = directory_names("/tmp");
    const size_t memory = mallinfo2().uordblks;
    // On a busy machine an answer may be too late.
    EXPECT_GE(read_all(10000), 9990);
    // The address sanitizer makes this 0 and reports leaks at the end.
    EXPECT_LE(mallinfo2().uordblks, memory + 4096);
    EXPECT_EQ(directory_names("/proc/self/fd").size(), descriptors);
    EXPECT_EQ(directory_names("/tmp"), files);
}
