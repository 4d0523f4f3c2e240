#include "oper/show_sessions.h"

#include <cerrno>
#include <cstring>

#include "call_faults.h"
#include "session_test.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::MatchesRegex;
using testing::Not;

/// One of the six items.
struct command_line_item {
    const char* routine;
    const char* path;
    bool client;
    const record_descriptor* (*descriptor)();
    const char* debug_line;     ///< of the usual snapshot with id 5; null if there is none
    const char* encode_failed;  ///< log text
};

constexpr char kex_line[] =
    ":[0-9]+ session_id:5 kexname: ecdh-sha2-nistp384 hostkeyalg:ssh-ed25519 incipher:aes128-ctr "
    "outcipher:aes256-gcm@openssh.com inmac:hmac-sha2-256 outmac:aes-gcm";
constexpr char rekey_line[] = ":[0-9]+ session_id:5 session_rekey_count:5 next_rekey_time_str:90 data_to_rekey:1572864";

const command_line_item command_line_items[] = {
    {"show_ssh_cli", "/oper/crypto-ssh/gl/sshddata/brief", false, sshd_sessioninfo_descriptor,
     ":[0-9]+ Line: vty 3 Userid:ann Host:2001:db8::7 Authen Method:rsa-pubkey Open Channels:2 Active Channels:2",
     "Failed to encode data into sshd_sessioninfo bag: "},
    {"show_ssh_session_cli", "/oper/crypto-ssh/gl/sshddata/detail", false, sshd_kexinfo_descriptor, kex_line,
     "Failed to encode data into sshd_kexinfo bag: "},
    {"show_ssh_rekey_cli", "/oper/crypto-ssh/gl/sshddata/rekey", false, sshd_rekey_descriptor, rekey_line,
     "Failed to encode data into sshd_rekey bag: "},
    {"show_ssh_client_cli", "/oper/crypto-ssh/client/brief", true, sshd_sessioninfo_descriptor, nullptr,
     "Failed to encode data into ssh_client_sessioninfo bag: "},
    {"show_ssh_client_session_cli", "/oper/crypto-ssh/client/detail", true, sshd_kexinfo_descriptor, kex_line,
     "Failed to encode data into ssh_client_kexinfo bag: "},
    {"show_ssh_client_rekey_cli", "/oper/crypto-ssh/client/rekey", true, sshd_rekey_descriptor, rekey_line,
     "Failed to encode data into ssh_client_rekey bag: "},
};

class show_sessions_test : public session_test, public testing::WithParamInterface<command_line_item> {
  protected:
    static fake_platform::answer read() { return fake_platform::read(GetParam().path); }

    static void list(const std::vector<int>& pids) { GetParam().client ? list_clients(pids) : list_servers(pids); }

    /// One process that answers with the usual snapshot.
    void serve_one() {
        peers.answer(31, usual_snapshot(5));
        peers.start();
        list({31});
    }

    static std::string debug_line(const std::string& text) { return std::string(GetParam().routine) + text; }
};

INSTANTIATE_TEST_SUITE_P(items, show_sessions_test, testing::ValuesIn(command_line_items),
                         [](const auto& item) { return std::string(item.param.routine); });

void expect_session(const std::string& bytes) {
    const decoded_record<sshd_sessioninfo> session(sshd_sessioninfo_descriptor(), bytes);
    EXPECT_EQ(session->SessionID, 5U);
    EXPECT_EQ(session->SessionPID, 4005U);
    EXPECT_EQ(session->State, 4U);
    EXPECT_STREQ(session->AuthenMethod, "rsa-pubkey");
    EXPECT_EQ(session->Cipher, 2U) << "the protocol version";
    EXPECT_STREQ(session->UserID, "ann");
    EXPECT_STREQ(session->Host, "2001:db8::7");
    EXPECT_EQ(session->Nid, 1U) << "always the agent's own node";
    ASSERT_EQ(session->McInfo.count, 2U);
    EXPECT_EQ(session->McInfo.elements[0].ChannelID, 101U);
    EXPECT_EQ(session->McInfo.elements[0].ConnectionType, 201U);
    EXPECT_STREQ(session->McInfo.elements[0].Line, "vty 3");
    EXPECT_EQ(session->McInfo.elements[1].ChannelID, 104U);
    EXPECT_STREQ(session->McInfo.elements[1].Line, "XXXXX");
}

