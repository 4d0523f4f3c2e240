#include <errno.h>

#include "linux/datastore/datastore_internal.h"
#include "platform/record_codec.h"
#include "unit/linux/datastore/datastore_fixture.h"

namespace datastore_test {
namespace {

constexpr record_descriptor brief = {"brief", "test", "", ""};

platform_status one_record(datastore_read_request* request) {
    EXPECT_EQ(datastore_request_set_record(request, &brief, "old", 3), PLATFORM_OK);
    return datastore_request_set_record(request, &brief, "new", 3);
}

platform_status empty_list(datastore_read_request* request) {
    EXPECT_EQ(datastore_request_create_list(request), PLATFORM_OK);
    EXPECT_EQ(datastore_request_set_record(request, &brief, "x", 1), platform_status{EINVAL});
    return PLATFORM_OK;
}

platform_status two_records(datastore_read_request* request) {
    empty_list(request);
    EXPECT_EQ(datastore_request_add_record(request, &brief, "a", 1), PLATFORM_OK);
    return datastore_request_add_record(request, &brief, "b\0c", 3);
}

platform_status no_list(datastore_read_request* request) {
    EXPECT_EQ(datastore_request_add_record(request, &brief, "a", 1), platform_status{EINVAL});
    EXPECT_EQ(datastore_request_set_record(request, nullptr, "a", 1), platform_status{EINVAL});
    return PLATFORM_OK;
}

platform_status failing(datastore_read_request* request) {
    datastore_request_set_record(request, &brief, "half", 4);
    return EIO;
}

platform_status nothing(datastore_read_request*) {
    return DATASTORE_NO_DATA;
}

const std::map<std::string, platform_status (*)(datastore_read_request*)> answers = {
    {"one", one_record},  {"empty", empty_list}, {"list", two_records},
    {"no_list", no_list}, {"failing", failing},  {"nothing", nothing},
};

/// Records the item, and answers as its name says.
platform_status provide(datastore_read_request* request, const char* item, void* context) {
    static_cast<std::vector<std::string>*>(context)->emplace_back(item);
    const auto answer = answers.find(item);
    return answer == answers.end() ? PLATFORM_OK : answer->second(request);
}

class datastore_provider_test : public database_test {
  protected:
    void SetUp() override {
        database_test::SetUp();
        ASSERT_EQ(datastore_provider_register("/oper/ssh/data/", provide, nullptr, &asked, &provider), PLATFORM_OK);
    }
    void TearDown() override {
        EXPECT_EQ(datastore_provider_unregister(provider), PLATFORM_OK);
        database_test::TearDown();
    }

    std::vector<std::string> asked;
    datastore_provider* provider = nullptr;
};

TEST_F(datastore_provider_test, answers_with_one_record) {
    const datastore_answer answer = datastore_read("/oper/ssh/data/one");
    EXPECT_EQ(answer.status, PLATFORM_OK);
    EXPECT_FALSE(answer.is_list);
    ASSERT_EQ(answer.records.size(), 1u);
    EXPECT_EQ(answer.records[0].descriptor, &brief);
    EXPECT_EQ(answer.records[0].bytes, "new");
}

TEST_F(datastore_provider_test, answers_with_a_list) {
    const datastore_answer answer = datastore_read("/oper/ssh/data/list");
    EXPECT_EQ(answer.status, PLATFORM_OK);
    EXPECT_TRUE(answer.is_list);
    ASSERT_EQ(answer.records.size(), 2u);
    EXPECT_EQ(answer.records[1].bytes, std::string("b\0c", 3));
    const datastore_answer empty = datastore_read("/oper/ssh/data/empty");
    EXPECT_EQ(empty.status, PLATFORM_OK);
    EXPECT_TRUE(empty.is_list);
    EXPECT_TRUE(empty.records.empty());
}

TEST_F(datastore_provider_test, distinguishes_no_data_nothing_and_failure) {
    EXPECT_EQ(datastore_read("/oper/ssh/data/nothing").status, platform_status{DATASTORE_NO_DATA});
    EXPECT_EQ(datastore_read("/oper/ssh/data/other").status, platform_status{DATASTORE_NOTHING_TO_ENCODE});
    EXPECT_EQ(datastore_read("/oper/ssh/data/no_list").status, platform_status{DATASTORE_NOTHING_TO_ENCODE});
    const datastore_answer failed = datastore_read("/oper/ssh/data/failing");
    EXPECT_EQ(failed.status, platform_status{EIO});
    EXPECT_TRUE(failed.records.empty());
}

TEST_F(datastore_provider_test, serves_items_below_its_path) {
    datastore_read("/oper/ssh/data/a/b");
    datastore_read("/oper/ssh/data/a/");
    datastore_read("/oper/ssh/data/");
    datastore_read("/oper/ssh/data");
    EXPECT_THAT(asked, testing::ElementsAre("a/b", "a", "", ""));
    for (const char* path : {"/oper/ssh/data2", "/oper/ssh", "/oper", "", "/"}) {
        EXPECT_EQ(datastore_read(path).status, platform_status{DATASTORE_NO_SUCH_TREE}) << path;
    }
    EXPECT_EQ(asked.size(), 4u);
}

TEST_F(datastore_provider_test, a_more_specific_provider_takes_precedence) {
    std::vector<std::string> inner_asked;
    datastore_provider* inner = nullptr;
    ASSERT_EQ(datastore_provider_register("/oper/ssh/data/inner", provide, nullptr, &inner_asked, &inner), PLATFORM_OK);
    datastore_read("/oper/ssh/data/inner/one");
    datastore_read("/oper/ssh/data/inner");
    EXPECT_THAT(inner_asked, testing::ElementsAre("one", ""));
    EXPECT_EQ(datastore_provider_unregister(inner), PLATFORM_OK);
    datastore_read("/oper/ssh/data/inner/one");
    EXPECT_THAT(asked, testing::ElementsAre("inner/one"));
}

TEST_F(datastore_provider_test, is_registered_once_and_with_a_callback) {
    datastore_provider* other = nullptr;
    EXPECT_EQ(datastore_provider_register("/oper/ssh/data", provide, nullptr, nullptr, &other),
              platform_status{EEXIST});
    EXPECT_EQ(datastore_provider_register("oper", provide, nullptr, nullptr, &other), platform_status{EINVAL});
    EXPECT_EQ(datastore_provider_register("/oper/x", nullptr, nullptr, nullptr, &other), platform_status{EINVAL});
    EXPECT_EQ(other, nullptr);
    EXPECT_EQ(datastore_provider_unregister(nullptr), PLATFORM_OK);
}

TEST_F(datastore_provider_test, fills_an_answer_without_a_request) {
    const datastore_answer answer = datastore_fill(provide, "one", &asked);
    EXPECT_EQ(answer.status, PLATFORM_OK);
    EXPECT_EQ(answer.records.size(), 1u);
}

}  // namespace
}  // namespace datastore_test
