#include "linux/datastore/confirmation.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <ctime>

#include "common/files.h"
#include "common/text.h"
#include "linux/datastore/datastore_internal.h"
#include "linux/datastore/history.h"
#include "linux/datastore/state.h"
#include "linux/datastore/stored_fields.h"

namespace {

constexpr char confirmation_key[] = "commit/confirmation";
constexpr char boot_file[] = "/proc/sys/kernel/random/boot_id";
constexpr size_t boot_file_max = 64;

std::string encode(const datastore_confirmation& confirmation) {
    std::string bytes;
    stored_fields_append(bytes, confirmation.number);
    stored_fields_append(bytes, confirmation.seconds);
    stored_fields_append(bytes, confirmation.begin.boot);
    stored_fields_append(bytes, confirmation.begin.uptime);
    stored_fields_append(bytes, static_cast<uint64_t>(confirmation.begin.time));
    return bytes;
}

platform_status decode(std::string_view bytes, datastore_confirmation& confirmation) {
    stored_fields_reader reader(bytes);
    datastore_confirmation decoded;
    decoded.number = reader.number();
    decoded.seconds = reader.number();
    decoded.begin.boot = reader.text();
    decoded.begin.uptime = reader.number();
    decoded.begin.time = static_cast<int64_t>(reader.number());
    if (!reader.is_valid() || !reader.at_end()) {
        return EBADMSG;
    }
    confirmation = std::move(decoded);
    return PLATFORM_OK;
}

/// Reads a commit from the history. Returns false unless it is the latest one there.
bool find_latest(uint64_t number, datastore_kept_commit& latest) {
    bool found = false;
    datastore_visit_history([&](const datastore_kept_commit& commit) {
        found = commit.number == number;
        if (found) {
            latest = commit;
        }
        return false;
    });
    return found;
}

/// Describes who made a commit and when. Returns an empty string unless it is the latest commit in the history.
std::string origin_of(uint64_t number) {
    datastore_kept_commit commit;
    return find_latest(number, commit)
               ? " by " + text_escape(datastore_author_name(commit.author), 64) + " of " + text_utc_time(commit.time)
               : "";
}

int64_t deadline_of(const datastore_confirmation& confirmation) {
    const datastore_moment now = datastore_present_moment();
    return now.time + static_cast<int64_t>(datastore_confirmation_left(confirmation, now));
}

}  // namespace

datastore_moment datastore_present_moment() {
    datastore_moment moment;
    file_read(boot_file, boot_file_max, moment.boot);
    struct timespec uptime = {};
    clock_gettime(CLOCK_BOOTTIME, &uptime);
    moment.uptime = static_cast<uint64_t>(uptime.tv_sec);
    moment.time = time(nullptr);
    return moment;
}

uint64_t datastore_confirmation_left(const datastore_confirmation& confirmation, const datastore_moment& now) {
    const datastore_moment& begin = confirmation.begin;
    const bool same_boot = begin.boot == now.boot && now.uptime >= begin.uptime;
    const int64_t passed = same_boot ? static_cast<int64_t>(now.uptime - begin.uptime) : now.time - begin.time;
    const auto given = static_cast<int64_t>(confirmation.seconds);
    // If the clock is earlier than the time of the commit, it does not tell how much time has passed.
    return static_cast<uint64_t>(std::clamp(given - passed, int64_t{0}, given));
}

platform_status datastore_confirmation_get(datastore_confirmation& confirmation) {
    std::string bytes;
    const platform_status status = datastore_private_get(confirmation_key, bytes);
    return status == PLATFORM_OK ? decode(bytes, confirmation) : status;
}

platform_status datastore_confirmation_resume() {
    datastore_confirmation confirmation;
    if (const platform_status status = datastore_confirmation_get(confirmation); status != PLATFORM_OK) {
        return status;
    }
    const datastore_moment now = datastore_present_moment();
    if (confirmation.begin.boot == now.boot) {
        return PLATFORM_OK;
    }
    confirmation.seconds = datastore_confirmation_left(confirmation, now);
    confirmation.begin = now;
    return datastore_private_put(confirmation_key, encode(confirmation));
}

void datastore_on_confirmation_awaited(void (*notify)()) {
    the_datastore().confirmation_awaited = notify;
}

platform_status datastore_confirm() {
    return datastore_private_delete(confirmation_key);
}

std::string datastore_confirmation_demand(const datastore_confirmation& confirmation) {
    return text_format("commit %" PRIu64
                       "%s must be confirmed first, until %s: `ssh_cfg_ctl confirm` keeps it, `ssh_cfg_ctl rollback "
                       "%" PRIu64 "` undoes it",
                       confirmation.number, origin_of(confirmation.number).c_str(),
                       text_utc_time(deadline_of(confirmation)).c_str(), confirmation.number - 1);
}

std::optional<datastore_trial> datastore_commit_on_trial() {
    datastore_confirmation confirmation;
    if (datastore_confirmation_get(confirmation) != PLATFORM_OK) {
        return std::nullopt;
    }
    datastore_trial trial = {confirmation.number, {}, {}, deadline_of(confirmation)};
    datastore_kept_commit commit;
    if (find_latest(confirmation.number, commit)) {
        trial.user = datastore_author_name(commit.author);
        trial.note = commit.author.note;
    }
    return trial;
}

platform_status confirmation_store(const datastore_state& state, const datastore_confirmation& confirmation) {
    return state.engine->put(state.store, confirmation_key, {0, encode(confirmation)});
}

platform_status confirmation_remove(const datastore_state& state) {
    return state.engine->erase(state.store, confirmation_key);
}
