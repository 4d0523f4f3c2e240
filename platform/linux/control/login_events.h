/// Receives the events about logins that the servers' processes send, and passes them to the watchers of sessions.
#ifndef LINUX_CONTROL_LOGIN_EVENTS_H
#define LINUX_CONTROL_LOGIN_EVENTS_H

#include <systemd/sd-event.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

#include "control_protocol/json_text.h"
#include "openssh/reporter/login_event.h"
#include "platform/status.h"

/// The subject of the events about logins.
inline constexpr char login_event_subject[] = "sessions";

/// The fields of an event by name.
using login_event_fields = std::map<std::string, std::string, std::less<>>;

/// Splits a datagram, lines of NAME=VALUE. Returns nothing if it is none. May throw std::bad_alloc.
login_event_fields login_event_split(std::string_view datagram);

/// An event as the answers show it: time, event, vrf, user, address, port, method, reason, detail, key, refused and pid,
/// null where unknown; a logout has a duration. `microseconds` is its time since the epoch. May throw std::bad_alloc.
control_json login_event_json(const login_event_fields& fields, uint64_t microseconds);

/// Opens the socket and receives events on the loop. Failures are logged: the agent works without.
void login_events_start(sd_event* loop, const char* path = login_event_socket);

/// Closes the socket. May be called when it is not open.
void login_events_stop();

#endif
