#include "linux/packet_filter/own_tables.h"

#include <arpa/inet.h>
#include <linux/netfilter.h>
#include <signal.h>
#include <syslog.h>

#include <exception>
#include <map>
#include <string>
#include <vector>

#include "common/launch_record.h"
#include "common/limits_table.h"
#include "linux/enforcement/enforcement_internal.h"
#include "linux/packet_filter/table_comparison.h"
#include "linux/reporting/log_message_internal.h"
#include "linux/vrf/mpp_filter.h"
#include "linux/vrf/mpp_internal.h"
#include "linux/vrf/namespace_watch.h"
#include "linux/vrf/vrf_table_internal.h"

namespace {

/// A VRF with a namespace, and what its tables should be.
struct vrf_wish {
    std::string name;
    bool has_protection = false;  ///< the table has to exist
    filter_ports blocked = 0;
    std::string limits;  ///< commands that make the table; empty if it is not known what it should be
};

/// What is known of the server that runs in the VRF.
void take_server(vrf_wish& vrf) {
    launch_record record;
    if (launch_record_read(vrf.name, record) != PLATFORM_OK || record.in_use == launch_file::none ||
        kill(record.process, 0) != 0) {
        return;
    }
    vrf.has_protection = true;
    if (record.connections_per_minute != 0) {
        vrf.limits = limits_table_commands(record.connections_per_minute, record.ports);
    }
}

std::vector<vrf_wish> collect_wishes() {
    std::vector<vrf_wish> wishes;
    for (const std::string& name : namespace_list()) {
        vrf_wish& vrf = wishes.emplace_back();
        vrf.name = name.substr(sizeof namespace_name_prefix - 1);
        take_server(vrf);
    }
    for (const mpp_vrf_status& protection : mpp_status()) {
        for (vrf_wish& vrf : wishes) {
            if (vrf.name == protection.vrf_name) {
                vrf.has_protection = vrf.has_protection || protection.initialised || protection.blocked_ports != 0;
                vrf.blocked = protection.blocked_ports;
            }
        }
    }
    return wishes;
}

/// A table that may have to be repaired.
struct own_table {
    const vrf_wish* vrf;
    bool is_limit;
};

/// One comparison.
class own_tables_run {
  public:
    own_tables_run(bool repair, enforcement_difference_sink sink, void* sink_context)
        : repair_(repair), sink_(sink), sink_context_(sink_context), wishes_(collect_wishes()) {}

    int compare() {
        for (const vrf_wish& vrf : wishes_) {
            add(vrf);
        }
        std::vector<packet_filter_finding> findings;
        const platform_status status = compare_tables(places_, findings);
        if (status != PLATFORM_OK) {
            report("packet filter", std::string("its tables cannot be compared: ") + platform_status_text(status));
            remaining_++;
        }
        for (size_t i = 0; i < findings.size(); i++) {
            judge(tables_[i], findings[i]);
        }
        return remaining_;
    }

  private:
    const table_maker* protection_maker(filter_ports blocked) {
        return &protection_.try_emplace(blocked, [blocked] { return mpp_filter_make_here(blocked) == 0; })
                    .first->second;
    }

    const table_maker* limit_maker(const std::string& commands) {
        return &limits_.try_emplace(commands, [&commands] { return run_nft_here(commands); }).first->second;
    }

    void add(const vrf_wish& vrf) {
        if (vrf.has_protection) {
            tables_.push_back({&vrf, false});
            places_.push_back({vrf.name, NFPROTO_INET, mpp_filter_table, protection_maker(vrf.blocked)});
        } else {
            judge_unprotected(vrf);
        }
        if (!vrf.limits.empty()) {
            tables_.push_back({&vrf, true});
            places_.push_back({vrf.name, NFPROTO_INET, limits_table, limit_maker(vrf.limits)});
        }
    }

    void report(const std::string& subject, const std::string& text) {
        sink_(subject.c_str(), text.c_str(), sink_context_);
        if (repair_) {
            platform_log(LOG_WARNING, "%s: %s", subject.c_str(), text.c_str());
        }
    }

    void not_repaired(const std::string& subject, const std::string& reason) {
        remaining_++;
        enforcement_failed(subject.c_str(), reason.c_str());
    }

    /// A VRF without a server, which nobody has asked to be blocked.
    void judge_unprotected(const vrf_wish& vrf) {
        std::string failure;
        filter_ports blocked = 0;
        if (mpp_filter_blocked(vrf.name, blocked, failure) != PLATFORM_OK || blocked == 0) {
            return;
        }
        const std::string subject = "protection " + vrf.name;
        report(subject, "new connections are blocked, but nothing requests it");
        if (!repair_) {
            remaining_++;
        } else if (mpp_filter_open(vrf.name, failure) != PLATFORM_OK) {
            not_repaired(subject, failure);
        }
    }

    void judge(const own_table& table, const packet_filter_finding& finding) {
        // A namespace that has just been deleted has no tables.
        if (finding.verdict == PACKET_FILTER_AS_WANTED ||
            !namespace_is_attached(namespace_name_prefix + table.vrf->name)) {
            return;
        }
        const std::string subject = (table.is_limit ? "connection limit " : "protection ") + table.vrf->name;
        const std::string name = std::string("table inet ") + (table.is_limit ? limits_table : mpp_filter_table);
        const bool unknown = finding.verdict == PACKET_FILTER_UNKNOWN;
        report(subject, name + (unknown ? " cannot be compared" : " is missing or differs"));
        if (!repair_) {
            remaining_++;
        } else if (unknown) {
            not_repaired(subject, name + " cannot be compared");
        } else {
            make_again(table, subject, name);
        }
    }

    void make_again(const own_table& table, const std::string& subject, const std::string& name) {
        std::string failure = name + " cannot be made";
        const platform_status status =
            table.is_limit
                ? run_nft_in_vrf(table.vrf->name,
                                 "table inet norvo_limits {\n}\ndelete table inet norvo_limits\n" + table.vrf->limits)
                : mpp_filter_replace(table.vrf->name, table.vrf->blocked, failure);
        if (status != PLATFORM_OK) {
            not_repaired(subject, failure);
        }
    }

    bool repair_;
    enforcement_difference_sink sink_;
    void* sink_context_;
    std::vector<vrf_wish> wishes_;
    std::map<filter_ports, table_maker> protection_;
    std::map<std::string, table_maker> limits_;
    std::vector<own_table> tables_;
    std::vector<table_place> places_;
    int remaining_ = 0;
};

}  // namespace

int own_tables_compare(bool repair, enforcement_difference_sink sink, void* sink_context) {
    return own_tables_run(repair, sink, sink_context).compare();
}

platform_status own_tables_start(struct event_manager*) {
    enforcement_add_check(own_tables_compare);
    try {
        own_tables_compare(
            true, [](const char*, const char*, void*) {}, nullptr);
    } catch (const std::exception& exception) {
        platform_log(LOG_ERR, "The platform's packet filters could not be compared: %s", exception.what());
    }
    return PLATFORM_OK;
}

void own_tables_stop() {
    enforcement_remove_check(own_tables_compare);
}