void expect_kex(const std::string& bytes) {
    const decoded_record<sshd_kexinfo> kex(sshd_kexinfo_descriptor(), bytes);
    EXPECT_EQ(kex->SessionID, 5U);
    EXPECT_STREQ(kex->KexName, "ecdh-sha2-nistp384");
    EXPECT_STREQ(kex->HostKeyAlg, "ssh-ed25519");
    EXPECT_STREQ(kex->InCipher, "aes128-ctr");
    EXPECT_STREQ(kex->OutCipher, "aes256-gcm@openssh.com");
    EXPECT_STREQ(kex->InMac, "hmac-sha2-256");
    EXPECT_STREQ(kex->OutMac, "aes-gcm");
    EXPECT_EQ(kex->Start_Time, nullptr);
    EXPECT_EQ(kex->End_Time, nullptr);
}

void expect_rekey(const std::string& bytes) {
    const decoded_record<sshd_rekey> rekey(sshd_rekey_descriptor(), bytes);
    EXPECT_EQ(rekey->SessionID, 5U);
    EXPECT_EQ(rekey->Cipher, 2U) << "the protocol version";
    EXPECT_EQ(rekey->ChannelID, 101U) << "of slot 1";
    EXPECT_EQ(rekey->State, 4U);
    EXPECT_EQ(rekey->SessionRekeyCount, 5U);
    EXPECT_STREQ(rekey->NextRekeyTimeStr, "90") << "the text unaltered";
    EXPECT_EQ(rekey->DataToRekey, 1572864U);
}

}  // namespace

TEST_P(show_sessions_test, returns_one_record_per_session_in_the_order_of_their_ids) {
    peers.answer(31, usual_snapshot(9));
    peers.answer(32, usual_snapshot(5));
    peers.start();
    list({31, 32});
    const fake_platform::answer answer = read();
    EXPECT_EQ(answer.status, PLATFORM_OK);
    EXPECT_TRUE(answer.is_list);
    ASSERT_EQ(answer.records.size(), 2U);
    for (const auto& record : answer.records) {
        EXPECT_EQ(record.descriptor, GetParam().descriptor());
    }
    const std::string& first = answer.records[0].bytes;
    GetParam().descriptor() == sshd_sessioninfo_descriptor() ? expect_session(first)
    : GetParam().descriptor() == sshd_kexinfo_descriptor()   ? expect_kex(first)
                                                             : expect_rekey(first);
}

TEST_P(show_sessions_test, covers_one_direction_only) {
    peers.answer(31, usual_snapshot(5));
    peers.start();
    list_processes(GetParam().client ? session_peers::listing_of_servers({31})
                                     : session_peers::listing_of_clients({31}));
    EXPECT_EQ(read().status, platform_status{DATASTORE_NO_DATA});
}

TEST_P(show_sessions_test, omits_silent_processes) {
    peers.keep_silent(31);
    peers.answer(32, usual_snapshot(5));
    peers.start();
    list({31, 32});
    EXPECT_EQ(read().records.size(), 1U);
}

TEST_P(show_sessions_test, has_no_data_without_a_session) {
    peers.keep_silent(31);
    list({31});
    const fake_platform::answer answer = read();
    EXPECT_EQ(answer.status, platform_status{DATASTORE_NO_DATA});
    EXPECT_THAT(answer.records, IsEmpty());
    EXPECT_THAT(fake_platform::log_texts(), IsEmpty());
}

