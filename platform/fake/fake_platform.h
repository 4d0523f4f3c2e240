/// The platform in memory, for tests, fuzzing and benchmarks. It records the calls it gets, tests script its answers,
/// and tests trigger its notifications.
///
/// Single-threaded. reset() clears all state.
#ifndef FAKE_FAKE_PLATFORM_H
#define FAKE_FAKE_PLATFORM_H

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/acl_service.h"
#include "platform/acl_verifier.h"
#include "platform/banner_service.h"
#include "platform/datastore.h"
#include "platform/enforcement.h"
#include "platform/event_manager.h"
#include "platform/fault_injection.h"
#include "platform/key_store.h"
#include "platform/log_message.h"
#include "platform/packet_filter.h"
#include "platform/process_manager.h"
#include "platform/status.h"
#include "platform/trace.h"
#include "platform/value_tuple.h"

namespace fake_platform {

inline constexpr uint32_t always = UINT32_MAX;

/// Restores the state of a freshly booted node: nothing stored, registered or recorded, and no failures. Invalidates
/// all handles.
void reset();

/// As if the process had ended: clears its bindings, registrations and reports of what is not in force; stored items
/// remain.
void end_process();

// --- Failures --------------------------------------------------------------------------------------------------------

/// Makes an operation fail with `status` from its `from_call`th matching call on, `times` times. `operation` is the
/// operation's name ("datastore_bind") or a whole call as recorded ("datastore_bind(/cfg/gl/banner/)"). Operations that
/// report with errno or a null pointer set errno to `status`. A failed call does nothing else.
void fail(std::string_view operation, platform_status status, uint32_t times = always, uint32_t from_call = 1);

/// Clears all failures.
void clear_failures();

// --- Calls -----------------------------------------------------------------------------------------------------------

/// Every call in order, as "mpp_vrf_set(1, default)": texts as they are, an absent one as NULL, numbers in decimal,
/// message codes and cookies in hexadecimal, paths whole, handles and callbacks left out. Log messages, debug lines, trace entries
/// and queries of a debug flag are not included, nor is the restoration of what was in force.
const std::vector<std::string>& calls();

/// The calls whose text begins with `prefix` ("mpp_").
std::vector<std::string> calls_of(std::string_view prefix);

/// The number of calls of the operation (or of the whole call).
size_t count_calls(std::string_view operation);

/// Adds a line to the record, so that an event elsewhere (a shell command) appears in sequence with the calls.
void record_call(std::string call);

void clear_calls();

/// Turns the recording of calls and reports off, for long runs, and on again. Failures are still counted.
void set_recording(bool on);

// --- Datastore -------------------------------------------------------------------------------------------------------

/// A value as stored by the datastore: `bytes` is the number's four bytes, the text with its NUL, or the packed tuple.
struct value {
    uint32_t kind = DATASTORE_VALUE_NUMBER;
    std::string bytes;
    bool operator==(const value&) const = default;
};

/// A field of a tuple: a number, a text, or absent.
struct field {
    bool present = false;
    int32_t number = 0;
    std::optional<std::string> text;
    field() = default;
    field(std::nullopt_t) {}
    field(int value) : present(true), number(value) {}
    field(const char* value) : present(true), text(value) {}
    field(std::string value) : present(true), text(std::move(value)) {}
};

value number_value(uint32_t number);
value text_value(std::string_view text);

/// Packs a tuple; absent fields at the end may be omitted. Throws std::invalid_argument if a field does not match
/// `format`.
value tuple_value(const char* format, const std::vector<field>& fields);

/// The bytes of a tuple, unchecked, so that they may be malformed.
value raw_tuple_value(std::string bytes);

/// One requested change: a new value or a removal; for a path that ends in '/', the removal of everything below it.
struct change {
    std::string path;
    std::optional<fake_platform::value> new_value;
};

change set_number(std::string path, uint32_t number);
change set_text(std::string path, std::string_view text);
change set_tuple(std::string path, const char* format, const std::vector<field>& fields);
change remove(std::string path);

struct failed_item {
    std::string path;
    platform_status status;
};

/// What is not in force.
struct unenforced {
    std::string subject;
    std::string reason;
    bool operator==(const unenforced&) const = default;
};

struct commit_result {
    platform_status status = PLATFORM_OK;  ///< if refused: the verifier's status, or one of those below
    std::string refused_path;              ///< empty if the commit was carried out
    std::string error_text;                ///< the verifier's
    std::vector<failed_item> failures;     ///< appliers that returned non-zero; the change remains stored
    std::vector<unenforced> not_in_force;  ///< reported meanwhile and not restored since, in the order of the reports
};

/// One commit: every verifier in byte order of the paths, then the store, then every applier, then the notifications.
/// Setting a value that is already stored is not a change, nor is removing an item that does not exist. Refused with
/// DATASTORE_NO_HANDLER for an item without a registered callback, and with EBUSY from within a handler.
commit_result commit(const std::vector<change>& changes);
commit_result commit(const change& change);

/// Stores an item without notifying anyone, like configuration that existed before; the second removes one.
void store(const change& change);

/// The stored value of an item.
std::optional<value> stored(std::string_view path);

/// Delivers one change only to the notifications of its path, whatever is stored.
void notify(std::string_view path, uint32_t event, const std::optional<value>& value);

/// Replaces the list at `path` (ending in '/') with these names and encoded records.
void set_list(std::string path, std::vector<std::pair<std::string, std::string>> entries);
void remove_list(std::string_view path);

struct encoded_record {
    const record_descriptor* descriptor;
    std::string bytes;
};

struct answer {
    platform_status status = PLATFORM_OK;  ///< the provider's; DATASTORE_NO_SUCH_TREE if no provider serves the path
    bool is_list = false;
    std::vector<encoded_record> records;
};

/// An operational read, answered by the provider that serves `path`.
answer read(std::string_view path);

/// What `fill` returns when called for `item`, without a registration.
answer ask(datastore_provider_callback fill, const char* item, void* context = nullptr);

/// The number of bindings (of the path), verifications, notifications and providers.
size_t bindings();
size_t bindings(std::string_view path);
size_t verifications();
size_t notifications();
size_t providers();

// --- Event manager ---------------------------------------------------------------------------------------------------

/// Exit status of the process when the loop has nothing left to do.
inline constexpr int loop_end_status = 99;

/// Thrown out of the loop by the hook that throw_at_loop_end() sets.
struct loop_ended : std::runtime_error {
    loop_ended() : std::runtime_error("the event loop has nothing left to do") {}
};

/// What the loop does next, in order. When nothing is left, event_manager_block runs the hook.
void queue_event(std::function<void()> handler);
void queue_message(uint32_t code, std::string body);
void queue_fd(int fd, uint32_t conditions = EVENT_MANAGER_READ);
void queue_block_failure(int error);

/// Called by event_manager_block when nothing is left. It must not return, unless it queues more events first. Without
/// a hook the process exits with loop_end_status.
void set_loop_end(std::function<void()> hook);
void throw_at_loop_end();

/// Processes queued events without the agent's loop until none is left. Returns their number.
size_t dispatch_queued();

struct message_reply {
    bool handled = false;  ///< whether a handler is attached
    uint32_t replies = 0;  ///< exactly one is correct
    std::string bytes;     ///< of the last reply
};

/// Delivers a message at once.
message_reply send_message(uint32_t code, std::string_view body);
message_reply send_namespace_message(uint32_t code, std::string_view namespace_name);

/// The reply to the last queued or sent message.
const message_reply& last_reply();

/// Calls the handlers of a descriptor at once.
void signal_fd(int fd, uint32_t conditions = EVENT_MANAGER_READ);

/// Calls the handlers of those attached descriptors that are actually ready. Returns their number.
size_t dispatch_ready_fds();

/// Advances the clock of the managed timers; leaves that are due expire in order.
void advance_time(uint32_t seconds);

/// The number of running leaves.
size_t running_timers();

// --- Reports ---------------------------------------------------------------------------------------------------------

struct log_line {
    std::string name;  ///< of the catalogue entry
    std::string text;
    uint32_t severity;
    uint32_t number;
    const log_message_entry* entry;
};

const std::vector<log_line>& log_lines();

/// Every message as "NAME: text".
std::vector<std::string> log_texts();
bool logged(std::string_view name, std::string_view text);

/// Debug lines, with the flag that each was written for.
struct debug_line {
    uint32_t flag;
    std::string text;
};
const std::vector<debug_line>& debug_lines();
std::vector<std::string> debug_texts();
bool debugged(std::string_view text);

struct debug_flag {
    std::string path;
    uint32_t id;
    std::string name;
    uint32_t type;
    uint32_t level;
};
const std::vector<debug_flag>& debug_flags();

/// Switches a flag and notifies the handlers.
void set_debug_flag(uint32_t id, bool on);

/// Switches a flag without notifying anyone.
void preset_debug_flag(uint32_t id, bool on);

struct trace_line {
    std::string buffer;
    uint32_t code;
    const trace_point* point;  ///< null: the code has no description
    std::vector<std::string> arguments;
};
const std::vector<trace_line>& trace_lines();
std::vector<trace_line> trace_lines_of(std::string_view buffer);

/// The registered fault points.
const std::vector<fault_point>& fault_points();

/// Clears log messages, debug lines and trace entries.
void clear_reports();

// --- Process manager, node, VRF table, MPP ---------------------------------------------------------------------------

void set_role(uint32_t role);                        ///< initially PROCESS_ROLE_PRIMARY
void set_respawn_count(uint32_t count);              ///< initially 1
uint32_t progress_reports();                         ///< calls of process_manager_progress, which are not recorded
uint32_t waits();                                    ///< calls of process_manager_waiting, which are not recorded
const std::vector<std::string>& steps();             ///< calls of process_manager_step, as "WORK DONE/TOTAL"
void set_node(uint32_t id, std::string name);        ///< initially 1, "node0"
void set_vrf_id(std::string vrf_name, uint32_t id);  ///< other VRFs get the next number at their first look-up
void set_file_systems(std::vector<std::string> names);

/// State that the agent has requested from MPP.
bool mpp_open(uint32_t service);
bool vrf_set(uint32_t service, std::string_view vrf_name);
bool vrf_initialised(std::string_view vrf_name);
bool vrf_blocked(std::string_view vrf_name);
bool service_blocked(uint32_t service, uint32_t family, std::string_view vrf_name);
bool namespace_announced(std::string_view namespace_name);

// --- Servers ---------------------------------------------------------------------------------------------------------

/// What is known of a VRF's running server (platform/server_process.h): initially nothing.
struct server_process {
    std::string difference;
    std::string file;
};
void set_server_process(std::string vrf_name, server_process process);

// --- Packet filter ---------------------------------------------------------------------------------------------------

/// Answers for the kernel, for each table that the agent asks about. Without it every table is as it should be.
void set_packet_filter(std::function<packet_filter_finding(const packet_filter_table& table)> look);

// --- Enforcement -----------------------------------------------------------------------------------------------------

/// What the agent has reported and not restored since, in the order of the reports.
std::vector<unenforced> not_in_force();
bool is_not_in_force(std::string_view subject);

struct difference {
    std::string subject;
    std::string text;
    bool operator==(const difference&) const = default;
};

struct comparison {
    bool registered =
        false;  ///< whether the agent has registered its comparison; without it the other members are empty
    int remaining = -1;
    std::vector<difference> differences;
};

/// Runs the agent's comparison, as an operator or the platform's timer does. A repair that leaves nothing clears what is
/// not in force; one that leaves something clears what it has not reported.
comparison reconcile(bool repair);

// --- Shelf manager ---------------------------------------------------------------------------------------------------

void shelf_connected();
void shelf_disconnected();
void shelf_reload();

// --- ACL service, key store, banners, telemetry ----------------------------------------------------------------------

/// Notifies the subscribers of a list that it has changed. Returns their results in order.
std::vector<int> change_acl(uint32_t family, std::string_view acl_name, bool present);

/// Passes the notification unchanged to every subscriber, even if it is null.
std::vector<int> send_acl_notice(const acl_change_notice* notice);

size_t acl_handles();
size_t acl_subscriptions(std::string_view acl_name);

/// What the registered verifier makes of a list.
struct acl_rules {
    platform_status status = ENOENT;  ///< ENOENT if none is registered
    std::string text;
    uint32_t compared_port = 0;
    std::vector<acl_entry_rule> entries;
};

/// Asks the verifier for the rules of a list with these encoded entries for a service (MPP_SERVICE_).
acl_rules make_acl_rules(uint32_t family, uint32_t service, const std::vector<std::string>& records);

/// The name of an action; initially 0 is "deny" and 1 "permit".
void set_acl_action(uint32_t grant, std::string name);

struct stored_key {
    std::string label;
    uint32_t type;
    time_t time;
    uint32_t bits;
    std::string der;
    bool added_by_exec_mode = false;
};

void set_key(stored_key key);
const std::vector<stored_key>& keys();

/// The result of key_store_pubkey_to_der for a text; any other text gives EINVAL.
void set_der(std::string text, std::string der, uint32_t bits);

void set_configured_banner(uint32_t kind, std::optional<std::string> text);
void set_platform_banner(uint32_t kind, std::optional<std::string> text);
void set_aaa_banner(std::optional<std::string> text);

struct published_event {
    std::string path;
    fake_platform::answer answer;
};
const std::vector<published_event>& published();

}  // namespace fake_platform

#endif
