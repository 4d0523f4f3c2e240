#include "user_keys/authorized_key.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "key_samples.h"

namespace {

using key_test::ed25519_of;
using key_test::field;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

constexpr char expected_line[] =
    "; expected a line such as \"ssh-ed25519 AAAA... comment\", as ssh-keygen writes it to its .pub file";

/// The lines of the keys in a file, or the refusal.
std::string lines_of(const std::string& text) {
    std::vector<authorized_key> keys(1);
    std::string refusal;
    if (!authorized_keys_read(text, keys, refusal)) {
        EXPECT_EQ(keys.size(), 1U);
        return "refused: " + refusal;
    }
    std::string lines;
    for (const authorized_key& key : keys) {
        lines += authorized_key_line(key) + '\n';
    }
    return lines;
}

const std::string one = ed25519_of('a');
const std::string two = ed25519_of('b');

TEST(authorized_keys, are_read_with_options_and_comments) {
    EXPECT_EQ(lines_of(one), one + "\n");
    EXPECT_EQ(lines_of(one + " me and my laptop"), one + " me and my laptop\n");
    const std::string line = "restrict,command=\"ls \\\"a b\\\"\" " + one + " me";
    EXPECT_EQ(lines_of(line), line + "\n");
    EXPECT_EQ(lines_of("# mine\n\n  \t\r\n" + line + "\r\n # other\n\t" + two + "\t \n"), line + "\n" + two + "\n");
    EXPECT_EQ(lines_of("\xef\xbb\xbf" + one + " \xc3\xa4"), one + " \xc3\xa4\n") << "as an editor may write it";
    EXPECT_EQ(lines_of("restrict\t" + one + "\tmy\tlaptop"), "restrict " + one + " my laptop\n");
    EXPECT_EQ(lines_of("restrict   " + one.substr(0, 12) + "  " + one.substr(12)), "restrict " + one + "\n");
}

TEST(authorized_keys, a_private_key_is_refused_whatever_its_form) {
    key_test::new_key("/tmp/authorized_key_test", "-t ed25519");
    const std::string openssh = key_test::contents("/tmp/authorized_key_test");
    key_test::new_key("/tmp/authorized_key_test", "-t ecdsa -m PKCS8");
    const std::string pkcs8 = key_test::contents("/tmp/authorized_key_test");
    key_test::new_key("/tmp/authorized_key_test", "-t rsa -m PEM -b 1024");
    const std::string pem = key_test::contents("/tmp/authorized_key_test");
    const std::string body = openssh.substr(openssh.find('\n') + 1);
    for (const std::string& text :
         {openssh, pkcs8, pem, one + "\n" + openssh, body, std::string("PuTTY-User-Key-File-3: ssh-ed25519\n"),
          std::string("---- BEGIN SSH2 ENCRYPTED PRIVATE KEY ----\nxxxx")}) {
        EXPECT_EQ(
            lines_of(text),
            "refused: this is a private key; a private key must not leave its owner, and it has not been stored; import "
            "the public key, which is in the file with the same name and .pub at its end, or which `ssh-keygen -y -f "
            "FILE` prints")
            << text;
    }
    for (const std::string& text : {pem, pkcs8}) {
        // Without its first line nothing shows what it is, but nothing of it is repeated either.
        std::string rest = text.substr(text.find('\n') + 1);
        rest.erase(rest.find("-----END"));
        EXPECT_THAT(lines_of(rest), StartsWith("refused: line 1: there is no key in the line; expected a line"));
        EXPECT_THAT(lines_of("restrict," + rest), Not(HasSubstr(rest.substr(0, 20))));
        EXPECT_THAT(lines_of("restrict " + rest), Not(HasSubstr(rest.substr(0, 20))));
    }
}

TEST(authorized_keys, other_formats_are_refused_with_the_command_that_converts_them) {
    const std::string file = "/tmp/authorized_key_test";
    key_test::new_key(file, "-t rsa -b 2048");
    const auto exported = [&](const char* format) {
        return key_test::output("ssh-keygen -e -m " + std::string(format) + " -f " + file);
    };
    EXPECT_THAT(lines_of(exported("RFC4716")),
                StartsWith("refused: the key is in the format of RFC 4716; convert it with `ssh-keygen -i -f FILE`"));
    EXPECT_THAT(lines_of(exported("PKCS8")),
                StartsWith("refused: the key is in PEM format; convert it with `ssh-keygen -i -m PKCS8 -f FILE`"));
    EXPECT_THAT(lines_of(exported("PEM")),
                StartsWith("refused: the key is in PEM format; convert it with `ssh-keygen -i -m PEM -f FILE`"));
    for (const char* format : {"RFC4716", "PKCS8", "PEM"}) {
        std::ofstream("/tmp/exported") << exported(format) << '\n';
        const std::string option = format == std::string("RFC4716") ? "" : " -m " + std::string(format);
        EXPECT_EQ(lines_of(key_test::output("ssh-keygen -i" + option + " -f /tmp/exported")),
                  public_key_text([&] {
                      std::vector<authorized_key> keys;
                      std::string refusal;
                      authorized_keys_read(key_test::contents(file + ".pub"), keys, refusal);
                      return keys.at(0).key;
                  }()) +
                      "\n")
            << format;
    }
    EXPECT_THAT(lines_of("-----BEGIN CERTIFICATE-----\n"), StartsWith("refused: this is a certificate"));
}

TEST(authorized_keys, other_types_are_refused) {
    const std::string types =
        "; expected one of ssh-ed25519, ecdsa-sha2-nistp256, ecdsa-sha2-nistp384, ecdsa-sha2-nistp521, ssh-rsa, "
        "sk-ssh-ed25519@openssh.com, sk-ecdsa-sha2-nistp256@openssh.com";
    EXPECT_EQ(lines_of("ssh-dss AAAA"), "refused: line 1: DSA keys are not accepted" + types);
    EXPECT_EQ(lines_of("restrict ssh-dss AAAA"), "refused: line 1: DSA keys are not accepted" + types);
    EXPECT_EQ(lines_of("ssh-xmss@openssh.com AAAA"), "refused: line 1: unknown type of key" + types);
    EXPECT_EQ(lines_of("rsa-sha2-512 AAAA"), "refused: line 1: unknown type of key" + types);
    EXPECT_EQ(lines_of("SSH-RSA AAAA").substr(0, 43), "refused: line 1: unknown option \"SSH-RSA\"; ");
    key_test::new_key("/tmp/ca", "-t ed25519");
    key_test::new_key("/tmp/certified", "-t ed25519");
    key_test::output("ssh-keygen -q -s /tmp/ca -I me -n me /tmp/certified.pub");
    EXPECT_EQ(lines_of(key_test::contents("/tmp/certified-cert.pub")),
              "refused: line 1: this is a certificate; certificates are not accepted; import the public key that it "
              "certifies");
}

TEST(authorized_keys, the_line_of_an_error_is_named) {
    EXPECT_EQ(lines_of("# one\n" + one + "\nssh-ed25519 AAAA!\n"),
              std::string("refused: line 3: The key is not valid base64") + expected_line);
    EXPECT_EQ(lines_of(one + "\n\nssh-ed25519 AAAA\n"),
              std::string("refused: line 3: the key is truncated") + expected_line);
    EXPECT_EQ(lines_of("ssh-ed25519"), std::string("refused: line 1: The key is truncated") + expected_line);
    EXPECT_EQ(lines_of("restrict"), std::string("refused: line 1: there is no key in the line") + expected_line);
    EXPECT_EQ(lines_of(one.substr(12)),
              std::string("refused: line 1: the type is missing before the key") + expected_line);
    EXPECT_EQ(lines_of("root:x:0:0::/root:/bin/sh"),
              std::string("refused: line 1: there is no key in the line") + expected_line);
    EXPECT_EQ(lines_of(""), std::string("refused: there is no key") + expected_line);
    EXPECT_EQ(lines_of("# none\n"), std::string("refused: there is no key") + expected_line);
    EXPECT_EQ(lines_of("ssh-rsa " + one.substr(12)),
              std::string("refused: line 1: the key is of another type than its first word says") + expected_line);
}

TEST(authorized_keys, nothing_invisible_is_stored) {
    using std::string_literals::operator""s;
    for (const std::string& text : {one + " a\x1b[2Jb", one + " a\0b"s, one + " a\rb", one + " \xe2\x80\xae",
                                    one + " \xff", "command=\"a\x01\" " + one}) {
        EXPECT_EQ(lines_of(text),
                  "refused: line 1: the line contains a control character, an invisible one, or text that is not "
                  "UTF-8");
    }
    EXPECT_EQ(lines_of("command=\"a\tb\" " + one), "refused: line 1: an option contains a tab; expected blanks");
    authorized_key key;
    std::string refusal;
    EXPECT_FALSE(authorized_key_read(one + "\n" + two, key, refusal)) << "a line has one key";
    EXPECT_FALSE(authorized_key_read("command=\"a\nb\" " + one, key, refusal));
    EXPECT_FALSE(authorized_key_read("  ", key, refusal));
    EXPECT_EQ(refusal, std::string("there is no key") + expected_line);
}

TEST(authorized_keys, options_without_an_effect_are_refused) {
    const std::string security_key =
        "sk-ssh-ed25519@openssh.com " +
        base64_encode(field("sk-ssh-ed25519@openssh.com") + field(std::string(32, 'a')) + field("ssh:"));
    for (const char* option : {"verify-required", "no-touch-required"}) {
        EXPECT_EQ(lines_of(std::string(option) + ' ' + one),
                  "refused: line 1: option " + std::string(option) +
                      " has no effect on this key; it is for keys whose type begins with \"sk-\"");
        EXPECT_EQ(lines_of(std::string(option) + ' ' + security_key), std::string(option) + ' ' + security_key + "\n");
    }
}

TEST(authorized_keys, are_limited_in_number_and_size) {
    std::string text;
    for (int i = 0; i < 64; i++) {
        text += ed25519_of(static_cast<char>(i)) + "\n";
    }
    EXPECT_EQ(lines_of(text), text);
    EXPECT_EQ(lines_of(text + ed25519_of(64)), "refused: 65 keys; a user can have at most 64");
    EXPECT_EQ(lines_of(one + ' ' + std::string(8191 - one.size(), 'x')).size(), 8193U);
    EXPECT_EQ(lines_of(one + ' ' + std::string(8192 - one.size(), 'x')),
              "refused: line 1: the line has more than 8192 bytes");
}

TEST(authorized_keys, a_key_occurs_only_once) {
    EXPECT_EQ(lines_of("\n" + one + "\n" + two + "\nrestrict " + one),
              "refused: line 4: the key is the same as in line 2");
    EXPECT_EQ(lines_of(one + "\n" + one), "refused: line 2: the key is the same as in line 1");
}

}  // namespace
