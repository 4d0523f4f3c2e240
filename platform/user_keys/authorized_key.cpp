#include "user_keys/authorized_key.h"

#include <algorithm>

#include "common/text.h"
#include "user_keys/base64.h"
#include "user_keys/key_options.h"

namespace {

constexpr std::string_view separators = " \t";
constexpr std::string_view byte_order_mark = "\xef\xbb\xbf";
constexpr char expected_line[] =
    "expected a line such as \"ssh-ed25519 AAAA... comment\", as ssh-keygen writes it to its .pub file";

/// Files of keys in other formats, which must not be taken for lines with errors.
struct other_format {
    std::string_view mark;
    const char* refusal;
};

constexpr char private_key[] =
    "this is a private key; a private key must not leave its owner, and it has not been stored; import the public key, which "
    "is in the file with the same name and .pub at its end, or which `ssh-keygen -y -f FILE` prints";

constexpr other_format other_formats[] = {
    {"PRIVATE KEY-----", private_key},
    {"PRIVATE KEY ----", private_key},
    {"PuTTY-User-Key-File-", private_key},
    {"b3BlbnNzaC1rZXktdjE", private_key},  // "openssh-key-v1" in base64
    {"---- BEGIN SSH2 PUBLIC KEY ----",
     "the key is in the format of RFC 4716; convert it with `ssh-keygen -i -f FILE`, and import what that prints"},
    {"-----BEGIN PUBLIC KEY-----",
     "the key is in PEM format; convert it with `ssh-keygen -i -m PKCS8 -f FILE`, and import what that prints"},
    {"-----BEGIN RSA PUBLIC KEY-----",
     "the key is in PEM format; convert it with `ssh-keygen -i -m PEM -f FILE`, and import what that prints"},
    {"-----BEGIN CERTIFICATE-----", "this is a certificate; certificates are not accepted; import a public key"},
};

const char* refusal_of_format(std::string_view text) {
    for (const other_format& format : other_formats) {
        if (text.find(format.mark) != std::string_view::npos) {
            return format.refusal;
        }
    }
    return nullptr;
}

std::string_view trimmed(std::string_view text, std::string_view characters) {
    const size_t first = text.find_first_not_of(characters);
    return first == std::string_view::npos ? std::string_view()
                                           : text.substr(first, text.find_last_not_of(characters) - first + 1);
}

/// Whether a terminal or a log would show the text as it is. A tab separates fields.
bool is_printable(std::string_view text) {
    while (!text.empty()) {
        uint32_t character = 0;
        const size_t size = text_utf8_character(text, character);
        if (size == 0 || (character != '\t' && text_is_unsafe(character))) {
            return false;
        }
        text.remove_prefix(size);
    }
    return true;
}

/// Whether a word is meant as the type of a key, not as an option.
bool resembles_type(std::string_view word) {
    constexpr std::string_view starts[] = {"ssh-", "ecdsa-", "sk-", "rsa-sha2-", "x509v3-", "webauthn-"};
    return std::ranges::any_of(starts, [word](std::string_view start) { return word.starts_with(start); });
}

bool refuse_line(std::string& refusal, std::string text) {
    refusal = std::move(text);
    return false;
}

bool refuse_type(std::string_view word, std::string& refusal) {
    if (word.find("-cert-v0") != std::string_view::npos) {
        return refuse_line(
            refusal, "this is a certificate; certificates are not accepted; import the public key that it certifies");
    }
    const std::string reason = word == "ssh-dss" ? "DSA keys are not accepted" : "unknown type of key";
    return refuse_line(refusal, reason + "; expected one of " + public_key_types());
}

/// Removes the first field of a line and returns it.
std::string_view take_field(std::string_view& line) {
    const std::string_view field = line.substr(0, line.find_first_of(separators));
    line.remove_prefix(field.size());
    line = trimmed(line, separators);
    return field;
}

bool read_options(std::string_view text, key_options& options, std::string& refusal) {
    // Whoever forgets the type has the key where the options would be.
    if (text.starts_with("AAAA")) {
        return refuse_line(refusal, std::string("the type is missing before the key; ") + expected_line);
    }
    if (text.find('\t') != std::string_view::npos) {
        return refuse_line(refusal, "an option contains a tab; expected blanks");
    }
    return key_options_read(text, options, refusal);
}

bool read_key(std::string_view type, std::string_view base64, public_key& key, std::string& refusal) {
    std::string blob;
    const platform_status status = base64_decode(base64, blob);
    const char* reason = status == PLATFORM_OK ? public_key_read(type, blob, key) : platform_status_text(status);
    return reason == nullptr || refuse_line(refusal, std::string(reason) + "; " + expected_line);
}

std::string comment_of(std::string_view text) {
    std::string comment(text);
    std::replace(comment.begin(), comment.end(), '\t', ' ');
    return comment;
}

/// Parses a line that is not too long and has no blanks around it.
bool read_fields(std::string_view line, authorized_key& key, std::string& refusal) {
    key_options options;
    std::string_view word = line.substr(0, key_options_size(line));
    if (!public_key_type_is_known(word) && !resembles_type(word)) {
        if (word.size() == line.size() && !word.starts_with("AAAA")) {
            return refuse_line(refusal, std::string("there is no key in the line; ") + expected_line);
        }
        line = trimmed(line.substr(word.size()), separators);
        if (!read_options(word, options, refusal)) {
            return false;
        }
    }
    const std::string_view type = take_field(line);
    if (!public_key_type_is_known(type)) {
        return refuse_type(type, refusal);
    }
    if (!options.for_security_keys.empty() && !public_key_is_in_security_key(type)) {
        return refuse_line(refusal, "option " + options.for_security_keys +
                                        " has no effect on this key; it is for keys whose type begins with \"sk-\"");
    }
    authorized_key found = {options.text, {}, {}};
    if (!read_key(type, take_field(line), found.key, refusal)) {
        return false;
    }
    found.comment = comment_of(line);
    key = std::move(found);
    return true;
}

}  // namespace

