/// The line editors with any file, keyword and line.
///
/// Input: a byte of options, the NUL-terminated keyword and value, and the file's content.
#include "config_files/line_editor.h"

#include <cstdint>
#include <fstream>
#include <iterator>
#include <string>

#include "core/paths.h"
#include "fake/fake_platform.h"
#include "require.h"
#include "scratch_folder.h"

namespace {

constexpr char edited_file[] = "/var/opt/norvo/norvossh/edited";

std::string take_text(std::string& input) {
    const size_t end = input.find('\0');
    std::string text = input.substr(0, end);
    input.erase(0, end == std::string::npos ? end : end + 1);
    return text;
}

std::string content() {
    std::ifstream file(edited_file, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

int edit(bool multiple, bool add, const std::string& keyword, std::string line, uint32_t* change) {
    return multiple ? update_multiple_strings_in_file(edited_file, keyword.c_str(), add ? 1 : 0, line.data(), change)
                    : update_string_in_file(edited_file, keyword.c_str(), add ? 1 : 0, line.c_str(), change);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = enter_scratch_folder();
    require(ready);
    if (size == 0) {
        return 0;
    }
    const bool multiple = (data[0] & 1) != 0;
    const bool add = (data[0] & 2) != 0;
    std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::string keyword = take_text(rest);
    const std::string line = keyword + ' ' + take_text(rest);
    std::ofstream(edited_file, std::ios::binary) << rest;
    uint32_t change = 0;
    if (edit(multiple, add, keyword, line, &change) != 0) {
        // Refused, for instance because of a line break in the line: the file is unchanged.
        require(content() == rest && change == 0);
        return 0;
    }
    const std::string edited = content();
    require(change <= 1 && (change == 1 || multiple || edited == rest));
    if (add && !multiple) {
        require(('\n' + edited).find('\n' + line) != std::string::npos);
        // An existing line is not a change.
        change = 0;
        require(edit(multiple, add, keyword, line, &change) == 0 && change == 0 && content() == edited);
    }
    return 0;
}
