#include "linux/rehearsal/stored_reads.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <string_view>

#include "platform/process_manager.h"

namespace {

using steady = std::chrono::steady_clock;

/// How often the parent reports progress while it waits, in milliseconds.
constexpr std::chrono::milliseconds::rep report_interval = 100;

/// An access list of 10,000 entries takes a quarter of this.
constexpr uint32_t message_max = uint32_t{16} * 1024 * 1024;

enum class question : uint32_t { get, next_after, next_at, server, report };

/// Comes before `size` bytes: a key or the report.
struct question_header {
    question asked;
    uint32_t size;
};

/// Comes before the key and then the value's bytes.
struct answer_header {
    platform_status status;
    uint32_t kind;
    uint32_t key_size;
    uint32_t value_size;
};

/// Waits until the socket is ready. The rehearsing process waits without a deadline: it dies with its parent.
platform_status wait_for(int connection, short events, const steady::time_point* deadline) {
    pollfd waiting = {connection, events, 0};
    for (;;) {
        int timeout = -1;
        if (deadline != nullptr) {
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(*deadline - steady::now()).count();
            if (left <= 0) {
                return ETIMEDOUT;
            }
            timeout = static_cast<int>(std::min(left, report_interval));
        }
        const int ready = poll(&waiting, 1, timeout);
        if (ready == 0) {
            process_manager_progress();
        }
        if (ready > 0) {
            return PLATFORM_OK;
        }
        if (ready < 0 && errno != EINTR) {
            return static_cast<platform_status>(errno);
        }
    }
}

platform_status send_all(int connection, std::string_view bytes, const steady::time_point* deadline) {
    while (!bytes.empty()) {
        const ssize_t count = send(connection, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (count > 0) {
            bytes.remove_prefix(static_cast<size_t>(count));
        } else if (errno != EINTR && errno != EAGAIN) {
            return static_cast<platform_status>(errno);
        } else if (const platform_status status = wait_for(connection, POLLOUT, deadline); status != PLATFORM_OK) {
            return status;
        }
    }
    return PLATFORM_OK;
}

platform_status receive_all(int connection, void* buffer, size_t size, const steady::time_point* deadline) {
    auto* place = static_cast<char*>(buffer);
    while (size > 0) {
        const ssize_t count = recv(connection, place, size, MSG_DONTWAIT);
        if (count == 0) {
            return ECONNRESET;
        }
        if (count > 0) {
            place += count;
            size -= static_cast<size_t>(count);
        } else if (errno != EINTR && errno != EAGAIN) {
            return static_cast<platform_status>(errno);
        } else if (const platform_status status = wait_for(connection, POLLIN, deadline); status != PLATFORM_OK) {
            return status;
        }
    }
    return PLATFORM_OK;
}

platform_status receive_text(int connection, uint32_t size, std::string& text, const steady::time_point* deadline) {
    if (size > message_max) {
        return EMSGSIZE;
    }
    text.resize(size);
    return receive_all(connection, text.data(), size, deadline);
}

std::string_view bytes_of(const auto& header) {
    return {reinterpret_cast<const char*>(&header), sizeof header};
}

platform_status send_question(int connection, question asked, std::string_view text) {
    const question_header header = {asked, static_cast<uint32_t>(text.size())};
    const platform_status status = send_all(connection, bytes_of(header), nullptr);
    return status == PLATFORM_OK ? send_all(connection, text, nullptr) : status;
}

// The rehearsing process's side.

/// One read from what is stored. The key is stored unless `key` is null.
platform_status ask(int connection, question asked, std::string_view wanted, std::string* key,
                    datastore_stored& value) {
    answer_header header = {};
    platform_status status = send_question(connection, asked, wanted);
    if (status == PLATFORM_OK) {
        status = receive_all(connection, &header, sizeof header, nullptr);
    }
    std::string found;
    datastore_stored found_value = {header.kind, {}};
    if (status == PLATFORM_OK) {
        status = receive_text(connection, header.key_size, found, nullptr);
    }
    if (status == PLATFORM_OK) {
        status = receive_text(connection, header.value_size, found_value.bytes, nullptr);
    }
    if (status != PLATFORM_OK || header.status != PLATFORM_OK) {
        return status != PLATFORM_OK ? status : header.status;
    }
    if (key != nullptr) {
        *key = std::move(found);
    }
    value = std::move(found_value);
    return PLATFORM_OK;
}

rehearsal_store& store_of(void* store) {
    return *static_cast<rehearsal_store*>(store);
}

platform_status cannot_open(const char*, void**, std::string& reason) {
    reason = "the datastore of a rehearsal cannot be opened";
    return ENOTSUP;
}

void close_nothing(void*) {}

platform_status do_nothing(void*) {
    return PLATFORM_OK;
}

platform_status rehearsal_get(void* store, std::string_view key, datastore_stored& value) {
    const auto changed = store_of(store).changes.find(key);
    if (changed == store_of(store).changes.end()) {
        return ask(store_of(store).connection, question::get, key, nullptr, value);
    }
    if (!changed->second) {
        return DATASTORE_NO_SUCH_ITEM;
    }
    value = *changed->second;
    return PLATFORM_OK;
}

/// The first stored item that no change hides.
platform_status next_unchanged(const rehearsal_store& store, std::string_view from, bool inclusive, std::string& key,
                               datastore_stored& value) {
    platform_status status =
        ask(store.connection, inclusive ? question::next_at : question::next_after, from, &key, value);
    while (status == PLATFORM_OK && store.changes.contains(key)) {
        status = ask(store.connection, question::next_after, std::string(key), &key, value);
    }
    return status;
}

platform_status rehearsal_next(void* store, std::string_view from, bool inclusive, std::string& key,
                               datastore_stored& value) {
    const auto& changes = store_of(store).changes;
    std::string unchanged;
    datastore_stored unchanged_value;
    const platform_status status = next_unchanged(store_of(store), from, inclusive, unchanged, unchanged_value);
    if (status != PLATFORM_OK && status != DATASTORE_NO_SUCH_ITEM) {
        return status;
    }
    auto changed = inclusive ? changes.lower_bound(from) : changes.upper_bound(from);
    while (changed != changes.end() && !changed->second) {
        ++changed;
    }
    if (changed != changes.end() && (status != PLATFORM_OK || changed->first < unchanged)) {
        key = changed->first;
        value = *changed->second;
        return PLATFORM_OK;
    }
    if (status == PLATFORM_OK) {
        key = std::move(unchanged);
        value = std::move(unchanged_value);
    }
    return status;
}

/// Finds nothing, because a rehearsal does not need the history.
platform_status no_previous(void*, std::string_view, std::string&, datastore_stored&) {
    return DATASTORE_NO_SUCH_ITEM;
}

platform_status rehearsal_put(void* store, std::string_view key, const datastore_stored& value) {
    store_of(store).changes.insert_or_assign(std::string(key), value);
    return PLATFORM_OK;
}

platform_status rehearsal_erase(void* store, std::string_view key) {
    store_of(store).changes.insert_or_assign(std::string(key), std::nullopt);
    return PLATFORM_OK;
}

std::string rehearsal_reason(void*) {
    return "the stored configuration cannot be read";
}

// The parent's side.

platform_status look_up(const rehearsal_answers& answers, question asked, const std::string& wanted, std::string& key,
                        datastore_stored& value) {
    if (asked == question::server) {
        return answers.is_running(wanted) ? platform_status{PLATFORM_OK} : platform_status{DATASTORE_NO_SUCH_ITEM};
    }
    return asked == question::get ? answers.engine.get(answers.store, wanted, value)
                                  : answers.engine.next(answers.store, wanted, asked == question::next_at, key, value);
}

platform_status answer(int connection, const rehearsal_answers& answers, question asked, const std::string& wanted,
                       steady::time_point deadline) {
    std::string key;
    datastore_stored value = {};
    const platform_status found = look_up(answers, asked, wanted, key, value);
    const answer_header header = {found, static_cast<uint32_t>(value.kind), static_cast<uint32_t>(key.size()),
                                  static_cast<uint32_t>(value.bytes.size())};
    std::string text(bytes_of(header));
    text += key;
    text += value.bytes;
    return send_all(connection, text, &deadline);
}

}  // namespace

const datastore_engine rehearsal_engine = {
    cannot_open,    close_nothing, do_nothing,    do_nothing,      close_nothing,    rehearsal_get,
    rehearsal_next, no_previous,   rehearsal_put, rehearsal_erase, rehearsal_reason,
};

platform_status send_report(int connection, const std::string& report) {
    return send_question(connection, question::report, report);
}

bool ask_for_server(int connection, const std::string& vrf_name) {
    datastore_stored nothing;
    return ask(connection, question::server, vrf_name, nullptr, nothing) == PLATFORM_OK;
}

platform_status answer_questions(int connection, const rehearsal_answers& answers, steady::time_point deadline,
                                 std::string& report) {
    while (steady::now() < deadline) {
        question_header header = {};
        std::string text;
        platform_status status = receive_all(connection, &header, sizeof header, &deadline);
        if (status == PLATFORM_OK) {
            status = receive_text(connection, header.size, text, &deadline);
        }
        if (status == PLATFORM_OK && header.asked == question::report) {
            report = std::move(text);
            return PLATFORM_OK;
        }
        if (status == PLATFORM_OK) {
            status = answer(connection, answers, header.asked, text, deadline);
        }
        if (status != PLATFORM_OK) {
            return status;
        }
    }
    return ETIMEDOUT;
}
