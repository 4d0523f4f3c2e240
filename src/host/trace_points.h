/// Trace points: banners, PAM file, reload and file systems.
#ifndef HOST_TRACE_POINTS_H
#define HOST_TRACE_POINTS_H

#include "core/trace.h"

// clang-format off
#define HOST_TRACE_POINTS(ERROR, EVENT)                                                                             \
    EVENT(0x700, host, banner_notified, "banner changed", "item", "event")                                          \
    ERROR(0x701, host, banner_remove, "banner file not removed", "file", "status")                                  \
    ERROR(0x702, host, banner_create, "banner file not created", "file", "status")                                  \
    ERROR(0x703, host, banner_write, "banner file not written", "file", "mode", "status")                           \
    EVENT(0x704, host, aaa_banner_notified, "banner of the AAA service changed", "item", "event")                   \
    ERROR(0x705, host, pam_file, "PAM file not opened", "file", "mode", "status")                                   \
    ERROR(0x706, host, pam_inotify, "no inotify instance for the PAM file", "status")                               \
    ERROR(0x707, host, pam_watch, "PAM folder not watched", "folder", "status")                                     \
    ERROR(0x708, host, pam_watch_lost, "watch on the PAM folder lost", "folder")                                    \
    ERROR(0x709, host, pam_read, "events of the PAM folder not read", "status")                                     \
    ERROR(0x70a, host, shelf_create, "handle of the shelf manager not created", "status")                           \
    ERROR(0x70b, host, shelf_connect, "shelf manager not reached", "status")                                        \
    EVENT(0x70c, host, shelf_connected, "shelf manager connected")                                                  \
    ERROR(0x70d, host, shelf_register, "reload notices not registered for", "status")                               \
    EVENT(0x70e, host, shelf_disconnected, "shelf manager disconnected")                                            \
    EVENT(0x70f, host, reload, "router is about to be reloaded")                                                    \
    ERROR(0x710, host, reload_timer, "timer of the reload failed", "problem", "status")                             \
    ERROR(0x711, host, session_list, "sessions not listed", "file", "status")                                       \
    EVENT(0x712, host, sessions_found, "sessions to end before the reload", "active")                               \
    ERROR(0x713, host, session_signal, "session not signalled", "pid", "status")                                    \
    EVENT(0x714, host, sessions_signalled, "sessions signalled", "active", "signals")                               \
    ERROR(0x715, host, sessions_remain, "sessions still running", "active", "terminated")                           \
    EVENT(0x716, host, sessions_gone, "all sessions ended", "active", "signals", "terminated")                      \
    ERROR(0x717, host, reload_acknowledge, "reload not acknowledged", "status")                                     \
    ERROR(0x718, host, reload_abandoned, "reload given up, servers start again", "active", "terminated", "signals") \
    ERROR(0x719, host, file_system_list, "list of file systems not published", "problem", "status")
// clang-format on

HOST_TRACE_POINTS(DEFINE_TRACE_ERROR, DEFINE_TRACE_EVENT)

#endif
