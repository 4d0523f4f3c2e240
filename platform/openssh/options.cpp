#include "openssh/options.h"

#include <unistd.h>

#include <charconv>
#include <optional>
#include <string_view>

#include "openssh/text.h"

namespace openssh {

namespace {

std::optional<uint32_t> parse_vrf_id(std::string_view text) {
    uint32_t id = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), id);
    if (error != std::errc() || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return id;
}

std::string check_complete(const launch_options& options, bool has_vrf_id) {
    if (options.file.empty()) {
        return "missing option -f FILE";
    }
    if (options.file[0] != '/') {
        return format_text("the server file \"%s\" is not an absolute path", shown(options.file).c_str());
    }
    if (!has_vrf_id && !options.print_only) {
        return "missing option -v ID";
    }
    return {};
}

}  // namespace

std::string parse_options(int count, char* const* arguments, launch_options& options) {
    bool has_vrf_id = false;
    optind = 0;
    for (int option = 0; (option = getopt(count, arguments, "+:f:v:t")) != -1;) {
        if (option == 'f') {
            options.file = optarg;
        } else if (option == 't') {
            options.print_only = true;
        } else if (option == 'v') {
            const std::optional<uint32_t> id = parse_vrf_id(optarg);
            if (!id) {
                return format_text("the VRF identifier \"%s\" is not a number from 0 to 4294967295",
                                   shown(optarg).c_str());
            }
            options.vrf_id = *id;
            has_vrf_id = true;
        } else if (option == ':') {
            return format_text("option -%c requires a value", optopt);
        } else {
            const char letter = static_cast<char>(optopt);
            return format_text("unknown option -%s", shown({&letter, 1}).c_str());
        }
    }
    if (optind < count) {
        return format_text("unexpected argument \"%s\"", shown(arguments[optind]).c_str());
    }
    return check_complete(options, has_vrf_id);
}

}  // namespace openssh
