#include "unit/linux/datastore/datastore_fixture.h"

namespace datastore_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class datastore_read_test : public served_datastore_test {
  protected:
    void SetUp() override {
        served_datastore_test::SetUp();
        datastore_commit({{timeout_path, number(30)}, {rate_path, number(10)}, {vrf_path, datastore_fields()}}, false);
    }

    static std::vector<std::string> visited(const char* prefix, size_t limit = SIZE_MAX) {
        std::vector<std::string> lines;
        EXPECT_EQ(datastore_visit(prefix,
                                  [&](const std::string& path, const datastore_value& value) {
                                      lines.push_back(path.substr(path.rfind('/') + 1) + " " + schema_display(value));
                                      return lines.size() < limit;
                                  }),
                  PLATFORM_OK);
        return lines;
    }
};

TEST_F(datastore_read_test, returns_values_as_they_were_set) {
    datastore_value value;
    ASSERT_EQ(datastore_get_value(timeout_path, value), PLATFORM_OK);
    EXPECT_EQ(value, number(30));
    EXPECT_EQ(datastore_get_value(limit_path, value), platform_status{DATASTORE_NO_SUCH_ITEM});
    EXPECT_EQ(datastore_get_value("/unknown", value), platform_status{DATASTORE_NO_SUCH_ITEM});
}

TEST_F(datastore_read_test, lists_children_with_or_without_a_slash) {
    std::vector<std::string> names;
    ASSERT_EQ(datastore_list_children("/cfg/gl/crypto/ssh/server", names), PLATFORM_OK);
    EXPECT_THAT(names, ElementsAre("cmn", "sshd"));
    ASSERT_EQ(datastore_list_children("/cfg/gl/crypto/ssh/server/cmn/", names), PLATFORM_OK);
    EXPECT_THAT(names, ElementsAre("rate_limit", "timeout"));
    ASSERT_EQ(datastore_list_children("/cfg/gl/crypto/ssh/server/cmn/timeout", names), PLATFORM_OK);
    EXPECT_THAT(names, IsEmpty());
    ASSERT_EQ(datastore_list_children("/", names), PLATFORM_OK);
    EXPECT_THAT(names, ElementsAre("cfg"));
}

TEST_F(datastore_read_test, iterates_in_byte_order) {
    EXPECT_THAT(visited(""), ElementsAre("rate_limit 10", "timeout 30", "blue [null, null, null]"));
    EXPECT_THAT(visited("/cfg/gl/crypto/ssh/server/cmn/"), ElementsAre("rate_limit 10", "timeout 30"));
    EXPECT_THAT(visited(timeout_path), ElementsAre("timeout 30"));
    EXPECT_THAT(visited("", 1), ElementsAre("rate_limit 10"));
    EXPECT_THAT(visited("/oper/"), IsEmpty());
}

TEST_F(datastore_read_test, hides_the_values_of_the_platforms_services) {
    ASSERT_EQ(datastore_private_put("vrf/blue", "1"), PLATFORM_OK);
    ASSERT_EQ(datastore_private_put("!early", "1"), PLATFORM_OK);
    EXPECT_EQ(visited("").size(), 3u);
}

TEST_F(datastore_read_test, its_output_can_be_loaded_again) {
    std::vector<datastore_change_request> dump;
    datastore_visit("", [&](const std::string& path, const datastore_value& value) {
        dump.push_back({path, value});
        return true;
    });
    ASSERT_EQ(dump.size(), 3u);
    for (const datastore_item_outcome& item : datastore_commit(dump, false).items) {
        EXPECT_EQ(item.outcome, datastore_outcome::unchanged) << item.path;
    }
}

TEST_F(datastore_read_test, reports_a_closed_database_as_not_available) {
    datastore_close();
    datastore_value value;
    std::vector<std::string> names;
    EXPECT_EQ(datastore_get_value(timeout_path, value), platform_status{DATASTORE_UNAVAILABLE});
    EXPECT_EQ(datastore_list_children("/", names), platform_status{DATASTORE_UNAVAILABLE});
    EXPECT_EQ(datastore_visit("", [](const auto&, const auto&) { return true; }),
              platform_status{DATASTORE_UNAVAILABLE});
}

}  // namespace
}  // namespace datastore_test
