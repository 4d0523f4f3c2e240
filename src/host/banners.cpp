#include "host/banners.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "config_files/config_writer.h"
#include "config_files/files.h"
#include "config_files/parameter_table.h"
#include "core/debug.h"
#include "core/log.h"
#include "core/paths.h"
#include "host/trace_points.h"
#include "platform/banner_service.h"
#include "platform/status.h"

namespace {

struct free_text {
    void operator()(char* text) const { std::free(text); }
};

using banner_text = std::unique_ptr<char, free_text>;

bool is_text(const char* text) {
    return text != nullptr && text[0] != '\0';
}

/// An empty text counts as missing.
banner_text present(char* text) {
    banner_text owned(text);
    return is_text(text) ? std::move(owned) : nullptr;
}

/// Strips the delimiters in place. Returns null if nothing is left.
banner_text without_delimiters(banner_text text) {
    if (!text) {
        return nullptr;
    }
    char* const first = text.get();
    char* const last = std::strrchr(first, first[0]);
    if (last != first) {
        *last = '\0';
    }
    std::memmove(first, first + 1, std::strlen(first));
    return present(text.release());
}

// --- Files -----------------------------------------------------------------------------------------------------------

struct banner_target {
    const char* path;
    const char* directory;
    const char* open_failed;
    const char* create_failed;
    int exit_status;
};

constexpr banner_target login_target = {
    .path = paths::banner_file,
    .directory = paths::configuration_directory,
    .open_failed = "Error:=%s(0x%x), file open failed",
    .create_failed = "Failed to create the banner file",
    .exit_status = EXIT_BANNER_FILE,
};

// The directory is relative on purpose: the process runs in the root directory, where it already exists.
constexpr banner_target aaa_target = {
    .path = paths::aaa_banner_file,
    .directory = "etc",
    .open_failed = "Error:=%s(0x%x), aaa banner file open failed",
    .create_failed = "Failed to create the AAA banner file",
    .exit_status = EXIT_AAA_BANNER_FILE,
};

int report_write_failure(const banner_target& target, const char* format) {
    const int error = errno;
    debug_print(format, platform_status_text(error), error);
    trace_error(host_trace_banner_write, {target.path, "a", error});
    errno = error;
    return report_file_not_in_force(target.path);
}

int append_line(const banner_target& target, const char* text) {
    if (!is_text(text)) {
        debug_print("string is empty");
        return -1;
    }
    FILE* file = std::fopen(target.path, "ae");
    if (file == nullptr) {
        return report_write_failure(target, target.open_failed);
    }
    debug_print("file opened %s", target.path);
    const bool written = std::fprintf(file, "%s\n", text) >= 0;
    return std::fclose(file) == 0 && written ? 0 : report_write_failure(target, "Error:=%s(0x%x), file write failed");
}

void remove_file(const banner_target& target) {
    if (file_exists(target.path) == 1 && std::remove(target.path) != 0) {
        trace_error(host_trace_banner_remove, {target.path, errno});
        report_file_not_in_force(target.path);
    }
}

void create_file(const banner_target& target) {
    if (create_file_in_dir(target.directory, target.path) != 0) {
        log_errno(target.create_failed);
        trace_error(host_trace_banner_create, {target.path, errno});
        std::exit(target.exit_status);
    }
}

// --- The banner file -------------------------------------------------------------------------------------------------

struct banners {
    banner_text platform_login;
    banner_text login;
    banner_text platform_motd;
    banner_text motd;
};

banners fetch_banners() {
    banners texts;
    texts.platform_login = present(banner_service_platform(BANNER_LOGIN));
    texts.login.reset(get_banner_msg(BANNER_LOGIN));
    texts.platform_motd = present(banner_service_platform(BANNER_MESSAGE_OF_THE_DAY));
    texts.motd.reset(get_banner_msg(BANNER_MESSAGE_OF_THE_DAY));
    return texts;
}

struct banner_line {
    banner_text banners::*present;  ///< selects the row; its length is counted
    banner_text banners::*written;
    const char* present_text;
    const char* failure_text;
};

// In the order of the file. If the platform has a message of the day, its login banner is shown: it was written for
// people who have not logged in yet.
constexpr banner_line lines[] = {
    {&banners::platform_motd, &banners::platform_login, "platform banner present", "platform motd banner write failed"},
    {&banners::motd, &banners::motd, "motd banner present", "motd banner write failed"},
    {&banners::platform_login, &banners::platform_login, "platform login banner present",
     "platform login banner write failed"},
    {&banners::login, &banners::login, "login banner present", "login banner write failed"},
};

/// Returns the length of the text to be written, line feeds included.
size_t write_banners(const banners& texts) {
    size_t total = 0;
    for (const banner_line& line : lines) {
        const char* text = (texts.*line.present).get();
        if (text == nullptr) {
            continue;
        }
        debug_print("%s", line.present_text);
        total += std::strlen(text) + 1;
        if (writeToBanner((texts.*line.written).get()) != 0) {
            debug_print("%s", line.failure_text);
        }
    }
    return total;
}

void configure_banner(bool has_content) {
    line_entry& entry = server_config.parameters[SERVER_BANNER];
    entry.current = has_content ? paths::banner_file : nullptr;
    const uint32_t event = has_content ? event_set_value : event_delete_value;
    if (update_config_files_restart(event, entry.keyword, entry.current, entry.allvrf) != 0) {
        log_errno("Config file write for banner failed");
    }
}

bool are_any(const banners& texts) {
    return texts.platform_login || texts.login || texts.platform_motd || texts.motd;
}

/// Whether the file has exactly this content.
bool holds_text(const char* path, const std::string& text) {
    FILE* file = std::fopen(path, "re");
    if (file == nullptr) {
        return false;
    }
    std::string content(text.size() + 1, '\0');  // one more, to notice a longer file
    content.resize(std::fread(content.data(), 1, content.size(), file));
    std::fclose(file);
    return content == text;
}

/// The content of the banner file; empty if there is no banner.
std::string text_of_banners(const banners& texts) {
    std::string text;
    for (const banner_line& line : lines) {
        const char* written = (texts.*line.written).get();
        if (texts.*line.present && is_text(written)) {
            text += std::string(written) + "\n";
        }
    }
    return text;
}

/// Remembers, across the death of the process, whether the message of the day is an AAA banner: called before it is written
/// and after it was removed.
void record_aaa_banner(bool is_written) {
    const bool is_recorded = file_exists(paths::aaa_banner_record) == 1;
    if (is_written && !is_recorded &&
        create_file_in_dir(paths::configuration_directory, paths::aaa_banner_record) != 0) {
        report_file_not_in_force(paths::aaa_banner_record);
    } else if (!is_written && is_recorded && file_exists(paths::aaa_banner_file) != 1) {
        std::remove(paths::aaa_banner_record);
    }
}

banner_text fetch_aaa_banner() {
    return without_delimiters(present(banner_service_aaa()));
}

}  // namespace

