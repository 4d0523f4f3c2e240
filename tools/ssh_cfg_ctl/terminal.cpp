#include "ssh_cfg_ctl/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "common/number.h"

namespace {

/// For a terminal that does not report its width.
constexpr size_t usual_width = 80;

size_t columns_of_environment() {
    const char* value = getenv("COLUMNS");
    return value == nullptr ? 0 : number_parse<size_t>(value).value_or(0);
}

size_t columns_of_terminal(int fd) {
    winsize size = {};
    const bool told = ioctl(fd, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return told ? size.ws_col : usual_width;
}

}  // namespace

size_t ctl_output_width() {
    if (const size_t columns = columns_of_environment(); columns > 0) {
        return columns;
    }
    if (isatty(STDOUT_FILENO) != 1) {
        return 0;
    }
    return columns_of_terminal(STDOUT_FILENO);
}

size_t ctl_error_width() {
    constexpr size_t least = 20;
    return std::max(columns_of_terminal(STDERR_FILENO), least);
}
