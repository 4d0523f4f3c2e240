#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "../acl/acl_test.h"
#include "reconcile/reconciliation.h"
#include "syscall_faults.h"

namespace interrupted_commits {
namespace {

using fake_platform::change;

constexpr char fips_item[] = "/cfg/gl/crypto/fipsmode/value";

change vrf_item(const std::string& vrf, const std::optional<std::string>& v4_list = std::nullopt) {
    const auto list = v4_list ? fake_platform::field(*v4_list) : fake_platform::field();
    return fake_platform::set_tuple("/cfg/gl/crypto/ssh/server/sshd/vrf/" + vrf, "%d%S%S", {{}, list, {}});
}

change netconf_item(const std::string& vrf) {
    return fake_platform::set_tuple("/cfg/gl/crypto/ssh/server/sshd/vrf-netconf/" + vrf, "%d%S%S", {{}, {}, {}});
}

change setting(const std::string& name, uint32_t value) {
    return fake_platform::set_number("/cfg/gl/crypto/ssh/server/cmn/" + name, value);
}

/// A commit to an agent with servers in the VRFs red, blue and green, the first of which has an access list.
struct interrupted_commit {
    const char* name;
    std::vector<change> earlier;  ///< what is also configured before
    std::vector<change> changes;
    bool changes_list = false;  ///< the list itself is changed instead
};

void PrintTo(const interrupted_commit& commit, std::ostream* output) {
    *output << commit.name;
}

/// What the machine is like: the files that the agent writes, what each server was started with, which units run, and the
/// rules that the kernel has.
using machine_state = std::map<std::string, std::string>;

constexpr char kernel_rules[] = "/stub_commands/kernel";
constexpr char running_files[] = "/stub_commands/running";
constexpr char units[] = "/stub_commands/units";
constexpr char rule_files[] = "/tmp/norvo-ssh";

/// FIPS mode changes four lines in each file, one after the other: every second kill will do.
constexpr size_t points_max = 80;

/// All that a commit may change. It is restored before the next kill.
constexpr const char* kept_folders[] = {
    "/var/opt/norvo/norvossh",
    "/etc/systemd/system",
    "/etc/pam.d",
    "/tmp/norvo-ssh",
    "/run",
    kernel_rules,
    running_files,
    units,
};

/// Files that nobody reads before they are written again: half-written ones, and those that nft was to load.
bool is_temporary(const std::string& path) {
    return path.starts_with(rule_files) || path == paths::temporary_file || path == paths::restart_record_temporary ||
           path == paths::pam_temporary_file;
}

/// The lists that FIPS mode leaves behind when it is switched off. Without a line they are in force as well.
bool is_default_list(const std::string& line) {
    return line ==
               "Ciphers aes128-ctr,aes192-ctr,aes256-ctr,aes128-gcm@openssh.com,aes256-gcm@openssh.com,"
               "chacha20-poly1305@openssh.com" ||
           line ==
               "KexAlgorithms ecdh-sha2-nistp521,ecdh-sha2-nistp384,ecdh-sha2-nistp256,diffie-hellman-group14-sha1,"
               "curve25519-sha256,diffie-hellman-group14-sha256,diffie-hellman-group16-sha512,"
               "curve25519-sha256@libssh.org";
}

/// The order of a server file's lines does not count, nor do their blanks.
std::string sorted_lines(const std::string& path) {
    std::vector<std::string> lines = file_lines(path);
    std::erase_if(lines, is_default_list);
    for (std::string& line : lines) {
        line.erase(std::unique(line.begin(), line.end(), [](char a, char b) { return a == ' ' && b == ' '; }),
                   line.end());
    }
    std::sort(lines.begin(), lines.end());
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

/// A table without rules lets everything pass, as one does that does not exist.
bool is_empty_table(const std::filesystem::directory_entry& entry) {
    return entry.path().string().starts_with(kernel_rules) && entry.file_size() == 0;
}

/// The finding that the agent gets about a table, whose rules are the indented lines.
packet_filter_finding compare_with_kernel(const packet_filter_table& table) {
    std::string wanted;
    std::istringstream commands(table.commands != nullptr ? table.commands : "");
    for (std::string line; std::getline(commands, line);) {
        wanted += line.starts_with(' ') ? line + "\n" : "";
    }
    const std::string path = std::string(kernel_rules) + "/vrf-" + table.vrf_name + "/" + table.table;
    const std::string present = path_exists(path) ? read_file(path) : "";
    const auto verdict = present == wanted ? PACKET_FILTER_AS_WANTED : PACKET_FILTER_DIFFERS;
    return {verdict, present.empty() ? 0U : 1U, wanted.empty() ? 0U : 1U};
}

std::string content_of(const std::string& path) {
    if (path.starts_with(units)) {
        return "runs";  // the file tells since when
    }
    const bool has_settings =
        path.starts_with(paths::server_file) || path.starts_with(running_files) || path == paths::client_file;
    return has_settings ? sorted_lines(path) : read_file(path);
}

class interrupted_commits_test : public acl_test, public testing::WithParamInterface<interrupted_commit> {
  protected:
    interrupted_commits_test() {
        forget_vrf_nodes();
        for (const char* folder : {kernel_rules, running_files, "/etc/systemd/system", "/etc/pam.d"}) {
            std::filesystem::create_directories(folder);
        }
        for (const char* vrf : {"default", "red", "blue", "green", "grey"}) {
            scratch_root::add_namespace_file(std::string("vrf-") + vrf);
        }
        // A server is started with its present file.
        stub_commands::set_hook(
            "systemctl restart",
            "set -- $STUB_COMMAND_LINE; shift 2; for unit; do "
            "cp /var/opt/norvo/norvossh/sshd_config_${unit#sshd_service_} /stub_commands/running/$unit; "
            "done");
        stub_commands::set_hook("systemctl is-active",
                                "set -- $STUB_COMMAND_LINE; [ -e /stub_commands/units/$3 ] && echo active");
        // Flushing a table empties it; loading adds to what it has.
        stub_commands::set_hook(
            "ip netns exec",
            "set -- $STUB_COMMAND_LINE; mkdir -p /stub_commands/kernel/$4; "
            "awk -v d=/stub_commands/kernel/$4/ '/^(flush|delete)/ {printf \"\" > (d $4); close(d $4)} "
            "/^table/ {t = d $3} /^ / {print >> t}' $7");
        fake_platform::set_packet_filter(compare_with_kernel);
        set_ops({"10.0.0.0"});
        fake_platform::store(vrf_item("red", "ops"));
        fake_platform::store(vrf_item("blue"));
        fake_platform::store(vrf_item("green"));
        for (const change& one : GetParam().earlier) {
            fake_platform::store(one);
        }
    }

    static void set_ops(const std::vector<const char*>& sources) {
        std::vector<acl_ipv4_entry> entries;
        for (const char* source : sources) {
            entries.push_back(ipv4_entry());
            entries.back().SourceAddress = ipv4(source);
            entries.back().SourceAddressMask = ipv4("0.255.255.255");
        }
        set_list("ops", entries);
    }

    static void change_stored_list() { set_ops({"10.0.0.0", "20.0.0.0"}); }

    /// Returns how much of it failed.
    static int carry_out() {
        if (GetParam().changes_list) {
            change_stored_list();
            const std::vector<int> results = fake_platform::change_acl(ACL_FAMILY_IPV4, "ops", true);
            return results == std::vector<int>{0} ? 0 : 1;
        }
        const auto result = fake_platform::commit(GetParam().changes);
        return result.status == PLATFORM_OK && result.not_in_force.empty() ? 0 : 1;
    }

    /// The agent dies without a word after the changes were stored, and is started again. Returns how much is not in force.
    static int die_and_start() {
        if (GetParam().changes_list) {
            change_stored_list();
        }
        for (const change& one : GetParam().changes) {
            fake_platform::store(one);
        }
        forget_vrf_nodes();
        agent_handles = {};
        fake_platform::set_respawn_count(2);
        if (start_agent() != START_UP_DONE) {
            return 100;
        }
        const int remaining = fake_platform::reconcile(false).remaining;
        forget_vrf_nodes();
        return remaining + static_cast<int>(fake_platform::not_in_force().size());
    }

    static machine_state state() {
        machine_state found;
        for (const char* folder : kept_folders) {
            for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
                const std::string path = entry.path();
                if (entry.is_regular_file() && !is_temporary(path) && !is_empty_table(entry)) {
                    found[path] = content_of(path);
                }
            }
        }
        return found;
    }

    static void copy_all(const std::string& from, const std::string& to) {
        for (const char* folder : kept_folders) {
            std::filesystem::create_directories(to + folder);
            for (const auto& entry : std::filesystem::directory_iterator(to + folder)) {
                std::filesystem::remove_all(entry.path());
            }
            if (std::filesystem::exists(from + folder)) {
                std::filesystem::copy(from + folder, to + folder, std::filesystem::copy_options::recursive);
            }
        }
    }
};

/// The lines that only one of two texts has.
std::string line_differences(const std::string& expected, const std::string& found) {
    std::istringstream one(expected);
    std::istringstream other(found);
    std::multiset<std::string> wanted;
    std::string text;
    for (std::string line; std::getline(one, line);) {
        wanted.insert(line);
    }
    for (std::string line; std::getline(other, line);) {
        if (const auto same = wanted.find(line); same != wanted.end()) {
            wanted.erase(same);
        } else {
            text += "+" + line + "\n";
        }
    }
    for (const std::string& line : wanted) {
        text += "-" + line + "\n";
    }
    return text.empty() ? "other order\n" : text;
}

std::string differences(const machine_state& expected, const machine_state& found) {
    std::string text;
    for (const auto& [path, content] : expected) {
        const auto other = found.find(path);
        if (other == found.end()) {
            text += "missing: " + path + "\n";
        } else if (other->second != content) {
            text += "differs: " + path + "\n" + line_differences(content, other->second);
        }
    }
    for (const auto& [path, content] : found) {
        text += expected.contains(path) ? "" : "left over: " + path + "\n";
    }
    return text;
}

TEST_P(interrupted_commits_test, killed_anywhere_the_next_start_leads_to_the_same_state) {
    ASSERT_EQ(start_agent(), START_UP_DONE);
    copy_all("", "/before");
    const auto undisturbed = syscall_faults::run({}, carry_out);
    ASSERT_EQ(undisturbed.status, 0);
    const machine_state carried_out = state();
    ASSERT_EQ(syscall_faults::run_undisturbed(die_and_start), 0);
    const machine_state expected = state();
    EXPECT_EQ(differences(carried_out, expected), "") << "by a restart at rest";

    const std::vector<uint32_t> points = syscall_faults::kill_points(undisturbed);
    EXPECT_GT(points.size(), 5U);
    const size_t step = (points.size() + points_max - 1) / points_max;
    for (size_t i = 0; i < points.size(); i += step) {
        const uint32_t call = points[i];
        copy_all("/before", "");
        const auto killed = syscall_faults::run({syscall_faults::fault::kill, call}, carry_out);
        SCOPED_TRACE("killed before call " + std::to_string(call) + ", " + killed.name);
        ASSERT_TRUE(killed.killed);
        ASSERT_EQ(syscall_faults::run_undisturbed(die_and_start), 0);
        ASSERT_EQ(differences(expected, state()), "");
    }
}

INSTANTIATE_TEST_SUITE_P(
    kinds, interrupted_commits_test,
    testing::Values(interrupted_commit{"a_setting", {}, {setting("timeout", 77)}},
                    interrupted_commit{"fips_mode_on", {}, {fake_platform::set_number(fips_item, 1)}},
                    interrupted_commit{
                        "fips_mode_off", {fake_platform::set_number(fips_item, 1)}, {fake_platform::remove(fips_item)}},
                    interrupted_commit{"an_item_added", {}, {vrf_item("grey")}},
                    interrupted_commit{"an_item_added_with_a_list", {}, {vrf_item("grey", "ops")}},
                    interrupted_commit{"netconf_added", {}, {netconf_item("blue")}},
                    interrupted_commit{"an_item_deleted", {}, {fake_platform::remove(vrf_item("red").path)}},
                    interrupted_commit{"a_list_bound", {}, {vrf_item("blue", "ops")}},
                    interrupted_commit{"a_list_released", {}, {vrf_item("red")}},
                    interrupted_commit{"a_list_changed", {}, {}, true}),
    [](const auto& info) { return info.param.name; });

}  // namespace
}  // namespace interrupted_commits
