#include "linux/datastore/history.h"

#include <syslog.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>

#include "common/number.h"
#include "common/text.h"
#include "linux/datastore/state.h"
#include "linux/datastore/stored_fields.h"
#include "linux/reporting/log_message_internal.h"

namespace {

/// A key that sorts after the keys of all commits.
constexpr char end_of_history[] = "history/:";

std::string key_of(uint64_t number) {
    return text_format("%s%010" PRIu64, std::string(datastore_history_prefix).c_str(), number);
}

uint64_t number_of(std::string_view key) {
    key.remove_prefix(std::min(key.size(), datastore_history_prefix.size()));
    return number_parse<uint64_t>(key, 0, UINT64_MAX).value_or(0);
}

void append_value(std::string& bytes, const std::optional<datastore_stored>& value) {
    stored_fields_append(bytes, uint64_t{value.has_value()});
    if (value.has_value()) {
        stored_fields_append(bytes, value->kind);
        stored_fields_append(bytes, value->bytes);
    }
}

std::optional<datastore_stored> read_value(stored_fields_reader& reader) {
    if (reader.number() == 0) {
        return std::nullopt;
    }
    const auto kind = static_cast<uint32_t>(reader.number());
    return datastore_stored{kind, reader.text()};
}

/// Finds the commit before `key` and replaces `key` by the key of that commit.
platform_status previous_commit(const datastore_state& state, std::string& key, datastore_stored& stored) {
    std::string found;
    platform_status status = state.engine->previous(state.store, key, found, stored);
    if (status == PLATFORM_OK && !found.starts_with(datastore_history_prefix)) {
        status = DATASTORE_NO_SUCH_ITEM;
    }
    if (status == PLATFORM_OK) {
        key = std::move(found);
    }
    return status;
}

/// Removes the commits before `oldest_kept`. Must be called within a transaction.
platform_status remove_older(const datastore_state& state, uint64_t oldest_kept) {
    std::string key;
    datastore_stored stored;
    platform_status status = PLATFORM_OK;
    while (status == PLATFORM_OK) {
        status = state.engine->next(state.store, datastore_history_prefix, true, key, stored);
        if (status != PLATFORM_OK || !key.starts_with(datastore_history_prefix) || number_of(key) >= oldest_kept) {
            break;
        }
        status = state.engine->erase(state.store, key);
    }
    return status == DATASTORE_NO_SUCH_ITEM ? platform_status{PLATFORM_OK} : status;
}

platform_status remove_excess(const datastore_state& state, uint64_t oldest_kept) {
    platform_status status = state.engine->begin(state.store);
    if (status == PLATFORM_OK) {
        status = remove_older(state, oldest_kept);
    }
    if (status == PLATFORM_OK) {
        status = state.engine->commit(state.store);
    }
    if (status != PLATFORM_OK) {
        state.engine->rollback(state.store);
    }
    return status;
}

/// Excess commits are removed in groups, because each removal writes more pages than the commit itself.
constexpr uint64_t removal_interval = 32;

/// Returns the number of the oldest commit that is to be kept.
uint64_t oldest_kept(const datastore_state& state, uint64_t latest) {
    return latest >= state.commits_kept ? latest - state.commits_kept + 1 : 1;
}

}  // namespace

std::string datastore_author_name(const datastore_author& author) {
    if (!author.uid.has_value()) {
        return "agent";
    }
    return author.user.empty() ? std::to_string(*author.uid) : author.user;
}

std::string history_encode(const datastore_kept_commit& commit) {
    std::string bytes;
    stored_fields_append(bytes, commit.number);
    stored_fields_append(bytes, static_cast<uint64_t>(commit.time));
    stored_fields_append(bytes, uint64_t{commit.author.uid.has_value()});
    stored_fields_append(bytes, uint64_t{commit.author.uid.value_or(0)});
    stored_fields_append(bytes, commit.author.user);
    stored_fields_append(bytes, commit.author.call);
    stored_fields_append(bytes, commit.author.note);
    stored_fields_append(bytes, uint64_t{commit.changes.size()});
    for (const datastore_kept_change& change : commit.changes) {
        stored_fields_append(bytes, change.key);
        append_value(bytes, change.previous);
        append_value(bytes, change.value);
    }
    return bytes;
}

