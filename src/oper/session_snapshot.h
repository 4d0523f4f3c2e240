/// Parsing an SSH process's answer to a session query.
#ifndef OPER_SESSION_SNAPSHOT_H
#define OPER_SESSION_SNAPSHOT_H

#include <cstddef>
#include <cstdint>

#include "platform/session_query.h"

/// Session id of an empty snapshot.
inline constexpr uint32_t no_session = UINT32_MAX;

inline constexpr size_t channel_slots = SESSION_CHANNEL_SLOTS;

template <size_t size>
void end_text(char (&text)[size]) {
    text[size - 1] = '\0';
}

/// Terminates every text within its field, in case the peer did not.
inline void end_texts(session_snapshot* snapshot) {
    for (auto& line : snapshot->line) {
        end_text(line);
    }
    end_text(snapshot->user_id);
    end_text(snapshot->remote_host);
    end_text(snapshot->authentication_method);
    end_text(snapshot->kex_algorithm);
    end_text(snapshot->host_key_algorithm);
    end_text(snapshot->in_cipher);
    end_text(snapshot->out_cipher);
    end_text(snapshot->in_mac);
    end_text(snapshot->out_mac);
    end_text(snapshot->time_to_rekey);
}

/// Whether a channel slot (1 to 16) is in use.
inline bool channel_in_use(const session_snapshot& snapshot, size_t slot) {
    const uint32_t state = snapshot.channel_state[slot - 1];
    return state == 1 || state == 2;
}

#endif
