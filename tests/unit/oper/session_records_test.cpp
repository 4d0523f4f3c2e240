#include "oper/session_records.h"

#include <cerrno>
#include <cstring>

#include "call_faults.h"
#include "session_test.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::MatchesRegex;

constexpr char tree[] = "/oper/crypto-ssh/gl/session_xml/";

/// An item of the tree with its debug lines and log texts.
struct record_item {
    const char* name;
    const char* incoming_count;
    const char* outgoing_count;
    const char* incoming_location;
    const char* outgoing_location;
    size_t entry_allocations;  ///< allocations for one entry of the usual snapshot, including the entry
    const char* encode_failed;
    size_t entry_size;  ///< size of an entry, which ends with its link
};

const record_item items[] = {
    {"brief", "get_ssh_session_brief:[0-9]+ Incoming tuple count: 1",
     "get_ssh_session_brief:[0-9]+ outgoing tuple count: 2", "SESN BRF (IN)", "SESN BRF (OUT)", 4,
     "Failed to encode ssh_session_brief_bag", sizeof(session_brief_info)},
    {"detail", "get_ssh_session_detail:[0-9]+ Incoming sessions count: 1",
     "get_ssh_session_detail:[0-9]+ Outgoing sessions count: 2", "SESN DET (IN)", "SESN DET (OUT)", 1,
     "Failed to encode ssh_session_detail_bag", sizeof(session_detail_info)},
    {"rekey", "get_ssh_session_rekey:[0-9]+ Incoming sessions count: 1",
     "get_ssh_session_rekey:[0-9]+ Outgoing sessions count: 2", "SESN REKEY (IN)", "SESN REKEY (OUT)", 3,
     "Failed to encode ssh_session_detail_bag", sizeof(session_rekey_info)},
};

class session_records_test : public session_test {
  protected:
    /// Server 31 answers with `incoming`, client 41 with `outgoing`.
    void serve(const session_snapshot& incoming, const session_snapshot& outgoing) {
        peers.answer(31, incoming);
        peers.answer(41, outgoing);
        peers.start();
        list_processes(session_peers::listing_of_servers({31}) + session_peers::listing_of_clients({41}));
    }

    /// Only a silent server and a silent client.
    void serve_nothing() {
        peers.keep_silent(31);
        peers.keep_silent(41);
        list_processes(session_peers::listing_of_servers({31}) + session_peers::listing_of_clients({41}));
    }

    static auto brief() {
        return read_record<ssh_session_brief>("/oper/crypto-ssh/gl/session_xml/brief", ssh_session_brief_descriptor());
    }
    static auto detail() {
        return read_record<ssh_session_detail>("/oper/crypto-ssh/gl/session_xml/detail",
                                               ssh_session_detail_descriptor());
    }
    static auto rekey() {
        return read_record<ssh_session_rekey>("/oper/crypto-ssh/gl/session_xml/rekey", ssh_session_rekey_descriptor());
    }

    static void expect_brief_without_channels(const session_brief_info& entry, uint32_t id) {
        EXPECT_EQ(entry.SessionID, id);
        EXPECT_EQ(entry.NodeName, 1U) << "always the agent's own node";
        EXPECT_EQ(entry.SessionState, 4);
        EXPECT_STREQ(entry.UserID, "ann");
        EXPECT_STREQ(entry.HostAddress, "2001:db8::7");
        EXPECT_EQ(entry.Version, 1);
        EXPECT_EQ(entry.AuthenticationType, 1);
    }

    static void expect_channel(const ssh_mcinfo& channel, uint32_t slot, uint32_t line, uint32_t assigned) {
        EXPECT_EQ(channel.ChannelID, 100 + slot);
        EXPECT_EQ(channel.ConnectionType, static_cast<int32_t>(200 + slot));
        EXPECT_EQ(channel.VTYLineNumber, line);
        EXPECT_EQ(channel.VTYAssigned, assigned);
    }
};

class session_records_each_test : public session_records_test, public testing::WithParamInterface<record_item> {
  protected:
    static fake_platform::answer read() { return fake_platform::read(std::string(tree) + GetParam().name); }

