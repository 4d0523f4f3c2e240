#include "openssh/reporter/fact_rows.h"

#include <algorithm>
#include <iterator>

#include "openssh/reporter/line_pattern.h"

namespace openssh {

namespace {

/// Which processes a fact is accepted from. The process that talks to an unauthenticated peer may be compromised: it
/// can lie about the algorithms of its own connection, but not about who was authenticated.
enum class believed { from_all, after_authentication, from_monitor };

struct learning {
    session_facts& facts;
    const captures& found;
    const line_context& context;

    std::string_view piece(size_t index) const { return found.pieces[index]; }
};

struct fact_row {
    std::string_view function;
    std::string_view pattern;
    believed from;
    void (*learn)(learning& with);
};

struct name_row {
    std::string_view start;  ///< prefix of what sshd or ssh logs
    std::string_view name;
};

/// The name of the first row whose `start` the text begins with; empty if there is none.
template <size_t count>
std::string_view name_of(const name_row (&rows)[count], std::string_view text) {
    for (const name_row& row : rows) {
        if (text.starts_with(row.start)) {
            return row.name;
        }
    }
    return {};
}

uint64_t number_in(std::string_view piece) {
    unsigned long long number = 0;
    return number_of(piece, number) ? number : 0;
}

// Algorithms

/// Authenticated ciphers use no MAC; some have a name that routers show in its place.
std::string_view mac_name(std::string_view cipher, std::string_view mac) {
    if (mac != "<implicit>") {
        return mac;
    }
    return cipher.find("-gcm") != std::string_view::npos ? "aes-gcm" : std::string_view();
}

void learn_kex(learning& with) {
    set_field(with.facts.algorithms.kex, with.piece(0));
}
void learn_host_key(learning& with) {
    set_field(with.facts.algorithms.host_key, with.piece(0));
}

void learn_direction(learning& with, session_kind for_whom_inbound) {
    const std::string_view cipher = with.piece(0);
    const std::string_view mac = mac_name(cipher, with.piece(1));
    if (with.facts.kind == for_whom_inbound) {
        set_field(with.facts.algorithms.in_cipher, cipher);
        set_field(with.facts.algorithms.in_mac, mac);
    } else {
        set_field(with.facts.algorithms.out_cipher, cipher);
        set_field(with.facts.algorithms.out_mac, mac);
    }
}
void learn_client_to_server(learning& with) {
    learn_direction(with, session_kind::incoming);
}
void learn_server_to_client(learning& with) {
    learn_direction(with, session_kind::outgoing);
}

// Rekeying

void learn_rekey_limits(learning& with) {
    with.facts.rekey.bytes = number_in(with.piece(0));
    with.facts.rekey.seconds = static_cast<uint32_t>(std::min<uint64_t>(number_in(with.piece(1)), UINT32_MAX));
}

void learn_new_keys(learning& with) {
    with.facts.rekey.keyed_at = with.context.now;
    with.facts.rekey.blocks_limit = number_in(with.piece(1));
    if (with.facts.rekey.at_keying.known == 0) {
        with.facts.rekey.at_keying = with.context.bytes;
    }
}

void learn_rekeying(learning& with) {
    with.facts.rekey.at_keying = with.context.bytes;
}
void learn_rekeying_out(learning& with) {
    ++with.facts.rekey.count;
    learn_rekeying(with);
}

// Who

void learn_claimed_user(learning& with) {
    set_field(with.facts.user, with.piece(0));
    with.facts.state = std::max<uint32_t>(with.facts.state, session_authenticating);
}

void learn_host(learning& with) {
    if (with.facts.host[0] == '\0') {
        set_field(with.facts.host, with.piece(0));
    }
}

void learn_connecting(learning& with) {
    set_field(with.facts.host, with.piece(1));
}

void learn_server_and_user(learning& with) {
    const std::string_view host = with.piece(0);
    set_field(with.facts.user, with.piece(1));
    with.facts.state = std::max<uint32_t>(with.facts.state, session_authenticating);
    if (with.facts.host[0] == '\0') {
        set_field(with.facts.host, host.substr(0, host.rfind(':')));
    }
}

// How

/// The names that readers know; newer key types are named in the same way.
constexpr name_row key_methods[] = {
    {"RSA", "rsa-pubkey"},         {"rsa-sha2-", "rsa-pubkey"},       {"ssh-rsa", "rsa-pubkey"},
    {"ED25519", "ed25519-pubkey"}, {"ssh-ed25519", "ed25519-pubkey"}, {"sk-ssh-ed25519", "ed25519-pubkey"},
    {"ECDSA", "ecdsa-pubkey"},     {"ecdsa-sha2-", "ecdsa-pubkey"},   {"sk-ecdsa-sha2-", "ecdsa-pubkey"},
    {"DSA", "dsa-pubkey"},
};

constexpr name_row client_methods[] = {{"password", "password"}, {"keyboard-interactive", "key-intr"}};

void try_password(learning& with) {
    if (with.piece(0) == "1") {
        set_field(with.facts.attempt, "password");
    }
}
void try_keyboard_interactive(learning& with) {
    set_field(with.facts.attempt, "key-intr");
}
void try_other(learning& with) {
    set_field(with.facts.attempt, "");
}

/// "publickey RSA signature using rsa-sha2-512 verified". A host-based key has no name.
void try_key(learning& with) {
    const bool is_users_own = with.piece(0) == "publickey";
    if (with.piece(2) == "verified" || with.piece(2).ends_with(" verified")) {
        set_field(with.facts.attempt, is_users_own ? name_of(key_methods, with.piece(1)) : std::string_view());
    }
}

/// "ED25519 SHA256:...", for a certificate followed by its name and its issuer.
void learn_accepted_key(learning& with) {
    const std::string_view key = with.piece(3);
    const size_t type_end = std::min(key.find(' '), key.size());
    const std::string_view fingerprint = key.substr(std::min(type_end + 1, key.size()));
    set_field(with.facts.login.key_type, key.substr(0, type_end));
    set_field(with.facts.login.key_fingerprint, fingerprint.substr(0, fingerprint.find(' ')));
}

void try_client_method(learning& with) {
    set_field(with.facts.attempt, name_of(client_methods, with.piece(0)));
}
void try_client_key(learning& with) {
    set_field(with.facts.attempt, name_of(key_methods, with.piece(0)));
}

void let_in(learning& with) {
    if (with.facts.state != session_established) {
        with.facts.state = session_established;
        with.facts.login.time = with.context.now;
        set_field(with.facts.method, with.facts.attempt);
    }
}
void let_user_in(learning& with) {
    set_field(with.facts.user, with.piece(0));
    let_in(with);
}

// Channels

struct type_row {
    std::string_view start;
    connection_type type;
};

/// Types of new channels to the peer. Others, such as listening sockets, are ignored.
constexpr type_row new_channels[] = {
    {"session", connection_none},
    {"direct-tcpip", connection_forwarding},
    {"forwarded-", connection_forwarding},
    {"direct-streamlocal", connection_forwarding},
    {"x11", connection_forwarding},
    {"auth-agent", connection_forwarding},
    {"tun", connection_forwarding},
    {"mux-proxy", connection_forwarding},
    {"stdio-forward", connection_forwarding},
};

/// Suffix of listeners, whose names otherwise begin like those of the channels they open.
constexpr std::string_view listener_end = "-listener";

constexpr type_row labels[] = {
    {"session:shell", connection_shell},         {"session:command", connection_command},
    {"session:subsystem:sftp", connection_sftp}, {"session:subsystem:netconf", connection_netconf},
    {"session:subsystem", connection_subsystem},
};

constexpr type_row requests[] = {
    {"shell", connection_shell},
    {"exec", connection_command},
    {"subsystem", connection_subsystem},
};

template <size_t count>
const type_row* type_of(const type_row (&rows)[count], std::string_view text) {
    const auto* row = std::find_if(std::begin(rows), std::end(rows),
                                   [&](const type_row& one) { return text.starts_with(one.start); });
    return row == std::end(rows) ? nullptr : row;
}

/// The channel in use whose `id` or `login` is this number; null if there is none.
channel_facts* find_channel(session_facts& facts, std::string_view text, uint32_t channel_facts::*number) {
    unsigned long long wanted = 0;
    if (!number_of(text, wanted)) {
        return nullptr;
    }
    auto* found = std::find_if(std::begin(facts.channels), std::end(facts.channels), [&](const channel_facts& channel) {
        return channel.state != channel_unused && channel.*number == wanted;
    });
    return found == std::end(facts.channels) ? nullptr : found;
}

/// Channels that exceed the slots of an answer are not recorded.
void open_channel(learning& with) {
    const type_row* row = type_of(new_channels, with.piece(1));
    unsigned long long id = 0;
    if (row == nullptr || with.piece(1).ends_with(listener_end) || !number_of(with.piece(0), id) || id > INT32_MAX) {
        return;
    }
    channel_facts* place = find_channel(with.facts, with.piece(0), &channel_facts::id);
    for (channel_facts& channel : with.facts.channels) {
        if (place == nullptr && channel.state == channel_unused) {
            place = &channel;
        }
    }
    if (place != nullptr) {
        *place = {.state = row->type == connection_none ? channel_opened : channel_running,
                  .id = static_cast<uint32_t>(id),
                  .type = row->type};
    }
}

void close_channel(learning& with) {
    if (channel_facts* channel = find_channel(with.facts, with.piece(0), &channel_facts::id)) {
        *channel = {};
    }
}

template <size_t count>
void use_channel(learning& with, const type_row (&rows)[count]) {
    channel_facts* channel = find_channel(with.facts, with.piece(0), &channel_facts::id);
    const type_row* row = type_of(rows, with.piece(1));
    if (channel != nullptr && row != nullptr) {
        channel->state = channel_running;
        channel->type = row->type;
    }
}

void label_channel(learning& with) {
    use_channel(with, labels);
}

void request_of_channel(learning& with) {
    channel_facts* channel = find_channel(with.facts, with.piece(0), &channel_facts::id);
    if (channel != nullptr && with.piece(1) == "pty-req") {
        channel->terminal = with.context.own_terminal;
    }
    use_channel(with, requests);
}

void link_login(learning& with) {
    if (channel_facts* channel = find_channel(with.facts, with.piece(1), &channel_facts::id)) {
        channel->login = static_cast<uint32_t>(number_in(with.piece(0)));
    }
}

void give_terminal(learning& with) {
    channel_facts* channel = find_channel(with.facts, with.piece(0), &channel_facts::login);
    unsigned long long number = 0;
    if (channel != nullptr && number_of(with.piece(1), number) && number < no_terminal) {
        channel->terminal = static_cast<uint32_t>(number);
    }
}

constexpr fact_row rows[] = {
    {"choose_kex", "kex: algorithm: %", believed::from_all, learn_kex},
    {"choose_hostkeyalg", "kex: host key algorithm: %", believed::from_all, learn_host_key},
    {"kex_choose_conf", "kex: client->server cipher: % MAC: % compression: ~", believed::from_all,
     learn_client_to_server},
    {"kex_choose_conf", "kex: server->client cipher: % MAC: % compression: ~", believed::from_all,
     learn_server_to_client},
    {"ssh_packet_set_rekey_limits", "rekey after % bytes, % seconds", believed::from_all, learn_rekey_limits},
    {"ssh_set_newkeys", "rekeying out~", believed::from_all, learn_rekeying_out},
    {"ssh_set_newkeys", "rekeying in~", believed::from_all, learn_rekeying},
    {"ssh_set_newkeys", "rekey % after % blocks", believed::from_all, learn_new_keys},

    {"sshpam_init", "PAM: initializing for \"%\"", believed::from_monitor, learn_claimed_user},
    {"sshpam_init", "PAM: setting PAM_RHOST to \"%\"", believed::from_monitor, learn_host},
    {"mm_answer_authpassword", "sending result %", believed::from_monitor, try_password},
    {"mm_answer_keyverify", "% % signature %", believed::from_monitor, try_key},
    {"mm_answer_pam_respond", "~", believed::from_monitor, try_keyboard_interactive},
    {"mm_answer_gss_userok", "~", believed::from_monitor, try_other},
    {"auth_log", "Accepted publickey for % from % port % ssh2: %", believed::from_monitor, learn_accepted_key},
    {"monitor_child_preauth", "user % authenticated by privileged process", believed::from_monitor, let_user_in},

    {"channel_new", "channel %: new % [~", believed::after_authentication, open_channel},
    {"channel_free", "channel %: free: ~", believed::after_authentication, close_channel},
    {"channel_set_xtype", "labeled channel % as % ~", believed::after_authentication, label_channel},
    {"session_open", "session_open: session %: link with channel %", believed::after_authentication, link_login},
    {"session_pty_req", "session_pty_req: session % alloc /dev/pts/%", believed::after_authentication, give_terminal},

    {"ssh_connect_direct", "Connecting to % [%] port ~", believed::from_monitor, learn_connecting},
    {"ssh_login", "Authenticating to % as '%'", believed::from_monitor, learn_server_and_user},
    {"authmethod_get", "Next authentication method: %", believed::from_monitor, try_client_method},
    {"sign_and_send_pubkey", "signing using % ~", believed::from_monitor, try_client_key},
    {"client_repledge", "~", believed::from_monitor, let_in},
    {"channel_request_start", "channel %: request % confirm ~", believed::after_authentication, request_of_channel},
};

bool is_believed(believed from, const log_line& line, const line_context& context) {
    return from == believed::from_all ||
           (!line.before_authentication && (from == believed::after_authentication || context.from_monitor));
}

}  // namespace

bool learn_from_line(session_facts& facts, const log_line& line, const line_context& context) {
    for (const fact_row& row : rows) {
        captures found;
        if (row.function == line.function && is_believed(row.from, line, context) &&
            match_pattern(row.pattern, line.text, found)) {
            learning with{facts, found, context};
            row.learn(with);
            return true;
        }
    }
    return false;
}

bool counts_bytes(const log_line& line) {
    return line.function == "ssh_set_newkeys";
}

}  // namespace openssh
