#include "config_files/default_contents.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <span>

#include "config_files/config_writer.h"
#include "config_files/files.h"
#include "config_files/parameter_table.h"
#include "config_files/trace_points.h"
#include "core/agent_state.h"
#include "core/paths.h"
#include "core/text.h"

namespace {

/// Creates the file empty if it is missing or left from an earlier run; after a failure the servers keep theirs.
int prepare_default_file(const char* path) {
    if (file_exists(path) == 1) {
        if (agent_handles.respawn_count >= respawn_after_failure) {
            return 0;
        }
        if (std::remove(path) != 0) {
            trace_error(config_files_trace_remove, {path, errno});
        }
    }
    return create_file_in_dir(paths::configuration_directory, path);
}

using line_writer = int (*)(uint32_t event, const char* keyword, const char* value, uint32_t allvrf);

/// A line that every start writes.
struct initial_line {
    uint32_t rank;
    const char* keyword;
    const char* const* current;
    line_text_maker line_text;
    line_writer write;
};

int write_client_line(uint32_t event, const char* keyword, const char* value, uint32_t) {
    update_client_config_file(event, keyword, value);
    return 0;
}

constexpr initial_line server_rows[] = {
#define SERVER_KEYWORD(index, keyword, default_text, state, first_line, line_text) \
    {first_line, keyword, &server_config.parameters[index].current, line_text, update_config_files_restart},
#define SERVER_LIST(index, keyword, default_text, first_line, write) \
    {first_line, keyword, &server_config.algorithms[index].current, PLAIN_VALUE, write},
#include "config_files/configuration.def"
};

constexpr initial_line client_rows[] = {
#define CLIENT_KEYWORD(index, keyword, default_text, state, first_line, line_text) \
    {first_line, keyword, &client_config.parameters[index].current, line_text, write_client_line},
#define CLIENT_LIST(index, keyword, default_text, first_line) \
    {first_line, keyword, &client_config.algorithms[index].current, PLAIN_VALUE, write_client_line},
#include "config_files/configuration.def"
};

template <size_t Size>
constexpr size_t lines_at_start(const initial_line (&rows)[Size]) {
    return std::ranges::count_if(rows, [](const initial_line& row) { return row.rank != NOT_AT_START; });
}

/// The initial lines in the order of their ranks. A rank greater than their number does not compile.
template <size_t Count, size_t Size>
constexpr std::array<initial_line, Count> by_rank(const initial_line (&rows)[Size]) {
    std::array<initial_line, Count> lines{};
    for (const initial_line& row : rows) {
        if (row.rank != NOT_AT_START) {
            lines[row.rank - 1] = row;
        }
    }
    return lines;
}

constexpr bool has_every_rank(std::span<const initial_line> lines) {
    return std::ranges::none_of(lines, [](const initial_line& line) { return line.rank == NOT_AT_START; });
}

constexpr auto server_lines = by_rank<lines_at_start(server_rows)>(server_rows);
constexpr auto client_lines = by_rank<lines_at_start(client_rows)>(client_rows);
static_assert(has_every_rank(server_lines), "two rows have the same place among the server's first lines");
static_assert(has_every_rank(client_lines), "two rows have the same place among the client's first lines");

void write_lines(std::span<const initial_line> lines) {
    constexpr uint32_t every_vrf = 1;
    for (const initial_line& line : lines) {
        char buffer[setting_text_size];
        line.write(event_set_value, line.keyword, text_of_line(line.line_text, *line.current, buffer), every_vrf);
    }
}

}  // namespace

int prepare_default_files() {
    return prepare_default_file(paths::server_file) == 0 && prepare_default_file(paths::client_file) == 0 ? 0 : -1;
}

void write_initial_lines() {
    write_lines(server_lines);
    // The client starts with the server's limit; its own entry takes effect from its first change.
    const line_entry& rekey_limit = server_config.parameters[SERVER_REKEY_LIMIT];
    update_client_config_file(event_set_value, rekey_limit.keyword, rekey_limit.current);
    write_lines(client_lines);
}
