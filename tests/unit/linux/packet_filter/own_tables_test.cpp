#include "linux/packet_filter/own_tables.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <filesystem>

#include "common/launch_record.h"
#include "linux/enforcement/enforcement_internal.h"
#include "linux/host/key_files.h"
#include "linux/vrf/mpp_filter.h"
#include "linux/vrf/mpp_internal.h"
#include "unit/linux/enforcement/enforcement_test_support.h"
#include "unit/linux/vrf/vrf_namespace_support.h"

using enforcement_test::comparison_script;
using enforcement_test::register_comparison;
using platform_test::add_vrf;
using platform_test::nft_in;
using platform_test::remove_vrf;
using platform_test::write_file;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr char records[] = "/run/ssh_cfg_agent/openssh";

class own_tables_test : public platform_test::loop_test {
  protected:
    void SetUp() override {
        loop_test::SetUp();
        std::filesystem::create_directories(records);
        add_vrf("red");
        ASSERT_EQ(0u, mpp_init(MPP_SERVICE_SSH));
        run_for(5);
    }
    void TearDown() override {
        loop_test::TearDown();
        std::filesystem::remove_all(records);
        remove_vrf("red");
    }

    static void server_runs(uint32_t rate = 60, pid_t process = getpid()) {
        launch_record record;
        record.in_use = launch_file::current;
        record.process = process;
        record.connections_per_minute = rate;
        record.ports = "22, 830";
        write_file(std::string(records) + "/sshd_config_red~launch", launch_record_format(record));
    }

    struct outcome {
        int remaining = 0;
        std::vector<std::string> differences;
    };
    static outcome compare(bool repair) {
        outcome found;
        found.remaining = own_tables_compare(
            repair,
            [](const char* subject, const char* text, void* context) {
                static_cast<std::vector<std::string>*>(context)->push_back(std::string(subject) + ": " + text);
            },
            &found.differences);
        return found;
    }
    static void expect_repaired(const testing::Matcher<std::vector<std::string>>& differences) {
        EXPECT_THAT(compare(false).differences, differences);
        EXPECT_THAT(compare(true).differences, differences);
        EXPECT_THAT(compare(false).differences, IsEmpty());
        EXPECT_FALSE(enforcement_any_failed());
    }

    enforcement_test::reset_at_end reset;
};

constexpr char no_protection[] = "protection red: table inet norvo_mpp is missing or differs";
constexpr char no_limit[] = "connection limit red: table inet norvo_limits is missing or differs";

TEST_F(own_tables_test, a_vrf_without_anything_needs_nothing) {
    EXPECT_THAT(compare(false).differences, IsEmpty());
    EXPECT_EQ(nft_in("red", "list ruleset"), "");
}

TEST_F(own_tables_test, a_flushed_packet_filter_is_restored) {
    server_runs();
    expect_repaired(ElementsAre(no_protection, no_limit));
    EXPECT_THAT(nft_in("red", "list ruleset"), HasSubstr("ct state established accept"));
    EXPECT_THAT(nft_in("red", "list ruleset"), HasSubstr("limit rate over 60/minute"));
    ASSERT_EQ("", nft_in("red", "flush ruleset"));
    expect_repaired(ElementsAre(no_protection, no_limit));
}

TEST_F(own_tables_test, another_rate_and_other_rules_are_found) {
    server_runs();
    compare(true);
    server_runs(61);
    expect_repaired(ElementsAre(no_limit));
    ASSERT_EQ("", nft_in("red", "insert rule inet norvo_mpp input accept"));
    expect_repaired(ElementsAre(no_protection));
}

TEST_F(own_tables_test, a_block_is_kept_and_restored) {
    ASSERT_EQ(0u, mpp_vrf_nft_init("red"));
    ASSERT_EQ(0u, mpp_service_block(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, "red"));
    EXPECT_THAT(compare(false).differences, IsEmpty());
    ASSERT_EQ("", nft_in("red", "flush ruleset"));
    expect_repaired(ElementsAre(no_protection));
    filter_ports blocked = 0;
    std::string failure;
    ASSERT_EQ(0u, mpp_filter_blocked("red", blocked, failure));
    EXPECT_EQ(blocked, filter_ssh_ipv4);
}

TEST_F(own_tables_test, a_block_that_nothing_requests_is_lifted) {
    std::string failure;
    ASSERT_EQ(0u, mpp_filter_block("red", filter_all_ports, failure));
    expect_repaired(ElementsAre("protection red: new connections are blocked, but nothing requests it"));
}

TEST_F(own_tables_test, a_server_that_has_ended_has_no_limit_to_compare) {
    server_runs(60, 0x3fffffff);
    EXPECT_THAT(compare(false).differences, IsEmpty());
}

TEST_F(own_tables_test, every_comparison_of_the_agent_includes_them) {
    server_runs();
    comparison_script script;
    ASSERT_EQ(PLATFORM_OK, register_comparison(script));
    enforcement_remove_check(key_files_compare);
    ASSERT_EQ(PLATFORM_OK, own_tables_start(nullptr));
    EXPECT_THAT(compare(false).differences, IsEmpty()) << "what an earlier process left has been repaired";
    ASSERT_EQ("", nft_in("red", "flush ruleset"));
    EXPECT_EQ(enforcement_reconcile(false).remaining, 2);
    EXPECT_EQ(enforcement_reconcile(true).remaining, 0);
    ASSERT_EQ("", nft_in("red", "flush ruleset"));
    own_tables_stop();
    EXPECT_EQ(enforcement_reconcile(false).remaining, 0);
}

}  // namespace