TEST_P(show_sessions_test, prints_each_session_in_debug) {
    show_debug_lines();
    serve_one();
    read();
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains(MatchesRegex(debug_line(":[0-9]+ index:0 and edm_datalist added to info and rc: .*"))));
    if (GetParam().debug_line != nullptr) {
        EXPECT_THAT(fake_platform::debug_texts(), Contains(MatchesRegex(debug_line(GetParam().debug_line))));
    } else {
        EXPECT_THAT(fake_platform::debug_texts(), Not(Contains(HasSubstr("Userid:"))));
    }
}

TEST_P(show_sessions_test, fails_if_the_own_node_is_unknown) {
    serve_one();
    fake_platform::fail("node_identity_id", EIO);
    EXPECT_EQ(read().status, platform_status{DATASTORE_NOTHING_TO_ENCODE});
    EXPECT_TRUE(fake_platform::logged("ERR_ERRNO", "Error:=Input/output error(0x5), Failed to get the Nodeid"));
}

TEST_P(show_sessions_test, fails_without_a_list) {
    show_debug_lines();
    serve_one();
    fake_platform::fail("datastore_request_create_list", EIO);
    EXPECT_EQ(read().status, platform_status{DATASTORE_NOTHING_TO_ENCODE});
    EXPECT_THAT(fake_platform::debug_texts(),
                ElementsAre(MatchesRegex(debug_line(":[0-9]+ Failed to create edm datalist: Input/output error"))));
}

TEST_P(show_sessions_test, fails_if_a_record_is_not_added) {
    show_debug_lines();
    peers.answer(31, usual_snapshot(5));
    peers.answer(32, usual_snapshot(6));
    peers.start();
    list({31, 32});
    fake_platform::fail("datastore_request_add_record", EIO, fake_platform::always, 2);
    EXPECT_EQ(read().status, platform_status{DATASTORE_NOTHING_TO_ENCODE});
    EXPECT_THAT(fake_platform::debug_texts(),
                Contains(MatchesRegex(debug_line(":[0-9]+ Failed to add bag into edm datalist: Input/output error"))));
}

TEST_P(show_sessions_test, fails_if_a_record_is_not_encoded) {
    show_debug_lines();
    serve_one();
    call_faults::fail_call("record_encode", EIO);
    EXPECT_EQ(read().status, platform_status{DATASTORE_NOTHING_TO_ENCODE});
    EXPECT_THAT(
        fake_platform::debug_texts(),
        Contains(MatchesRegex(debug_line(std::string(":[0-9]+ ") + GetParam().encode_failed + "Input/output error"))));
    EXPECT_THAT(fake_platform::log_texts(),
                ElementsAre(std::string("ERR_BAG_ENCODE: Error:=Input/output error(0x5), Location:=") +
                            GetParam().routine + ", bag encode failed"));
}

TEST_P(show_sessions_test, every_allocation_may_fail_without_a_leak) {
    serve_one();
    show_debug_lines();
    EXPECT_EQ(read().status, PLATFORM_OK);
    call_faults::clear();
    read();
    const uint32_t allocations =
        call_faults::count_calls("calloc") + call_faults::count_calls("strdup") + call_faults::count_calls("malloc");
    ASSERT_GE(allocations, 3U);
    // The first is the array of snapshots; without it there are no sessions.
    for (uint32_t call = 2; call <= allocations; call++) {
        call_faults::clear();
        fake_platform::clear_reports();
        call_faults::fail_call("allocation", ENOMEM, call_faults::once, call);
        EXPECT_EQ(read().status, platform_status{DATASTORE_NOTHING_TO_ENCODE}) << call;
        EXPECT_THAT(fake_platform::debug_texts(),
                    Contains(MatchesRegex(debug_line(":[0-9]+ Failed to allocate temporary bag"))));
        EXPECT_THAT(fake_platform::log_texts(),
                    ElementsAre(std::string("ERR_MALLOC: Error:=Cannot allocate memory(0xc), Location:=") +
                                GetParam().routine + ", Failed to allocate memory"));
    }
    call_faults::clear();
    EXPECT_EQ(read().status, PLATFORM_OK);
}
