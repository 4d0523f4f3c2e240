#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake/fake_platform.h"
#include "platform/record_codec.h"
#include "platform/telemetry_producer.h"

namespace {

std::string asked_item;

constexpr record_descriptor number_record = {"number", "test", "$1={Number}D;", "$1=D;"};

platform_status one_record(datastore_read_request* request, const char* item, void*) {
    asked_item = item;
    EXPECT_EQ(datastore_request_set_record(request, nullptr, "x", 1), platform_status{EINVAL});
    EXPECT_EQ(datastore_request_set_record(request, &number_record, "first", 5), PLATFORM_OK);
    return datastore_request_set_record(request, &number_record, "bytes", 5);
}

platform_status two_records(datastore_read_request* request, const char*, void*) {
    EXPECT_EQ(datastore_request_add_record(request, &number_record, "x", 1), platform_status{EINVAL});
    EXPECT_EQ(datastore_request_create_list(request), PLATFORM_OK);
    EXPECT_EQ(datastore_request_add_record(request, &number_record, "one", 3), PLATFORM_OK);
    EXPECT_EQ(datastore_request_set_record(request, &number_record, "x", 1), platform_status{EINVAL});
    return datastore_request_add_record(request, &number_record, "two", 3);
}

platform_status no_data(datastore_read_request*, const char*, void*) {
    return DATASTORE_NO_DATA;
}

datastore_provider* provide(const char* path, datastore_provider_callback callback, void* context = nullptr) {
    datastore_provider* provider = nullptr;
    EXPECT_EQ(datastore_provider_register(path, callback, nullptr, context, &provider), PLATFORM_OK);
    return provider;
}

TEST(fake_providers, answer_reads_below_their_path) {
    provide("/oper/a/", one_record);
    const fake_platform::answer answer = fake_platform::read("/oper/a/detail/7");
    EXPECT_EQ(answer.status, PLATFORM_OK);
    EXPECT_EQ(asked_item, "detail/7");
    ASSERT_EQ(answer.records.size(), 1u);
    EXPECT_EQ(answer.records[0].bytes, "bytes");
    EXPECT_EQ(answer.records[0].descriptor, &number_record);
    EXPECT_FALSE(answer.is_list);
}

TEST(fake_providers, the_most_specific_one_answers) {
    provide("/oper/a/", no_data);
    provide("/oper/a/b", one_record);
    EXPECT_EQ(fake_platform::read("/oper/a/c").status, platform_status{DATASTORE_NO_DATA});
    EXPECT_EQ(fake_platform::read("/oper/a/bb").status, platform_status{DATASTORE_NO_DATA});
    EXPECT_EQ(fake_platform::read("/oper/a/b").status, PLATFORM_OK);
    EXPECT_EQ(asked_item, "");
    EXPECT_EQ(fake_platform::read("/oper/b").status, platform_status{DATASTORE_NO_SUCH_TREE});
}

TEST(fake_providers, answer_lists) {
    provide("/oper/a/", two_records);
    const fake_platform::answer answer = fake_platform::read("/oper/a/");
    EXPECT_TRUE(answer.is_list);
    ASSERT_EQ(answer.records.size(), 2u);
    EXPECT_EQ(answer.records[1].bytes, "two");
}

TEST(fake_providers, an_answer_without_a_record_is_reported) {
    provide("/oper/a/", [](datastore_read_request*, const char*, void*) -> platform_status { return PLATFORM_OK; });
    EXPECT_EQ(fake_platform::read("/oper/a/").status, platform_status{DATASTORE_NOTHING_TO_ENCODE});
    provide("/oper/b/", [](datastore_read_request* request, const char*, void*) -> platform_status {
        datastore_request_set_record(request, &number_record, "x", 1);
        return EIO;
    });
    EXPECT_EQ(fake_platform::read("/oper/b/").status, platform_status{EIO});
    EXPECT_EQ(fake_platform::read("/oper/b/").records.size(), 0u);
}

TEST(fake_providers, a_tree_has_only_one) {
    datastore_provider* second = nullptr;
    provide("/oper/a/", no_data);
    EXPECT_EQ(datastore_provider_register("/oper/a", no_data, nullptr, nullptr, &second), platform_status{EEXIST});
    EXPECT_EQ(datastore_provider_register("/oper/b", nullptr, nullptr, nullptr, &second), platform_status{EINVAL});
}

TEST(fake_providers, can_be_unregistered) {
    datastore_provider* provider = provide("/oper/a/", no_data);
    EXPECT_EQ(fake_platform::providers(), 1u);
    EXPECT_EQ(datastore_provider_unregister(provider), PLATFORM_OK);
    EXPECT_EQ(datastore_provider_unregister(nullptr), PLATFORM_OK);
    EXPECT_EQ(fake_platform::providers(), 0u);
}

TEST(fake_providers, publish_events) {
    EXPECT_EQ(telemetry_producer_init("OCSSH", "/oper/t/", nullptr), PLATFORM_OK);
    EXPECT_EQ(telemetry_producer_publish("/oper/t/", one_record, nullptr), PLATFORM_OK);
    EXPECT_EQ(telemetry_producer_publish("/oper/t/", no_data, nullptr), platform_status{DATASTORE_NO_DATA});
    fake_platform::fail("telemetry_producer_publish", EIO);
    EXPECT_EQ(telemetry_producer_publish("/oper/t/", one_record, nullptr), platform_status{EIO});
    ASSERT_EQ(fake_platform::published().size(), 2u);
    EXPECT_EQ(fake_platform::published()[0].path, "/oper/t/");
    EXPECT_EQ(fake_platform::published()[0].answer.records[0].bytes, "bytes");
}

}  // namespace
