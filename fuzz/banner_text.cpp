/// The configured banner without its delimiters, and the file that is created from it.
///
/// Input: the text of the banner, up to its first NUL.
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
#include "scratch_folder.h"

namespace {

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
