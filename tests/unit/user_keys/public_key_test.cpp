#include "user_keys/public_key.h"

#include <gtest/gtest.h>

#include "key_samples.h"

namespace {

using key_test::field;

/// The type and the blob of a line.
struct line_parts {
    std::string type;
    std::string blob;
};

line_parts parts_of(const std::string& line) {
    const size_t blank = line.find(' ');
    line_parts parts = {line.substr(0, blank), {}};
    EXPECT_EQ(base64_decode(line.substr(blank + 1, line.find(' ', blank + 1) - blank - 1), parts.blob), PLATFORM_OK);
    return parts;
}

/// "" for an accepted key.
std::string reason(const std::string& type, const std::string& blob) {
    public_key key = {"before", "too", 7};
    const char* text = public_key_read(type, blob, key);
    EXPECT_EQ(text != nullptr, key == (public_key{"before", "too", 7}));
    return text == nullptr ? "" : text;
}

/// A key of a security key: those of ssh-keygen need one.
std::string security_key(const std::string& type, const std::string& plain_blob, const std::string& plain_type) {
    return field(type) + plain_blob.substr(4 + plain_type.size()) + field("ssh:");
}

TEST(public_key, round_trips_keys_of_ssh_keygen) {
    const std::pair<const char*, uint32_t> rows[] = {
        {"-t ed25519", 256},      {"-t ecdsa -b 256", 256}, {"-t ecdsa -b 384", 384},
        {"-t ecdsa -b 521", 521}, {"-t rsa -b 2048", 2048},
    };
    for (const auto& [options, bits] : rows) {
        const std::string line = key_test::new_key("/tmp/public_key_test", options);
        const line_parts parts = parts_of(line);
        public_key key;
        ASSERT_EQ(public_key_read(parts.type, parts.blob, key), nullptr) << line;
        EXPECT_EQ(key.bits, bits);
        EXPECT_EQ(public_key_text(key) + " somebody@router", line);
        EXPECT_NE(key_test::output("ssh-keygen -l -f /tmp/public_key_test.pub").find(public_key_fingerprint(key) + ' '),
                  std::string::npos);
        EXPECT_FALSE(public_key_is_in_security_key(key.type));
    }
}

TEST(public_key, reads_keys_of_security_keys) {
    const line_parts ed25519 = parts_of(key_test::ed25519_of('a'));
    const line_parts ecdsa = parts_of(key_test::new_key("/tmp/public_key_test", "-t ecdsa -b 256"));
    const std::pair<std::string, std::string> rows[] = {
        {"sk-ssh-ed25519@openssh.com", security_key("sk-ssh-ed25519@openssh.com", ed25519.blob, "ssh-ed25519")},
        {"sk-ecdsa-sha2-nistp256@openssh.com",
         security_key("sk-ecdsa-sha2-nistp256@openssh.com", ecdsa.blob, "ecdsa-sha2-nistp256")},
    };
    for (const auto& [type, blob] : rows) {
        EXPECT_EQ(reason(type, blob), "");
        EXPECT_TRUE(public_key_is_in_security_key(type));
        public_key key;
        public_key_read(type, blob, key);
        std::ofstream("/tmp/public_key_test.pub") << public_key_text(key) << '\n';
        EXPECT_NE(key_test::output("ssh-keygen -l -f /tmp/public_key_test.pub").find(public_key_fingerprint(key) + ' '),
                  std::string::npos)
            << type;
        EXPECT_EQ(reason(type, blob.substr(0, blob.size() - field("ssh:").size())), "the key is truncated");
        EXPECT_EQ(reason(type, blob + 'x'), "extra bytes follow the end of the key");
    }
}

TEST(public_key, refuses_what_sshd_refuses) {
    const line_parts ecdsa = parts_of(key_test::new_key("/tmp/public_key_test", "-t ecdsa -b 384"));
    std::string off_curve = ecdsa.blob;
    off_curve.back() = static_cast<char>(off_curve.back() ^ 1);
    const std::string start = field("ecdsa-sha2-nistp256") + field("nistp256");
    const std::pair<std::string, std::string> no_points[] = {
        {ecdsa.type, off_curve},
        {"ecdsa-sha2-nistp256", start + field(std::string(1, '\0'))},
        {"ecdsa-sha2-nistp256", start + field("")},
        {"ecdsa-sha2-nistp256", start + field('\2' + std::string(32, 'a'))},
        {"ecdsa-sha2-nistp256", start + field('\4' + std::string(64, '\xff'))},
        {"ecdsa-sha2-nistp256", field("ecdsa-sha2-nistp256") + ecdsa.blob.substr(4 + ecdsa.type.size())},
    };
    const line_parts other = parts_of(key_test::new_key("/tmp/public_key_test", "-t ecdsa -b 256"));
    EXPECT_EQ(
        reason(other.type, field(other.type) + field("nistp384") + field(other.blob.substr(other.blob.size() - 65))),
        "the key is not a point on its curve");
    for (const auto& [type, blob] : no_points) {
        EXPECT_EQ(reason(type, blob), "the key is not a point on its curve") << type;
    }
    for (size_t size = 0; size < ecdsa.blob.size(); size++) {
        EXPECT_EQ(reason(ecdsa.type, ecdsa.blob.substr(0, size)), "the key is truncated") << size;
    }
    EXPECT_EQ(reason(ecdsa.type, ecdsa.blob + 'x'), "extra bytes follow the end of the key");
    EXPECT_EQ(reason("ecdsa-sha2-nistp256", ecdsa.blob), "the key is of another type than its first word says");
    EXPECT_EQ(reason("ssh-ed25519", field("ssh-ed25519") + field(std::string(31, 'a'))), "an Ed25519 key has 32 bytes");
    EXPECT_EQ(reason("ssh-ed25519", field("ssh-ed25519")), "the key is truncated");
    EXPECT_EQ(reason("ssh-dss", field("ssh-dss")), "the key is of an unknown type");
    EXPECT_EQ(reason("", ""), "the key is of an unknown type");
}

TEST(public_key, accepts_rsa_keys_of_every_size_that_sshd_accepts) {
    const auto of_bits = [](size_t bits) {
        return field("ssh-rsa") + key_test::number(key_test::usual()) + key_test::number(key_test::modulus(bits));
    };
    EXPECT_EQ(reason("ssh-rsa", of_bits(1023)), "The key has fewer than 1024 bits");
    EXPECT_EQ(reason("ssh-rsa", of_bits(1024)), "");
    EXPECT_EQ(reason("ssh-rsa", of_bits(16384)), "");
    EXPECT_EQ(reason("ssh-rsa", of_bits(16392)), "the key has more than 16384 bits");
    public_key key;
    const std::string zeros(3, '\0');
    ASSERT_EQ(public_key_read(
                  "ssh-rsa",
                  field("ssh-rsa") + field(zeros + key_test::usual()) + field(zeros + key_test::modulus(1024)), key),
              nullptr);
    EXPECT_EQ(key, key_test::rsa_key(1024)) << "without redundant bytes";
}

TEST(public_key, some_types_are_not_approved_for_fips) {
    for (const char* type : {"ecdsa-sha2-nistp256", "ecdsa-sha2-nistp384", "ecdsa-sha2-nistp521", "ssh-rsa"}) {
        EXPECT_TRUE(public_key_is_approved_for_fips(type)) << type;
    }
    for (const char* type :
         {"ssh-ed25519", "sk-ssh-ed25519@openssh.com", "sk-ecdsa-sha2-nistp256@openssh.com", "ssh-dss"}) {
        EXPECT_FALSE(public_key_is_approved_for_fips(type)) << type;
    }
}

TEST(public_key, names_its_types) {
    EXPECT_EQ(public_key_types(),
              "ssh-ed25519, ecdsa-sha2-nistp256, ecdsa-sha2-nistp384, ecdsa-sha2-nistp521, ssh-rsa, "
              "sk-ssh-ed25519@openssh.com, sk-ecdsa-sha2-nistp256@openssh.com");
}

}  // namespace
