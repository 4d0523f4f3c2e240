#include "openssh/sessions/snapshot.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace openssh {

namespace {

constexpr uint32_t protocol_2 = 2;

template <size_t size>
void copy_field(char (&to)[size], const char (&from)[size]) {
    set_field(to, std::string_view(from, strnlen(from, size)));
}

/// If no volume is set, stock ssh limits the number of cipher blocks.
uint64_t volume_limit(const session_facts& facts) {
    constexpr uint64_t wide_block = 16;
    constexpr uint64_t narrow_block = 8;
    if (facts.rekey.bytes != 0) {
        return facts.rekey.bytes;
    }
    const std::string_view cipher = facts.algorithms.out_cipher;
    const uint64_t block = cipher.starts_with("chacha20") || cipher.starts_with("3des") ? narrow_block : wide_block;
    return std::min<uint64_t>(facts.rekey.blocks_limit, UINT64_MAX / wide_block) * block;
}

uint64_t spent(const session_facts& facts, const byte_counters& bytes) {
    const byte_counters& start = facts.rekey.at_keying;
    return std::max(bytes.sent - std::min(bytes.sent, start.sent),
                    bytes.received - std::min(bytes.received, start.received));
}

/// A value too large for the field is shown as the largest that the field can hold.
uint32_t data_to_rekey(const session_facts& facts, const byte_counters& bytes) {
    constexpr uint64_t most_data = SESSION_DATA_UNKNOWN - 1;
    if (bytes.known == 0 || facts.rekey.at_keying.known == 0) {
        return SESSION_DATA_UNKNOWN;
    }
    const uint64_t limit = volume_limit(facts);
    const uint64_t left = limit - std::min(limit, spent(facts, bytes));
    return static_cast<uint32_t>(std::min(left, most_data));
}

/// Rekeying happens with the first packet after the time has expired, so an idle session may be overdue.
void set_time_to_rekey(session_snapshot& answer, const session_facts& facts, uint64_t now) {
    if (facts.rekey.seconds == 0 || facts.rekey.keyed_at == 0) {
        return;
    }
    const uint64_t end = facts.rekey.keyed_at + facts.rekey.seconds;
    snprintf(answer.time_to_rekey, sizeof(answer.time_to_rekey), "%llu",
             static_cast<unsigned long long>(end - std::min(end, now)));
}

void set_channels(session_snapshot& answer, const session_facts& facts) {
    for (size_t i = 0; i < most_channels; ++i) {
        const channel_facts& channel = facts.channels[i];
        const size_t slot = i + 1;
        answer.channel_state[i] = channel.state;
        if (channel.state == channel_unused) {
            continue;
        }
        ++answer.open_channels;
        answer.channel_id[slot] = channel.id;
        answer.connection_type[slot] = channel.type;
        if (channel.terminal == no_terminal) {
            set_field(answer.line[slot], "XXXXX");
        } else {
            snprintf(answer.line[slot], sizeof(answer.line[slot]), "vty %u", channel.terminal);
        }
    }
}

}  // namespace

session_snapshot make_snapshot(const session_facts& facts, uint64_t now, const byte_counters& bytes) {
    session_snapshot answer = {};
    answer.session_id = facts.session_id;
    answer.session_state = facts.state;
    answer.rekey_count = facts.rekey.count;
    answer.protocol_version = protocol_2;
    answer.session_pid = static_cast<uint32_t>(facts.session_pid);
    copy_field(answer.user_id, facts.user);
    copy_field(answer.remote_host, facts.host);
    copy_field(answer.authentication_method, facts.method);
    copy_field(answer.kex_algorithm, facts.algorithms.kex);
    copy_field(answer.host_key_algorithm, facts.algorithms.host_key);
    copy_field(answer.in_cipher, facts.algorithms.in_cipher);
    copy_field(answer.out_cipher, facts.algorithms.out_cipher);
    copy_field(answer.in_mac, facts.algorithms.in_mac);
    copy_field(answer.out_mac, facts.algorithms.out_mac);
    answer.data_to_rekey = data_to_rekey(facts, bytes);
    set_time_to_rekey(answer, facts, now);
    set_channels(answer, facts);
    return answer;
}

}  // namespace openssh