char* get_banner_msg(uint32_t kind) {
    debug_print("get_banner_msg entered");
    banner_text text = without_delimiters(present(banner_service_configured(kind)));
    if (text) {
        debug_print("got banner msg %s", text.get());
    }
    return text.release();
}

int writeToBanner(const char* text) {
    debug_print("writeToBanner enter");
    return append_line(login_target, text);
}

int writeToAaaBanner(const char* text) {
    debug_print("writeToAaaBanner enter");
    return append_line(aaa_target, text);
}

void banner_config_handler(const datastore_notification* notification, void*) {
    debug_print("banner config notified");
    trace_event(host_trace_banner_notified, {notification->item, notification->event});
    remove_file(login_target);
    create_file(login_target);
    debug_print(" banner file created");
    configure_banner(write_banners(fetch_banners()) >= 1);
}

void aaa_banner_config_handler(const datastore_notification* notification, void*) {
    debug_print("aaa banner config notified");
    trace_event(host_trace_aaa_banner_notified, {notification->item, notification->event});
    remove_file(aaa_target);
    const bool is_deleted = (notification->event & DATASTORE_EVENT_DELETE) != 0;
    const banner_text text = is_deleted ? nullptr : fetch_aaa_banner();
    record_aaa_banner(text != nullptr);
    if (!text) {
        return;
    }
    debug_print("%s", text.get());
    create_file(aaa_target);
    debug_print("aaa banner file created");
    if (writeToAaaBanner(text.get()) != 0) {
        debug_print("aaa banner write to filefailed");
    }
}

void apply_present_banners() {
    const datastore_notification notification = {"", DATASTORE_EVENT_CREATE | DATASTORE_EVENT_SET, nullptr, 0};
    if (are_any(fetch_banners())) {
        banner_config_handler(&notification, nullptr);
    }
    if (present(banner_service_aaa())) {
        aaa_banner_config_handler(&notification, nullptr);
    }
}

const char* banner_file_difference() {
    const std::string text = text_of_banners(fetch_banners());
    if (text.empty()) {
        // A file without text is what the removal of the last banner leaves.
        return file_exists(paths::banner_file) == 1 && !holds_text(paths::banner_file, text)
                   ? "has a text, but no banner is configured"
                   : nullptr;
    }
    return holds_text(paths::banner_file, text) ? nullptr : "is missing or differs";
}

const char* aaa_banner_file_difference() {
    const banner_text text = fetch_aaa_banner();
    if (!text) {
        return file_exists(paths::aaa_banner_record) == 1 ? "has the text of an AAA banner that is no longer configured"
                                                          : nullptr;
    }
    return holds_text(paths::aaa_banner_file, text.get() + std::string("\n")) ? nullptr : "is missing or differs";
}

void write_banner_file_again() {
    remove_file(login_target);
    if (create_file_in_dir(login_target.directory, login_target.path) == 0) {
        configure_banner(write_banners(fetch_banners()) >= 1);
    }
}

void write_aaa_banner_file_again() {
    const banner_text text = fetch_aaa_banner();
    remove_file(aaa_target);
    record_aaa_banner(text != nullptr);
    if (text && create_file_in_dir(aaa_target.directory, aaa_target.path) == 0) {
        writeToAaaBanner(text.get());
    }
}
