/// Fixture of session reads: SSH processes on real sockets, a stub of ps that lists them, and registered records.
#ifndef UNIT_OPER_SESSION_TEST_H
#define UNIT_OPER_SESSION_TEST_H

#include <gmock/gmock.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <memory>

#include "../agent_test.h"
#include "core/debug.h"
#include "oper/providers.h"
#include "oper/record_schemas.h"
#include "platform/record_codec.h"
#include "session_peers.h"

/// A decoded record.
template <typename record_type>
class decoded_record {
  public:
    decoded_record(const record_descriptor* descriptor, const std::string& bytes) : descriptor_(descriptor) {
        EXPECT_EQ(record_decode(descriptor, bytes.data(), bytes.size(), &record_, sizeof record_), PLATFORM_OK);
    }
    ~decoded_record() { record_release(descriptor_, &record_); }
    decoded_record(const decoded_record&) = delete;
    decoded_record& operator=(const decoded_record&) = delete;

    const record_type* operator->() const { return &record_; }
    const record_type& operator*() const { return record_; }

  private:
    const record_descriptor* descriptor_;
    record_type record_ = {};
};

class session_test : public agent_test {
  protected:
    session_test() {
        stub_commands::install_command("ps");
        list_processes("");
        // As in the platform's loop: a peer that hangs up makes sending fail, but does not end the process.
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        action.sa_flags = SA_RESTART;
        sigaction(SIGPIPE, &action, nullptr);
        EXPECT_EQ(register_session_record_provider(), PLATFORM_OK);
        EXPECT_EQ(register_server_session_provider(), PLATFORM_OK);
        EXPECT_EQ(register_client_session_provider(), PLATFORM_OK);
        fake_platform::clear_calls();
        fake_platform::clear_reports();
    }

    static void show_debug_lines() { fake_platform::preset_debug_flag(debug_cfg_agent, true); }

    static void list_processes(const std::string& listing) { stub_commands::set_output("ps -ef", listing); }
    static void list_servers(const std::vector<int>& pids) { list_processes(session_peers::listing_of_servers(pids)); }
    static void list_clients(const std::vector<int>& pids) { list_processes(session_peers::listing_of_clients(pids)); }

    /// The record of the read; null if the read failed.
    template <typename record_type>
    static std::unique_ptr<decoded_record<record_type>> read_record(const std::string& path,
                                                                    const record_descriptor* descriptor) {
        const fake_platform::answer answer = fake_platform::read(path);
        EXPECT_EQ(answer.status, PLATFORM_OK);
        EXPECT_FALSE(answer.is_list);
        if (answer.records.size() != 1 || answer.records[0].descriptor != descriptor) {
            ADD_FAILURE() << path << " has " << answer.records.size() << " records";
            return nullptr;
        }
        return std::make_unique<decoded_record<record_type>>(descriptor, answer.records[0].bytes);
    }

    static double seconds_since(std::chrono::steady_clock::time_point start) {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    }

    session_peers peers;
};

#endif
