#include "platform/trace.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <vector>

#include "linux/reporting/log_message_internal.h"
#include "linux/reporting/trace_internal.h"

/// Packed records, one after the other, in a ring of bytes: length (2 bytes), time (8), code of the trace point (4),
/// number of arguments (1), then each argument as its kind (1) and either the number (8) or length (1) and text.
struct trace_buffer {
    std::string name;
    std::span<const trace_point> points;
    uint32_t entries_max;
    std::vector<uint8_t> ring;
    size_t head;  ///< start of the oldest record
    size_t used;
    uint32_t entries;
    uint64_t written;
};

namespace {

constexpr size_t header_size = 15;
constexpr size_t number_size = 9;
constexpr size_t text_header_size = 2;
constexpr size_t text_max = 255;
constexpr size_t smallest_ring = header_size + TRACE_ARGUMENTS_MAX * number_size;

enum argument_kind : uint8_t { argument_number, argument_text };

std::vector<std::unique_ptr<trace_buffer>>& buffers() {
    static std::vector<std::unique_ptr<trace_buffer>> all;
    return all;
}

/// Copies a record into contiguous memory.
struct record_writer {
    uint8_t bytes[header_size + TRACE_ARGUMENTS_MAX * (text_header_size + text_max)];
    size_t size;

    void put(const void* value, size_t length) {
        memcpy(bytes + size, value, length);
        size += length;
    }
};

struct record_reader {
    const trace_buffer& buffer;
    size_t position;  ///< bytes after the head

    void get(void* value, size_t length) {
        const size_t start = (buffer.head + position) % buffer.ring.size();
        const size_t first = std::min(length, buffer.ring.size() - start);
        memcpy(value, buffer.ring.data() + start, first);
        memcpy(static_cast<uint8_t*>(value) + first, buffer.ring.data(), length - first);
        position += length;
    }
};

/// The most bytes that all texts of one record may take, so that any record fits the ring.
size_t room_for_texts(const trace_buffer& buffer, const trace_argument* arguments, uint32_t count) {
    size_t fixed = header_size;
    for (uint32_t i = 0; i < count; ++i) {
        fixed += arguments[i].text == nullptr ? number_size : text_header_size;
    }
    return buffer.ring.size() - fixed;
}

void put_text(record_writer& record, const char* text, size_t& room) {
    const auto length = static_cast<uint8_t>(std::min(strnlen(text, text_max), room));
    room -= length;
    const argument_kind kind = argument_text;
    record.put(&kind, sizeof kind);
    record.put(&length, sizeof length);
    record.put(text, length);
}

void put_number(record_writer& record, int64_t number) {
    const argument_kind kind = argument_number;
    record.put(&kind, sizeof kind);
    record.put(&number, sizeof number);
}

void make_record(record_writer& record, const trace_buffer& buffer, uint32_t code, const trace_argument* arguments,
                 uint32_t count) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto microseconds = static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
    const auto argument_count = static_cast<uint8_t>(count);
    record.size = sizeof(uint16_t);
    record.put(&microseconds, sizeof microseconds);
    record.put(&code, sizeof code);
    record.put(&argument_count, sizeof argument_count);
    size_t room = room_for_texts(buffer, arguments, count);
    for (uint32_t i = 0; i < count; ++i) {
        if (arguments[i].text != nullptr) {
            put_text(record, arguments[i].text, room);
        } else {
            put_number(record, arguments[i].number);
        }
    }
    const auto size = static_cast<uint16_t>(record.size);
    memcpy(record.bytes, &size, sizeof size);
}

void drop_oldest(trace_buffer& buffer) {
    uint16_t size = 0;
    record_reader{buffer, 0}.get(&size, sizeof size);
    buffer.head = (buffer.head + size) % buffer.ring.size();
    buffer.used -= size;
    --buffer.entries;
}

