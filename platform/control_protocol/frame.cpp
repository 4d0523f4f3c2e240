#include "control_protocol/frame.h"

#include <algorithm>

std::array<char, CONTROL_FRAME_HEADER_SIZE> control_frame_header(uint32_t length) {
    return {static_cast<char>(length >> 24), static_cast<char>(length >> 16), static_cast<char>(length >> 8),
            static_cast<char>(length)};
}

uint32_t control_frame_length(const control_frame_reader& reader) {
    if (reader.header_size < CONTROL_FRAME_HEADER_SIZE) {
        return 0;
    }
    uint32_t length = 0;
    for (const char byte : reader.header) {
        length = length << 8 | static_cast<unsigned char>(byte);
    }
    return length;
}

size_t control_frame_missing(const control_frame_reader& reader) {
    if (reader.header_size < CONTROL_FRAME_HEADER_SIZE) {
        return CONTROL_FRAME_HEADER_SIZE - reader.header_size;
    }
    return control_frame_length(reader) - reader.document.size();
}

bool control_frame_begun(const control_frame_reader& reader) {
    return reader.header_size > 0;
}

control_frame_state control_frame_progress(const control_frame_reader& reader) {
    if (control_frame_length(reader) > CONTROL_FRAME_MAX) {
        return control_frame_state::too_large;
    }
    return control_frame_missing(reader) == 0 ? control_frame_state::complete : control_frame_state::incomplete;
}

size_t control_frame_take(control_frame_reader& reader, std::string_view bytes) {
    size_t taken = 0;
    if (reader.header_size < CONTROL_FRAME_HEADER_SIZE) {
        taken = std::min(bytes.size(), CONTROL_FRAME_HEADER_SIZE - reader.header_size);
        std::copy_n(bytes.begin(), taken, reader.header.begin() + static_cast<ptrdiff_t>(reader.header_size));
        reader.header_size += taken;
    }
    if (reader.header_size == CONTROL_FRAME_HEADER_SIZE &&
        control_frame_progress(reader) == control_frame_state::incomplete) {
        const std::string_view rest = bytes.substr(taken, control_frame_missing(reader));
        reader.document.append(rest);
        taken += rest.size();
    }
    return taken;
}
