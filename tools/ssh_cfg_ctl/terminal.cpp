#include "ssh_cfg_ctl/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <charconv>
#include <cstdlib>
#include <string_view>

namespace {

/// Of a terminal that does not say.
constexpr size_t usual_width = 80;

size_t columns_of_environment() {
    const char* value = getenv("COLUMNS");
    const std::string_view text = value == nullptr ? "" : value;
    size_t columns = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), columns);
    return error == std::errc() && end == text.data() + text.size() ? columns : 0;
}

}  // namespace

size_t ctl_output_width() {
    if (const size_t columns = columns_of_environment(); columns > 0) {
        return columns;
    }
    if (isatty(STDOUT_FILENO) != 1) {
        return 0;
    }
    winsize size = {};
    const bool told = ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return told ? size.ws_col : usual_width;
}
