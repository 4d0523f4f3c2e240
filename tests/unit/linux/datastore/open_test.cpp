#include <errno.h>
#include <sys/stat.h>

#include "unit/linux/datastore/datastore_fixture.h"

namespace datastore_test {
namespace {

using testing::HasSubstr;

class datastore_open_test : public testing::Test {
  protected:
    void SetUp() override {
        memory = {};
        datastore_configure(&engine_in_memory, "/somewhere/datastore.db");
    }
    void TearDown() override { datastore_close(); }

    static platform_status open(std::string& message) {
        testing::internal::CaptureStderr();
        const platform_status status = datastore_open();
        message = testing::internal::GetCapturedStderr();
        return status;
    }
};

TEST_F(datastore_open_test, opens_once) {
    std::string message;
    EXPECT_EQ(open(message), PLATFORM_OK);
    EXPECT_EQ(message, "");
    memory.open_result = EIO;
    EXPECT_EQ(open(message), PLATFORM_OK);
}

TEST_F(datastore_open_test, reports_the_error_and_fails) {
    std::string message;
    memory.open_result = EIO;
    EXPECT_EQ(open(message), platform_status{EIO});
    EXPECT_THAT(
        message,
        HasSubstr("ssh_cfg_agent: The configuration database /somewhere/datastore.db cannot be used: as requested. "
                  "Nothing has been changed; repair it, or restore it from a backup"));
}

TEST_F(datastore_open_test, without_a_database_binding_fails) {
    memory.open_result = EACCES;
    testing::internal::CaptureStderr();
    datastore_binding* binding = nullptr;
    EXPECT_EQ(datastore_bind(server_path, &binding), platform_status{EACCES});
    EXPECT_EQ(binding, nullptr);
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
}

TEST_F(datastore_open_test, refuses_a_stored_value_of_another_form) {
    memory.items[timeout_path] = {DATASTORE_VALUE_NUMBER, "short"};
    std::string message;
    EXPECT_EQ(open(message), platform_status{EUCLEAN});
    EXPECT_THAT(message, HasSubstr("the value of /cfg/gl/crypto/ssh/server/cmn/timeout is damaged"));
    EXPECT_EQ(set(timeout_path, number(30)).status, platform_status{DATASTORE_UNAVAILABLE});
    memory.items[timeout_path] = {DATASTORE_VALUE_TEXT, std::string("30\0", 3)};
    EXPECT_EQ(open(message), platform_status{EUCLEAN});
}

TEST_F(datastore_open_test, keeps_an_item_left_by_a_newer_version) {
    memory.items["/cfg/gl/crypto/ssh/server/cmn/future"] = {DATASTORE_VALUE_NUMBER, "1234"};
    std::string message;
    EXPECT_EQ(open(message), PLATFORM_OK);
    EXPECT_EQ(memory.items.size(), 1u);
}

}  // namespace
}  // namespace datastore_test
