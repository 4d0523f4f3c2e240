/// The launcher's command line.
#ifndef OPENSSH_OPTIONS_H
#define OPENSSH_OPTIONS_H

#include <cstdint>
#include <string>

namespace openssh {

struct launch_options {
    std::string file;         ///< the agent's server file, an absolute path
    uint32_t vrf_id = 0;      ///< the VRF's number in the VRF table
    bool print_only = false;  ///< print the translation and start nothing
    bool compare = false;     ///< compare the running servers with their files and start nothing
    /// Judge the local directives and start nothing: "present", or the file whose text standard input has, "all" or "own".
    std::string judged_local;
    /// The network namespace of a server that has ended, whose limits must be removed; otherwise empty.
    std::string ended_namespace;
};

constexpr const char* usage_text =
    "usage: sshd -f FILE -v ID\n"
    "       sshd -t -f FILE\n"
    "       sshd -l present|all|own -f FILE\n"
    "       sshd -e NAMESPACE\n"
    "       sshd -c\n"
    "Starts the SSH server of one VRF with the settings of the agent's server file.\n"
    "  -f FILE  the server file, an absolute path\n"
    "  -v ID    the VRF identifier, a number\n"
    "  -t       print the file the server would be started with, and start nothing\n"
    "  -l present|all|own  print what becomes of each local directive, and start nothing; with all and own, the text of\n"
    "           that file is read from standard input\n"
    "  -e NAMESPACE  remove what is left of a server that has ended in this network namespace\n"
    "  -c       print the running servers that would be started with other settings now, and the settings\n";

/// Parses the arguments (the first is the program's name). Returns an empty text, or the error; `options` is then
/// undefined.
std::string parse_options(int count, char* const* arguments, launch_options& options);

}  // namespace openssh

#endif
