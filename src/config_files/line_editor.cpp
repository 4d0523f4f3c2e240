#include "config_files/line_editor.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "config_files/restart_record.h"
#include "config_files/trace_points.h"
#include "core/debug.h"
#include "core/paths.h"
#include "platform/status.h"

// The new content goes to a temporary file, which replaces the edited file in one rename. Whoever opens the file, even
// after this process was killed, finds the old content or the new. Nothing is synchronised to the disk: no server
// survives a power cut, and before the first one starts again, every file is rebuilt from the datastore, whose commits
// are durable. Waiting for the disk 256 times would only delay each change of a setting.

namespace {

constexpr char port_keyword[] = "Port";

struct file_closer {
    void operator()(FILE* file) const { std::fclose(file); }
};
using file_handle = std::unique_ptr<FILE, file_closer>;

/// The arguments of an edit, and the name of the editor for its debug lines.
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
    char* content = nullptr;  ///< the whole edited file and one spare byte
    char* kept = nullptr;     ///< start of the unwritten part
    char* end = nullptr;
    bool open_end = false;  ///< the last line written has no newline
    bool changed = false;

    ~edit_pass() { std::free(content); }
};

/// A line of the content.
struct text_line {
    char* start;
    char* text_end;  ///< its newline, or the end of a line without one
    char* end;       ///< start of the next line
};

/// Returns -1 with errno EINVAL. The caller has already reported the reason.
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
    // A line break in a value would let the value add keywords of its own.
    if (request.new_line != nullptr && std::strchr(request.new_line, '\n') != nullptr) {
        debug_print("%s, File:=%s, StrToFind:=%s, newStr must not contain a line break", request.tag, request.file,
                    request.keyword);
        return refuse(request);
    }
    return 0;
}

// A change of one setting edits the file of every VRF, and the C library would query the kernel about each file just to
// choose a buffer size. Edits never overlap, so they can share this buffer.
char output_buffer[16384];

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
    std::setvbuf(pass.source.get(), nullptr, _IONBF, 0);
    std::setvbuf(pass.output.get(), output_buffer, _IOFBF, sizeof output_buffer);
    return 0;
}

/// Reads the whole edited file. Returns 0, or -1 with errno.
int read_source(edit_pass& pass) {
    size_t capacity = sizeof output_buffer;
    size_t size = 0;
    for (;;) {
        char* larger = static_cast<char*>(std::realloc(pass.content, capacity));
        if (larger == nullptr) {
            return -1;
        }
        pass.content = larger;
        size += std::fread(pass.content + size, 1, capacity - size - 1, pass.source.get());
        if (std::ferror(pass.source.get()) != 0) {
            return -1;
        }
        if (size < capacity - 1) {
            break;
        }
        capacity *= 2;
    }
    pass.kept = pass.content;
    pass.end = pass.content + size;
    return 0;
}

/// The line that starts at `start`; false at the end of the content.
bool line_at(const edit_pass& pass, char* start, text_line* line) {
    if (start == pass.end) {
        return false;
    }
    auto* newline = static_cast<char*>(std::memchr(start, '\n', static_cast<size_t>(pass.end - start)));
    *line = newline != nullptr ? text_line{start, newline, newline + 1} : text_line{start, pass.end, pass.end};
    return true;
}

bool line_begins_with(const text_line& line, const char* prefix) {
    const size_t length = std::strlen(prefix);
    return static_cast<size_t>(line.text_end - line.start) >= length && std::memcmp(line.start, prefix, length) == 0;
}

bool line_equals(const text_line& line, const char* text) {
    return static_cast<size_t>(line.text_end - line.start) == std::strlen(text) && line_begins_with(line, text);
}

/// Copies the unwritten part up to `end`, unchanged.
void copy_until(edit_pass& pass, const char* end) {
    if (end != pass.kept) {
        std::fwrite(pass.kept, 1, static_cast<size_t>(end - pass.kept), pass.output.get());
        pass.open_end = end[-1] != '\n';
    }
}

/// Copies everything before the line and skips the line itself.
void drop_line(edit_pass& pass, const text_line& line) {
    copy_until(pass, line.start);
    pass.kept = line.end;
}

/// Writes "first second" and a newline; `second` may be null. First ends a previous line that lacks its newline.
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

/// Whoever could read the edited file can read the new one; only the owner can write it.
int take_over_mode(const edit_pass& pass) {
    const int output = fileno(pass.output.get());
    struct stat old_file;
    struct stat new_file;
    if (fstat(fileno(pass.source.get()), &old_file) != 0 || fstat(output, &new_file) != 0) {
        return -1;
    }
    const mode_t mode = (old_file.st_mode & 0755) | 0600;
    return (new_file.st_mode & 07777) == mode ? 0 : fchmod(output, mode);
}

/// Checks that everything written has reached the file. A full disk shows up here at the latest.
int close_output(edit_pass& pass) {
    FILE* output = pass.output.get();
    if (std::ferror(output) != 0 || std::fflush(output) != 0 || take_over_mode(pass) != 0) {
        return -1;
    }
    return std::fclose(pass.output.release()) == 0 ? 0 : -1;
}

