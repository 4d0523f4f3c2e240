/// The launcher's translation of the agent's files. Whatever a file contains, the translation consists of lines with
/// keywords that the launcher knows, FIPS mode leaves only approved algorithms, and the remarks are printable.
///
/// Input: a byte of options, and the file; with local directives, these follow a zero byte.
#include <algorithm>
#include <cstdint>
#include <sstream>
#include <string>
#include <string_view>

#include "openssh/translate.h"
#include "require.h"

namespace {

using namespace openssh;

enum : unsigned {
    is_client = 1,
    fips_mode = 2,
    has_no_wrapper = 4,
    has_no_key = 8,
    has_verbose_places = 16,
    has_local = 32
};

known_algorithms all_algorithms() {
    known_algorithms known;
    known.names = {
        {{"3des-cbc", "aes256-cbc", "aes128-ctr", "aes256-ctr", "aes128-gcm@openssh.com",
          "chacha20-poly1305@openssh.com"},
         {"hmac-sha1", "hmac-sha2-256", "hmac-sha2-512", "hmac-md5"},
         {"diffie-hellman-group14-sha1", "diffie-hellman-group14-sha256", "ecdh-sha2-nistp256", "curve25519-sha256"},
         {"ssh-ed25519", "ecdsa-sha2-nistp256", "ssh-rsa", "rsa-sha2-256", "rsa-sha2-512"}}};
    return known;
}

bool is_printable(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return (c >= ' ' && c != 0x7f) || c == '\t' || c < 0; });
}

/// Requires that a list contains only approved names.
void check_list(const keyword_row& row, const std::string& value) {
    std::istringstream names(value.starts_with('+') ? value.substr(1) : value);
    for (std::string name; std::getline(names, name, ',');) {
        require(is_fips_approved(row.kind, name));
    }
}

void check_line(const keyword_rows& rows, const std::string& line, bool is_fips) {
    const size_t blank = line.find(' ');
    require(blank != std::string::npos && blank > 0 && is_printable(line));
    const std::string keyword = line.substr(0, blank);
    const auto row = std::find_if(rows.begin(), rows.end(),
                                  [&](const keyword_row& candidate) { return candidate.output_keyword() == keyword; });
    if (row != rows.end() && is_fips && (row->how == treatment::list || row->how == treatment::additional_keys)) {
        check_list(*row, line.substr(blank + 1));
    }
    const bool is_launchers_own = keyword == "PidFile" || keyword == "LogVerbose";
    require(row != rows.end() || is_launchers_own);
}

/// The lines for the NETCONF port are at the end, and are the launcher's own.
void check_text(const keyword_rows& rows, const std::string& text, bool is_fips) {
    require(text.ends_with('\n'));
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line) && !line.starts_with("Match ");) {
        if (!line.starts_with('#')) {
            check_line(rows, line, is_fips);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const known_algorithms known = all_algorithms();
    if (size == 0) {
        return 0;
    }
    const unsigned options = data[0];
    translation_input input = {};
    input.text = {reinterpret_cast<const char*>(data) + 1, size - 1};
    if ((options & has_local) != 0 && (options & is_client) == 0) {
        const size_t end = std::min(input.text.find('\0'), input.text.size());
        const std::string_view local = input.text.substr(std::min(end + 1, input.text.size()));
        input.text = input.text.substr(0, end);
        input.local_files = {{"/etc/own.conf", std::string(local.substr(0, local.size() / 2))},
                             {"/etc/all.conf", std::string(local)}};
        input.has_address = [](const std::string& address) { return address.size() % 2 == 0; };
    }
    input.source_name = "/var/opt/file";
    input.known = &known;
    input.key_is_usable = [&](const std::string& path) { return (options & has_no_key) == 0 && path.front() == '/'; };
    input.user_keys_program = "/pkg/bin/keys";
    input.verbose_places = (options & has_verbose_places) != 0 ? "kex.c:*" : "";
    input.sessions_are_wrapped = (options & has_no_wrapper) == 0;
    input.kind = (options & is_client) != 0 ? &client_file_kind : &server_file_kind;
    input.fips_mode = (options & fips_mode) != 0;
    const translation result = translate(input);
    check_text(input.kind->rows, result.text, result.fips_mode);
    require(!input.fips_mode || result.fips_mode);
    require(was_made_in_fips_mode(result.text) == result.fips_mode);
    for (const remark& said : result.remarks) {
        require(!said.text.empty() && is_printable(said.text) && said.text.find('\t') == std::string::npos);
    }
    for (const local_verdict& verdict : result.local.verdicts) {
        require(is_printable(verdict.directive) && is_printable(verdict.text) && verdict.line > 0);
        require(verdict.outcome != local_outcome::refused || !verdict.text.empty());
    }
    require(translate(input).text == result.text);
    return 0;
}
