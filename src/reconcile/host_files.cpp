#include "reconcile/host_files.h"

#include <string>

#include "core/paths.h"
#include "host/banners.h"
#include "host/pam_file.h"

namespace {

/// A file that belongs to the machine rather than to a server.
struct host_file {
    const char* path;
    bool (*is_current)();
    void (*write_again)();
};

constexpr host_file files[] = {
    {paths::pam_file, pam_file_is_current, write_pam_file},
    {paths::banner_file, banner_file_is_current, write_banner_file_again},
    {paths::aaa_banner_file, aaa_banner_file_is_current, write_aaa_banner_file_again},
};

}  // namespace

void compare_host_files(comparison& run) {
    for (const host_file& file : files) {
        const std::string subject = std::string("file ") + file.path;
        if (file.is_current() || !found(run, subject, "is missing or differs")) {
            continue;
        }
        file.write_again();
        if (!file.is_current()) {
            not_removed(run, subject, "cannot be written");
        }
    }
}
