/// The configured banner without its delimiters, and the file that is created from it.
///
/// Input: the text of the banner, up to its first NUL.
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "core/paths.h"
#include "fake/fake_platform.h"
#include "host/banners.h"
#include "platform/banner_service.h"
#include "require.h"

namespace {

/// Mounts a private file system on the agent's folder, which disappears with the process.
bool enter_scratch_folder() {
    require(unshare(geteuid() == 0 ? CLONE_NEWNS : CLONE_NEWNS | CLONE_NEWUSER) == 0);
    require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0);
    require(mount("tmpfs", "/var/opt", "tmpfs", 0, nullptr) == 0);
    std::filesystem::create_directories(paths::configuration_directory);
    fake_platform::set_recording(false);
    return true;
}

std::string content(const char* path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// The text between its first character and the last occurrence of that character, or everything after the first
/// character if it does not occur again.
std::string expected_text(const std::string& banner) {
    if (banner.empty()) {
        return {};
    }
    const size_t last = banner.rfind(banner.front());
    return last == 0 ? banner.substr(1) : banner.substr(1, last - 1);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = enter_scratch_folder();
    require(ready);
    std::string banner(reinterpret_cast<const char*>(data), size);
    banner = banner.substr(0, banner.find('\0'));
    fake_platform::set_configured_banner(BANNER_LOGIN, banner);
    const std::string expected = expected_text(banner);
    char* const text = get_banner_msg(BANNER_LOGIN);
    require((text == nullptr) == expected.empty());
    require(text == nullptr || expected == text);
    std::filesystem::remove(paths::banner_file);
    require(writeToBanner(text) == (text == nullptr ? -1 : 0));
    require(text == nullptr || content(paths::banner_file) == expected + '\n');
    free(text);
    return 0;
}
