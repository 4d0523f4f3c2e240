/// Fixture of the tests that disturb a commit: what the commit is, and what the machine is like before and after it.
#ifndef UNIT_RECONCILE_DISTURBED_COMMITS_H
#define UNIT_RECONCILE_DISTURBED_COMMITS_H

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

namespace disturbed_commits {

using fake_platform::change;

inline constexpr char fips_item[] = "/cfg/gl/crypto/fipsmode/value";

inline change vrf_item(const std::string& vrf, const std::optional<std::string>& v4_list = std::nullopt) {
    const auto list = v4_list ? fake_platform::field(*v4_list) : fake_platform::field();
    return fake_platform::set_tuple("/cfg/gl/crypto/ssh/server/sshd/vrf/" + vrf, "%d%S%S", {{}, list, {}});
}

inline change netconf_item(const std::string& vrf) {
    return fake_platform::set_tuple("/cfg/gl/crypto/ssh/server/sshd/vrf-netconf/" + vrf, "%d%S%S", {{}, {}, {}});
}

inline change setting(const std::string& name, uint32_t value) {
    return fake_platform::set_number("/cfg/gl/crypto/ssh/server/cmn/" + name, value);
}

/// A commit to an agent with servers in the VRFs red, blue and green, the first of which has an access list.
struct disturbed_commit {
    const char* name;
    std::vector<change> earlier;  ///< what is also configured before
    std::vector<change> changes;
    bool changes_list = false;  ///< the list itself is changed instead
};

inline void PrintTo(const disturbed_commit& commit, std::ostream* output) {
    *output << commit.name;
}

/// What the machine is like: the files that the agent writes, what each server was started with, which units run, and the
/// rules that the kernel has.
using machine_state = std::map<std::string, std::string>;

inline constexpr char kernel_rules[] = "/stub_commands/kernel";
inline constexpr char running_files[] = "/stub_commands/running";
inline constexpr char units[] = "/stub_commands/units";
inline constexpr char rule_files[] = "/tmp/norvo-ssh";

/// All that a commit may change. It is restored before the next kill.
inline constexpr const char* kept_folders[] = {
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
inline bool is_temporary(const std::string& path) {
    return path.starts_with(rule_files) || path == paths::temporary_file || path == paths::restart_record_temporary ||
           path == paths::pam_temporary_file;
}

/// The lists that FIPS mode leaves behind when it is switched off. Without a line they are in force as well.
inline bool is_default_list(const std::string& line) {
    return line ==
               "Ciphers aes128-ctr,aes192-ctr,aes256-ctr,aes128-gcm@openssh.com,aes256-gcm@openssh.com,"
               "chacha20-poly1305@openssh.com" ||
           line ==
               "KexAlgorithms ecdh-sha2-nistp521,ecdh-sha2-nistp384,ecdh-sha2-nistp256,diffie-hellman-group14-sha1,"
               "curve25519-sha256,diffie-hellman-group14-sha256,diffie-hellman-group16-sha512,"
               "curve25519-sha256@libssh.org";
}

/// The order of a server file's lines does not count, nor do their blanks.
inline std::string sorted_lines(const std::string& path) {
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
inline bool is_empty_table(const std::string& path, uintmax_t size) {
    return path.starts_with(kernel_rules) && size == 0;
}

/// The finding that the agent gets about a table, whose rules are the indented lines.
inline packet_filter_finding compare_with_kernel(const packet_filter_table& table) {
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

inline bool has_settings(const std::string& path) {
    return path.starts_with(paths::server_file) || path.starts_with(running_files) || path == paths::client_file;
}

/// Returns those parts of the content of `file`, which is the file at `path` or a copy of it, that matter.
inline std::string content_of(const std::string& path, const std::string& file) {
    if (path.starts_with(units)) {
        return "runs";  // the file contains the time of the start
    }
    return has_settings(path) ? sorted_lines(file) : read_file(file);
}

class disturbed_commit_test : public acl_test, public testing::WithParamInterface<disturbed_commit> {
  protected:
    disturbed_commit_test() {
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

    enum : int { done, failed, refused };

    static int carry_out() {
        if (GetParam().changes_list) {
            change_stored_list();
            const std::vector<int> results = fake_platform::change_acl(ACL_FAMILY_IPV4, "ops", true);
            return results == std::vector<int>{0} && fake_platform::not_in_force().empty() ? done : failed;
        }
        const auto result = fake_platform::commit(GetParam().changes);
        if (!result.refused_path.empty()) {
            return refused;
        }
        return result.status == PLATFORM_OK && result.not_in_force.empty() ? done : failed;
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

    /// Returns the state of the machine, or of its copy below `root`.
    static machine_state state(const std::string& root = {}) {
        machine_state found;
        for (const char* folder : kept_folders) {
            for (const auto& entry : std::filesystem::recursive_directory_iterator(root + folder)) {
                const std::string path = entry.path().string().substr(root.size());
                if (entry.is_regular_file() && !is_temporary(path) && !is_empty_table(path, entry.file_size())) {
                    found[path] = content_of(path, entry.path());
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
inline std::string line_differences(const std::string& expected, const std::string& found) {
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

inline std::string differences(const machine_state& expected, const machine_state& found) {
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

inline auto all_commits() {
    return testing::Values(
        disturbed_commit{"a_setting", {}, {setting("timeout", 77)}},
        disturbed_commit{"fips_mode_on", {}, {fake_platform::set_number(fips_item, 1)}},
        disturbed_commit{
            "fips_mode_off", {fake_platform::set_number(fips_item, 1)}, {fake_platform::remove(fips_item)}},
        disturbed_commit{"an_item_added", {}, {vrf_item("grey")}},
        disturbed_commit{"an_item_added_with_a_list", {}, {vrf_item("grey", "ops")}},
        disturbed_commit{"netconf_added", {}, {netconf_item("blue")}},
        disturbed_commit{"an_item_deleted", {}, {fake_platform::remove(vrf_item("red").path)}},
        disturbed_commit{"a_list_bound", {}, {vrf_item("blue", "ops")}},
        disturbed_commit{"a_list_released", {}, {vrf_item("red")}}, disturbed_commit{"a_list_changed", {}, {}, true});
}

}  // namespace disturbed_commits

#endif
