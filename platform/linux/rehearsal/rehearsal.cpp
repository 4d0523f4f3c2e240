#include "linux/rehearsal/rehearsal.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <optional>
#include <set>
#include <string_view>
#include <utility>
#include <vector>

#include "common/line_changes.h"
#include "common/text.h"
#include "linux/datastore/state.h"
#include "linux/enforcement/enforcement_internal.h"
#include "linux/process/process_manager_internal.h"
#include "linux/process/recorded_commands.h"
#include "linux/rehearsal/file_judgement.h"
#include "linux/rehearsal/isolated_process.h"
#include "linux/rehearsal/private_folders.h"
#include "linux/rehearsal/report.h"
#include "linux/rehearsal/stored_reads.h"
#include "linux/status/unit_states.h"
#include "platform/process_manager.h"

namespace {

/// A rehearsal takes a tenth of a second; nobody else is served meanwhile.
constexpr std::chrono::seconds limit{10};

/// How long the kernel may take to clean up a rehearsing process that has closed its connection.
constexpr std::chrono::seconds crash_limit{2};

// The rehearsing process.

std::string vrf_of_file(const std::string& path) {
    struct form {
        std::string_view prefix;
        std::string_view suffix;
    };
    constexpr form forms[] = {
        {"/var/opt/norvo/norvossh/sshd_config_", ""},
        {"/etc/systemd/system/sshd_service_", ".service"},
        {"/etc/systemd/system/sshd_conf_", ".conf"},
    };
    for (const form& one : forms) {
        if (path.starts_with(one.prefix) && path.ends_with(one.suffix)) {
            return path.substr(one.prefix.size(), path.size() - one.prefix.size() - one.suffix.size());
        }
    }
    return {};
}

std::vector<std::string> vrfs_of(const rehearsal_report& report, std::set<std::string> vrfs) {
    for (const rehearsed_file& file : report.files) {
        vrfs.insert(vrf_of_file(file.path));
    }
    for (const rehearsed_server& server : report.servers) {
        vrfs.insert(server.vrf_name);
    }
    vrfs.erase("");
    return {vrfs.begin(), vrfs.end()};
}

/// Which servers would be started and stopped, without regard to whether they run.
std::vector<rehearsed_server> servers_of(const recorded_commands& commands) {
    std::vector<rehearsed_server> servers;
    for (const auto& [vrf_name, is_started] : commands.servers) {
        servers.push_back({vrf_name, is_started ? rehearsed_action::started : rehearsed_action::stopped});
    }
    return servers;
}

constexpr std::string_view rule_folder = "/tmp/norvo-ssh/access-list/";

rehearsed_file rehearsed_file_of(const private_change& change, bool with_lines) {
    rehearsed_file file = change.file;
    if (with_lines && !file.path.starts_with(rule_folder)) {
        file.lines = line_changes(change.before.value_or(""), change.after.value_or(""));
    }
    return file;
}

/// Carries the commit out and tells what has become of the files and servers.
rehearsal_report carry_out(const rehearsal_request& request, const private_folders& folders,
                           recorded_commands& commands) {
    rehearsal_report report;
    record_commands(commands);
    const enforcement_collector collector;
    request.carry_out();
    if (!commands.unknown.empty()) {
        report.problem = text_format("the command \"%s\" cannot be rehearsed", commands.unknown.c_str());
        return report;
    }
    const std::vector<private_change> changes = folders.changes();
    for (const private_change& change : changes) {
        report.files.push_back(rehearsed_file_of(change, request.with_lines));
    }
    report.servers = servers_of(commands);
    report.vrfs = vrfs_of(report, commands.rules);
    for (const enforcement_entry& entry : collector.entries()) {
        report.not_in_force.push_back({entry.subject, entry.reason});
    }
    report.rejections = judge_files(changes, folders, report.problem);
    return report;
}

/// From here on this process reads the configuration as the commit would leave it.
void use_proposed_values(int connection, const rehearsal_request& request) {
    static rehearsal_store store;
    store = {connection, {}};
    for (const auto& [path, value] : request.changes) {
        store.changes.emplace(path, value);
    }
    the_datastore().engine = &rehearsal_engine;
    the_datastore().store = &store;
}

void rehearse(int connection, const std::string& problem, const rehearsal_request& request,
              const std::optional<private_folders>& folders) {
    rehearsal_report report;
    report.problem = problem;
    // The connections that could be served belong to the parent.
    process_manager_at_progress(nullptr);
    if (problem.empty()) {
        static recorded_commands commands;
        use_proposed_values(connection, request);
        commands.is_running = [connection](const std::string& vrf_name) {
            return ask_for_server(connection, vrf_name);
        };
        try {
            report = carry_out(request, *folders, commands);
        } catch (const std::exception& failure) {
            report.problem = failure.what();
        }
    }
    send_report(connection, rehearsal_report_write(report));
}

// The agent.

rehearsal_report without_report(std::string problem) {
    rehearsal_report report;
    report.problem = std::move(problem);
    return report;
}

std::string problem_of(platform_status status) {
    if (status == ETIMEDOUT) {
        return text_format("it did not end within %d seconds", static_cast<int>(limit.count()));
    }
    return status == ECONNRESET ? "it ended without a result" : platform_status_text(status);
}

/// A report that only says why the rehearsal failed. Whatever crashed the copy would crash the agent, and again after
/// its restart.
rehearsal_report failed(isolated_process& process, platform_status status) {
    rehearsal_report report = without_report(problem_of(status));
    const int signal = status == ECONNRESET ? process.wait_for_crash(crash_limit) : 0;
    if (signal != 0) {
        report.crash = text_format("signal %d, %s", signal, strsignal(signal));
    }
    return report;
}

/// Which servers run, asked of systemd once a rehearsal, and only if it matters.
class running_servers {
  public:
    bool contain(const std::string& vrf_name) {
        if (!asked_) {
            asked_ = true;
            server_unit_states_query({"*"}, units_);
        }
        const auto unit = units_.find(vrf_name);
        return unit != units_.end() && server_unit_runs(unit->second);
    }

