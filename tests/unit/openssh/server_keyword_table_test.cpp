#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <set>
#include <utility>

#include "common/text.h"
#include "golden.h"
#include "openssh/keyword_table.h"
#include "openssh/text.h"
#include "scratch.h"

using namespace openssh;
using openssh_test::scratch_directory;

TEST(launcher_keyword_table, finds_a_keyword_in_any_case) {
    ASSERT_NE(find_keyword_row(server_keyword_rows(), "ratelimitqd"), nullptr);
    EXPECT_EQ(find_keyword_row(server_keyword_rows(), "RATELIMITQD")->keyword, "RateLimitQd");
    EXPECT_EQ(find_keyword_row(server_keyword_rows(), "RateLimit"), nullptr);
    EXPECT_EQ(find_keyword_row(server_keyword_rows(), ""), nullptr);
}

TEST(launcher_keyword_table, contains_every_keyword_once) {
    std::set<std::string> seen;
    for (const keyword_row& row : server_keyword_rows()) {
        EXPECT_TRUE(seen.insert(lower_case(row.keyword)).second) << row.keyword;
    }
}

TEST(launcher_keyword_table, gives_every_row_what_its_treatment_needs) {
    for (const keyword_row& row : server_keyword_rows()) {
        const bool has_value = row.how == treatment::pass || row.how == treatment::host_keys;
        const bool is_left_out = row.how == treatment::leave_out || row.how == treatment::end_of_settings;
        EXPECT_EQ(row.form != nullptr, has_value) << row.keyword;
        EXPECT_EQ(row.limited != nullptr, row.how == treatment::limit) << row.keyword;
        EXPECT_EQ(*row.reason != '\0', is_left_out) << row.keyword;
        EXPECT_TRUE(row.otherwise.empty() || row.form(row.otherwise)) << row.keyword;
    }
}

namespace {

constexpr const char* treatments[] = {"pass",  "list",      "additional_keys", "host_keys",
                                      "limit", "fips_mode", "leave_out",       "end_of_settings"};
constexpr const char* repetitions[] = {"once", "by_first_word", "by_value"};
constexpr const char* algorithm_kind_names[] = {"cipher", "mac", "kex", "key"};

#define FORM(name) \
    { name, #name }
constexpr std::pair<value_form, const char*> forms[] = {
    FORM(is_yes_or_no),
    FORM(is_port),
    FORM(is_count),
    FORM(is_time),
    FORM(is_rekey_limit),
    FORM(is_ip_qos),
    FORM(is_log_level),
    FORM(is_forwarding),
    FORM(is_root_login),
    FORM(is_host_key_checking),
    FORM(is_public_key_authentication),
    FORM(is_path_or_none),
    FORM(is_key_path),
    FORM(is_subsystem),
    FORM(is_algorithm_list),
    FORM(is_any_text),
};
#undef FORM

std::string form_name(value_form form) {
    const auto* found = std::ranges::find(forms, form, [](const auto& named) { return named.first; });
    EXPECT_NE(found, std::end(forms));
    return found == std::end(forms) ? "" : found->second;
}

/// Every column of a row; empty columns that its treatment does not use are omitted.
std::string row_text(const keyword_row& row) {
    std::string text = std::string(row.keyword) + ": " + treatments[static_cast<size_t>(row.how)];
    if (row.how == treatment::list || row.how == treatment::additional_keys) {
        text += std::string(" of ") + algorithm_kind_names[static_cast<size_t>(row.kind)];
    }
    if (row.default_rank != nullptr) {
        text +=
            row.default_rank == &algorithm_row::server_rank ? " by default the server's" : " by default the client's";
    }
    if (row.form != nullptr) {
        text += ' ' + form_name(row.form);
    }
    text += std::string(", ") + repetitions[static_cast<size_t>(row.repeats)];
    if (!row.written_as.empty()) {
        text += ", written as " + std::string(row.written_as);
    }
    if (!row.otherwise.empty()) {
        text += ", otherwise " + std::string(row.otherwise);
    }
    return text + (*row.reason != '\0' ? std::string(", because ") + row.reason : "") + '\n';
}

std::string table_text(const keyword_rows& rows) {
    std::string text;
    for (const keyword_row& row : rows) {
        text += row_text(row);
    }
    return text;
}

}  // namespace

TEST(launcher_keyword_table, the_servers_keywords_and_their_treatment) {
    expect_golden("openssh/golden/server_keywords", table_text(server_keyword_rows()));
}

TEST(launcher_keyword_table, the_clients_keywords_and_their_treatment) {
    expect_golden("openssh/golden/client_keywords", table_text(client_keyword_rows()));
}

// sshd -T prints its whole configuration. The table must contain every keyword of it, so that no setting of an edited
// file is lost because its row is missing.
TEST(launcher_keyword_table, knows_every_keyword_that_the_installed_sshd_prints) {
    openssh_test::ensure_sshd_directory();
    const scratch_directory scratch;
    const auto printed = openssh_test::run_sshd("-T", scratch.write("f", "HostKey " + scratch.make_host_key() + "\n"));
    ASSERT_EQ(printed.status, 0) << printed.errors;
    for (const std::string_view line : split(printed.output, "\n")) {
        const std::string_view keyword = split(line, " ").front();
        EXPECT_NE(find_keyword_row(server_keyword_rows(), keyword), nullptr) << keyword;
    }
}

// sshd refuses the whole file because of a keyword that it does not know.
TEST(launcher_keyword_table, writes_no_keyword_that_the_installed_sshd_does_not_know) {
    openssh_test::ensure_sshd_directory();
    const scratch_directory scratch;
    const std::string key_line = "HostKey " + scratch.make_host_key() + "\n";
    for (const keyword_row& row : server_keyword_rows()) {
        if (row.how == treatment::pass || row.how == treatment::list) {
            const std::string line = text_format("%s no\n", std::string(row.output_keyword()).c_str());
            const auto result = openssh_test::run_sshd("-t", scratch.write("f", key_line + line));
            EXPECT_EQ(result.errors.find("Bad configuration option"), std::string::npos) << result.errors;
        }
    }
}
