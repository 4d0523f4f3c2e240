/// Translates a file of the agent into one that stock sshd or ssh accepts. Runs no process and touches no file.
#ifndef OPENSSH_TRANSLATE_H
#define OPENSSH_TRANSLATE_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "openssh/algorithms.h"
#include "openssh/keyword_table.h"
#include "openssh/local_directives.h"

namespace openssh {

/// The numbers are those of syslog.
enum class severity { error = 3, warning = 4, notice = 5 };

/// One message for the operator: one line of printable text without a line feed.
struct remark {
    severity level;
    std::string text;
};

/// The differences between server files and the client's file.
struct file_kind {
    keyword_rows rows;
    const char* program;      ///< the program that reads the translation
    const char* made_for;     ///< named in the first line, because each start of it rewrites the translation
    const char* first_lines;  ///< settings that every translation has, with their line feeds
    bool is_server;           ///< host keys are needed, and users' keys may come from a program
};

extern const file_kind server_file_kind;
extern const file_kind client_file_kind;

struct translation_input {
    /// The whole file; any bytes.
    std::string_view text;
    /// Named in the first line of the result.
    std::string_view source_name;
    const known_algorithms* known;
    /// Whether a host-key file can be used; asked with an absolute path. Servers only.
    std::function<bool(const std::string&)> key_is_usable = {};
    /// A program that prints the keys of the user named by its argument; empty if there is none.
    std::string_view user_keys_program = {};
    /// The places whose log lines describe a session, as a value of LogVerbose; empty if nobody listens.
    std::string_view verbose_places = {};
    /// Whether the server's sessions run under the wrapper, which confines those on the NETCONF port. Servers only.
    bool sessions_are_wrapped = true;
    const file_kind* kind = &server_file_kind;
    /// Local directives, the VRF's own first. Servers only.
    std::vector<local_file> local_files = {};
    /// Whether the VRF has an address; for local directives.
    std::function<bool(const std::string&)> has_address = {};
    /// FIPS mode is on whatever the file says, because the client's file does not mention it.
    bool fips_mode = false;
};

struct translation {
    /// The file must not be used: it has no host key, or FIPS mode leaves nothing of a list. The remarks say why.
    bool refused = false;
    bool fips_mode = false;
    std::string text;
    server_limits limits = {};
    /// What became of the local directives. If any is refused, the text must not be used.
    local_merge local = {};
    /// Warnings and notices past `most_remarks` are counted in a last remark instead of kept; errors are few and all kept.
    std::vector<remark> remarks;
};

constexpr size_t most_remarks = 200;

translation translate(const translation_input& input);

/// Whether a server file requests FIPS mode. The setting applies to the whole file wherever its line is, and anything
/// but a clear "no" means on: a misread line must not open the server to algorithms that the operator has forbidden.
bool asks_for_fips_mode(std::string_view text);

/// Whether `translate` created a text in FIPS mode.
bool was_made_in_fips_mode(std::string_view translated_text);

}  // namespace openssh

#endif
