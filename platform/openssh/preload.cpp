#include "openssh/preload.h"

#include <unistd.h>

#include <cstdlib>
#include <string_view>

#include "openssh/state_files.h"

namespace openssh {

namespace {

constexpr const char* libraries_variable = "LD_PRELOAD";

}  // namespace

std::string session_reporter_of(const launcher_paths& paths) {
    const bool can_be_loaded =
        is_trusted_file(paths.session_reporter) && access(paths.session_reporter.c_str(), R_OK) == 0;
    return can_be_loaded ? paths.session_reporter : std::string();
}

void load_into_sshd(const std::string& library) {
    if (library.empty()) {
        return;
    }
    const char* others = std::getenv(libraries_variable);
    const bool has_others = others != nullptr && others[0] != '\0';
    setenv(libraries_variable, (has_others ? std::string(others) + ":" + library : library).c_str(), 1);
}

std::string vrf_of(const std::string& server_file) {
    constexpr std::string_view before_name = "sshd_config_";
    const std::string name = server_file.substr(server_file.rfind('/') + 1);
    return name.starts_with(before_name) ? name.substr(before_name.size()) : std::string();
}

void name_vrf(const std::string& server_file) {
    const std::string name = vrf_of(server_file);
    if (name.empty()) {
        unsetenv("SSH_CFG_VRF");
    } else {
        setenv("SSH_CFG_VRF", name.c_str(), 1);
    }
}

void load_into_ssh(const std::string& library, const std::string& log_file) {
    if (library.empty()) {
        return;
    }
    // The variables that the library reads.
    if (log_file.empty()) {
        unsetenv("SSH_CSM_LOG_FILE");
    } else {
        setenv("SSH_CSM_LOG_FILE", log_file.c_str(), 1);
    }
    unsetenv("SSH_CSM_LD_PRELOAD");
    if (const char* others = std::getenv(libraries_variable)) {
        setenv("SSH_CSM_LD_PRELOAD", others, 1);
    }
    setenv("SSH_CSM_REPORTS", "1", 1);
    load_into_sshd(library);
}

std::string log_file_of(int count, char* const* arguments) {
    constexpr const char* ssh_options = "+:1246ab:c:e:fgi:kl:m:no:p:qstvxAB:CD:E:F:GI:J:KL:MNO:PQ:R:S:TVw:W:XYy";
    std::string file;
    bool has_host = false;
    for (optind = 0;;) {
        const int option = getopt(count, arguments, ssh_options);
        if (option == 'E') {
            file = optarg;
        } else if (option == -1) {
            // Options may also follow the host; after those comes the command.
            if (has_host || optind >= count || std::string_view(arguments[optind - 1]) == "--") {
                return file;
            }
            has_host = true;
            ++optind;
        }
    }
}

}  // namespace openssh