    static std::string out_of_memory_at(const std::string& location) {
        return "ERR_MALLOC: Error:=Cannot allocate memory(0xc), Location:=" + location + ", Failed to allocate memory";
    }
};

INSTANTIATE_TEST_SUITE_P(items, session_records_each_test, testing::ValuesIn(items),
                         [](const auto& item) { return std::string(item.param.name); });

}  // namespace

TEST_F(session_records_test, brief_shows_both_directions) {
    serve(usual_snapshot(5), usual_snapshot(6));
    const auto record = brief();
    ASSERT_TRUE(record);
    const session_brief_info& incoming = *(*record)->IncomingSessions;
    expect_brief_without_channels(incoming, 5);
    ASSERT_EQ(incoming.McInfo.count, 2U);
    expect_channel(incoming.McInfo.elements[0], 1, 3, 1);
    expect_channel(incoming.McInfo.elements[1], 4, 0, 0);
    EXPECT_EQ(incoming.NextSession, nullptr);
    const session_brief_info& outgoing = *(*record)->OutgoingSessions;
    expect_brief_without_channels(outgoing, 6);
    ASSERT_EQ(outgoing.McInfo.count, 1U) << "for a client only one channel is shown";
    expect_channel(outgoing.McInfo.elements[0], 1, 3, 1);
    EXPECT_EQ(outgoing.NextSession, nullptr);
}

TEST_F(session_records_test, brief_numbers_the_lines) {
    const std::pair<const char*, uint32_t> lines[] = {{"vty 0", 0}, {"vty 4294", 4294}, {"vty", 0},   {"console", 0},
                                                      {"", 0},      {"vty x", 0},       {"XXXXX7", 0}};
    session_snapshot snapshot = usual_snapshot(5);
    snapshot.open_channels = std::size(lines);
    for (size_t i = 0; i < std::size(lines); i++) {
        strcpy(snapshot.line[i + 1], lines[i].first);
        snapshot.channel_state[i] = 1;
    }
    serve(snapshot, snapshot);
    const auto record = brief();
    ASSERT_TRUE(record);
    const ssh_mcinfo_array& channels = (*record)->IncomingSessions->McInfo;
    ASSERT_EQ(channels.count, std::size(lines));
    for (uint32_t i = 0; i < channels.count; i++) {
        EXPECT_EQ(channels.elements[i].VTYLineNumber, lines[i].second) << lines[i].first;
        EXPECT_EQ(channels.elements[i].VTYAssigned, i == 6 ? 0U : 1U) << lines[i].first;
    }
}

TEST_F(session_records_test, brief_shows_no_more_channels_than_are_open) {
    session_snapshot snapshot = usual_snapshot(5);
    snapshot.open_channels = 1;
    serve(snapshot, snapshot);
    const auto record = brief();
    ASSERT_TRUE(record);
    ASSERT_EQ((*record)->IncomingSessions->McInfo.count, 1U);
    expect_channel((*record)->IncomingSessions->McInfo.elements[0], 1, 3, 1);
}

TEST_F(session_records_test, brief_shows_no_channels_of_a_session_without_channels) {
    session_snapshot snapshot = usual_snapshot(5);
    snapshot.open_channels = 0;
    serve(snapshot, snapshot);
    const auto record = brief();
    ASSERT_TRUE(record);
    EXPECT_EQ((*record)->IncomingSessions->McInfo.count, 0U);
    EXPECT_EQ((*record)->OutgoingSessions->McInfo.count, 0U);
}

TEST_F(session_records_test, brief_rejects_four_billion_channels) {
    session_snapshot snapshot = usual_snapshot(5);
    snapshot.open_channels = UINT32_MAX;
    for (auto& state : snapshot.channel_state) {
        state = 2;
    }
    serve(snapshot, snapshot);
    const auto record = brief();
    ASSERT_TRUE(record);
    const ssh_mcinfo_array& channels = (*record)->IncomingSessions->McInfo;
    ASSERT_EQ(channels.count, 16U);
    expect_channel(channels.elements[15], 16, 0, 0);
    EXPECT_EQ((*record)->OutgoingSessions->McInfo.count, 1U);
}

