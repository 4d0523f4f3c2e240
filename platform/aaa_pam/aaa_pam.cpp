/// The module of the servers' PAM service. It delegates every stage to a service of the machine, so that the
/// administrator configures who may log in, and how, in one place; and it enforces the limit of a VRF's concurrent
/// concurrent sessions.
#include <security/pam_appl.h>
#include <security/pam_ext.h>
#include <security/pam_modules.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "aaa_pam/session_limit.h"

namespace {

/// Installed as /etc/pam.d/ssh_cfg_aaa; may be changed by the administrator.
constexpr const char* machine_service = "ssh_cfg_aaa";
constexpr const char* data_name = "ssh_cfg_aaa";
constexpr const char* session_data_name = "ssh_cfg_session";

using stage = int (*)(pam_handle_t* machine, int flags);

void end_machine_service(pam_handle_t*, void* machine, int status) {
    pam_end(static_cast<pam_handle_t*>(machine), status);
}

/// The server sets these between the stages: the session uses a different conversation than the password, and the
/// terminal becomes known only then.
int hand_items_on(pam_handle_t* server, pam_handle_t* machine) {
    constexpr int items[] = {PAM_CONV, PAM_TTY, PAM_RHOST, PAM_RUSER};
    for (const int item : items) {
        const void* value = nullptr;
        int status = pam_get_item(server, item, &value);
        if (status == PAM_SUCCESS && value != nullptr) {
            status = pam_set_item(machine, item, value);
        }
        if (status != PAM_SUCCESS) {
            return status;
        }
    }
    return PAM_SUCCESS;
}

int start_machine_service(pam_handle_t* server, pam_handle_t** machine) {
    const char* user = nullptr;
    int status = pam_get_user(server, &user, nullptr);
    if (status != PAM_SUCCESS) {
        return status;
    }
    const void* conversation = nullptr;
    status = pam_get_item(server, PAM_CONV, &conversation);
    if (status != PAM_SUCCESS) {
        return status;
    }
    status = pam_start(machine_service, user, static_cast<const pam_conv*>(conversation), machine);
    if (status != PAM_SUCCESS) {
        return status;
    }
    status = pam_set_data(server, data_name, *machine, end_machine_service);
    if (status != PAM_SUCCESS) {
        pam_end(*machine, status);
    }
    return status;
}

/// A single handle is used for all stages of a login, because a session must be closed by the modules that opened it.
int machine_service_of(pam_handle_t* server, pam_handle_t** machine) {
    const void* data = nullptr;
    if (pam_get_data(server, data_name, &data) == PAM_SUCCESS && data != nullptr) {
        *machine = static_cast<pam_handle_t*>(const_cast<void*>(data));
        return PAM_SUCCESS;
    }
    return start_machine_service(server, machine);
}

/// Copies the variables that the machine's modules have set for the session.
int take_environment_over(pam_handle_t* server, pam_handle_t* machine) {
    char** environment = pam_getenvlist(machine);
    if (environment == nullptr) {
        return PAM_BUF_ERR;
    }
    int status = PAM_SUCCESS;
    for (char** variable = environment; *variable != nullptr; ++variable) {
        if (status == PAM_SUCCESS) {
            status = pam_putenv(server, *variable);
        }
        free(*variable);
    }
    free(environment);
    return status;
}

/// A module of the machine may have mapped the user to another name.
int take_user_over(pam_handle_t* server, pam_handle_t* machine) {
    const void* before = nullptr;
    const void* now = nullptr;
    int status = pam_get_item(server, PAM_USER, &before);
    if (status == PAM_SUCCESS) {
        status = pam_get_item(machine, PAM_USER, &now);
    }
    const auto* old_name = static_cast<const char*>(before);
    const auto* new_name = static_cast<const char*>(now);
    if (status != PAM_SUCCESS || new_name == nullptr || (old_name != nullptr && strcmp(old_name, new_name) == 0)) {
        return status;
    }
    return pam_set_item(server, PAM_USER, new_name);
}

int run_stage(pam_handle_t* server, int flags, stage run) {
    pam_handle_t* machine = nullptr;
    int status = machine_service_of(server, &machine);
    if (status == PAM_SUCCESS) {
        status = hand_items_on(server, machine);
    }
    if (status != PAM_SUCCESS) {
        pam_syslog(server, LOG_ERR, "cannot use the service %s: %s", machine_service, pam_strerror(server, status));
        return status;
    }
    status = run(machine, flags);
    int taken = take_user_over(server, machine);
    if (taken == PAM_SUCCESS) {
        taken = take_environment_over(server, machine);
    }
    return status == PAM_SUCCESS ? taken : status;
}

/// Refuses, with a message to the user, if the limit is reached.
int refuse_session(pam_handle_t* server, const session_count& count) {
    pam_syslog(server, LOG_NOTICE, "session refused: %u of at most %u sessions are open in this VRF", count.open,
               count.limit);
    pam_error(server, "Too many sessions: %u of at most %u are open.", count.open, count.limit);
    return PAM_PERM_DENIED;
}

/// A limit that cannot be enforced must not lock the operators out.
void report_uncounted(pam_handle_t* server, int error) {
    pam_syslog(server, LOG_ERR, "the limit of concurrent sessions is not in force: %s", strerror(error));
}

/// The user is informed immediately, although only a later stage can count the session: this one may run in a process
/// that ends with the authentication.
int check_session_limit(pam_handle_t* server) {
    session_count count;
    const int error = session_limit_count(session_limit_directory, &count);
    if (error != 0) {
        report_uncounted(server, error);
        return PAM_SUCCESS;
    }
    return count.is_full() ? refuse_session(server, count) : PAM_SUCCESS;
}

/// A process of sshd serves one session.
int session_lock = -1;

void leave_session(pam_handle_t*, void* lock, int) {
    close(*static_cast<int*>(lock));
}

int count_session(pam_handle_t* server) {
    session_count count;
    const int error = session_limit_enter(session_limit_directory, &count, &session_lock);
    if (error != 0) {
        report_uncounted(server, error);
        return PAM_SUCCESS;
    }
    if (session_lock < 0) {
        return count.is_full() ? refuse_session(server, count) : PAM_SUCCESS;
    }
    const int status = pam_set_data(server, session_data_name, &session_lock, leave_session);
    if (status != PAM_SUCCESS) {
        close(session_lock);
    }
    return status;
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int pam_sm_authenticate(pam_handle_t* server, int flags, int, const char**) {
    return run_stage(server, flags, pam_authenticate);
}

__attribute__((visibility("default"))) int pam_sm_setcred(pam_handle_t* server, int flags, int, const char**) {
    return run_stage(server, flags, pam_setcred);
}

__attribute__((visibility("default"))) int pam_sm_acct_mgmt(pam_handle_t* server, int flags, int, const char**) {
    const int status = run_stage(server, flags, pam_acct_mgmt);
    return status == PAM_SUCCESS ? check_session_limit(server) : status;
}

__attribute__((visibility("default"))) int pam_sm_open_session(pam_handle_t* server, int flags, int, const char**) {
    const int status = count_session(server);
    return status == PAM_SUCCESS ? run_stage(server, flags, pam_open_session) : status;
}

__attribute__((visibility("default"))) int pam_sm_close_session(pam_handle_t* server, int flags, int, const char**) {
    return run_stage(server, flags, pam_close_session);
}
}
