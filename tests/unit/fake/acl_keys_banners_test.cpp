#include <errno.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "fake/fake_platform.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

std::vector<std::string> notices;

int remember_notice(const acl_change_notice* notice) {
    notices.push_back(notice != nullptr ? notice->acl_name + std::string(notice->present != 0 ? " present" : " gone")
                                        : "null");
    return notice == nullptr ? 1 : 0;
}

TEST(fake_acl_service, notifies_subscribers_of_their_list) {
    acl_handle* v4 = nullptr;
    acl_handle* v6 = nullptr;
    notices.clear();
    ASSERT_EQ(acl_service_get_list(ACL_FAMILY_IPV4, "one", nullptr, &v4), PLATFORM_OK);
    ASSERT_EQ(acl_service_get_list(ACL_FAMILY_IPV6, "one", nullptr, &v6), PLATFORM_OK);
    EXPECT_EQ(acl_service_register_callback(v4, remember_notice), PLATFORM_OK);
    EXPECT_EQ(acl_service_register_callback(v6, remember_notice), PLATFORM_OK);
    EXPECT_EQ(fake_platform::acl_subscriptions("one"), 2u);
    EXPECT_THAT(fake_platform::change_acl(ACL_FAMILY_IPV4, "one", true), ElementsAre(0));
    EXPECT_THAT(fake_platform::change_acl(ACL_FAMILY_IPV4, "two", true), IsEmpty());
    EXPECT_THAT(fake_platform::change_acl(ACL_FAMILY_IPV6, "one", false), ElementsAre(0));
    EXPECT_THAT(notices, ElementsAre("one present", "one gone"));
    EXPECT_EQ(acl_service_unregister_callback(v4, remember_notice), PLATFORM_OK);
    EXPECT_EQ(acl_service_unregister_callback(v4, remember_notice), platform_status{ENOENT});
    EXPECT_THAT(fake_platform::send_acl_notice(nullptr), ElementsAre(1));
    acl_service_release(v4);
    EXPECT_EQ(fake_platform::acl_handles(), 1u);
    EXPECT_THAT(fake_platform::calls_of("acl_service_get_list"),
                ElementsAre("acl_service_get_list(4, one)", "acl_service_get_list(6, one)"));
}

TEST(fake_acl_service, names_actions) {
    EXPECT_STREQ(acl_service_action_name(1), "permit");
    EXPECT_STREQ(acl_service_action_name(0), "deny");
    fake_platform::set_acl_action(7, "encrypt");
    EXPECT_STREQ(acl_service_action_name(7), "encrypt");
    EXPECT_NE(acl_service_action_name(99), nullptr);
}

TEST(fake_key_store, stores_keys) {
    key_store_key key = {9, 9, 9};
    EXPECT_EQ(key_store_get_user_key("kim", KEY_STORE_USER_PUBLIC_KEY, &key), PLATFORM_OK);
    EXPECT_EQ(key.present, 0u);
    const uint8_t der[] = {1, 2, 3};
    key_store_set_request request = {"kim", KEY_STORE_USER_PUBLIC_KEY, 0, 1000, 2048, der, sizeof der};
    EXPECT_EQ(key_store_set_key(&request), PLATFORM_OK);
    EXPECT_EQ(key_store_get_user_key("kim", KEY_STORE_USER_PUBLIC_KEY, &key), PLATFORM_OK);
    EXPECT_EQ(key.present, 1u);
    EXPECT_EQ(key.bits, 2048u);
    EXPECT_EQ(key.added_by_exec_mode, 0u);
    ASSERT_EQ(fake_platform::keys().size(), 1u);
    EXPECT_EQ(fake_platform::keys()[0].der, "\x01\x02\x03");
    fake_platform::set_key({"kim", KEY_STORE_USER_PUBLIC_KEY, 0, 1024, "", true});
    key_store_get_user_key("kim", KEY_STORE_USER_PUBLIC_KEY, &key);
    EXPECT_EQ(key.added_by_exec_mode, 1u);
    request.remove = 1;
    EXPECT_EQ(key_store_set_key(&request), PLATFORM_OK);
    EXPECT_EQ(key_store_set_key(&request), PLATFORM_OK);
    EXPECT_THAT(fake_platform::keys(), IsEmpty());
}

TEST(fake_key_store, converts_known_texts) {
    uint8_t der[KEY_STORE_DER_MAX];
    size_t size = 0;
    uint32_t bits = 0;
    EXPECT_EQ(key_store_pubkey_to_der("ssh-rsa AAAA", der, sizeof der, &size, &bits), platform_status{EINVAL});
    fake_platform::set_der("ssh-rsa AAAA", "der", 3072);
    EXPECT_EQ(key_store_pubkey_to_der("ssh-rsa AAAA", der, sizeof der, &size, &bits), PLATFORM_OK);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(der), size), "der");
    EXPECT_EQ(bits, 3072u);
    EXPECT_EQ(key_store_pubkey_to_der("ssh-rsa AAAA", der, 2, &size, &bits), platform_status{ENOSPC});
}

std::string take_text(char* text) {
    std::string copy = text != nullptr ? text : "none";
    free(text);
    return copy;
}

TEST(fake_banner_service, has_configured_platform_and_aaa_texts) {
    EXPECT_EQ(take_text(banner_service_configured(BANNER_LOGIN)), "none");
    fake_platform::set_configured_banner(BANNER_LOGIN, "#a#");
    fake_platform::set_platform_banner(BANNER_LOGIN, "platform");
    fake_platform::set_aaa_banner("#c#");
    EXPECT_EQ(take_text(banner_service_configured(BANNER_LOGIN)), "#a#");
    EXPECT_EQ(take_text(banner_service_configured(BANNER_MESSAGE_OF_THE_DAY)), "none");
    EXPECT_EQ(take_text(banner_service_platform(BANNER_LOGIN)), "platform");
    EXPECT_EQ(take_text(banner_service_aaa()), "#c#");
    fake_platform::set_configured_banner(BANNER_LOGIN, std::string(100, 'x'));
    EXPECT_EQ(take_text(banner_service_configured(BANNER_LOGIN)), std::string(100, 'x'));
    fake_platform::set_configured_banner(BANNER_LOGIN, std::nullopt);
    fake_platform::fail("banner_service_aaa", ENOMEM);
    EXPECT_EQ(take_text(banner_service_configured(BANNER_LOGIN)), "none");
    EXPECT_EQ(take_text(banner_service_aaa()), "none");
}

}  // namespace
