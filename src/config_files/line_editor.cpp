#include "config_files/line_editor.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "config_files/trace_points.h"
#include "core/debug.h"
#include "core/paths.h"
#include "platform/status.h"

// The new content goes to the temporary file, which takes the edited file's place in one rename: whoever opens the file,
// and whatever kills this process, finds the old content or the new. Nothing is synchronised to the disk on the way.
// After a power cut no server runs, and every file is made again from the datastore, whose commits are durable, before
// the first one starts; 256 waits for the disk would only hold up each change of a setting.

namespace {

constexpr char port_keyword[] = "Port";

struct file_closer {
    void operator()(FILE* file) const { std::fclose(file); }
};
using file_handle = std::unique_ptr<FILE, file_closer>;

/// What an editor was asked for, under the name that its debug lines carry.
struct edit_request {
    const char* tag;
    const char* file;
    const char* keyword;
    int add;
    const char* new_line;
    const uint32_t* change;
};

/// One pass from the edited file to the temporary file.
struct edit_pass {
    file_handle source;
    file_handle output;
    char* line = nullptr;   ///< the line in hand, as read
    size_t line_size = 0;   ///< its length with its newline, if it has one
    size_t text_size = 0;   ///< its length without
    size_t capacity = 0;    ///< of the buffer that holds it
    bool open_end = false;  ///< the last line written has no newline
    bool changed = false;

