#include "ssh_cfg_ctl/help.h"

#include <string_view>

namespace {

constexpr char tool_name[] = "ssh_cfg_ctl";
constexpr size_t purpose_column = 24;  ///< column in the summary

struct example_row {
    std::string_view call;
    const char* example;
};

constexpr example_row call_examples[] = {
    {"set", "set timeout 45"},
    {"set", "set vrf/mgmt '{\"ipv4_acl\": \"mgmt\"}'"},
    {"delete", "delete timeout"},
    {"load", "load --check router.json"},
    {"get", "get timeout"},
    {"list", "list --all server/cmn"},
    {"dump", "dump > router.json"},
    {"help", "help timeout"},
    {"help", "help acl"},
    {"show", "show session_xml/brief"},
    {"acl", "acl set ipv4 mgmt rules.acl"},
    {"key", "key import alice alice.pub"},
    {"vrf", "vrf unblock mgmt"},
    {"debug", "debug cfg-agent on"},
    {"trace", "trace error"},
    {"status", "status --check"},
    {"reload", "reload --timeout 30"},
};

}  // namespace

std::string ctl_usage_line(const ctl_call_row& row) {
    return std::string(tool_name) + " [OPTION...] " + row.name + (*row.arguments == '\0' ? "" : " ") + row.arguments;
}

std::string ctl_summary_text() {
    std::string text =
        "usage: ssh_cfg_ctl [OPTION...] CALL [ARGUMENT...]\n\nConfigures and queries the SSH configuration agent.\n\n";
    for (const ctl_call_row& row : ctl_calls()) {
        std::string call = std::string("  ") + row.name + ' ' + row.arguments;
        // A long purpose is printed on a separate line.
        call += call.size() > purpose_column ? '\n' + std::string(purpose_column, ' ')
                                             : std::string(purpose_column - call.size(), ' ');
        text += call + ' ' + row.purpose + '\n';
    }
    return text +
           "\nOptions:\n"
           "  --json                 print every answer as JSON on standard output\n"
           "  --names                with --json, print enumerations as words instead of numbers\n"
           "  --yes                  make a change even if a new login like yours would be refused after it\n"
           "  --progress             print the progress of a change line by line, with --json as JSON on standard output\n"
           "  --timeout SECONDS      time to wait for the agent (default 600)\n"
           "  --socket PATH          the agent's control socket (default /run/ssh_cfg_agent/control.sock)\n"
           "  -h, --help             print this text, or after a call its help\n"
           "  --version              print the version\n"
           "  --                     end of the options\n"
           "\nPATH may be the end of a path if only one path ends so: `set timeout 45`. Scripts should use whole paths.\n"
           "FILE may be '-' for standard input.\n"
           "\nExit status: 0 done, 1 failed, 2 usage, 3 agent not reachable, 4 no data, 5 refused (the reason is on standard error),\n"
           "6 stored, but not all of it is in force (standard error names what is not).\n";
}

std::string ctl_call_help_text(const ctl_call_row& row) {
    std::string text = "usage: " + ctl_usage_line(row) + "\n\n" + row.purpose + '\n';
    std::string examples;
    for (const example_row& example : call_examples) {
        if (example.call == row.name) {
            examples += std::string("  ") + tool_name + ' ' + example.example + '\n';
        }
    }
    text += examples.empty() ? "" : "\nFor example:\n" + examples;
    return text + "\nThe manual page ssh_cfg_ctl(1) says more.\n";
}

control_json ctl_calls_json(const ctl_call_row* row) {
    control_json calls = control_json::array();
    for (const ctl_call_row& each : ctl_calls()) {
        if (row == nullptr || row == &each) {
            calls.push_back({{"name", each.name}, {"arguments", each.arguments}, {"purpose", each.purpose}});
        }
    }
    return calls;
}
