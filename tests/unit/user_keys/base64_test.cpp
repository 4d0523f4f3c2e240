#include "user_keys/base64.h"

#include <gtest/gtest.h>

namespace {

struct sample {
    const char* bytes;
    const char* text;
};

// RFC 4648, section 10.
constexpr sample samples[] = {
    {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="}, {"foobar", "Zm9vYmFy"},
};

TEST(base64, encodes_and_decodes) {
    for (const auto& [bytes, text] : samples) {
        EXPECT_EQ(base64_encode(bytes), text);
        std::string decoded;
        EXPECT_EQ(base64_decode(text, decoded), PLATFORM_OK);
        EXPECT_EQ(decoded, bytes);
    }
    EXPECT_EQ(base64_encode(""), "");
}

TEST(base64, covers_every_byte) {
    std::string all;
    for (int i = 0; i < 256; i++) {
        all += static_cast<char>(i);
    }
    for (size_t size = 1; size <= all.size(); size++) {
        std::string decoded;
        ASSERT_EQ(base64_decode(base64_encode(all.substr(0, size)), decoded), PLATFORM_OK);
        ASSERT_EQ(decoded, all.substr(0, size));
    }
}

TEST(base64, refuses_other_characters) {
    for (const char* text : {"Zm9v!g==", "Zm 9", "Zm9\n", "Zg==Zg==", "Z===", "====", "Zm9v=", "Zm-_", "Zm9v\x80gg="}) {
        std::string decoded = "before";
        EXPECT_EQ(base64_decode(text, decoded), platform_status{KEY_NOT_BASE64}) << text;
        EXPECT_EQ(decoded, "before");
    }
}

TEST(base64, refuses_unused_bits) {
    std::string decoded;
    EXPECT_EQ(base64_decode("Zh==", decoded), platform_status{KEY_NOT_BASE64});
    EXPECT_EQ(base64_decode("Zm9=", decoded), platform_status{KEY_NOT_BASE64});
}

TEST(base64, refuses_a_truncated_text) {
    for (const char* text : {"", "Z", "Zm", "Zm9", "Zm9vY", "Zm9vYm", "Zm9vYmF"}) {
        std::string decoded = "before";
        EXPECT_EQ(base64_decode(text, decoded), platform_status{KEY_CUT_OFF}) << text;
        EXPECT_EQ(decoded, "before");
    }
}

}  // namespace