    ~edit_pass() { std::free(line); }
};

/// -1 with errno EINVAL, after the caller has said what is wrong.
int refuse(const edit_request& request) {
    trace_error(config_files_trace_argument, {request.tag, request.file, request.keyword});
    errno = EINVAL;
    return -1;
}

int check_request(const edit_request& request) {
    if (request.file == nullptr) {
        debug_print("%s, filename can't be NULL, exiting", request.tag);
        return refuse(request);
    }
    if (request.keyword == nullptr) {
        debug_print("%s, search string can't be NULL, exiting", request.tag);
        return refuse(request);
    }
    if (request.change == nullptr) {
        debug_print("%s, configChange variable shouldbe NULL", request.tag);
        return refuse(request);
    }
    if (request.add != 0 && request.new_line == nullptr) {
        debug_print("%s, File:=%s, StrToFind:=%s, add:=true, newStr should not be NULL", request.tag, request.file,
                    request.keyword);
        return refuse(request);
    }
    // A line break in a value would let it set keywords of its own.
    if (request.new_line != nullptr && std::strchr(request.new_line, '\n') != nullptr) {
        debug_print("%s, File:=%s, StrToFind:=%s, newStr must not contain a line break", request.tag, request.file,
                    request.keyword);
        return refuse(request);
    }
    return 0;
}

/// Opens both files. Returns 0, or -1 with errno.
int open_files(const edit_request& request, edit_pass& pass) {
    pass.source.reset(std::fopen(request.file, "re"));
    if (pass.source == nullptr) {
        const int error = errno;
        debug_print("%s, File-name:=%s, File-mode:=%s, Error:=%s(0x%x), Config File open failed", request.tag,
                    request.file, "r", platform_status_text(error), error);
        trace_error(config_files_trace_open, {request.file, "r", error});
        errno = error;
        return -1;
    }
    pass.output.reset(std::fopen(paths::temporary_file, "w+e"));
    if (pass.output == nullptr) {
        const int error = errno;
        debug_print("%s, File-name:=%s, File-mode:=%s, Error:=%s(0x%x), File open failed", request.tag,
                    paths::temporary_file, "w+", platform_status_text(error), error);
        trace_error(config_files_trace_open, {paths::temporary_file, "w+", error});
        errno = error;
        return -1;
    }
    return 0;
}

/// Reads the next line, of any length. False at the end of the file and when reading fails, which source_failed tells.
bool next_line(edit_pass& pass) {
    const ssize_t length = getline(&pass.line, &pass.capacity, pass.source.get());
    if (length <= 0) {
        return false;
    }
    pass.line_size = static_cast<size_t>(length);
    pass.text_size = pass.line[pass.line_size - 1] == '\n' ? pass.line_size - 1 : pass.line_size;
    return true;
}

bool source_failed(const edit_pass& pass) {
    return std::ferror(pass.source.get()) != 0 || std::feof(pass.source.get()) == 0;
}

bool line_begins_with(const edit_pass& pass, const char* prefix) {
    const size_t length = std::strlen(prefix);
    return pass.text_size >= length && std::memcmp(pass.line, prefix, length) == 0;
}

bool line_equals(const edit_pass& pass, const char* text) {
    return std::strlen(text) == pass.text_size && line_begins_with(pass, text);
}

void copy_line(edit_pass& pass) {
    std::fwrite(pass.line, 1, pass.line_size, pass.output.get());
    pass.open_end = pass.text_size == pass.line_size;
}

/// Writes "first second" and a newline; `second` may be null. A last line without a newline is ended before.
void write_line(edit_pass& pass, const char* first, const char* second) {
    FILE* output = pass.output.get();
    if (pass.open_end) {
        std::fputc('\n', output);
        pass.open_end = false;
    }
    std::fputs(first, output);
    if (second != nullptr) {
        std::fputc(' ', output);
        std::fputs(second, output);
    }
    std::fputc('\n', output);
}

/// Whoever could read the edited file can read the new one, and nobody but the owner writes it.
int take_over_mode(const edit_pass& pass) {
    struct stat status;
    if (fstat(fileno(pass.source.get()), &status) != 0) {
        return -1;
    }
    return fchmod(fileno(pass.output.get()), (status.st_mode & 0755) | 0600);
}

/// Everything that was written has reached the file. A full disk shows here at the latest.
int close_output(edit_pass& pass) {
    FILE* output = pass.output.get();
    if (std::ferror(output) != 0 || std::fflush(output) != 0 || take_over_mode(pass) != 0) {
        return -1;
    }
    return std::fclose(pass.output.release()) == 0 ? 0 : -1;
}

/// The pass has failed before the rename: what it has written takes up no room on a disk that may be full.
int give_up(const edit_request& request) {
    const int error = errno;
    debug_print("%s, File-name:=%s, File-mode:=%s, Error:=%s(0x%x), File write failed", request.tag,
                paths::temporary_file, "w+", platform_status_text(error), error);
    trace_error(config_files_trace_write, {request.file, error});
    std::remove(paths::temporary_file);
    errno = error;
    return -1;
}

/// Puts the temporary file in the edited file's place.
int replace_file(const edit_request& request) {
    if (std::rename(paths::temporary_file, request.file) != 0) {
        const int error = errno;
        debug_print("Filename:=%s, Error:=%s(0x%x), Failed to rename file", request.file, platform_status_text(error),
                    error);
        trace_error(config_files_trace_rename, {request.file, error});
        errno = error;
        return -1;
    }
    return 0;
}

int finish(const edit_request& request, edit_pass& pass, uint32_t* change) {
    if (close_output(pass) != 0) {
        return give_up(request);
    }
    pass.source.reset();
    if (replace_file(request) != 0) {
        return -1;
    }
    if (pass.changed) {
        *change = 1;
        trace_event(config_files_trace_changed, {request.file, request.keyword, request.add});
    }
    return 0;
}

/// Deals with a line of the keyword in add mode. True when the search is over.
bool add_at_line(const edit_request& request, edit_pass& pass) {
    if (line_equals(pass, request.new_line)) {
        copy_line(pass);
        return true;
    }
    if (std::strcmp(request.keyword, port_keyword) == 0) {
        // A server listens on several ports, one line for each.
        copy_line(pass);
        return false;
    }
    pass.line[pass.text_size] = '\0';
    debug_print("%s, Old-val:=%s, New-val=%s,Config value has changed", request.tag, pass.line, request.new_line);
    write_line(pass, request.new_line, nullptr);
    pass.changed = true;
    return true;
}

/// Deals with a line of the keyword in delete mode. True when the search is over.
bool delete_line(const edit_request& request, edit_pass& pass) {
    const bool one_port = std::strcmp(request.keyword, port_keyword) == 0;
    if (one_port && (request.new_line == nullptr || !line_begins_with(pass, request.new_line))) {
        copy_line(pass);
        return false;
    }
    pass.changed = true;
    return true;
}

/// Copies the file and changes the keyword's first line on the way. Returns 0, or -1 with errno when reading failed.
int edit_first_line(const edit_request& request, edit_pass& pass) {
    bool matched = false;
    while (next_line(pass)) {
        if (matched || !line_begins_with(pass, request.keyword)) {
            copy_line(pass);
        } else {
            matched = request.add != 0 ? add_at_line(request, pass) : delete_line(request, pass);
        }
    }
    if (source_failed(pass)) {
        return -1;
    }
    if (request.add != 0 && !matched) {
        write_line(pass, request.new_line, nullptr);
        pass.changed = true;
    }
    return 0;
}

/// Compares the values of a keyword's lines with a wanted list, piece by piece as they are read.
struct list_comparison {
    const char* rest;  ///< what is still to come; null after a difference

