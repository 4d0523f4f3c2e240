/// State shared by the control socket's server and its connections.
#ifndef LINUX_CONTROL_SERVER_STATE_H
#define LINUX_CONTROL_SERVER_STATE_H

#include <sys/types.h>
#include <systemd/sd-event.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>

#include "control_protocol/json_text.h"
#include "linux/control/peer.h"

/// Times are in microseconds, sizes in bytes. Only root may use more than half of the totals.
struct control_limits {
    uint64_t idle_time = 60'000'000;  ///< from connecting, or from the last answer, to the first byte of the next frame
    uint64_t frame_time = 5'000'000;  ///< from a frame's first byte to its last
    uint64_t answer_time = 5'000'000;    ///< without the peer reading a byte of the answer
    uint64_t progress_time = 1'000'000;  ///< until a peer is first told how far it is
    uint64_t watch_time = 60'000'000;    ///< without the peer reading a byte of an event
    size_t connections = 64;
    size_t watchers = 16;                      ///< of the connections
    size_t small_frame = 64UL * 1024;          ///< frames up to this size do not count as large
    size_t large_frames = 32UL * 1024 * 1024;  ///< total of all larger frames being received
    size_t answers = 32UL * 1024 * 1024;       ///< total of all answers being sent
    size_t watch_queue = 256UL * 1024;         ///< events queued for one watcher; beyond that they are coalesced
    size_t watch_frame = 64UL * 1024;          ///< events sent together
};

/// What the server leaves to others.
struct control_services {
    /// Answers one request, which is an object with a string "call". Called on the loop, one at a time, apart from those
    /// that may be answered meanwhile.
    control_json (*call)(const control_json& request, const control_peer& peer) = nullptr;
    /// Whether a request may be answered while the agent is busy: it runs no handler of the agent and changes nothing.
    /// Null for none.
    bool (*may_be_answered_meanwhile)(const control_json& request) = nullptr;
    /// How far the agent is, for those who wait; null if that is not known. May be null.
    control_json (*progress)() = nullptr;
};

struct control_connection;

struct control_server {
    int listener;
    control_groups groups;
    control_limits limits;
    control_services services;
    sd_event* loop;
    sd_event_source* listener_source;
    sd_event_source* resume_source;  ///< resumes accepting after the process ran out of descriptors
    std::list<std::unique_ptr<control_connection>> connections;
    size_t large_frames;      ///< bytes reserved for large frames
    size_t answers;           ///< bytes of answers in memory
    uint64_t refusal_logged;  ///< when a refused peer was last logged
    bool is_busy;             ///< serves others while the agent is at work
    uint64_t next_turn;       ///< when it may do so again
};

#endif
