/// Asks sshd whether it accepts a file.
#ifndef OPENSSH_SSHD_ACCEPTANCE_H
#define OPENSSH_SSHD_ACCEPTANCE_H

#include <string>

#include "openssh/paths.h"
#include "openssh/report.h"

namespace openssh {

/// Why a file cannot be used: a sentence for the log, and the message of sshd or of the translation, which has already
/// been logged.
struct file_failure {
    std::string text;
    std::string words = {};

    explicit operator bool() const { return !text.empty(); }
    std::string whole() const { return words.empty() ? text : text + ": " + words; }
};

/// Has sshd itself check a file. Its output is reported even if it accepts the file, unless `to` is null.
file_failure test_with_sshd(const launcher_paths& paths, const std::string& file, const reporter* to,
                            bool* without_a_word = nullptr);

/// The same, unless sshd has accepted the text before. A text about which sshd has something to say is tested each time.
file_failure test_new_text(const launcher_paths& paths, const std::string& file, const std::string& text,
                           const reporter* to);

}  // namespace openssh

#endif