TEST_F(session_records_test, brief_leaves_unknown_values_empty) {
    session_snapshot snapshot = {};
    snapshot.session_id = 5;
    strcpy(snapshot.authentication_method, "hostbased");
    serve(snapshot, snapshot);
    const auto record = brief();
    ASSERT_TRUE(record);
    const session_brief_info& entry = *(*record)->IncomingSessions;
    EXPECT_EQ(entry.UserID, nullptr);
    EXPECT_EQ(entry.HostAddress, nullptr);
    EXPECT_EQ(entry.Version, 0);
    EXPECT_EQ(entry.AuthenticationType, -1);
}

TEST_F(session_records_test, brief_shows_silent_processes_as_entries_of_minus_one) {
    serve_nothing();
    const auto record = brief();
    ASSERT_TRUE(record);
    for (const session_brief_info* entry : {(*record)->IncomingSessions, (*record)->OutgoingSessions}) {
        EXPECT_EQ(entry->SessionID, UINT32_MAX);
        EXPECT_EQ(entry->NodeName, UINT32_MAX);
        EXPECT_EQ(entry->SessionState, -1);
        EXPECT_EQ(entry->Version, -1);
        EXPECT_EQ(entry->AuthenticationType, -1);
        EXPECT_EQ(entry->UserID, nullptr);
        EXPECT_EQ(entry->HostAddress, nullptr);
        EXPECT_EQ(entry->McInfo.count, 0U);
        EXPECT_EQ(entry->NextSession, nullptr);
    }
}

TEST_F(session_records_test, brief_prints_each_channel_in_debug) {
    show_debug_lines();
    serve(usual_snapshot(5), usual_snapshot(6));
    brief();
    for (const char* line : {"vty 3", "XXXXX"}) {
        EXPECT_THAT(fake_platform::debug_texts(), Contains(std::string("get_ssh_session_brief, Line:=") + line +
                                                           ",Userid:=ann,Host:=2001:db8::7,Authen Method:=rsa-pubkey"));
    }
    EXPECT_THAT(fake_platform::debug_texts(), Contains("incoming authen method = 1").Times(2));
}

TEST_F(session_records_test, brief_requests_the_own_node_once) {
    fake_platform::set_node(23, "node23");
    serve(usual_snapshot(5), usual_snapshot(6));
    EXPECT_EQ((*brief())->IncomingSessions->NodeName, 23U);
    EXPECT_EQ((*brief())->IncomingSessions->NodeName, 23U);
    EXPECT_EQ(fake_platform::count_calls("node_identity_id"), 1U);
}

TEST_F(session_records_test, brief_fails_if_the_own_node_is_unknown) {
    serve(usual_snapshot(5), usual_snapshot(6));
    fake_platform::fail("node_identity_id", EIO, 1);
    datastore_read_request* nobody = nullptr;
    EXPECT_EQ(get_ssh_session_brief(nobody), platform_status{EIO});
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre("ERR_ERRNO: Error:=Input/output error(0x5), Failed to get the Nodeid"));
    EXPECT_THAT(stub_commands::log_of("ps"), IsEmpty());
    EXPECT_TRUE(brief()) << "the next read tries again";
}

TEST_F(session_records_test, brief_omits_sessions_without_a_node_name) {
    serve(usual_snapshot(5), usual_snapshot(6));
    fake_platform::fail("node_identity_name", ENOENT, 1);
    const auto record = brief();
    ASSERT_TRUE(record);
    EXPECT_EQ((*record)->IncomingSessions, nullptr);
    EXPECT_EQ((*record)->OutgoingSessions->SessionID, 6U);
}