void append(trace_buffer& buffer, const record_writer& record) {
    while (buffer.entries == buffer.entries_max || buffer.used + record.size > buffer.ring.size()) {
        drop_oldest(buffer);
    }
    const size_t start = (buffer.head + buffer.used) % buffer.ring.size();
    const size_t first = std::min(record.size, buffer.ring.size() - start);
    memcpy(buffer.ring.data() + start, record.bytes, first);
    memcpy(buffer.ring.data(), record.bytes + first, record.size - first);
    buffer.used += record.size;
    ++buffer.entries;
    ++buffer.written;
}

traced_argument read_argument(record_reader& reader) {
    traced_argument value = {};
    argument_kind kind = argument_number;
    reader.get(&kind, sizeof kind);
    value.is_text = kind == argument_text;
    if (value.is_text) {
        uint8_t length = 0;
        reader.get(&length, sizeof length);
        value.text.resize(length);
        reader.get(value.text.data(), length);
    } else {
        reader.get(&value.number, sizeof value.number);
    }
    return value;
}

const trace_point* find_point(const trace_buffer& buffer, uint32_t code) {
    const auto found =
        std::find_if(buffer.points.begin(), buffer.points.end(), [=](const trace_point& p) { return p.code == code; });
    return found != buffer.points.end() ? &*found : nullptr;
}

trace_record read_record(record_reader& reader) {
    trace_record record = {};
    uint16_t size = 0;
    uint8_t count = 0;
    reader.get(&size, sizeof size);
    reader.get(&record.microseconds, sizeof record.microseconds);
    reader.get(&record.code, sizeof record.code);
    reader.get(&count, sizeof count);
    record.point = find_point(reader.buffer, record.code);
    for (uint8_t i = 0; i < count; ++i) {
        record.arguments.push_back(read_argument(reader));
    }
    return record;
}

trace_buffer* find_buffer(const std::string& name) {
    for (const auto& buffer : buffers()) {
        if (buffer->name == name) {
            return buffer.get();
        }
    }
    return nullptr;
}

trace_buffer* find_buffer_by_last_component(const std::string& name) {
    for (const auto& buffer : buffers()) {
        if (buffer->name.substr(buffer->name.rfind('/') + 1) == name) {
            return buffer.get();
        }
    }
    return nullptr;
}

}  // namespace

platform_status trace_buffer_create(const char* name, uint32_t entries, uint32_t bytes, struct trace_buffer** buffer) {
    if (name == nullptr || name[0] == '\0' || entries == 0 || bytes < smallest_ring || buffer == nullptr) {
        return EINVAL;
    }
    try {
        if (find_buffer(name) != nullptr) {
            return EEXIST;
        }
        buffers().push_back(std::unique_ptr<trace_buffer>(
            new trace_buffer{name, {}, entries, std::vector<uint8_t>(bytes), 0, 0, 0, 0}));
        *buffer = buffers().back().get();
        return PLATFORM_OK;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
}

void trace_buffer_describe(struct trace_buffer* buffer, const struct trace_point* points, uint32_t count) {
    if (buffer != nullptr) {
        buffer->points = {points, count};
    }
}

void trace_write(struct trace_buffer* buffer, uint32_t code, const struct trace_argument* arguments, uint32_t count) {
    const errno_keeper keeper;
    if (buffer == nullptr) {
        return;
    }
    count = arguments == nullptr ? 0 : std::min<uint32_t>(count, TRACE_ARGUMENTS_MAX);
    record_writer record;
    make_record(record, *buffer, code, arguments, count);
    append(*buffer, record);
}

platform_status trace_buffer_read(const std::string& name, trace_buffer_contents& contents) {
    const trace_buffer* buffer = find_buffer(name);
    if (buffer == nullptr) {
        buffer = find_buffer_by_last_component(name);
    }
    if (buffer == nullptr) {
        return ENOENT;
    }
    contents.written = buffer->written;
    contents.records.clear();
    record_reader reader = {*buffer, 0};
    while (reader.position < buffer->used) {
        contents.records.push_back(read_record(reader));
    }
    return PLATFORM_OK;
}
