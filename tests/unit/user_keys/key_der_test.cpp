#include "user_keys/key_der.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sstream>

#include "key_samples.h"

namespace {

using key_test::modulus;
using key_test::usual;

rsa_public_key key_with(size_t bits) {
    return {modulus(bits), usual()};
}

/// The bytes encoded in a PEM text.
std::string unwrapped(const std::string& pem) {
    std::istringstream lines(pem);
    std::string text;
    for (std::string line; std::getline(lines, line);) {
        text += line.starts_with("-----") ? "" : line;
    }
    std::string bytes;
    EXPECT_EQ(base64_decode(text, bytes), PLATFORM_OK) << pem;
    return bytes;
}

class key_der_of_size : public testing::TestWithParam<int> {};

TEST_P(key_der_of_size, equals_ssh_keygens_conversion_of_the_same_key) {
    const std::string text = key_test::new_key("/tmp/key_der_test", "-t rsa -b " + std::to_string(GetParam()));
    rsa_public_key key;
    std::string der;
    ASSERT_EQ(key_text_read(text, key), PLATFORM_OK);
    ASSERT_EQ(key_der_make(key, der), PLATFORM_OK);
    EXPECT_EQ(der, unwrapped(key_test::output("ssh-keygen -e -m PKCS8 -f /tmp/key_der_test.pub")));
    EXPECT_EQ(key_bits(key), static_cast<uint32_t>(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(sizes, key_der_of_size, testing::Values(1024, 1032, 1536, 2047, 2048, 3072, 4096));

TEST(key_der, can_be_parsed_again) {
    for (const size_t bits : {1024, 1025, 1031, 2048, 4096, 7000}) {
        std::string der;
        rsa_public_key read;
        ASSERT_EQ(key_der_make(key_with(bits), der), PLATFORM_OK) << bits;
        ASSERT_EQ(key_der_read(der, read), PLATFORM_OK) << bits;
        EXPECT_EQ(read, key_with(bits));
    }
}

TEST(key_der, is_accepted_up_to_the_exact_limit) {
    // Apart from the modulus there are 38 bytes: headers, algorithm and exponent.
    const size_t largest = (KEY_STORE_DER_MAX - 38) * 8 - 1;
    std::string der;
    ASSERT_EQ(key_der_make(key_with(largest), der), PLATFORM_OK);
    EXPECT_EQ(der.size(), size_t{KEY_STORE_DER_MAX - 1});
    ASSERT_EQ(key_der_make(key_with(largest + 1), der), PLATFORM_OK);
    EXPECT_EQ(der.size(), size_t{KEY_STORE_DER_MAX});
    der = "before";
    EXPECT_EQ(key_der_make(key_with(largest + 9), der), platform_status{KEY_TOO_LARGE});
    EXPECT_EQ(key_der_make(key_with(8192), der), platform_status{KEY_TOO_LARGE});
    EXPECT_EQ(der, "before");
}

TEST(key_der, is_refused_if_it_is_damaged) {
    std::string der;
    rsa_public_key key = {"before", "too"};
    ASSERT_EQ(key_der_make(key_with(1024), der), PLATFORM_OK);
    for (size_t size = 0; size < der.size(); size++) {
        EXPECT_EQ(key_der_read(der.substr(0, size), key), platform_status{EBADMSG}) << size;
    }
    EXPECT_EQ(key_der_read(der + 'x', key), platform_status{EBADMSG});
    EXPECT_EQ(key_der_read(std::string(200, 'x'), key), platform_status{EBADMSG});
    EXPECT_EQ(key, (rsa_public_key{"before", "too"}));
}

TEST(key_der, is_refused_if_it_has_another_type) {
    key_test::new_key("/tmp/key_der_test", "-t ecdsa");
    const std::string der = unwrapped(key_test::output("ssh-keygen -e -m PKCS8 -f /tmp/key_der_test.pub"));
    rsa_public_key key;
    EXPECT_FALSE(der.empty());
    EXPECT_EQ(key_der_read(der, key), platform_status{EBADMSG});
}

}  // namespace
