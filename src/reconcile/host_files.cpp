#include "reconcile/host_files.h"

#include <string>

#include "core/paths.h"
#include "host/banners.h"
#include "host/pam_file.h"

namespace {

/// A file that belongs to the machine rather than to a server.
struct host_file {
    const char* path;
    const char* (*difference)(const comparison& run);  ///< null if there is none
    void (*write_again)();
};

/// An administrator may have a PAM file of their own, which only an operator's request replaces.
const char* pam_difference(const comparison& run) {
    const char* difference = pam_file_difference();
    return run.on_request || !pam_file_exists() ? difference : nullptr;
}

const char* banner_difference(const comparison& /*run*/) {
    return banner_file_difference();
}

const char* aaa_banner_difference(const comparison& /*run*/) {
    return aaa_banner_file_difference();
}

constexpr host_file files[] = {
    {paths::pam_file, pam_difference, write_pam_file_again},
    {paths::banner_file, banner_difference, write_banner_file_again},
    {paths::aaa_banner_file, aaa_banner_difference, write_aaa_banner_file_again},
};

}  // namespace

void compare_host_files(comparison& run) {
    for (const host_file& file : files) {
        const std::string subject = std::string("file ") + file.path;
        const char* difference = file.difference(run);
        if (difference == nullptr || !found(run, subject, difference)) {
            continue;
        }
        file.write_again();
        if (file.difference(run) != nullptr) {
            not_removed(run, subject, "it cannot be written");
        }
    }
}