platform_status history_decode(std::string_view bytes, datastore_kept_commit& commit) {
    stored_fields_reader reader(bytes);
    datastore_kept_commit decoded;
    decoded.number = reader.number();
    decoded.time = static_cast<int64_t>(reader.number());
    const bool has_uid = reader.number() != 0;
    const auto uid = static_cast<uint32_t>(reader.number());
    decoded.author.uid = has_uid ? std::optional(uid) : std::nullopt;
    decoded.author.user = reader.text();
    decoded.author.call = reader.text();
    decoded.author.note = reader.text();
    for (uint64_t left = reader.number(); left > 0 && reader.is_valid(); left--) {
        datastore_kept_change change;
        change.key = reader.text();
        change.previous = read_value(reader);
        change.value = read_value(reader);
        decoded.changes.push_back(std::move(change));
    }
    if (!reader.is_valid() || !reader.at_end()) {
        return EBADMSG;
    }
    commit = std::move(decoded);
    return PLATFORM_OK;
}

platform_status history_open(datastore_state& state) {
    std::string key = end_of_history;
    datastore_stored stored;
    const platform_status status = previous_commit(state, key, stored);
    state.last_commit = status == PLATFORM_OK ? number_of(key) : 0;
    return status == DATASTORE_NO_SUCH_ITEM ? platform_status{PLATFORM_OK} : status;
}

platform_status history_append(const datastore_state& state, const datastore_kept_commit& commit) {
    const platform_status status = state.engine->put(state.store, key_of(commit.number), {0, history_encode(commit)});
    return status == PLATFORM_OK && commit.number % removal_interval == 0
               ? remove_older(state, oldest_kept(state, commit.number))
               : status;
}

void datastore_keep_commits(uint32_t count) {
    datastore_state& state = the_datastore();
    state.commits_kept = std::max(count, 1U);
    if (state.store == nullptr || state.last_commit == 0) {
        return;
    }
    if (const platform_status status = remove_excess(state, oldest_kept(state, state.last_commit));
        status != PLATFORM_OK) {
        platform_log(LOG_WARNING, "The oldest commits cannot be removed from the history: %s",
                     platform_status_text(status));
    }
}

uint64_t datastore_last_commit() {
    return the_datastore().last_commit;
}

platform_status datastore_visit_history(const std::function<bool(const datastore_kept_commit& commit)>& visit) {
    const datastore_state& state = the_datastore();
    if (state.store == nullptr) {
        return DATASTORE_UNAVAILABLE;
    }
    std::string key = end_of_history;
    datastore_stored stored;
    datastore_kept_commit commit;
    platform_status status = PLATFORM_OK;
    while ((status = previous_commit(state, key, stored)) == PLATFORM_OK) {
        if (number_of(key) < oldest_kept(state, state.last_commit)) {
            break;
        }
        status = history_decode(stored.bytes, commit);
        if (status != PLATFORM_OK || !visit(commit)) {
            return status;
        }
    }
    return status == DATASTORE_NO_SUCH_ITEM ? platform_status{PLATFORM_OK} : status;
}

platform_status datastore_past_at(uint64_t number, datastore_past& past) {
    uint64_t reached = datastore_last_commit();
    if (number > reached) {
        return DATASTORE_NO_SUCH_ITEM;
    }
    datastore_past found;
    const platform_status status = datastore_visit_history([&](const datastore_kept_commit& commit) {
        if (commit.number <= number || commit.number != reached) {
            return false;
        }
        for (const datastore_kept_change& change : commit.changes) {
            found[change.key] = change.previous;
        }
        reached--;
        return true;
    });
    if (status != PLATFORM_OK || reached != number) {
        return status != PLATFORM_OK ? status : platform_status{DATASTORE_NO_SUCH_ITEM};
    }
    past = std::move(found);
    return PLATFORM_OK;
}