TEST_F(session_records_test, brief_reports_exhausted_memory_for_channels) {
    serve(usual_snapshot(5), usual_snapshot(6));
    brief();
    const std::pair<uint32_t, const char*> cases[] = {{3, "SESN BRF (IN) MULTI-CHANNEL"},
                                                      {6, "SESN BRF (OUT) MULTI_CHANNEL"}};
    for (const auto& [call, location] : cases) {
        fake_platform::clear_reports();
        call_faults::clear();
        call_faults::fail_call("calloc", ENOMEM, call_faults::once, call);
        EXPECT_EQ(fake_platform::read("/oper/crypto-ssh/gl/session_xml/brief").status,
                  platform_status{DATASTORE_NOTHING_TO_ENCODE});
        EXPECT_THAT(fake_platform::log_texts(),
                    ElementsAre(std::string("ERR_MALLOC: Error:=Cannot allocate memory(0xc), Location:=") + location +
                                ", Failed to allocate memory"));
    }
}

TEST_F(session_records_test, detail_shows_algorithms_by_number) {
    show_debug_lines();
    serve(usual_snapshot(5), usual_snapshot(6));
    const auto record = detail();
    ASSERT_TRUE(record);
    uint32_t id = 5;
    for (const session_detail_info* entry : {(*record)->IncomingSessions, (*record)->OutgoingConnections}) {
        EXPECT_EQ(entry->SessionID, id++);
        EXPECT_EQ(entry->KeyExchange, 7);
        EXPECT_EQ(entry->PublicKey, 5);
        EXPECT_EQ(entry->InCipher, 4);
        EXPECT_EQ(entry->OutCipher, 8);
        EXPECT_EQ(entry->InMAC, 2);
        EXPECT_EQ(entry->OutMAC, 4);
        EXPECT_EQ(entry->Start_Time, nullptr);
        EXPECT_EQ(entry->End_Time, nullptr);
        EXPECT_EQ(entry->NextSession, nullptr);
    }
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains(MatchesRegex(
                    "get_ssh_session_detail:[0-9]+ session_id:5 kexname: ecdh-sha2-nistp384 hostkeyalg:ssh-ed25519 "
                    "incipher:aes128-ctr outcipher:aes256-gcm@openssh.com inmac:hmac-sha2-256 outmac:aes-gcm")));
}

TEST_F(session_records_test, detail_shows_silent_processes_as_entries_of_minus_one) {
    serve_nothing();
    const auto record = detail();
    ASSERT_TRUE(record);
    for (const session_detail_info* entry : {(*record)->IncomingSessions, (*record)->OutgoingConnections}) {
        EXPECT_EQ(entry->SessionID, UINT32_MAX);
        for (const int32_t number :
             {entry->KeyExchange, entry->PublicKey, entry->InCipher, entry->OutCipher, entry->InMAC, entry->OutMAC}) {
            EXPECT_EQ(number, -1);
        }
    }
}

TEST_F(session_records_test, rekey_shows_minutes_and_mebibytes) {
    show_debug_lines();
    serve(usual_snapshot(5), usual_snapshot(6));
    const auto record = rekey();
    ASSERT_TRUE(record);
    uint32_t id = 5;
    for (const session_rekey_info* entry : {(*record)->IncomingSessions, (*record)->OutgoingConnections}) {
        EXPECT_EQ(entry->SessionID, id++);
        EXPECT_EQ(entry->SessionRekeyCount, 5U);
        EXPECT_STREQ(entry->TimeToRekey, "1.5");
        EXPECT_STREQ(entry->VolumeToRekey, "1.5");
        EXPECT_EQ(entry->NextSession, nullptr);
    }
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains(MatchesRegex("get_ssh_session_rekey:[0-9]+ session_id:=5 session_rekey_count:=5, "
                                      "next_rekey_time_str:=90 data_to_rekey:1572864")));
}

TEST_F(session_records_test, rekey_quantities_are_truncated_to_ten_characters) {
    session_snapshot snapshot = usual_snapshot(5);
    strcpy(snapshot.time_to_rekey, "999999999999999999999999999");
    snapshot.data_to_rekey = UINT32_MAX - 1;
    serve(snapshot, snapshot);
    const auto record = rekey();
    ASSERT_TRUE(record);
    EXPECT_STREQ((*record)->IncomingSessions->TimeToRekey, "3074457345");
    EXPECT_STREQ((*record)->IncomingSessions->VolumeToRekey, "4096.0");
}

