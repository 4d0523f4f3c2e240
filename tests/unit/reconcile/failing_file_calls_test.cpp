#include <errno.h>
#include <string.h>
#include <syslog.h>

#include <iterator>
#include <numeric>

#include "disturbed_commits.h"

namespace disturbed_commits {
namespace {

using syscall_faults::fault;

/// What happened while a call failed, as the status of the process.
enum : int {
    was_refused = 1,   ///< the commit was refused
    was_reported = 2,  ///< the commit's answer or the log said that something failed
    unrepaired = 4,    ///< something is not in force after the repair
    leaked = 8,        ///< a descriptor remained open
};

constexpr syscall_faults::plan faults[] = {
    {.kind = fault::error, .error = ENOSPC},        {.kind = fault::error, .for_ever = true, .error = ENOSPC},
    {.kind = fault::error, .error = EIO},           {.kind = fault::error, .for_ever = true, .error = EIO},
    {.kind = fault::error, .error = EROFS},         {.kind = fault::error, .for_ever = true, .error = EROFS},
    {.kind = fault::error, .error = EMFILE},        {.kind = fault::error, .for_ever = true, .error = EMFILE},
    {.kind = fault::error, .error = ENOMEM},        {.kind = fault::error, .for_ever = true, .error = ENOMEM},
    {.kind = fault::error, .error = EINTR},         {.kind = fault::short_write},
    {.kind = fault::short_write, .for_ever = true},
};

/// How many calls of each commit are made to fail, each in a run of its own.
constexpr size_t calls_max = 16;

constexpr char disturbed_copy[] = "/disturbed";

class failing_file_calls_test : public disturbed_commit_test {
  protected:
    static size_t open_descriptors() {
        const std::filesystem::directory_iterator folder("/proc/self/fd");
        return static_cast<size_t>(std::distance(begin(folder), end(folder)));
    }

    static inline size_t descriptors_before = 0;  ///< of the process from which each disturbed one is forked

    /// Carries the commit out while a call fails, keeps a copy of the state that this leaves, and repairs it.
    static int carry_out_and_repair() {
        fake_platform::clear_reports();
        const int result = carry_out();
        syscall_faults::end_faults();
        copy_all("", disturbed_copy);
        int status = result == refused ? was_refused : 0;
        status |= result == done && !logs_a_problem() ? 0 : was_reported;
        fake_platform::reconcile(true);
        if (fake_platform::reconcile(false).remaining != 0 || !fake_platform::not_in_force().empty()) {
            status |= unrepaired;
        }
        return status | (open_descriptors() > descriptors_before ? leaked : 0);
    }

    static bool logs_a_problem() {
        const auto& lines = fake_platform::log_lines();
        return std::any_of(lines.begin(), lines.end(), [](const auto& line) { return line.severity <= LOG_WARNING; });
    }
};

std::set<std::string> lines_of(const std::string& text) {
    std::istringstream input(text);
    std::set<std::string> lines;
    for (std::string line; std::getline(input, line);) {
        lines.insert(line);
    }
    return lines;
}

/// Returns whether a file of settings contains each line that it has both before and after the commit, and no line that it
/// has neither before nor after it.
bool is_between(const std::string& before, const std::string& after, const std::string& found) {
    const auto earlier = lines_of(before);
    const auto later = lines_of(after);
    const auto present = lines_of(found);
    return std::all_of(earlier.begin(), earlier.end(),
                       [&](const auto& line) { return !later.contains(line) || present.contains(line); }) &&
           std::all_of(present.begin(), present.end(),
                       [&](const auto& line) { return earlier.contains(line) || later.contains(line); });
}

/// Returns the state without what may be left over: the record of servers to be restarted, which the next commit or start
/// removes, and the files of VRFs without a server, which are replaced when a server is configured there again.
machine_state without_leftovers(machine_state state) {
    state.erase(paths::restart_record);
    std::erase_if(state, [&](const auto& file) {
        const std::string& path = file.first;
        return path.starts_with(paths::vrf_server_file_prefix) &&
               !state.contains(std::string(units) + "/sshd_service_" +
                               path.substr(std::string(paths::vrf_server_file_prefix).size()));
    });
    return state;
}

/// Returns the files that are neither as before the commit nor as after it, nor complete steps in between.
std::string damage(const machine_state& before, const machine_state& after, const machine_state& found) {
    std::string text;
    for (const auto& [path, content] : found) {
        const auto earlier = before.find(path);
        const auto later = after.find(path);
        const bool is_old = earlier != before.end() && content == earlier->second;
        const bool is_new = later != after.end() && content == later->second;
        // A unit's files are written in place; an incomplete one is reported and completed by the repair.
        const bool is_begun =
            path.starts_with("/etc/systemd/system/") && later != after.end() && later->second.starts_with(content);
        const bool is_step = has_settings(path) && (earlier == before.end() || later == after.end() ||
                                                    is_between(earlier->second, later->second, content));
        text += is_old || is_new || is_step || is_begun ? "" : "damaged: " + path + "\n" + content;
    }
    return text;
}

TEST_P(failing_file_calls_test, a_failure_of_any_call_is_reported_and_can_be_repaired) {
    ASSERT_EQ(start_agent(), START_UP_DONE);
    copy_all("", "/before");
    const machine_state before = without_leftovers(state());
    descriptors_before = open_descriptors();
    const auto undisturbed = syscall_faults::run({}, carry_out_and_repair);
    ASSERT_EQ(undisturbed.status, 0);
    const machine_state carried_out = without_leftovers(state(disturbed_copy));
    const machine_state repaired = without_leftovers(state());

    std::vector<uint32_t> calls(undisturbed.calls);
    std::iota(calls.begin(), calls.end(), 1U);
    size_t number = 0;
    for (const uint32_t call : syscall_faults::chosen_calls(calls, calls_max)) {
        for (const syscall_faults::plan& disturbance : faults) {
            if (!syscall_faults::every_call() && &disturbance != &faults[number % std::size(faults)]) {
                continue;
            }
            copy_all("/before", "");
            syscall_faults::plan plan = disturbance;
            plan.call = call;
            const auto disturbed = syscall_faults::run(plan, carry_out_and_repair);
            SCOPED_TRACE(testing::Message()
                         << "call " << call << ", " << disturbed.name << " " << disturbed.path << ", "
                         << (plan.kind == fault::error ? strerrorname_np(plan.error) : "short")
                         << (plan.for_ever ? " for ever" : ""));
            ASSERT_TRUE(disturbed.hit);
            ASSERT_LT(disturbed.status, 16) << "crashed";
            EXPECT_EQ(disturbed.status & (unrepaired | leaked), 0);
            const machine_state left = without_leftovers(state(disturbed_copy));
            EXPECT_EQ(damage(before, carried_out, left), "");
            const bool was_stored = (disturbed.status & was_refused) == 0;
            if (was_stored && (disturbed.status & was_reported) == 0) {
                EXPECT_EQ(differences(carried_out, left), "") << "without a report";
            }
            EXPECT_EQ(differences(was_stored ? repaired : before, without_leftovers(state())), "")
                << "after the repair";
        }
        number++;
    }
}

INSTANTIATE_TEST_SUITE_P(kinds, failing_file_calls_test, all_commits(),
                         [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace disturbed_commits
