/// Frames of the control socket: four bytes with the length of what follows, big-endian, then one JSON document.
///
/// A client sends a request, an object with the member "call" and the call's own members, and receives one answer
/// (control_protocol/answer.h) before it may send the next.
#ifndef CONTROL_PROTOCOL_FRAME_H
#define CONTROL_PROTOCOL_FRAME_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

inline constexpr char control_socket_path[] = "/run/ssh_cfg_agent/control.sock";

enum : uint32_t {
    CONTROL_FRAME_HEADER_SIZE = 4,
    CONTROL_FRAME_MAX = 16U * 1024 * 1024  ///< bytes of a document; an access list of 10,000 entries takes a quarter
};

/// The header of a document of `length` bytes.
std::array<char, CONTROL_FRAME_HEADER_SIZE> control_frame_header(uint32_t length);

enum class control_frame_state : uint8_t { incomplete, complete, too_large };

/// A frame that arrives in pieces of any size.
struct control_frame_reader {
    std::array<char, CONTROL_FRAME_HEADER_SIZE> header{};
    size_t header_size = 0;
    std::string document;
};

/// The length that the header announces; 0 until the header is complete.
uint32_t control_frame_length(const control_frame_reader& reader);

/// The number of bytes still missing: of the header until it is complete, then of the document.
size_t control_frame_missing(const control_frame_reader& reader);

/// Whether the first byte of a frame has arrived.
bool control_frame_begun(const control_frame_reader& reader);

/// Consumes the bytes that belong to this frame, at most as many as are still missing, and returns their number. Memory
/// grows with the bytes received, not with the announced length. Of a frame that announces more than CONTROL_FRAME_MAX
/// bytes, only the header is consumed.
size_t control_frame_take(control_frame_reader& reader, std::string_view bytes);

control_frame_state control_frame_progress(const control_frame_reader& reader);

#endif
