/// Data providers: the operational trees that the agent serves.
#ifndef OPER_PROVIDERS_H
#define OPER_PROVIDERS_H

#include "platform/datastore.h"

// Registrations, one step of start-up each. Return 0, or the error after it was logged.
platform_status register_session_record_provider();  ///< both directions, structured
platform_status register_server_session_provider();  ///< server sessions, for the command line
platform_status register_client_session_provider();  ///< client sessions, for the command line
platform_status sshd_params_edm_init();              ///< the server's parameters

/// What a provider's registration needs, and how its failures are told.
struct provider_row {
    const char* path;
    datastore_provider_callback callback;
    const char* library_location;           ///< log location when the datastore's library is missing
    const char* registration_failed;        ///< logged
    const char* registration_debug;         ///< format with routine, line and error; null prints nothing
    platform_status (*register_records)();  ///< null when another provider's registration brings the records
    const char* records_failed;             ///< logged; the provider is then taken back
    const char* records_debug;              ///< format with routine, line and error; null prints nothing
};

/// Registers a provider, then its records. Returns 0, or the error after it was logged.
platform_status register_provider(const provider_row& row, const char* routine);

#endif