/// The pass failed before the rename: removes the temporary file, because the disk may be full.
int give_up(const edit_request& request) {
    const int error = errno;
    debug_print("%s, File-name:=%s, File-mode:=%s, Error:=%s(0x%x), File write failed", request.tag,
                paths::temporary_file, "w+", platform_status_text(error), error);
    trace_error(config_files_trace_write, {request.file, error});
    std::remove(paths::temporary_file);
    errno = error;
    return -1;
}

/// Renames the temporary file to the edited file.
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
    if (pass.changed && note_file_change(request.file) != 0) {
        return give_up(request);
    }
    if (replace_file(request) != 0) {
        return -1;
    }
    if (pass.changed) {
        *change = 1;
        trace_event(config_files_trace_changed, {request.file, request.keyword, request.add});
    }
    return 0;
}

/// Handles a line of the keyword in add mode. Returns true if the search is over.
bool add_at_line(const edit_request& request, edit_pass& pass, const text_line& line) {
    if (line_equals(line, request.new_line)) {
        return true;
    }
    if (std::strcmp(request.keyword, port_keyword) == 0) {
        // A server may listen on several ports, one line each.
        return false;
    }
    drop_line(pass, line);
    *line.text_end = '\0';
    debug_print("%s, Old-val:=%s, New-val=%s,Config value has changed", request.tag, line.start, request.new_line);
    write_line(pass, request.new_line, nullptr);
    pass.changed = true;
    return true;
}

/// Handles a line of the keyword in delete mode. Returns true if the search is over.
bool delete_line(const edit_request& request, edit_pass& pass, const text_line& line) {
    const bool one_port = std::strcmp(request.keyword, port_keyword) == 0;
    if (one_port && (request.new_line == nullptr || !line_begins_with(line, request.new_line))) {
        return false;
    }
    drop_line(pass, line);
    pass.changed = true;
    return true;
}

/// Copies the file, changing the first line of the keyword.
void edit_first_line(const edit_request& request, edit_pass& pass) {
    bool matched = false;
    text_line line;
    for (char* start = pass.content; !matched && line_at(pass, start, &line); start = line.end) {
        if (line_begins_with(line, request.keyword)) {
            matched = request.add != 0 ? add_at_line(request, pass, line) : delete_line(request, pass, line);
        }
    }
    copy_until(pass, pass.end);
    if (request.add != 0 && !matched) {
        write_line(pass, request.new_line, nullptr);
        pass.changed = true;
    }
}

/// Compares the values of a keyword's lines with the wanted list, one by one as they are read.
struct list_comparison {
    const char* rest;  ///< values not seen yet; null after a difference

    void take(const char* text, size_t length) {
        if (rest != nullptr) {
            rest = std::strncmp(rest, text, length) == 0 ? rest + length : nullptr;
        }
    }
    bool equal() const { return rest != nullptr && *rest == '\0'; }
};

/// The second blank-separated word of a line that begins with a keyword; empty if there is none.
const char* second_word(const text_line& line, size_t* length) {
    constexpr char blanks[] = " \t\r\v\f";
    *line.text_end = '\0';
    const char* word = line.start + std::strcspn(line.start, blanks);
    word += std::strspn(word, blanks);
    *length = std::strcspn(word, blanks);
    return word;
}

/// Copies the file without the keyword's lines, comparing their values. Returns the number of lines dropped.
size_t drop_lines(const edit_request& request, edit_pass& pass, list_comparison& comparison) {
    size_t dropped = 0;
    text_line line;
    for (char* start = pass.content; line_at(pass, start, &line); start = line.end) {
        if (!line_begins_with(line, request.keyword)) {
            continue;
        }
        drop_line(pass, line);
        size_t length = 0;
        const char* value = second_word(line, &length);
        comparison.take(dropped == 0 ? " " : ",", 1);
        comparison.take(value, length);
        dropped++;
    }
    copy_until(pass, pass.end);
    return dropped;
}

/// Writes one line per value of "keyword value,value". The text is split at its first blank, so if the keyword ends in
/// a blank, the second blank goes to the first value.
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
    if (read_source(pass) != 0) {
        return give_up(request);
    }
    edit_first_line(request, pass);
    return finish(request, pass, change);
}

int update_multiple_strings_in_file(const char* file, const char* keyword, int add, char* new_line, uint32_t* change) {
    const edit_request request{"Update StringIn Multiple", file, keyword, add, new_line, change};
    edit_pass pass;
    if (check_request(request) != 0 || open_files(request, pass) != 0) {
        return -1;
    }
    if (read_source(pass) != 0) {
        return give_up(request);
    }
    list_comparison comparison{add != 0 ? new_line : nullptr};
    comparison.take(keyword, std::strlen(keyword));
    const size_t dropped = drop_lines(request, pass, comparison);
    pass.changed = add != 0 ? !comparison.equal() : dropped > 0;
    if (add != 0) {
        write_values(request, pass, new_line);
    }
    return finish(request, pass, change);
}
