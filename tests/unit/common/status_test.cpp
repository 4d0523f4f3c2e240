#include "platform/status.h"

#include <errno.h>
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <string>

#include "platform/key_store.h"

namespace {

TEST(platform_status_text, gives_each_of_its_own_codes_a_different_text) {
    const platform_status codes[] = {PLATFORM_OK,
                                     DATASTORE_NO_SUCH_ITEM,
                                     DATASTORE_NO_DATA,
                                     DATASTORE_NO_SUCH_LIST,
                                     DATASTORE_NO_SUCH_TREE,
                                     DATASTORE_NOTHING_TO_ENCODE,
                                     DATASTORE_NO_HANDLER,
                                     DATASTORE_UNAVAILABLE,
                                     TUPLE_MALFORMED,
                                     RECORD_MALFORMED,
                                     RECORD_UNKNOWN,
                                     KEY_NOT_BASE64,
                                     KEY_CUT_OFF,
                                     KEY_TRAILING_BYTES,
                                     KEY_OTHER_TYPE,
                                     KEY_TYPES_DIFFER,
                                     KEY_WRONG_EXPONENT,
                                     KEY_WRONG_MODULUS,
                                     KEY_TOO_SMALL,
                                     KEY_TOO_LARGE,
                                     KEY_OTHER_ORIGIN};
    std::set<std::string> texts;
    for (const platform_status code : codes) {
        const std::string text = platform_status_text(code);
        EXPECT_EQ(text.find("Unknown"), std::string::npos) << text;
        texts.insert(text);
    }
    EXPECT_EQ(texts.size(), std::size(codes));
}

TEST(platform_status_text, returns_the_operating_systems_text_for_an_errno_value) {
    EXPECT_STREQ(platform_status_text(ENOENT), "No such file or directory");
    EXPECT_STREQ(platform_status_text(ENOSPC), "No space left on device");
}

TEST(platform_status_text, shows_an_unknown_code) {
    EXPECT_STREQ(platform_status_text(0xdeadbeef), "Unknown status 0xdeadbeef");
    EXPECT_STREQ(platform_status_text(4096), "Unknown status 0x1000");
}

TEST(platform_status_text, leaves_errno_alone) {
    errno = EXDEV;
    platform_status_text(ENOENT);
    platform_status_text(4095);
    platform_status_text(0x12345678);
    EXPECT_EQ(errno, EXDEV);
}

}  // namespace
