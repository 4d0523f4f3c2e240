#include "fips/fips_mode.h"

#include "../account.h"
#include "../algorithm_test.h"

namespace {

using fake_platform::set_number;
using fake_platform::store;
using testing::ElementsAre;

class fips_mode_test : public algorithm_test {
  protected:
    fips_mode_test() { fake_platform::preset_debug_flag(debug_cfg_agent, true); }
};

TEST_F(fips_mode_test, is_off_without_its_item) {
    EXPECT_EQ(fips_mode_get(), 0);
    EXPECT_TRUE(fake_platform::debugged("FIPS mode not configured"));
}

TEST_F(fips_mode_test, is_on_with_its_item_regardless_of_the_value) {
    for (const uint32_t value : {1u, 0u, 7u}) {
        store(set_number(fips_item, value));
        EXPECT_EQ(fips_mode_get(), 1);
    }
}

TEST_F(fips_mode_test, is_read_each_time_and_leaves_nothing_bound) {
    EXPECT_EQ(fips_mode_get(), 0);
    store(set_number(fips_item, 1));
    EXPECT_EQ(fips_mode_get(), 1);
    store(fake_platform::remove(fips_item));
    EXPECT_EQ(fips_mode_get(), 0);
    EXPECT_EQ(fake_platform::bindings(), 0u);
    EXPECT_EQ(fake_platform::count_calls(fips_question), 3u);
}

TEST_F(fips_mode_test, is_unknown_if_the_datastore_cannot_be_bound) {
    fake_platform::fail(fips_binding, EIO);
    EXPECT_EQ(fips_mode_get(), -1);
    EXPECT_TRUE(fake_platform::debugged("Datastore bind to cepki fips cfg failed"));
    EXPECT_THAT(account(), testing::HasSubstr("trace ssh/cfg-agent/error fips.question, bind, 5\n"));
    EXPECT_EQ(fake_platform::count_calls(fips_question), 0u);
}

TEST_F(fips_mode_test, is_unknown_if_the_item_cannot_be_read) {
    fake_platform::fail(fips_question, EIO);
    EXPECT_EQ(fips_mode_get(), -1);
    EXPECT_TRUE(fake_platform::debugged("Error:=Input/output error(0x5), Datastore item get failed for fips mode"));
    EXPECT_THAT(account(), testing::HasSubstr("trace ssh/cfg-agent/error fips.question, get, 5\n"));
    EXPECT_EQ(fake_platform::bindings(), 0u);
}

TEST_F(fips_mode_test, is_unknown_without_the_datastores_library) {
    remove_path(paths::datastore_library);
    EXPECT_EQ(fips_mode_get(), -1);
    EXPECT_EQ(fake_platform::count_calls("datastore_bind"), 0u);
}

}  // namespace
