/// Tokens of banners. A text without "$(" stays as it is, inserted values are not expanded again, and each token adds at
/// most the length of a value.
///
/// Input: the text.
#include "linux/host/banner_tokens.h"

#include <cstdint>
#include <string>
#include <string_view>

#include "require.h"

namespace {

constexpr std::string_view opening = "$(";
constexpr size_t longest_value = 4096;

size_t count_of(std::string_view text, std::string_view part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string_view::npos; at = text.find(part, at + part.size())) {
        count++;
    }
    return count;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const std::string expanded = banner_expand_tokens(text);
    const size_t tokens = count_of(text, opening);
    require(tokens > 0 || expanded == text);
    require(expanded.size() <= text.size() + tokens * longest_value);
    // The time may differ from one call to the next, but not its length.
    const std::string again = banner_expand_tokens("$(line)" + std::string(text));
    require(again.starts_with("ssh") && again.size() == expanded.size() + 3);
    return 0;
}
