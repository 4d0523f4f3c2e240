#include "core/trace_table.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "../agent_test.h"
#include "appliers/trace_points.h"

namespace {

std::vector<trace_point> all_points() {
    std::vector<trace_point> points(agent_trace_table.errors.begin(), agent_trace_table.errors.end());
    points.insert(points.end(), agent_trace_table.events.begin(), agent_trace_table.events.end());
    std::sort(points.begin(), points.end(), [](const auto& a, const auto& b) { return a.code < b.code; });
    return points;
}

std::string labels_of(const trace_point& point) {
    std::string labels;
    for (const char* label : point.labels) {
        labels += label == nullptr ? "" : (labels.empty() ? "" : ", ") + std::string(label);
    }
    return labels;
}

/// The points of one buffer as lines of the manual page.
std::string manual_entries(std::span<const trace_point> points) {
    std::string text;
    for (const trace_point& point : points) {
        char code[16];
        snprintf(code, sizeof code, "0x%03x", point.code);
        const std::string labels = labels_of(point);
        text += std::string(".TP\n.BR ") + point.name + " \" (" + code + ")\"\n" + point.meaning +
                (labels.empty() ? "" : ":\n.I " + labels) + '\n';
    }
    return text;
}

std::string manual_page() {
    return R"(.\" Written by the tests from the table of trace points; see tests/README.md.
.TH SSH_CFG_TRACE 7 "" "ssh_cfg_agent" "Miscellaneous"
.SH NAME
ssh_cfg_trace \- trace points of the SSH configuration agent
.SH DESCRIPTION
.BR ssh_cfg_agent (8)
keeps its last failures and its last events in two trace buffers in memory.
.BR "ssh_cfg_ctl trace error" " and " "ssh_cfg_ctl trace event"
print them, the oldest first: the time (UTC), the name of the trace point, and its arguments with their labels. The number
of a point never changes; with
.B \-\-json
an entry has it as
.BR point .
.PP
The argument
.I status
is an errno value or a code of the platform, and is followed by its text. An
.I event
is 3 when an item was created, 2 when it was changed and 4 when it was deleted. A
.I kind
of access list is 0 (SSH, IPv4), 1 (NETCONF, IPv4), 2 (SSH, IPv6) or 3 (NETCONF, IPv6).
.SH FAILURES
)" + manual_entries(agent_trace_table.errors) +
           ".SH EVENTS\n" + manual_entries(agent_trace_table.events) +
           ".SH SEE ALSO\n.BR ssh_cfg_ctl (1),\n.BR ssh_cfg_agent (8)\n";
}

TEST(trace_table_test, the_manual_page_lists_every_point) {
    expect_golden("../../packaging/ssh_cfg_trace.7", manual_page());
}

TEST(trace_table_test, names_and_labels_are_unique_where_they_must_be) {
    std::set<std::string> names;
    for (const trace_point& point : all_points()) {
        EXPECT_TRUE(names.insert(point.name).second) << point.name;
        EXPECT_GT(strlen(point.meaning), 0u) << point.name;
        std::set<std::string> labels;
        for (const char* label : point.labels) {
            EXPECT_TRUE(label == nullptr || labels.insert(label).second) << point.name << ' ' << label;
        }
    }
}

TEST(trace_table_test, a_module_uses_only_its_range_of_codes) {
    const std::vector<std::string_view> modules = {"core", "config_files", "vrf",  "appliers", "fips",
                                                   "acl",  "host",         "oper", "reconcile"};
    for (const trace_point& point : all_points()) {
        const size_t range = point.code >> 8U;
        ASSERT_LE(range, modules.size()) << point.name;
        ASSERT_GE(range, 1u) << point.name;
        EXPECT_TRUE(std::string_view(point.name).starts_with(std::string(modules[range - 1]) + '.')) << point.name;
    }
}

TEST(trace_table_test, constants_equal_the_codes_of_their_rows) {
    EXPECT_EQ(static_cast<uint32_t>(appliers_trace_timeout), 0x402u);
    const auto points = agent_trace_table.events;
    EXPECT_TRUE(std::any_of(points.begin(), points.end(), [](const trace_point& point) {
        return point.code == 0x402 && std::string_view(point.name) == "appliers.timeout";
    }));
}

}  // namespace
