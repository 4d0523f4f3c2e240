#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake/fake_platform.h"
#include "platform/telemetry_producer.h"

namespace {

std::string asked_item;

platform_status one_record(datastore_read_request* request, const char* item, void* context) {
    asked_item = item;
    return datastore_request_set_record(request, static_cast<const record_descriptor*>(context), "bytes", 5);
}

platform_status two_records(datastore_read_request* request, const char*, void*) {
    EXPECT_EQ(datastore_request_add_record(request, nullptr, "x", 1), platform_status{EINVAL});
    EXPECT_EQ(datastore_request_create_list(request), PLATFORM_OK);
    EXPECT_EQ(datastore_request_add_record(request, nullptr, "one", 3), PLATFORM_OK);
    EXPECT_EQ(datastore_request_set_record(request, nullptr, "x", 1), platform_status{EEXIST});
    return datastore_request_add_record(request, nullptr, "two", 3);
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
    int descriptor = 0;
    provide("/oper/a/", one_record, &descriptor);
    const fake_platform::answer answer = fake_platform::read("/oper/a/detail/7");
    EXPECT_EQ(answer.status, PLATFORM_OK);
    EXPECT_EQ(asked_item, "detail/7");
    ASSERT_EQ(answer.records.size(), 1u);
    EXPECT_EQ(answer.records[0].bytes, "bytes");
    EXPECT_EQ(answer.records[0].descriptor, reinterpret_cast<const record_descriptor*>(&descriptor));
    EXPECT_FALSE(answer.is_list);
}

TEST(fake_providers, the_nearest_one_answers) {
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

TEST(fake_providers, can_be_taken_back) {
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