bool authorized_key_read(std::string_view line, authorized_key& key, std::string& refusal) {
    line = trimmed(line, " \t\r\n");
    if (const char* reason = refusal_of_format(line); reason != nullptr) {
        return refuse_line(refusal, reason);
    }
    if (line.size() > authorized_key_line_max) {
        return refuse_line(refusal, text_format("the line has more than %zu bytes", authorized_key_line_max));
    }
    if (!is_printable(line)) {
        return refuse_line(refusal,
                           "the line contains a control character, an invisible one, or text that is not UTF-8");
    }
    return line.empty() ? refuse_line(refusal, std::string("there is no key; ") + expected_line)
                        : read_fields(line, key, refusal);
}

bool authorized_keys_read(std::string_view text, std::vector<authorized_key>& keys, std::string& refusal) {
    if (const char* reason = refusal_of_format(text); reason != nullptr) {
        return refuse_line(refusal, reason);
    }
    text.remove_prefix(text.starts_with(byte_order_mark) ? byte_order_mark.size() : 0);
    std::vector<authorized_key> found;
    std::vector<size_t> numbers;
    for (size_t number = 1; !text.empty(); number++) {
        const std::string_view whole = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), whole.size() + 1));
        const std::string_view line = trimmed(whole, " \t\r");
        if (line.empty() || line.front() == '#') {
            continue;
        }
        authorized_key key;
        if (!authorized_key_read(line, key, refusal)) {
            refusal = text_format("line %zu: %s", number, refusal.c_str());
            return false;
        }
        found.push_back(std::move(key));
        numbers.push_back(number);
    }
    if (found.empty()) {
        return refuse_line(refusal, std::string("there is no key; ") + expected_line);
    }
    if (!authorized_keys_are_distinct(found, "line", numbers, refusal)) {
        return false;
    }
    keys = std::move(found);
    return true;
}

bool authorized_keys_are_distinct(const std::vector<authorized_key>& keys, const char* place,
                                  const std::vector<size_t>& numbers, std::string& refusal) {
    if (keys.size() > authorized_keys_max) {
        return refuse_line(refusal,
                           text_format("%zu keys; a user can have at most %zu", keys.size(), authorized_keys_max));
    }
    for (size_t i = 0; i < keys.size(); i++) {
        for (size_t k = 0; k < i; k++) {
            if (keys[i].key == keys[k].key) {
                return refuse_line(refusal, text_format("%s %zu: the key is the same as in %s %zu", place,
                                                        numbers.empty() ? i + 1 : numbers[i], place,
                                                        numbers.empty() ? k + 1 : numbers[k]));
            }
        }
    }
    return true;
}

std::string authorized_key_line(const authorized_key& key) {
    return (key.options.empty() ? "" : key.options + ' ') + public_key_text(key.key) +
           (key.comment.empty() ? "" : ' ' + key.comment);
}