    void take(const char* text, size_t length) {
        if (rest != nullptr) {
            rest = std::strncmp(rest, text, length) == 0 ? rest + length : nullptr;
        }
    }
    bool equal() const { return rest != nullptr && *rest == '\0'; }
};

/// The second of the blank-separated words of the line in hand; empty when it has none.
const char* second_word(edit_pass& pass, size_t* length) {
    constexpr char blanks[] = " \t\r\v\f";
    pass.line[pass.text_size] = '\0';
    const char* word = pass.line + std::strspn(pass.line, blanks);
    word += std::strcspn(word, blanks);
    word += std::strspn(word, blanks);
    *length = std::strcspn(word, blanks);
    return word;
}

/// Copies the file without the keyword's lines. Returns how many there were; their values have gone to the comparison.
size_t drop_lines(const edit_request& request, edit_pass& pass, list_comparison& comparison) {
    size_t dropped = 0;
    while (next_line(pass)) {
        if (!line_begins_with(pass, request.keyword)) {
            copy_line(pass);
            continue;
        }
        size_t length = 0;
        const char* value = second_word(pass, &length);
        comparison.take(dropped == 0 ? " " : ",", 1);
        comparison.take(value, length);
        dropped++;
    }
    return dropped;
}

/// Writes one line for each value of "keyword value,value". The text is cut at its first blank, so a keyword that ends
/// in one leaves the second blank to the first value.
void write_values(const edit_request& request, edit_pass& pass, char* new_line) {
    char* values = std::strchr(new_line, ' ');
    if (values == nullptr) {
        return;
    }
    *values++ = '\0';
    char* state = nullptr;
    for (char* value = strtok_r(values, ",", &state); value != nullptr; value = strtok_r(nullptr, ",", &state)) {
        write_line(pass, request.keyword, value);
    }
}

}  // namespace

int update_string_in_file(const char* file, const char* keyword, int add, const char* new_line, uint32_t* change) {
    const edit_request request{"update_string_in_file", file, keyword, add, new_line, change};
    edit_pass pass;
    if (check_request(request) != 0 || open_files(request, pass) != 0) {
        return -1;
    }
    if (edit_first_line(request, pass) != 0) {
        return give_up(request);
    }
    return finish(request, pass, change);
}

int update_multiple_strings_in_file(const char* file, const char* keyword, int add, char* new_line, uint32_t* change) {
    const edit_request request{"Update StringIn Multiple", file, keyword, add, new_line, change};
    edit_pass pass;
    if (check_request(request) != 0 || open_files(request, pass) != 0) {
        return -1;
    }
    list_comparison comparison{add != 0 ? new_line : nullptr};
    comparison.take(keyword, std::strlen(keyword));
    const size_t dropped = drop_lines(request, pass, comparison);
    if (source_failed(pass)) {
        return give_up(request);
    }
    pass.changed = add != 0 ? !comparison.equal() : dropped > 0;
    if (add != 0) {
        write_values(request, pass, new_line);
    }
    return finish(request, pass, change);
}