  private:
    bool asked_ = false;
    server_unit_states units_;
};

/// A server that does not run is started rather than restarted, and not stopped.
void compare_with_running_servers(rehearsal_report& report) {
    std::vector<std::string> names;
    for (const rehearsed_server& server : report.servers) {
        names.push_back(server.vrf_name);
    }
    server_unit_states units;
    if (const platform_status status = server_unit_states_query(names, units); status != PLATFORM_OK) {
        report.problem = text_format("systemd does not tell which servers run: %s", platform_status_text(status));
        return;
    }
    for (rehearsed_server& server : report.servers) {
        if (server.action == rehearsed_action::started && server_unit_runs(units[server.vrf_name])) {
            server.action = rehearsed_action::restarted;
        }
    }
    std::erase_if(report.servers, [&units](const rehearsed_server& server) {
        return server.action == rehearsed_action::stopped && !server_unit_runs(units[server.vrf_name]);
    });
}

rehearsal_report rehearse_commit(const rehearsal_request& request) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    std::optional<private_folders> folders;
    isolated_process process(
        [&folders] { return folders.emplace(private_folder_rows()).mount(); },
        [&](int connection, const std::string& problem) { rehearse(connection, problem, request, folders); });
    if (process.status() != PLATFORM_OK) {
        return without_report(problem_of(process.status()));
    }
    process_manager_step("rehearsing the change", 0, 0);
    running_servers running;
    const rehearsal_answers answers = {*the_datastore().engine, the_datastore().store,
                                       [&running](const std::string& vrf_name) { return running.contain(vrf_name); }};
    std::string text;
    const platform_status status = answer_questions(process.connection(), answers, deadline, text);
    process_manager_progress();
    process_manager_forget_step();
    rehearsal_report report;
    if (status != PLATFORM_OK) {
        return failed(process, status);
    }
    if (!rehearsal_report_read(text, report)) {
        return without_report("its result cannot be read");
    }
    if (request.is_detailed && report.problem.empty()) {
        compare_with_running_servers(report);
    }
    return report;
}

}  // namespace

platform_status rehearsals_start(struct event_manager*) {
    the_datastore().rehearse = rehearse_commit;
    return PLATFORM_OK;
}

void rehearsals_stop() {
    the_datastore().rehearse = nullptr;
}
