#include "linux/status/problems.h"

#include <algorithm>

#include "common/text.h"
#include "platform/acl_service.h"

namespace {

using problem_list = std::vector<enforcement_difference>;

constexpr char last_good_file[] = "its server runs with an earlier, last good file: ";
constexpr char accepted_directives[] =
    "its server runs with the last accepted local directives, not with the present ones: ";
constexpr char no_directives[] = "its server runs without local directives: ";
constexpr char no_file[] = "its server could not be started: ";

/// Collects the problems of one VRF.
class vrf_judge {
  public:
    vrf_judge(const vrf_status& vrf, problem_list& problems) : vrf_(vrf), problems_(problems) {}

    void judge() {
        if (vrf_.services.empty()) {
            add("a server runs, but none is configured");
        } else if (!vrf_.has_namespace) {
            add("its namespace vrf-" + vrf_.name + " does not exist, so it can have no server");
        } else if (vrf_.unit.has_value()) {
            judge_server();
        }
        judge_launch();
        for (const list_status& list : vrf_.lists) {
            judge_list(list);
        }
        judge_protection();
    }

  private:
    void add(std::string text) { problems_.push_back({"VRF " + vrf_.name, std::move(text)}); }

    void judge_server() {
        const server_unit_state& unit = *vrf_.unit;
        if (!server_unit_runs(unit)) {
            add(unit.load == "not-found" ? "its unit " + server_unit_name(vrf_.name) + " does not exist"
                                         : "its server is not running: " + server_unit_name(vrf_.name) + " is " +
                                               unit.active + " (" + unit.sub + ")" + cause_of(unit));
            return;
        }
        if (vrf_.runs_elsewhere) {
            add("its server runs in another namespace than vrf-" + vrf_.name);
        }
        for (const uint32_t service : vrf_.services) {
            if (!vrf_.ports.contains(service_port(service))) {
                add(text_format("its server does not listen on port %u (%s)", unsigned{service_port(service)},
                                service_word(service)));
            }
        }
    }

    static std::string cause_of(const server_unit_state& unit) {
        return unit.result.empty() || unit.result == "success" ? "" : ", " + unit.result;
    }

    void judge_launch() {
        if (!vrf_.launch.has_value()) {
            return;
        }
        if (vrf_.launch->in_use == launch_file::last_good) {
            add(last_good_file + vrf_.launch->reason);
        } else if (vrf_.launch->in_use == launch_file::none) {
            add(no_file + vrf_.launch->reason);
        }
        for (const std::string& problem : vrf_.launch->local_problems) {
            const bool is_earlier = vrf_.launch->local == launch_local::last_accepted;
            add((is_earlier                                     ? accepted_directives
                 : vrf_.launch->local == launch_local::left_out ? no_directives
                                                                : "") +
                problem);
        }
        for (const std::string& sentence : vrf_.launch->not_in_force) {
            add(sentence);
        }
    }

    void judge_protection() {
        const std::string since = " since " + status_time(vrf_.protection.closed_since);
        if (vrf_.protection.blocked) {
            add("new connections are blocked" + since + reason_of_block());
            return;
        }
        for (const std::string& closed : vrf_.protection.closed) {
            add(text_format("new connections to %s are blocked%s for want of the access list", closed.c_str(),
                            since.c_str()));
        }
    }

    /// A VRF whose server did not start stays blocked.
    std::string reason_of_block() const {
        for (const enforcement_entry& failure : vrf_.failures) {
            if (failure.subject == "server " + vrf_.name) {
                return ": " + failure.reason;
            }
        }
        return "";
    }

    bool is_closed(const list_status& list) const {
        const std::string words = std::string(service_word(list.service)) + ' ' + family_word(list.family);
        const std::vector<std::string>& closed = vrf_.protection.closed;
        return vrf_.protection.blocked || std::find(closed.begin(), closed.end(), words) != closed.end();
    }

    void judge_list(const list_status& list) {
        const char* family = list.family == ACL_FAMILY_IPV6 ? "IPv6" : "IPv4";
        const std::string service = list.service == MPP_SERVICE_SSH ? "SSH" : "NETCONF";
        const std::string named = std::string(family) + " access list " + list.name;
        const std::string open =
            is_closed(list) ? std::string() : service + " is open to every " + family + " source: ";
        switch (list.state) {
            case list_state::no_list:
                add(open + "there is no " + named);
                break;
            case list_state::empty:
                add(open + named + " is empty");
                break;
            case list_state::not_loaded:
                add(named + " of " + service + " is not loaded");
                break;
            case list_state::outdated:
                add(named + " of " + service + " is loaded as it was before its last change");
                break;
            case list_state::loaded:
            case list_state::waiting:
            case list_state::unknown:
                break;
        }
    }

    const vrf_status& vrf_;
    problem_list& problems_;
};

void add_unanswered(platform_status status, const char* subject, const char* what, problem_list& problems) {
    if (status != PLATFORM_OK) {
        problems.push_back({subject, std::string(what) + platform_status_text(status)});
    }
}

}  // namespace

std::string status_time(time_t moment) {
    tm parts = {};
    gmtime_r(&moment, &parts);
    char text[64];
    return {text, strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &parts)};
}

std::vector<enforcement_difference> machine_problems(const machine_status& machine) {
    problem_list problems;
    add_unanswered(machine.units, "servers", "the states of the units cannot be read: ", problems);
    add_unanswered(machine.ports, "servers", "the ports on which they listen cannot be read: ", problems);
    add_unanswered(machine.rules, "access lists", "the rules in the kernel cannot be read: ", problems);
    for (const vrf_status& vrf : machine.vrfs) {
        vrf_judge(vrf, problems).judge();
    }
    for (const enforcement_entry& entry : machine.failures) {
        problems.push_back({entry.subject, entry.reason + " (not in force since " + status_time(entry.since) + ")"});
    }
    return problems;
}
