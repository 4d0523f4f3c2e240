/// Start-up: a fixed sequence of steps. Each step that can fail fatally has its own exit status, so that the process
/// manager's records show which one failed.
#ifndef CORE_START_UP_H
#define CORE_START_UP_H

/// The exit status of the process. A waiting parent sees the low eight bits: -3 is 253.
enum start_up_status : int {
    START_UP_DONE = 0,
    START_UP_NOT_PRIMARY = 1,                  ///< waiting to become primary
    START_UP_EVENT_MANAGER = -1,               ///< event manager creation
    START_UP_DEBUG = -2,                       ///< debug registration
    START_UP_SERVER_BINDING = -3,              ///< server binding
    START_UP_CLIENT_BINDING = -4,              ///< client binding
    START_UP_FIPS = -6,                        ///< FIPS registration
    START_UP_SERVER_VERIFICATION = -7,         ///< server verification registration
    START_UP_CLIENT_VERIFICATION = -8,         ///< client verification registration
    START_UP_FILES = -9,                       ///< "/var/empty" or a default configuration file
    START_UP_INOTIFY = -10,                    ///< inotify instance
    START_UP_INOTIFY_WATCH = -11,              ///< inotify watch
    START_UP_INOTIFY_ATTACH = -12,             ///< inotify descriptor attach
    START_UP_SESSION_XML_PROVIDER = -13,       ///< session XML provider
    START_UP_SERVER_SESSION_PROVIDER = -14,    ///< server session provider
    START_UP_CLIENT_SESSION_PROVIDER = -15,    ///< client session provider
    START_UP_PROTECTION = -21,                 ///< MPP initialisation
    START_UP_PARAMETERS_PROVIDER = -22,        ///< server parameters provider
    START_UP_BACKUP_BINDING = -23,             ///< backup binding
    START_UP_BACKUP_VERIFICATION = -24,        ///< backup verification registration
    START_UP_BANNER_BINDING = -26,             ///< banner binding
    START_UP_BANNER_NOTIFICATION = -27,        ///< banner notification "0x2"
    START_UP_AAA_BANNER_BINDING = -28,         ///< AAA banner binding
    START_UP_AAA_BANNER_NOTIFICATION = -29,    ///< AAA banner notification
    START_UP_DEFAULT_UNIT = -31,               ///< default VRF service unit
    START_UP_LOGIN_BANNER_NOTIFICATION = -32,  ///< banner notification "0x3"
    START_UP_TELEMETRY_PROVIDER = -33,         ///< telemetry provider
    START_UP_FILE_SYSTEM_LIST = -34,           ///< file-system list
    START_UP_SCAN = -35,                       ///< a configuration scan
};

/// Runs the steps up to the event loop. Returns START_UP_DONE, or the status with which the process must exit.
start_up_status start_up();

/// The whole agent: start-up and the event loop. Returns the exit status of a failed start-up; otherwise never returns.
int run_agent();

#endif
