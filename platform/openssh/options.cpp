#include "openssh/options.h"

#include <unistd.h>

#include <optional>
#include <string_view>

#include "common/number.h"
#include "common/text.h"
#include "openssh/text.h"

namespace openssh {

namespace {

std::string check_complete(const launch_options& options, bool has_vrf_id) {
    if (options.file.empty()) {
        return "missing option -f FILE";
    }
    if (options.file[0] != '/') {
        return text_format("the server file \"%s\" is not an absolute path", shown(options.file).c_str());
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
            const std::optional<uint32_t> id = number_parse<uint32_t>(optarg);
            if (!id) {
                return text_format("the VRF identifier \"%s\" is not a number from 0 to 4294967295",
                                   shown(optarg).c_str());
            }
            options.vrf_id = *id;
            has_vrf_id = true;
        } else if (option == ':') {
            return text_format("option -%c requires a value", optopt);
        } else {
            const char letter = static_cast<char>(optopt);
            return text_format("unknown option -%s", shown({&letter, 1}).c_str());
        }
    }
    if (optind < count) {
        return text_format("unexpected argument \"%s\"", shown(arguments[optind]).c_str());
    }
    return check_complete(options, has_vrf_id);
}

}  // namespace openssh
