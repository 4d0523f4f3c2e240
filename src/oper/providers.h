/// Data providers: the operational trees that the agent serves.
#ifndef OPER_PROVIDERS_H
#define OPER_PROVIDERS_H

#include "platform/datastore.h"

// Registrations, each a start-up step. They return 0, or the error after logging it.
platform_status register_session_record_provider();  ///< both directions, structured
platform_status register_server_session_provider();  ///< server sessions, for the command line
platform_status register_client_session_provider();  ///< client sessions, for the command line
platform_status sshd_params_edm_init();              ///< the server's parameters

/// What is needed to register a provider, and the texts for its failures.
struct provider_row {
    const char* path;
    datastore_provider_callback callback;
    const char* library_location;           ///< logged if the datastore's library is missing
    const char* registration_failed;        ///< logged
    const char* registration_debug;         ///< format with routine, line and error; null: not printed
    platform_status (*register_records)();  ///< null if another provider registers the records
    const char* records_failed;             ///< logged
    const char* records_debug;              ///< format with routine, line and error; null: not printed
    bool records_last;  ///< the records are registered after the provider, which is unregistered if that fails
};

/// Registers a provider's records, then the provider. Returns 0, or the error after logging it.
platform_status register_provider(const provider_row& row, const char* routine);

#endif
