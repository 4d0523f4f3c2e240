#include <errno.h>

#include "control_calls_support.h"

namespace {

using testing::HasSubstr;

/// Answers with what the item's name says.
platform_status provide(datastore_read_request*, const char* item, void*) {
    const std::string name = item;
    if (name == "broken") {
        return EIO;
    }
    return name == "nothing" ? DATASTORE_NOTHING_TO_ENCODE : DATASTORE_NO_DATA;
}

class control_read_calls_test : public control_test::calls_test {
  protected:
    void SetUp() override {
        calls_test::SetUp();
        ASSERT_EQ(result(R"({"call":"load","items":{"@cmn/timeout":45,"@cmn/logging":true,"@sshd/vrf/blue":[null,"v4"],
                             "@cmn/trustpoint/host":"corp-ca"}})"),
                  "done");
    }
};

TEST_F(control_read_calls_test, get_gives_the_value_as_it_is_set) {
    EXPECT_EQ(data(R"({"call":"get","path":"@cmn/timeout"})"), "45");
    EXPECT_EQ(data(R"({"call":"get","path":"@cmn/logging"})"), "true");
    EXPECT_EQ(data(R"({"call":"get","path":"@cmn/trustpoint/host"})"), "\"corp-ca\"");
    EXPECT_EQ(data(R"({"call":"get","path":"@sshd/vrf/blue"})"), R"([null,"v4",null])");
}

TEST_F(control_read_calls_test, get_tells_what_is_not_there_from_what_cannot_be) {
    EXPECT_EQ(result(R"({"call":"get","path":"@cmn/dscp"})"), "no_data");
    EXPECT_THAT(message(R"({"call":"get","path":"@cmn/dscp"})"), HasSubstr("cmn/dscp: not configured"));
    EXPECT_EQ(result(R"({"call":"get","path":"@cmn/dscpp"})"), "refused");
    EXPECT_THAT(message(R"({"call":"get","path":"@cmn/dscpp"})"), HasSubstr("cmn/dscpp"));
}

TEST_F(control_read_calls_test, list_gives_names) {
    EXPECT_EQ(data(R"({"call":"list","path":"@cmn"})"), R"(["logging","timeout","trustpoint"])");
    EXPECT_EQ(data(R"({"call":"list","path":"@sshd/vrf/"})"), R"(["blue"])");
    EXPECT_EQ(data(R"({"call":"list","path":"/"})"), R"(["cfg"])");
    EXPECT_EQ(result(R"({"call":"list","path":"/nowhere"})"), "no_data");
}

TEST_F(control_read_calls_test, a_dump_can_be_loaded_again) {
    const std::string dumped = data(R"({"call":"dump"})");
    EXPECT_EQ(result(R"({"call":"delete","path":"/"})"), "done");
    EXPECT_EQ(data(R"({"call":"dump"})"), "{}");
    EXPECT_EQ(result(R"({"call":"load","items":)" + dumped + "}"), "done");
    EXPECT_EQ(data(R"({"call":"dump"})"), dumped);
}

TEST_F(control_read_calls_test, show_without_data_says_so) {
    datastore_provider* provider = nullptr;
    ASSERT_EQ(datastore_provider_register("/oper/test/", provide, nullptr, nullptr, &provider), PLATFORM_OK);
    EXPECT_EQ(result(R"({"call":"show","path":"/oper/nowhere/x"})"), "no_data");
    EXPECT_EQ(result(R"({"call":"show","path":"/oper/test/x"})"), "no_data");
    EXPECT_EQ(result(R"({"call":"show","path":"/oper/test/nothing"})"), "no_data");
    EXPECT_EQ(result(R"({"call":"show","path":"/oper/test/broken"})"), "failed");
    EXPECT_THAT(message(R"({"call":"show","path":"/oper/test/broken"})"), HasSubstr("Input/output error"));
    EXPECT_EQ(datastore_provider_unregister(provider), PLATFORM_OK);
}

}  // namespace
