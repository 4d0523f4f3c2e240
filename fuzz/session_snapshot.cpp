/// Session reads, whatever the process listing contains and the processes answer: all nine handlers return a status
/// that readers know, their records decode, sessions are sorted, texts are terminated within their fields, and no
/// socket stays open.
///
/// Input: the listing of process ids, up to a NUL; then one answer per query: two bytes of length and the bytes. A
/// length of 65535 is a process that does not answer, 65534 one that closes the connection; after the last answer every
/// process closes it.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/shell_command.h"
#include "fake/fake_platform.h"
#include "oper/record_schemas.h"
#include "oper/session_records.h"
#include "oper/show_sessions.h"
#include "platform/record_codec.h"
#include "require.h"

namespace {

constexpr size_t silent = 65535;
constexpr size_t hung_up = 65534;

struct peers {
    std::string listing;
    std::string answers;
    size_t next = 0;
} peers;

}  // namespace

// The linker redirects the agent's calls here (--wrap): no process is listed, no file is written and no connection is
// made.
extern "C" {
int __wrap__Z17run_shell_commandPKcRK13command_limiti(const char*, const command_limit&, int) {
    peers.next = 0;
    return 0;
}

FILE* __wrap_fopen(const char*, const char*) {
    return fmemopen(peers.listing.data(), peers.listing.size(), "r");
}

int __wrap_remove(const char*) {
    return 0;
}

int __wrap_connect(int, const sockaddr*, socklen_t) {
    return 0;
}

ssize_t __wrap_send(int, const void*, size_t size, int) {
    return static_cast<ssize_t>(size);
}

ssize_t __wrap_recv(int, void* buffer, size_t room, int) {
    uint16_t length = hung_up;
    if (peers.answers.size() - peers.next >= sizeof length) {
        memcpy(&length, peers.answers.data() + peers.next, sizeof length);
        peers.next += sizeof length;
    }
    if (length >= hung_up) {
        errno = length == silent ? EAGAIN : ECONNRESET;
        return -1;
    }
    const size_t size = std::min<size_t>(length, peers.answers.size() - peers.next);
    memcpy(buffer, peers.answers.data() + peers.next, std::min(size, room));
    peers.next += size;
    return static_cast<ssize_t>(size);
}
}

namespace {

bool enter_platform() {
    fake_platform::set_recording(false);
    return register_session_records() == PLATFORM_OK && register_command_line_records() == PLATFORM_OK;
}

template <typename record_type, typename check_type>
void decode(const fake_platform::encoded_record& encoded, check_type check) {
    record_type record = {};
    require(record_decode(encoded.descriptor, encoded.bytes.data(), encoded.bytes.size(), &record, sizeof record) ==
            PLATFORM_OK);
    check(record);
    record_release(encoded.descriptor, &record);
}

void require_shorter(const char* text, size_t field) {
    require(text == nullptr || (text[0] != '\0' && strlen(text) < field));
}

template <typename entry_type, typename check_type>
void check_list(const entry_type* first, check_type check) {
    for (const entry_type* entry = first; entry != nullptr; entry = entry->NextSession) {
        require(entry->NextSession == nullptr || entry->SessionID <= entry->NextSession->SessionID);
        check(*entry);
    }
}

void check_brief(const session_brief_info& entry) {
    require_shorter(entry.UserID, sizeof(session_snapshot::user_id));
    require_shorter(entry.HostAddress, sizeof(session_snapshot::remote_host));
    require(entry.McInfo.count < channel_slots);
}

void check_rekey(const session_rekey_info& entry) {
    require_shorter(entry.TimeToRekey, 11);
    require_shorter(entry.VolumeToRekey, 11);
    require((entry.TimeToRekey == nullptr) == (entry.VolumeToRekey == nullptr));
}

void check_record(const fake_platform::encoded_record& encoded) {
    const record_descriptor* kind = encoded.descriptor;
    if (kind == ssh_session_brief_descriptor()) {
        decode<ssh_session_brief>(encoded, [](const ssh_session_brief& record) {
            check_list(record.IncomingSessions, check_brief);
            check_list(record.OutgoingSessions, [](const session_brief_info& entry) {
                check_brief(entry);
                require(entry.McInfo.count <= 1);
            });
        });
    } else if (kind == ssh_session_detail_descriptor()) {
        decode<ssh_session_detail>(encoded, [](const ssh_session_detail& record) {
            check_list(record.IncomingSessions, [](const session_detail_info&) {});
            check_list(record.OutgoingConnections, [](const session_detail_info&) {});
        });
    } else if (kind == ssh_session_rekey_descriptor()) {
        decode<ssh_session_rekey>(encoded, [](const ssh_session_rekey& record) {
            check_list(record.IncomingSessions, check_rekey);
            check_list(record.OutgoingConnections, check_rekey);
        });
    } else if (kind == sshd_sessioninfo_descriptor()) {
        decode<sshd_sessioninfo>(encoded, [](const sshd_sessioninfo& record) {
            require(record.SessionID != no_session && record.McInfo.count < channel_slots);
            require_shorter(record.AuthenMethod, sizeof(session_snapshot::authentication_method));
        });
    } else if (kind == sshd_kexinfo_descriptor()) {
        decode<sshd_kexinfo>(encoded, [](const sshd_kexinfo& record) {
            require_shorter(record.KexName, sizeof(session_snapshot::kex_algorithm));
            require_shorter(record.OutMac, sizeof(session_snapshot::out_mac));
        });
    } else {
        decode<sshd_rekey>(encoded, [](const sshd_rekey& record) {
            require_shorter(record.NextRekeyTimeStr, sizeof(session_snapshot::time_to_rekey));
        });
    }
}

using handler = platform_status (*)(datastore_read_request* request);

constexpr handler handlers[] = {
    get_ssh_session_brief, get_ssh_session_detail,      get_ssh_session_rekey,
    show_ssh_cli,          show_ssh_session_cli,        show_ssh_rekey_cli,
    show_ssh_client_cli,   show_ssh_client_session_cli, show_ssh_client_rekey_cli,
};

platform_status run_handler(datastore_read_request* request, const char*, void* context) {
    return (*static_cast<const handler*>(context))(request);
}

/// The number that the next descriptor will have.
int next_descriptor() {
    const int descriptor = dup(STDERR_FILENO);
    close(descriptor);
    return descriptor;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = enter_platform();
    require(ready);
    const uint8_t* end = std::find(data, data + size, 0);
    peers.listing.assign(data, end);
    peers.answers.assign(end == data + size ? end : end + 1, data + size);
    const int free_descriptor = next_descriptor();
    for (handler each : handlers) {
        const fake_platform::answer answer = fake_platform::ask(run_handler, "", &each);
        require(answer.status == PLATFORM_OK || answer.status == DATASTORE_NO_DATA ||
                answer.status == DATASTORE_NOTHING_TO_ENCODE);
        std::for_each(answer.records.begin(), answer.records.end(), check_record);
    }
    require(next_descriptor() == free_descriptor);
    return 0;
}
