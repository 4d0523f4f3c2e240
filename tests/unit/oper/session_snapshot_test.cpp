#include "oper/session_snapshot.h"

#include <cstring>

#include "oper/session_records.h"
#include "oper/show_sessions.h"
#include "session_test.h"

namespace {

constexpr uint32_t longest_answer = 2400;
constexpr uint32_t snapshot_bits = sizeof(session_snapshot) * 8;

/// A handler and the sessions that it shows.
struct swept_item {
    const char* name;
    const char* path;
    bool servers;
    bool clients;
};

const swept_item swept_items[] = {
    {"records_brief", "/oper/crypto-ssh/gl/session_xml/brief", true, true},
    {"records_detail", "/oper/crypto-ssh/gl/session_xml/detail", true, true},
    {"records_rekey", "/oper/crypto-ssh/gl/session_xml/rekey", true, true},
    {"server_brief", "/oper/crypto-ssh/gl/sshddata/brief", true, false},
    {"server_detail", "/oper/crypto-ssh/gl/sshddata/detail", true, false},
    {"server_rekey", "/oper/crypto-ssh/gl/sshddata/rekey", true, false},
    {"client_brief", "/oper/crypto-ssh/client/brief", false, true},
    {"client_detail", "/oper/crypto-ssh/client/detail", false, true},
    {"client_rekey", "/oper/crypto-ssh/client/rekey", false, true},
};

/// The length of the linked list that begins at `first`.
template <typename entry_type>
size_t length_of(const entry_type* first) {
    size_t length = 0;
    for (; first != nullptr; first = first->NextSession) {
        length++;
    }
    return length;
}

size_t sessions_in(const fake_platform::answer& answer) {
    if (answer.is_list) {
        return answer.records.size();
    }
    if (answer.records.empty()) {
        return 0;
    }
    const fake_platform::encoded_record& record = answer.records[0];
    if (record.descriptor == ssh_session_brief_descriptor()) {
        const decoded_record<ssh_session_brief> brief(record.descriptor, record.bytes);
        return length_of(brief->IncomingSessions) + length_of(brief->OutgoingSessions);
    }
    if (record.descriptor == ssh_session_detail_descriptor()) {
        const decoded_record<ssh_session_detail> detail(record.descriptor, record.bytes);
        return length_of(detail->IncomingSessions) + length_of(detail->OutgoingConnections);
    }
    const decoded_record<ssh_session_rekey> rekey(record.descriptor, record.bytes);
    return length_of(rekey->IncomingSessions) + length_of(rekey->OutgoingConnections);
}

class session_snapshot_test : public session_test, public testing::WithParamInterface<swept_item> {
  protected:
    session_snapshot_test() { fake_platform::set_recording(false); }

    /// Reads once with one server and one client, each queried `times` times; `maker` makes the answer to each query.
    /// `servers` and `clients` are the numbers of answers that are expected to be shown as sessions.
    fake_platform::answer read_answers(uint32_t times, const session_peers::answer_maker& maker, size_t servers,
                                       size_t clients) {
        const auto repeated = [times, &maker](uint32_t query, std::string_view request) {
            return maker(query % times, request);
        };
        peers.answer(31, repeated);
        peers.answer(41, repeated);
        peers.start();
        list_processes(session_peers::listing_of_servers(std::vector<int>(times, 31)) +
                       session_peers::listing_of_clients(std::vector<int>(times, 41)));
        const size_t expected = (GetParam().servers ? servers : 0) + (GetParam().clients ? clients : 0);
        fake_platform::answer answer = fake_platform::read(GetParam().path);
        // On a busy machine one of so many answers may be too late.
        for (int retry = 0; retry < 3 && sessions_in(answer) != expected; retry++) {
            answer = fake_platform::read(GetParam().path);
        }
        EXPECT_EQ(answer.status, PLATFORM_OK);
        EXPECT_EQ(sessions_in(answer), expected);
        return answer;
    }
};

INSTANTIATE_TEST_SUITE_P(handlers, session_snapshot_test, testing::ValuesIn(swept_items),
                         [](const auto& item) { return std::string(item.param.name); });

}  // namespace

TEST_P(session_snapshot_test, answers_of_every_length_are_accepted_or_refused) {
    const std::string bytes = bytes_of(usual_snapshot(5)) + std::string(longest_answer - sizeof(session_snapshot), 'x');
    // A server's answer must have the exact length; a client's must not be empty.
    read_answers(
        longest_answer + 1, [&bytes](uint32_t query, std::string_view) { return bytes.substr(0, query); }, 1,
        longest_answer);
}

TEST_P(session_snapshot_test, every_bit_may_be_flipped) {
    const std::string bytes = bytes_of(usual_snapshot(5));
    read_answers(
        snapshot_bits,
        [&bytes](uint32_t query, std::string_view) {
            std::string changed = bytes;
            changed[query / 8] = static_cast<char>(changed[query / 8] ^ 1 << query % 8);
            return changed;
        },
        snapshot_bits, snapshot_bits);
}

TEST_P(session_snapshot_test, no_text_extends_beyond_its_field) {
    // In each answer one byte is the only terminator.
    constexpr uint32_t places = sizeof(session_snapshot);
    const fake_platform::answer answer = read_answers(
        places,
        [](uint32_t query, std::string_view) {
            std::string changed(sizeof(session_snapshot), 'x');
            changed[query] = '\0';
            return changed;
        },
        places, places);
    for (const auto& record : answer.records) {
        if (record.descriptor == sshd_sessioninfo_descriptor()) {
            const decoded_record<sshd_sessioninfo> session(record.descriptor, record.bytes);
            EXPECT_LE(session->UserID != nullptr ? strlen(session->UserID) : 0, 63U);
            EXPECT_LE(session->Host != nullptr ? strlen(session->Host) : 0, 255U);
            EXPECT_LE(session->AuthenMethod != nullptr ? strlen(session->AuthenMethod) : 0, 31U);
        }
    }
}
