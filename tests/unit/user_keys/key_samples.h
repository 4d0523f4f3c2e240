/// Keys for tests: real ones from ssh-keygen, and composed ones with errors.
#ifndef UNIT_USER_KEYS_KEY_SAMPLES_H
#define UNIT_USER_KEYS_KEY_SAMPLES_H

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "user_keys/authorized_key.h"
#include "user_keys/base64.h"

namespace key_test {

inline std::string contents(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

/// The output of a command, without the final newline.
inline std::string output(const std::string& command) {
    const std::string file = "/tmp/key_test_output";
    std::string text = system((command + " > " + file + " 2>&1").c_str()) == 0 ? contents(file) : "";
    text.erase(text.find_last_not_of('\n') + 1);
    return text;
}

/// The public key of a new key pair, as ssh-keygen writes it with a comment. The private key is in `file`.
inline std::string new_key(const std::string& file, const std::string& options) {
    output("rm -f " + file + " " + file + ".pub; ssh-keygen -q -N '' -C somebody@router -f " + file + " " + options);
    std::string text = contents(file + ".pub");
    text.erase(text.find_last_not_of('\n') + 1);
    return text;
}

inline std::string field(const std::string& bytes) {
    std::string text;
    for (const int shift : {24, 16, 8, 0}) {
        text += static_cast<char>(bytes.size() >> shift & 0xff);
    }
    return text + bytes;
}

inline std::string number(const std::string& bytes) {
    return field((static_cast<unsigned char>(bytes[0]) & 0x80) != 0 ? std::string(1, '\0') + bytes : bytes);
}

/// A modulus of `bits` bits, all ones, whose factors nobody knows.
inline std::string modulus(size_t bits) {
    std::string bytes((bits + 7) / 8, '\xff');
    bytes[0] = static_cast<char>(0xff >> (bytes.size() * 8 - bits));
    return bytes;
}

inline constexpr char usual_exponent[] = "\1\0\1";

inline std::string usual() {
    return {usual_exponent, 3};
}

/// The text form of a key blob.
inline std::string text_of(const std::string& blob) {
    return "ssh-rsa " + base64_encode(blob);
}

inline std::string key_of(const std::string& exponent, const std::string& modulus_bytes) {
    return text_of(field("ssh-rsa") + number(exponent) + number(modulus_bytes));
}

/// An RSA key with the usual exponent.
inline public_key rsa_key(size_t bits) {
    return public_key_of_rsa({modulus(bits), usual()});
}

/// An Ed25519 key whose bytes are all `fill`.
inline std::string ed25519_of(char fill) {
    return "ssh-ed25519 " + base64_encode(field("ssh-ed25519") + field(std::string(32, fill)));
}

}  // namespace key_test

#endif
