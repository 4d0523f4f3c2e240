#include "user_keys/key_text.h"

#include <gtest/gtest.h>

#include "key_samples.h"

namespace {

using key_test::field;
using key_test::key_of;
using key_test::modulus;
using key_test::number;
using key_test::text_of;
using key_test::usual;

platform_status read(const std::string& text) {
    rsa_public_key key = {"before", "too"};
    const platform_status status = key_text_read(text, key);
    EXPECT_EQ(status == PLATFORM_OK, key != (rsa_public_key{"before", "too"})) << text;
    return status;
}

TEST(key_text, round_trips_keys_of_ssh_keygen) {
    const std::string text = key_test::new_key("/tmp/key_text_test", "-t rsa -b 2048");
    rsa_public_key key;
    ASSERT_EQ(key_text_read(text, key), PLATFORM_OK) << text;
    EXPECT_EQ(key_bits(key), 2048u);
    EXPECT_EQ(key.exponent, usual());
    EXPECT_EQ(key_text_write(key) + " somebody@router", text);
}

TEST(key_text, ignores_a_comment_and_spaces) {
    const std::string text = key_of(usual(), modulus(1024));
    for (const char* end : {"", " ", "\n", "\t\r\n", " somebody", " some body\n"}) {
        EXPECT_EQ(read(text + end), PLATFORM_OK) << end;
    }
    EXPECT_EQ(read("ssh-rsa\t " + text.substr(8)), PLATFORM_OK);
}

TEST(key_text, refuses_other_types) {
    const std::string text = key_of(usual(), modulus(2048));
    for (const std::string& other :
         {std::string(), std::string("ssh-dss AAAA"), std::string("ssh-ed25519 AAAA"), " " + text, "x" + text,
          text.substr(8), "ssh-rsa-cert-v01@openssh.com" + text.substr(7), "SSH-RSA" + text.substr(7),
          std::string("command=\"x\" ") + text, std::string("ssh-rsa2 ") + text.substr(8)}) {
        EXPECT_EQ(read(other), platform_status{KEY_OTHER_TYPE}) << other;
    }
}

TEST(key_text, refuses_a_key_with_another_inner_type) {
    for (const char* type : {"ssh-ed25519", "ssh-dss", "", "ssh-rsa ", "ssh-rs"}) {
        EXPECT_EQ(read(text_of(field(type) + number(usual()) + number(modulus(2048)))),
                  platform_status{KEY_TYPES_DIFFER})
            << type;
    }
    const std::string ed25519 = key_test::new_key("/tmp/key_text_test", "-t ed25519");
    EXPECT_EQ(read("ssh-rsa" + ed25519.substr(ed25519.find(' '))), platform_status{KEY_TYPES_DIFFER});
}

TEST(key_text, refuses_text_that_is_not_base64) {
    std::string text = key_of(usual(), modulus(1024));
    text[100] = '*';
    EXPECT_EQ(read(text), platform_status{KEY_NOT_BASE64});
    EXPECT_EQ(read("ssh-rsa Schlüssel"), platform_status{KEY_NOT_BASE64});
    EXPECT_EQ(read(key_of(usual(), modulus(1024)) + "===="), platform_status{KEY_NOT_BASE64});
}

TEST(key_text, detects_a_key_truncated_anywhere) {
    const std::string text = key_of(usual(), modulus(1024));
    for (size_t size = 7; size < text.size(); size++) {
        const platform_status status = read(text.substr(0, size));
        // If it is truncated within the padding, the rest is no longer base64.
        EXPECT_TRUE(status == KEY_CUT_OFF || (status == KEY_NOT_BASE64 && text[size] == '=')) << size;
    }
    const std::string blob = field("ssh-rsa") + number(usual()) + number(modulus(1024));
    for (size_t size = 0; size < blob.size(); size++) {
        EXPECT_EQ(read(text_of(blob.substr(0, size))), platform_status{KEY_CUT_OFF}) << size;
    }
}

TEST(key_text, refuses_a_length_beyond_the_end) {
    for (const char* length : {"\xff\xff\xff\xff", "\x7f\xff\xff\xff", "\x00\x00\x00\x84"}) {
        const std::string wrong(length, 4);
        EXPECT_EQ(read(text_of(wrong + "ssh-rsa")), platform_status{KEY_CUT_OFF});
        EXPECT_EQ(read(text_of(field("ssh-rsa") + wrong + usual())), platform_status{KEY_CUT_OFF});
        EXPECT_EQ(read(text_of(field("ssh-rsa") + number(usual()) + wrong + modulus(1024))),
                  platform_status{KEY_CUT_OFF});
    }
}

TEST(key_text, refuses_bytes_after_the_last_field) {
    const std::string blob = field("ssh-rsa") + number(usual()) + number(modulus(2048));
    EXPECT_EQ(read(text_of(blob + 'x')), platform_status{KEY_TRAILING_BYTES});
    EXPECT_EQ(read(text_of(blob + field("more"))), platform_status{KEY_TRAILING_BYTES});
}

TEST(key_text, accepts_only_valid_exponents) {
    for (const std::string& exponent :
         {std::string("\1"), std::string("\2"), std::string("\1\0\2", 3), std::string(1, '\0'), std::string(),
          std::string(9, '\x7f'), std::string(300, '\x7f')}) {
        EXPECT_EQ(read(text_of(field("ssh-rsa") + field(exponent) + number(modulus(2048)))),
                  platform_status{KEY_WRONG_EXPONENT})
            << exponent.size();
    }
    const std::string negative = "\x81";
    EXPECT_EQ(read(text_of(field("ssh-rsa") + field(negative) + number(modulus(2048)))),
              platform_status{KEY_WRONG_EXPONENT});
    EXPECT_EQ(read(key_of("\3", modulus(2048))), PLATFORM_OK);
    EXPECT_EQ(read(key_of(std::string(8, '\xff'), modulus(2048))), PLATFORM_OK);
}

TEST(key_text, accepts_only_valid_moduli) {
    std::string even = modulus(2048);
    even.back() = '\2';
    EXPECT_EQ(read(key_of(usual(), even)), platform_status{KEY_WRONG_MODULUS});
    EXPECT_EQ(read(text_of(field("ssh-rsa") + number(usual()) + field(modulus(2048)))),
              platform_status{KEY_WRONG_MODULUS});
    EXPECT_EQ(read(text_of(field("ssh-rsa") + number(usual()) + field(""))), platform_status{KEY_WRONG_MODULUS});
    EXPECT_EQ(read(key_of(usual(), modulus(1023))), platform_status{KEY_TOO_SMALL});
    EXPECT_EQ(read(key_of(usual(), modulus(8193))), platform_status{KEY_TOO_LARGE});
    EXPECT_EQ(read(key_of(usual(), modulus(16384))), platform_status{KEY_TOO_LARGE});
}

TEST(key_text, removes_leading_zeros_of_a_number) {
    const std::string zeros(3, '\0');
    rsa_public_key key;
    ASSERT_EQ(key_text_read(text_of(field("ssh-rsa") + field(zeros + usual()) + field(zeros + modulus(1024))), key),
              PLATFORM_OK);
    EXPECT_EQ(key_text_write(key), key_of(usual(), modulus(1024)));
    EXPECT_EQ(key_bits(key), 1024u);
}

}  // namespace
