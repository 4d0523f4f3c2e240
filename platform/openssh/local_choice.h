/// Chooses the local directives that a server is started with.
///
/// A mistake in them must not close the only way into the router. So a server starts with the last accepted ones while those in
/// the files are refused, and without any if there are none.
#ifndef OPENSSH_LOCAL_CHOICE_H
#define OPENSSH_LOCAL_CHOICE_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "common/launch_record.h"
#include "openssh/local_files.h"
#include "openssh/sshd_acceptance.h"
#include "openssh/translate.h"

namespace openssh {

/// Translates the server's file with local directives.
using local_translation = std::function<translation(const std::vector<local_file>& files)>;

/// Why sshd does not accept a translated text; nothing if it does.
using text_test = std::function<file_failure(const std::string& text)>;

struct local_choice {
    translation result;
    launch_local in_use = launch_local::none;
    std::vector<local_file> files = {};      ///< those in use
    std::vector<std::string> problems = {};  ///< why not all of the present ones are in force, one sentence each
    file_failure failure = {};               ///< why the server's file cannot be used even without local directives
};

local_choice choose_local_directives(const local_translation& translated, const local_source& source,
                                     const std::vector<local_file>& accepted, const text_test& test);

/// Judges the present ones only. Returns one sentence for each problem; none if sshd would start with them. `result` is
/// complete in any case.
std::vector<std::string> judge_local_directives(const local_translation& translated, const local_source& source,
                                                const text_test& test, translation& result);

/// Returns what sshd says about a line of a translated text, with the place of the directive that the line comes from.
std::string local_words(std::string_view text, const file_failure& failure);

}  // namespace openssh

#endif
