#include "linux/vrf/mpp_internal.h"
#include "linux/vrf/vrf_table_internal.h"
#include "platform/mpp.h"
#include "unit/linux/control/calls_support.h"
#include "unit/linux/vrf/vrf_namespace_support.h"

namespace {

using testing::ElementsAre;

class control_vrf_calls_test : public control_test::calls_test {
  protected:
    static constexpr char unblock[] = R"({"call":"vrf_unblock","name":"red"})";

    void SetUp() override {
        calls_test::SetUp();
        platform_test::add_vrf("red");
    }
    void TearDown() override {
        platform_test::remove_vrf("red");
        mpp_reset();
        calls_test::TearDown();
    }
};

TEST_F(control_vrf_calls_test, an_unblock_names_what_it_opened) {
    ASSERT_EQ(PLATFORM_OK, mpp_service_block(MPP_SERVICE_SSH, MPP_FAMILY_IPV4, "red"));
    ASSERT_EQ(PLATFORM_OK, mpp_service_block(MPP_SERVICE_NETCONF, MPP_FAMILY_IPV6, "red"));
    EXPECT_EQ(control_json_text(ask(unblock)), R"({"result":"done","data":["ssh ipv4","netconf ipv6"],"vrf":"red"})");
    EXPECT_TRUE(mpp_status().empty() || mpp_status()[0].closed.empty());
    EXPECT_THAT(audit,
                ElementsAre("Control: uid:=1000, pid:=42, call:=vrf unblock, result:=done, red, opened ssh ipv4, "
                            "opened netconf ipv6"));
}

TEST_F(control_vrf_calls_test, a_completely_blocked_vrf_is_opened) {
    ASSERT_EQ(PLATFORM_OK, mpp_vrf_block("red"));
    EXPECT_EQ(data(unblock), R"(["ssh ipv4","ssh ipv6","netconf ipv4","netconf ipv6"])");
    EXPECT_FALSE(mpp_status()[0].blocked);
}

TEST_F(control_vrf_calls_test, nothing_to_unblock_is_a_success) {
    EXPECT_EQ(control_json_text(ask(unblock)), R"({"result":"done","data":[],"vrf":"red"})");
    EXPECT_THAT(audit, ElementsAre("Control: uid:=1000, pid:=42, call:=vrf unblock, result:=done, red"));
}

TEST_F(control_vrf_calls_test, an_unknown_vrf_is_refused) {
    EXPECT_EQ(control_json_text(ask(R"({"call":"vrf_unblock","name":"blue"})")),
              R"({"result":"refused","message":"unknown VRF \"blue\""})");
    EXPECT_THAT(audit, ElementsAre("Control: uid:=1000, pid:=42, call:=vrf unblock, result:=refused, blue"));
    uint32_t id = 0;
    ASSERT_EQ(PLATFORM_OK, vrf_table_lookup("blue", &id));
    EXPECT_EQ(result(R"({"call":"vrf_unblock","name":"blue"})"), "done") << "known, but without its namespace";
}

TEST_F(control_vrf_calls_test, a_failed_unblock_is_reported) {
    uint32_t id = 0;
    ASSERT_EQ(PLATFORM_OK, vrf_table_lookup("red", &id));
    ASSERT_EQ(PLATFORM_OK, mpp_vrf_block("red"));
    const platform_test::no_descriptors_left none;
    const control_json answer = ask(unblock);
    EXPECT_EQ(answer["result"], "failed");
    EXPECT_EQ(answer["message"], "VRF red could not be unblocked: Too many open files (0x18)");
    EXPECT_TRUE(mpp_status()[0].blocked);
}

TEST_F(control_vrf_calls_test, the_name_must_be_a_string) {
    EXPECT_EQ(result(R"({"call":"vrf_unblock"})"), "usage");
    EXPECT_EQ(result(R"({"call":"vrf_unblock","name":1})"), "usage");
}

}  // namespace
