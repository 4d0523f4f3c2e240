#include <errno.h>

#include <cstdlib>

#include "platform/record_codec.h"
#include "unit/linux/control/calls_support.h"

namespace {

using testing::HasSubstr;

struct session_record {
    uint32_t id;
    const char* user;
};

constexpr record_descriptor session = {"session", "control_test", "$1={SessionID}D{UserID}s;", "$1=Ds;"};

void register_session() {
    record_transaction* transaction = nullptr;
    ASSERT_EQ(record_registration_begin(&transaction), PLATFORM_OK);
    ASSERT_EQ(record_register(transaction, &session), PLATFORM_OK);
    ASSERT_EQ(record_registration_end(transaction), PLATFORM_OK);
}

template <class answer_call>
platform_status answer_session(datastore_read_request* request, const session_record& record, answer_call answer) {
    void* encoded = nullptr;
    size_t size = 0;
    platform_status status = record_encode(&session, &record, &encoded, &size);
    if (status == PLATFORM_OK) {
        status = answer(request, &session, encoded, size);
    }
    free(encoded);
    return status;
}

/// Answers as the item's name says.
platform_status provide(datastore_read_request* request, const char* item, void*) {
    const std::string name = item;
    if (name == "one") {
        return answer_session(request, {7, "operator"}, datastore_request_set_record);
    }
    if (name == "list" || name == "empty") {
        datastore_request_create_list(request);
    }
    if (name == "list") {
        answer_session(request, {1, "a"}, datastore_request_add_record);
        return answer_session(request, {2, "b"}, datastore_request_add_record);
    }
    if (name == "garbage") {
        return datastore_request_set_record(request, &session, "x", 1);
    }
    if (name == "empty") {
        return PLATFORM_OK;
    }
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

TEST_F(control_read_calls_test, get_returns_the_value_in_the_form_of_set) {
    EXPECT_EQ(data(R"({"call":"get","path":"@cmn/timeout"})"), "45");
    EXPECT_EQ(data(R"({"call":"get","path":"@cmn/logging"})"), "true");
    EXPECT_EQ(data(R"({"call":"get","path":"@cmn/trustpoint/host"})"), "\"corp-ca\"");
    EXPECT_EQ(data(R"({"call":"get","path":"@sshd/vrf/blue"})"), R"([null,"v4",null])");
}

TEST_F(control_read_calls_test, get_distinguishes_missing_and_invalid_items) {
    EXPECT_EQ(result(R"({"call":"get","path":"@cmn/dscp"})"), "no_data");
    EXPECT_THAT(message(R"({"call":"get","path":"@cmn/dscp"})"), HasSubstr("cmn/dscp: not configured"));
    EXPECT_EQ(result(R"({"call":"get","path":"@cmn/dscpp"})"), "refused");
    EXPECT_THAT(message(R"({"call":"get","path":"@cmn/dscpp"})"), HasSubstr("cmn/dscpp"));
}

TEST_F(control_read_calls_test, a_path_may_be_given_by_its_end) {
    EXPECT_EQ(data(R"({"call":"get","path":"timeout"})"), "45");
    EXPECT_EQ(data(R"({"call":"get","path":"vrf/blue"})"), R"([null,"v4",null])");
    EXPECT_EQ(data(R"({"call":"list","path":"sshd/vrf"})"), R"(["blue"])");
    EXPECT_EQ(data(R"({"call":"list","path":"cmn/"})"), R"(["logging","timeout","trustpoint"])");
    EXPECT_EQ(result(R"({"call":"list","path":"nowhere"})"), "no_data");
    EXPECT_EQ(message(R"({"call":"get","path":"max_auth_limit"})"),
              "/cfg/gl/crypto/ssh/server/cmn/max_auth_limit: not configured");
    for (const char* request : {R"({"call":"get","path":"dscp"})", R"({"call":"list","path":"banner"})",
                                R"({"call":"show","path":"brief"})"}) {
        const control_json answer = ask(request);
        EXPECT_EQ(answer["result"], "usage") << request;
        EXPECT_GE(answer["candidates"].size(), 2U) << request;
    }
}

TEST_F(control_read_calls_test, list_returns_names) {
    EXPECT_EQ(data(R"({"call":"list","path":"@cmn"})"), R"(["logging","timeout","trustpoint"])");
    EXPECT_EQ(data(R"({"call":"list","path":"@sshd/vrf/"})"), R"(["blue"])");
    EXPECT_EQ(data(R"({"call":"list","path":"/"})"), R"(["cfg"])");
    EXPECT_EQ(result(R"({"call":"list","path":"/nowhere"})"), "no_data");
    EXPECT_EQ(data(R"({"call":"list","path":"@cmn","all":false})"), R"(["logging","timeout","trustpoint"])");
}

TEST_F(control_read_calls_test, list_all_marks_what_is_configured) {
    EXPECT_EQ(data(R"({"call":"list","path":"@sshd/","all":true})"),
              R"([{"name":"netconf","configured":false,"meaning":"NETCONF port, not supported"},)"
              R"({"name":"v2","configured":false,"meaning":"SSH protocol version 2"},)"
              R"({"name":"vrf-netconf/","configured":false,"items":0},)"
              R"({"name":"vrf/","configured":true,"items":1}])");
    EXPECT_EQ(data(R"({"call":"list","path":"sshd/vrf","all":true})"),
              R"([{"name":"*","configured":false,"meaning":"SSH server of a VRF"},)"
              R"({"name":"blue","configured":true,"value":[null,"v4",null],"meaning":"SSH server of a VRF"}])");
    EXPECT_EQ(result(R"({"call":"list","path":"/nowhere","all":true})"), "no_data");
}

TEST_F(control_read_calls_test, a_dump_can_be_loaded_again) {
    const std::string dumped = data(R"({"call":"dump"})");
    EXPECT_EQ(result(R"({"call":"delete","path":"/"})"), "done");
    EXPECT_EQ(data(R"({"call":"dump"})"), "{}");
    EXPECT_EQ(result(R"({"call":"load","items":)" + dumped + "}"), "done");
    EXPECT_EQ(data(R"({"call":"dump"})"), dumped);
}

class control_show_test : public control_test::calls_test {
  protected:
    void SetUp() override {
        calls_test::SetUp();
        ASSERT_EQ(datastore_provider_register("/oper/test/", provide, nullptr, nullptr, &provider), PLATFORM_OK);
    }
    void TearDown() override {
        EXPECT_EQ(datastore_provider_unregister(provider), PLATFORM_OK);
        calls_test::TearDown();
    }

    datastore_provider* provider = nullptr;
};

TEST_F(control_show_test, an_operational_path_may_be_given_by_its_end) {
    datastore_provider* parameters = nullptr;
    ASSERT_EQ(datastore_provider_register("/oper/crypto-ssh/gl/server-params", provide, nullptr, nullptr, &parameters),
              PLATFORM_OK);
    const control_json answer = ask(R"({"call":"show","path":"server-params/"})");
    EXPECT_EQ(answer["path"], "/oper/crypto-ssh/gl/server-params/");
    EXPECT_EQ(answer["message"], "/oper/crypto-ssh/gl/server-params/: no data");
    EXPECT_EQ(result(R"({"call":"show","path":"params"})"), "no_data");
    EXPECT_EQ(datastore_provider_unregister(parameters), PLATFORM_OK);
}

TEST_F(control_show_test, returns_a_record_by_its_schemas_field_names) {
    register_session();
    EXPECT_EQ(data(R"({"call":"show","path":"/oper/test/one"})"), R"({"SessionID":7,"UserID":"operator"})");
}

TEST_F(control_show_test, returns_a_list_as_an_array) {
    register_session();
    EXPECT_EQ(data(R"({"call":"show","path":"/oper/test/list"})"),
              R"([{"SessionID":1,"UserID":"a"},{"SessionID":2,"UserID":"b"}])");
}

TEST_F(control_show_test, names_the_record_so_that_it_can_be_formatted) {
    register_session();
    EXPECT_EQ(ask(R"({"call":"show","path":"/oper/test/one"})").value("record", ""), "session");
    EXPECT_EQ(ask(R"({"call":"show","path":"/oper/test/list"})").value("record", ""), "session");
}

TEST_F(control_show_test, reports_bytes_that_are_not_a_record) {
    register_session();
    EXPECT_EQ(result(R"({"call":"show","path":"/oper/test/garbage"})"), "failed");
}

TEST_F(control_show_test, reports_that_there_is_no_data) {
    EXPECT_EQ(result(R"({"call":"show","path":"/oper/test/empty"})"), "no_data");
    EXPECT_EQ(result(R"({"call":"show","path":"/oper/nowhere/x"})"), "no_data");
    EXPECT_EQ(result(R"({"call":"show","path":"/oper/test/x"})"), "no_data");
    EXPECT_EQ(result(R"({"call":"show","path":"/oper/test/nothing"})"), "no_data");
    EXPECT_EQ(result(R"({"call":"show","path":"/oper/test/broken"})"), "failed");
    EXPECT_THAT(message(R"({"call":"show","path":"/oper/test/broken"})"), HasSubstr("Input/output error"));
}

}  // namespace
