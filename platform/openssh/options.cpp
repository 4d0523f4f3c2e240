#include "openssh/options.h"

#include <unistd.h>

#include <optional>
#include <string_view>

#include "common/number.h"
#include "common/text.h"
#include "openssh/text.h"

namespace openssh {

namespace {

/// Whether a text is the name of a file and cannot lead elsewhere.
bool is_file_name(std::string_view text) {
    return !text.empty() && text[0] != '.' && text.find('/') == std::string_view::npos;
}

std::string check_complete(const launch_options& options, bool has_vrf_id) {
    if (options.compare) {
        const bool is_alone = options.file.empty() && !has_vrf_id && !options.print_only &&
                              options.ended_namespace.empty() && options.judged_local.empty();
        return is_alone ? "" : "option -c is used alone";
    }
    if (!options.ended_namespace.empty()) {
        return options.file.empty() && !has_vrf_id && !options.print_only && options.judged_local.empty()
                   ? ""
                   : "option -e is used alone";
    }
    if (!options.judged_local.empty() && (has_vrf_id || options.print_only)) {
        return "option -l is used with -f only";
    }
    if (options.file.empty()) {
        return "missing option -f FILE";
    }
    if (options.file[0] != '/') {
        return text_format("the server file \"%s\" is not an absolute path", shown(options.file).c_str());
    }
    if (!has_vrf_id && !options.print_only && options.judged_local.empty()) {
        return "missing option -v ID";
    }
    return {};
}

}  // namespace

std::string parse_options(int count, char* const* arguments, launch_options& options) {
    bool has_vrf_id = false;
    optind = 0;
    for (int option = 0; (option = getopt(count, arguments, "+:f:v:te:cl:")) != -1;) {
        if (option == 'f') {
            options.file = optarg;
        } else if (option == 't') {
            options.print_only = true;
        } else if (option == 'c') {
            options.compare = true;
        } else if (option == 'l') {
            options.judged_local = optarg;
            if (options.judged_local != "present" && options.judged_local != "all" && options.judged_local != "own") {
                return text_format("option -l requires present, all or own, not \"%s\"", shown(optarg).c_str());
            }
        } else if (option == 'e') {
            if (!is_file_name(optarg)) {
                return text_format("\"%s\" is not the name of a network namespace", shown(optarg).c_str());
            }
            options.ended_namespace = optarg;
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