TEST_F(session_records_test, rekey_leaves_an_unknown_volume_empty) {
    session_snapshot snapshot = usual_snapshot(5);
    snapshot.data_to_rekey = SESSION_DATA_UNKNOWN;
    serve(snapshot, snapshot);
    const auto record = rekey();
    ASSERT_TRUE(record);
    EXPECT_STREQ((*record)->IncomingSessions->TimeToRekey, "1.5");
    EXPECT_EQ((*record)->IncomingSessions->VolumeToRekey, nullptr);
}

TEST_F(session_records_test, rekey_parses_the_time_as_an_unsigned_number) {
    session_snapshot snapshot = usual_snapshot(5);
    strcpy(snapshot.time_to_rekey, "-90");
    serve(snapshot, snapshot);
    const auto record = rekey();
    ASSERT_TRUE(record);
    EXPECT_STREQ((*record)->IncomingSessions->TimeToRekey, "3074457345");
}

TEST_F(session_records_test, rekey_leaves_both_texts_empty_if_no_time_remains) {
    list_processes(session_peers::listing_of_servers({31, 32, 33, 34}));
    int pid = 31;
    for (const char* time : {"0", "", "none", "-0"}) {
        session_snapshot snapshot = usual_snapshot(static_cast<uint32_t>(pid));
        strcpy(snapshot.time_to_rekey, time);
        peers.answer(pid++, snapshot);
    }
    peers.start();
    const auto record = rekey();
    ASSERT_TRUE(record);
    uint32_t entries = 0;
    for (const session_rekey_info* entry = (*record)->IncomingSessions; entry != nullptr; entry = entry->NextSession) {
        EXPECT_EQ(entry->SessionRekeyCount, 5U);
        EXPECT_EQ(entry->TimeToRekey, nullptr);
        EXPECT_EQ(entry->VolumeToRekey, nullptr);
        entries++;
    }
    EXPECT_EQ(entries, 4U);
}

TEST_F(session_records_test, rekey_shows_silent_processes) {
    serve_nothing();
    const auto record = rekey();
    ASSERT_TRUE(record);
    EXPECT_EQ((*record)->IncomingSessions->SessionID, UINT32_MAX);
    EXPECT_EQ((*record)->IncomingSessions->SessionRekeyCount, UINT32_MAX);
    EXPECT_EQ((*record)->IncomingSessions->TimeToRekey, nullptr);
    EXPECT_NE((*record)->OutgoingConnections, nullptr);
}

TEST_P(session_records_each_test, prints_the_count_of_both_directions_in_debug) {
    show_debug_lines();
    peers.answer(31, usual_snapshot(5));
    peers.answer(41, usual_snapshot(6));
    peers.answer(42, usual_snapshot(7));
    peers.start();
    list_processes(session_peers::listing_of_servers({31}) + session_peers::listing_of_clients({41, 42}));
    EXPECT_EQ(read().status, PLATFORM_OK);
    EXPECT_THAT(fake_platform::debug_texts(), Contains(MatchesRegex(GetParam().incoming_count)));
    EXPECT_THAT(fake_platform::debug_texts(), Contains(MatchesRegex(GetParam().outgoing_count)));
}

TEST_P(session_records_each_test, prints_that_there_are_no_sessions) {
    const fake_platform::answer answer = read();
    EXPECT_EQ(answer.status, platform_status{DATASTORE_NOTHING_TO_ENCODE});
    EXPECT_THAT(answer.records, IsEmpty());
    EXPECT_THAT(fake_platform::log_texts(), ElementsAre("ERR_GENERAL: Nothing to encode in XML bag"));
}

TEST_P(session_records_each_test, a_direction_that_cannot_be_listed_has_no_sessions) {
    peers.answer(41, usual_snapshot(6));
    peers.start();
    list_clients({41});
    call_faults::answer_command("ps -ef | grep 'sshd:'", 256, ECHILD);
    EXPECT_EQ(read().status, PLATFORM_OK);
}

