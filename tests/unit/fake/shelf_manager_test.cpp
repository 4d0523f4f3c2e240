#include "platform/shelf_manager.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "fake/fake_platform.h"

namespace {

using testing::ElementsAre;

void remember(shelf_manager* shelf, void* context) {
    fake_platform::record_call(static_cast<const char*>(context));
    EXPECT_NE(shelf, nullptr);
}

TEST(fake_shelf_manager, calls_back_on_request) {
    char connected[] = "connected";
    char disconnected[] = "disconnected";
    char reload[] = "reload";
    shelf_manager* shelf = nullptr;
    ASSERT_EQ(shelf_manager_create(connected, &shelf), PLATFORM_OK);
    fake_platform::shelf_reload();
    shelf_manager_set_connect_callback(shelf, remember, connected);
    shelf_manager_set_disconnect_callback(shelf, remember, disconnected);
    shelf_manager_set_reload_callback(shelf, remember, reload);
    EXPECT_EQ(shelf_manager_connect(shelf), PLATFORM_OK);
    fake_platform::clear_calls();
    fake_platform::shelf_connected();
    EXPECT_EQ(shelf_manager_register_reload(shelf), PLATFORM_OK);
    fake_platform::shelf_reload();
    EXPECT_EQ(shelf_manager_acknowledge_reload(shelf), PLATFORM_OK);
    fake_platform::shelf_disconnected();
    EXPECT_THAT(fake_platform::calls(), ElementsAre("connected", "shelf_manager_register_reload()", "reload",
                                                    "shelf_manager_acknowledge_reload()", "disconnected"));
}

TEST(fake_shelf_manager, fails_on_request) {
    shelf_manager* shelf = nullptr;
    fake_platform::fail("shelf_manager_create", ENOMEM, 1);
    EXPECT_EQ(shelf_manager_create(nullptr, &shelf), platform_status{ENOMEM});
    EXPECT_EQ(shelf, nullptr);
    ASSERT_EQ(shelf_manager_create(nullptr, &shelf), PLATFORM_OK);
    fake_platform::fail("shelf_manager_connect", ECONNREFUSED);
    EXPECT_EQ(shelf_manager_connect(shelf), platform_status{ECONNREFUSED});
}

}  // namespace
