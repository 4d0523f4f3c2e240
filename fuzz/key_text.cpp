/// Users' public keys. Any accepted text is written and read back as the same key, also in DER form. A refused text
/// leaves the output unchanged and has a reason. Stored bytes do no harm, however malformed.
///
/// Input: one byte for the form of the rest: 'r' a stored record, 'd' a DER form, 'b' a key's binary data before base64
/// encoding, 'f' an authorized_keys file, 'o' the options of a key, otherwise a configured key's text.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/key_store.h"
#include "require.h"
#include "user_keys/base64.h"
#include "user_keys/key_der.h"
#include "user_keys/key_options.h"
#include "user_keys/key_record.h"

namespace {

const rsa_public_key untouched = {"before", "too"};

void check_der(const rsa_public_key& key) {
    std::string der;
    rsa_public_key again;
    const platform_status status = key_der_make(key, der);
    require(status == PLATFORM_OK || status == KEY_TOO_LARGE);
    if (status == PLATFORM_OK) {
        require(der.size() <= KEY_STORE_DER_MAX);
        require(key_der_read(der, again) == PLATFORM_OK && again == key);
    }
}

void check_text(const std::string& text) {
    rsa_public_key key = untouched;
    const platform_status status = key_text_read(text, key);
    if (status != PLATFORM_OK) {
        require(key == untouched && status >= KEY_NOT_BASE64 && status <= KEY_TOO_LARGE);
        return;
    }
    rsa_public_key again;
    require(key_bits(key) >= 1024);
    require(key_text_read(key_text_write(key), again) == PLATFORM_OK && again == key);
    check_der(key);
}

void check_stored_der(const std::string& der) {
    rsa_public_key key = untouched;
    if (key_der_read(der, key) != PLATFORM_OK) {
        require(key == untouched);
        return;
    }
    public_key_fingerprint(public_key_of_rsa(key));
    key_text_write(key);
}

void check_file(const std::string& text) {
    std::vector<authorized_key> keys;
    std::string refusal;
    if (!authorized_keys_read(text, keys, refusal)) {
        require(keys.empty() && !refusal.empty());
        return;
    }
    std::string lines;
    for (const authorized_key& key : keys) {
        const std::string line = authorized_key_line(key);
        require(line.find_first_of("\r\n\t") == std::string::npos);
        (lines += line) += '\n';
    }
    std::vector<authorized_key> again;
    require(authorized_keys_read(lines, again, refusal) && again == keys);
    key_record record;
    for (const authorized_key& key : keys) {
        record.keys.push_back({key, 7});
    }
    key_record decoded;
    require(key_record_decode(key_record_encode(record), decoded) == PLATFORM_OK && decoded == record);
    require(key_record_lines(decoded) == lines);
}

void check_options(const std::string& text) {
    key_options options;
    std::string refusal;
    if (key_options_read(text, options, refusal)) {
        key_options again;
        require(key_options_read(options.text, again, refusal) && again.text == options.text);
    } else {
        require(!refusal.empty() && options.text.empty());
    }
}

void check_record(const std::string& bytes) {
    key_record record;
    if (key_record_decode(bytes, record) == PLATFORM_OK) {
        key_record again;
        require(key_record_decode(key_record_encode(record), again) == PLATFORM_OK && again == record);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::string rest = input.substr(size == 0 ? 0 : 1);
    switch (size == 0 ? '\0' : input.front()) {
        case 'r':
            check_record(rest);
            break;
        case 'd':
            check_stored_der(rest);
            break;
        case 'b':
            check_text("ssh-rsa " + base64_encode(rest));
            check_file("ssh-rsa " + base64_encode(rest));
            check_file("ssh-ed25519 " + base64_encode(rest));
            check_file("ecdsa-sha2-nistp256 " + base64_encode(rest));
            check_file("sk-ssh-ed25519@openssh.com " + base64_encode(rest));
            break;
        case 'f':
            check_file(rest);
            break;
        case 'o':
            check_options(rest);
            break;
        default:
            check_text(input);
    }
    return 0;
}