TEST_P(session_records_each_test, exhausted_memory_for_an_entry_ends_the_read) {
    serve(usual_snapshot(5), usual_snapshot(6));
    read();
    // Each direction allocates its array of snapshots first.
    const auto callocs = [] {
        call_faults::clear();
        read();
        return call_faults::count_calls("calloc");
    }();
    const uint32_t outgoing = callocs / 2 + 2;
    const std::pair<uint32_t, const char*> cases[] = {{2, GetParam().incoming_location},
                                                      {outgoing, GetParam().outgoing_location}};
    for (const auto& [call, location] : cases) {
        call_faults::clear();
        fake_platform::clear_reports();
        call_faults::fail_call("calloc", ENOMEM, call_faults::once, call);
        EXPECT_EQ(read().status, platform_status{DATASTORE_NOTHING_TO_ENCODE});
        EXPECT_THAT(fake_platform::log_texts(), ElementsAre(out_of_memory_at(location)));
    }
}

TEST_P(session_records_each_test, every_allocation_may_fail_without_a_leak) {
    serve(usual_snapshot(5), usual_snapshot(6));
    EXPECT_EQ(read().status, PLATFORM_OK);
    call_faults::clear();
    read();
    const uint32_t allocations =
        call_faults::count_calls("calloc") + call_faults::count_calls("strdup") + call_faults::count_calls("malloc");
    ASSERT_GE(allocations, 2 * GetParam().entry_allocations + 2);
    uint32_t failed = 0;
    for (uint32_t call = 1; call <= allocations; call++) {
        call_faults::clear();
        fake_platform::clear_reports();
        call_faults::fail_call("allocation", ENOMEM, call_faults::once, call);
        if (read().status != PLATFORM_OK) {
            failed++;
            EXPECT_EQ(fake_platform::log_texts().size(), 1U) << call << ": a failure is reported once";
        }
    }
    // Without memory for its array of snapshots a direction is empty, but the read succeeds.
    EXPECT_GE(failed, 2 * GetParam().entry_allocations);
    call_faults::clear();
    EXPECT_EQ(read().status, PLATFORM_OK);
}

TEST_P(session_records_each_test, an_encoding_failure_is_logged) {
    serve(usual_snapshot(5), usual_snapshot(6));
    call_faults::fail_call("record_encode", EIO);
    EXPECT_EQ(read().status, platform_status{DATASTORE_NOTHING_TO_ENCODE});
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre(std::string("ERR_ERRNO: Error:=Input/output error(0x5), ") + GetParam().encode_failed));
}

TEST_P(session_records_each_test, an_answer_that_is_refused_ends_the_read) {
    serve(usual_snapshot(5), usual_snapshot(6));
    fake_platform::fail("datastore_request_set_record", EMSGSIZE);
    EXPECT_EQ(read().status, platform_status{DATASTORE_NOTHING_TO_ENCODE});
}

TEST_P(session_records_each_test, lists_sessions_in_the_order_of_their_ids) {
    for (const uint32_t id : {9U, 3U, 6U}) {
        peers.answer(static_cast<int>(30 + id), usual_snapshot(id));
    }
    peers.start();
    list_servers({39, 33, 36});
    const fake_platform::answer answer = read();
    ASSERT_EQ(answer.records.size(), 1U);
    // All entries begin with their id and end with their link.
    const decoded_record<ssh_session_brief> record(answer.records[0].descriptor, answer.records[0].bytes);
    const size_t link = GetParam().entry_size;
    std::vector<uint32_t> ids;
    for (const auto* entry = reinterpret_cast<const char*>(record->IncomingSessions); entry != nullptr;) {
        uint32_t id = 0;
        memcpy(&id, entry, sizeof id);
        ids.push_back(id);
        memcpy(&entry, entry + link - sizeof(void*), sizeof entry);
    }
    EXPECT_THAT(ids, ElementsAre(3U, 6U, 9U));
}
