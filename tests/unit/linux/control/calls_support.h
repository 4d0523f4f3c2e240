/// Helpers for the tests of the control socket's calls: a served datastore, requests as JSON text, the audit log.
#ifndef UNIT_LINUX_CONTROL_CALLS_SUPPORT_H
#define UNIT_LINUX_CONTROL_CALLS_SUPPORT_H

#include <string>
#include <vector>

#include "control_protocol/answer.h"
#include "linux/access_lists/acl_values.h"
#include "linux/control/audit.h"
#include "linux/control/calls.h"
#include "linux/host/key_store_internal.h"
#include "unit/linux/datastore/datastore_fixture.h"

namespace control_test {

// Within classes derived from it, the name datastore_test means the fixture.
using ::datastore_test::server_path;

class calls_test : public datastore_test::served_datastore_test {
  protected:
    void SetUp() override {
        served_datastore_test::SetUp();
        acl_values_start();
        key_imports_start();
        control_audit_divert([this](const std::string& line) { audit.push_back(line); });
    }
    void TearDown() override {
        control_audit_divert({});
        served_datastore_test::TearDown();
    }

    /// The answer to a request, in which '@' stands for the server's settings.
    control_json ask(std::string request) {
        for (size_t at = request.find('@'); at != std::string::npos; at = request.find('@')) {
            request.replace(at, 1, server_path);
        }
        std::string error;
        const auto document = control_json_parse(request, error);
        EXPECT_TRUE(document.has_value()) << error;
        return control_call(document.value_or(control_json()), peer);
    }

    std::string result(const std::string& request) { return ask(request).value("result", ""); }
    std::string message(const std::string& request) { return ask(request).value("message", ""); }
    std::string data(const std::string& request) { return control_json_text(ask(request)["data"]); }

    /// Whoever asks: a user who may change the configuration.
    control_peer peer = {42, 1000, 1001, true};
    std::vector<std::string> audit;
};

/// The warnings of an answer, without those that VRFs have no namespace, which no test of access lists creates.
inline std::vector<std::string> list_warnings(const control_json& answer) {
    auto warnings = answer.value("warnings", std::vector<std::string>());
    std::erase_if(warnings, [](const std::string& warning) {
        return warning.find("stored, waits for namespace vrf-") != std::string::npos;
    });
    return warnings;
}

}  // namespace control_test

#endif
