#include "linux/status/problems.h"

#include <gmock/gmock.h>

#include "platform/acl_service.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// A VRF without problems.
vrf_status sound_vrf() {
    vrf_status vrf;
    vrf.name = "red";
    vrf.services = {MPP_SERVICE_SSH, MPP_SERVICE_NETCONF};
    vrf.has_namespace = true;
    vrf.unit = server_unit_state{"loaded", "active", "running", "success", 4711};
    vrf.ports = {22, 830};
    launch_record& launch = vrf.launch.emplace();
    launch.in_use = launch_file::current;
    launch.process = 4711;
    launch.server_file = "/sshd_config_red";
    launch.config = "/translated";
    vrf.lists = {{MPP_SERVICE_SSH, ACL_FAMILY_IPV4, "ops", list_state::loaded}};
    return vrf;
}

std::vector<std::string> lines_of(const machine_status& machine) {
    std::vector<std::string> lines;
    for (const enforcement_difference& problem : machine_problems(machine)) {
        lines.push_back(problem.subject + ": " + problem.text);
    }
    return lines;
}

std::vector<std::string> lines_of(const vrf_status& vrf) {
    machine_status machine;
    machine.vrfs = {vrf};
    return lines_of(machine);
}

TEST(problems, a_sound_vrf_has_none) {
    EXPECT_THAT(lines_of(sound_vrf()), IsEmpty());
}

TEST(problems, a_missing_namespace_is_one) {
    vrf_status vrf = sound_vrf();
    vrf.has_namespace = false;
    vrf.unit = server_unit_state{"not-found", "inactive", "dead", "success", 0};
    vrf.ports.clear();
    vrf.launch.reset();
    vrf.lists[0].state = list_state::waiting;
    EXPECT_THAT(lines_of(vrf), ElementsAre("VRF red: its namespace vrf-red does not exist, so it can have no server"));
}

TEST(problems, of_the_unit) {
    vrf_status vrf = sound_vrf();
    vrf.ports.clear();
    vrf.unit = server_unit_state{"loaded", "failed", "failed", "exit-code", 0};
    EXPECT_THAT(lines_of(vrf), ElementsAre("VRF red: its server is not running: sshd_service_red.service is failed "
                                           "(failed), exit-code"));
    vrf.unit = server_unit_state{"loaded", "inactive", "dead", "success", 0};
    EXPECT_THAT(lines_of(vrf),
                ElementsAre("VRF red: its server is not running: sshd_service_red.service is inactive (dead)"));
    vrf.unit = server_unit_state{"not-found", "inactive", "dead", "success", 0};
    EXPECT_THAT(lines_of(vrf), ElementsAre("VRF red: its unit sshd_service_red.service does not exist"));
    vrf.services.clear();
    EXPECT_THAT(lines_of(vrf), ElementsAre("VRF red: a server runs, but none is configured"));
}

TEST(problems, of_a_running_server) {
    vrf_status vrf = sound_vrf();
    vrf.runs_elsewhere = true;
    vrf.ports = {22};
    vrf.launch->in_use = launch_file::last_good;
    vrf.launch->reason = "sshd rejects the file";
    vrf.launch->not_in_force = {"the limit is not in force: no nft"};
    EXPECT_THAT(lines_of(vrf),
                ElementsAre("VRF red: its server runs in another namespace than vrf-red",
                            "VRF red: its server does not listen on port 830 (netconf)",
                            "VRF red: its server runs with an earlier, last good file: sshd rejects the file",
                            "VRF red: the limit is not in force: no nft"));
    vrf = sound_vrf();
    vrf.launch->in_use = launch_file::none;
    vrf.launch->reason = "no usable host key";
    EXPECT_THAT(lines_of(vrf), ElementsAre("VRF red: its server could not be started: no usable host key"));
}

TEST(problems, of_access_lists) {
    vrf_status vrf = sound_vrf();
    vrf.lists = {{MPP_SERVICE_SSH, ACL_FAMILY_IPV4, "a", list_state::no_list},
                 {MPP_SERVICE_SSH, ACL_FAMILY_IPV6, "b", list_state::empty},
                 {MPP_SERVICE_NETCONF, ACL_FAMILY_IPV4, "c", list_state::not_loaded},
                 {MPP_SERVICE_NETCONF, ACL_FAMILY_IPV6, "d", list_state::outdated}};
    EXPECT_THAT(lines_of(vrf),
                ElementsAre("VRF red: SSH is open to every IPv4 source: there is no IPv4 access list a",
                            "VRF red: SSH is open to every IPv6 source: IPv6 access list b is empty",
                            "VRF red: IPv4 access list c of NETCONF is not loaded",
                            "VRF red: IPv6 access list d of NETCONF is loaded as it was before its last change"));
}

TEST(problems, of_blocked_connections) {
    vrf_status vrf = sound_vrf();
    vrf.lists[0].state = list_state::no_list;
    vrf.protection.closed = {"ssh ipv4"};
    vrf.protection.closed_since = 1000000000;
    EXPECT_THAT(lines_of(vrf), ElementsAre("VRF red: there is no IPv4 access list ops",
                                           "VRF red: new connections to ssh ipv4 are blocked since "
                                           "2001-09-09T01:46:40Z for want of the access list"));
    vrf = sound_vrf();
    vrf.protection.blocked = true;
    vrf.protection.closed_since = 1000000000;
    EXPECT_THAT(lines_of(vrf), ElementsAre("VRF red: new connections are blocked since 2001-09-09T01:46:40Z"));
    vrf.failures = {{"rules red ssh ipv4", "not loaded", 1, 0}, {"server red", "it did not start", 1, 0}};
    EXPECT_THAT(lines_of(vrf), ElementsAre("VRF red: new connections are blocked since 2001-09-09T01:46:40Z: "
                                           "it did not start"));
}

TEST(problems, include_recorded_failures_and_unknown_states) {
    machine_status machine;
    machine.units = ETIMEDOUT;
    machine.ports = EPERM;
    machine.rules = EIO;
    machine.failures = {{"server red", "it did not start", 1000000000, 0}};
    EXPECT_THAT(lines_of(machine),
                ElementsAre("servers: the states of the units cannot be read: Connection timed out",
                            "servers: the ports on which they listen cannot be read: Operation not permitted",
                            "access lists: the rules in the kernel cannot be read: Input/output error",
                            "server red: it did not start (not in force since 2001-09-09T01:46:40Z)"));
}

}  // namespace
