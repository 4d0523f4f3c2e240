#include "openssh/sessions/snapshot.h"

#include <gtest/gtest.h>

#include <cstring>

#include "session_test.h"

using namespace openssh;
using openssh_test::text_of_field;

namespace {

constexpr byte_counters nothing_sent = {.sent = 0, .received = 0, .known = 1};

session_facts with_limits(uint64_t bytes, uint32_t seconds) {
    session_facts facts;
    facts.rekey.bytes = bytes;
    facts.rekey.seconds = seconds;
    facts.rekey.keyed_at = 100;
    facts.rekey.at_keying = {.sent = 1000, .received = 2000, .known = 1};
    return facts;
}

}  // namespace

TEST(session_snapshot, of_an_unknown_session_contains_only_the_version) {
    session_snapshot expected;
    std::memset(&expected, 0, sizeof(expected));
    expected.protocol_version = 2;
    expected.data_to_rekey = SESSION_DATA_UNKNOWN;
    const session_snapshot answer = make_snapshot({}, 0, {});
    EXPECT_EQ(std::memcmp(&answer, &expected, sizeof(answer)), 0);
}

TEST(session_snapshot, starts_channels_at_slot_1) {
    session_facts facts;
    facts.channels[0] = {.state = channel_opened, .id = 4};
    facts.channels[15] = {.state = channel_running, .id = 9, .type = connection_shell, .login = 0, .terminal = 12};
    const session_snapshot answer = make_snapshot(facts, 0, {});
    EXPECT_EQ(answer.open_channels, 2U);
    EXPECT_EQ(answer.channel_id[1], 4U);
    EXPECT_EQ(answer.channel_state[0], 1U);
    EXPECT_EQ(text_of_field(answer.line[1]), "XXXXX");
    EXPECT_EQ(answer.channel_id[16], 9U);
    EXPECT_EQ(answer.channel_state[15], 2U);
    EXPECT_EQ(text_of_field(answer.line[16]), "vty 12");
    EXPECT_EQ(text_of_field(answer.line[0]) + text_of_field(answer.line[2]), "");
}

TEST(session_snapshot, counts_the_time_down) {
    const session_facts facts = with_limits(0, 60);
    EXPECT_EQ(text_of_field(make_snapshot(facts, 100, {}).time_to_rekey), "60");
    EXPECT_EQ(text_of_field(make_snapshot(facts, 159, {}).time_to_rekey), "1");
    EXPECT_EQ(text_of_field(make_snapshot(facts, 161, {}).time_to_rekey), "0");
    EXPECT_EQ(text_of_field(make_snapshot(with_limits(5, 0), 161, {}).time_to_rekey), "");
}

TEST(session_snapshot, counts_down_the_volume_of_the_busier_direction) {
    const session_facts facts = with_limits(10000, 0);
    EXPECT_EQ(make_snapshot(facts, 0, {.sent = 1500, .received = 2100, .known = 1}).data_to_rekey, 9500U);
    EXPECT_EQ(make_snapshot(facts, 0, {.sent = 1100, .received = 2900, .known = 1}).data_to_rekey, 9100U);
    EXPECT_EQ(make_snapshot(facts, 0, {.sent = 90000, .received = 2000, .known = 1}).data_to_rekey, 0U);
    EXPECT_EQ(make_snapshot(facts, 0, nothing_sent).data_to_rekey, 10000U);
}

TEST(session_snapshot, a_volume_that_is_not_counted_is_unknown) {
    session_facts facts = with_limits(10000, 60);
    EXPECT_EQ(make_snapshot(facts, 0, {}).data_to_rekey, SESSION_DATA_UNKNOWN);
    facts.rekey.at_keying = {};
    EXPECT_EQ(make_snapshot(facts, 0, nothing_sent).data_to_rekey, SESSION_DATA_UNKNOWN);
}

TEST(session_snapshot, a_volume_beyond_the_field_is_known) {
    EXPECT_EQ(make_snapshot(with_limits(8ULL << 30, 0), 0, nothing_sent).data_to_rekey, UINT32_MAX - 1);
}

TEST(session_snapshot, uses_the_ciphers_limit_if_no_volume_is_set) {
    session_facts facts = with_limits(0, 0);
    facts.rekey.blocks_limit = 1000;
    set_field(facts.algorithms.out_cipher, "aes128-ctr");
    EXPECT_EQ(make_snapshot(facts, 0, nothing_sent).data_to_rekey, 16000U);
    set_field(facts.algorithms.out_cipher, "chacha20-poly1305@openssh.com");
    EXPECT_EQ(make_snapshot(facts, 0, nothing_sent).data_to_rekey, 8000U);
    facts.rekey.blocks_limit = UINT64_MAX;
    EXPECT_EQ(make_snapshot(facts, 0, nothing_sent).data_to_rekey, UINT32_MAX - 1);
}

TEST(session_snapshot, terminates_every_text) {
    session_facts facts;
    std::memset(facts.user, 'x', sizeof(facts.user));
    std::memset(facts.algorithms.kex, 'x', sizeof(facts.algorithms.kex));
    const session_snapshot answer = make_snapshot(facts, 0, {});
    EXPECT_EQ(text_of_field(answer.user_id).size(), sizeof(answer.user_id) - 1);
    EXPECT_EQ(text_of_field(answer.kex_algorithm).size(), sizeof(answer.kex_algorithm) - 1);
}
