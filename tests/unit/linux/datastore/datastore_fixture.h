/// Helpers for the tests of the Linux datastore: a temporary database, a subtree whose handlers record their calls, and
/// an engine in memory that fails on request.
#ifndef UNIT_LINUX_DATASTORE_FIXTURE_H
#define UNIT_LINUX_DATASTORE_FIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "common/text.h"
#include "linux/datastore/datastore_internal.h"
#include "linux/datastore/engine.h"

namespace datastore_test {

inline constexpr char server_path[] = "/cfg/gl/crypto/ssh/server/";
inline constexpr char timeout_path[] = "/cfg/gl/crypto/ssh/server/cmn/timeout";
inline constexpr char rate_path[] = "/cfg/gl/crypto/ssh/server/cmn/rate_limit";
inline constexpr char limit_path[] = "/cfg/gl/crypto/ssh/server/cmn/session_limit";
inline constexpr char vrf_path[] = "/cfg/gl/crypto/ssh/server/sshd/vrf/blue";

inline datastore_value number(int64_t value) {
    return value;
}
inline datastore_value text(const char* value) {
    return std::string(value);
}

inline datastore_commit_result set(const std::string& path, const datastore_value& value) {
    return datastore_commit({{path, value}}, false);
}

inline datastore_commit_result erase(const std::string& path) {
    return datastore_commit({{path, std::nullopt}}, false);
}

/// The stored value as messages show it; "none" if there is none.
inline std::string stored(const std::string& path) {
    datastore_value value;
    const platform_status status = datastore_get_value(path, value);
    return status == PLATFORM_OK ? schema_display(value) : status == DATASTORE_NO_SUCH_ITEM ? "none" : "unreadable";
}

/// A folder that is removed after the test.
class scratch_folder {
  public:
    scratch_folder() {
        char name[] = "/tmp/datastore_test.XXXXXX";
        path_ = mkdtemp(name);
    }
    ~scratch_folder() {
        // A file system mounted by a test remains until the scratch root is removed.
        std::error_code error;
        std::filesystem::remove_all(path_, error);
    }
    scratch_folder(const scratch_folder&) = delete;
    scratch_folder& operator=(const scratch_folder&) = delete;

    std::string operator/(const char* name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

/// A database in a temporary folder, closed and without bindings when the test ends.
class database_test : public testing::Test {
  protected:
    void SetUp() override { open(); }
    void TearDown() override {
        for (datastore_binding* binding : bindings) {
            datastore_unbind(binding);
        }
        datastore_close();
    }

    void open() {
        datastore_configure(nullptr, database().c_str());
        ASSERT_EQ(datastore_open(), PLATFORM_OK);
    }

    void reopen() {
        datastore_close();
        open();
    }

    std::string database() const { return folder / "data/datastore.db"; }

    datastore_binding* bind(const char* path) {
        datastore_binding* binding = nullptr;
        EXPECT_EQ(datastore_bind(path, &binding), PLATFORM_OK);
        bindings.push_back(binding);
        return binding;
    }

    scratch_folder folder;
    std::vector<datastore_binding*> bindings;
};

/// The calls of the handlers, one line each: "verify 3 cmn/timeout 30 -> 45".
class recorder {
  public:
    std::vector<std::string> calls;
    std::map<std::string, platform_status> verify_results;  ///< by item
    std::map<std::string, platform_status> apply_results;
    std::string refusal = "the verifier says no";
    std::function<void()> in_verify;
    std::function<void()> in_apply;

    static platform_status on_verify(const datastore_backend_call* call, void* context) {
        return static_cast<recorder*>(context)->verify(*call);
    }
    static platform_status on_apply(const datastore_backend_call* call, void* context) {
        return static_cast<recorder*>(context)->apply(*call);
    }
    static void on_notification(const datastore_notification* notification, void* context) {
        auto* self = static_cast<recorder*>(context);
        self->calls.push_back(text_format("notify %u %s %s", notification->event, notification->item,
                                          show(notification->value, notification->value_size).c_str()));
    }

  private:
    /// Prints numbers as numbers and everything else as text.
    static std::string show(const void* value, size_t size) {
        uint32_t number = 0;
        if (value == nullptr) {
            return "-";
        }
        if (size != sizeof number) {
            return static_cast<const char*>(value);
        }
        memcpy(&number, value, sizeof number);
        return std::to_string(number);
    }

    void note(const char* what, const datastore_backend_call& call) {
        const datastore_change& change = *call.change;
        calls.push_back(text_format("%s %u %s %s -> %s", what, change.event, call.item,
                                    show(change.previous, change.previous_size).c_str(),
                                    show(change.value, change.value_size).c_str()));
    }

    platform_status verify(const datastore_backend_call& call) {
        note("verify", call);
        if (in_verify) {
            in_verify();
        }
        const auto result = verify_results.find(call.item);
        if (result == verify_results.end()) {
            *call.accepted = 1;
            return PLATFORM_OK;
        }
        *call.error_text = refusal.empty() ? nullptr : strdup(refusal.c_str());
        return result->second;
    }

    platform_status apply(const datastore_backend_call& call) {
        note("apply", call);
        if (in_apply) {
            in_apply();
        }
        const auto result = apply_results.find(call.item);
        return result == apply_results.end() ? PLATFORM_OK : result->second;
    }
};

/// A database whose server subtree is served by a recorder.
class served_datastore_test : public database_test {
  protected:
    void SetUp() override {
        database_test::SetUp();
        server = bind(server_path);
        ASSERT_EQ(
            datastore_register_verification(server, "", 7, recorder::on_verify, recorder::on_apply, nullptr, &handlers),
            PLATFORM_OK);
    }

    std::vector<std::string> take_calls() { return std::exchange(handlers.calls, {}); }

    datastore_binding* server = nullptr;
    recorder handlers;
};

/// An engine in memory, in which the n-th writing operation can be made to fail.
struct memory_engine {
    std::map<std::string, datastore_stored, std::less<>> items;
    std::map<std::string, datastore_stored, std::less<>> before;  ///< the items when the transaction began
    bool in_transaction = false;
    uint32_t operations = 0;
    uint32_t fail_at = 0;
    platform_status open_result = PLATFORM_OK;

    bool fails() { return ++operations == fail_at; }
};

inline memory_engine memory;

inline const datastore_engine engine_in_memory = {
    [](const char*, void** store, std::string& reason) -> platform_status {
        reason = "as requested";
        if (memory.open_result == PLATFORM_OK) {
            *store = &memory;
        }
        return memory.open_result;
    },
    [](void*) {},
    [](void*) -> platform_status {
        memory.before = memory.items;
        memory.in_transaction = true;
        return memory.fails() ? ENOSPC : 0;
    },
    [](void*) -> platform_status {
        if (memory.fails()) {
            return EIO;
        }
        memory.in_transaction = false;
        return PLATFORM_OK;
    },
    [](void*) {
        if (std::exchange(memory.in_transaction, false)) {
            memory.items = memory.before;
        }
    },
    [](void*, std::string_view key, datastore_stored& value) -> platform_status {
        const auto found = memory.items.find(key);
        if (found == memory.items.end()) {
            return DATASTORE_NO_SUCH_ITEM;
        }
        value = found->second;
        return PLATFORM_OK;
    },
    [](void*, std::string_view from, bool inclusive, std::string& key, datastore_stored& value) -> platform_status {
        const auto found = inclusive ? memory.items.lower_bound(from) : memory.items.upper_bound(from);
        if (found == memory.items.end()) {
            return DATASTORE_NO_SUCH_ITEM;
        }
        key = found->first;
        value = found->second;
        return PLATFORM_OK;
    },
    [](void*, std::string_view before, std::string& key, datastore_stored& value) -> platform_status {
        auto found = memory.items.lower_bound(before);
        if (found == memory.items.begin()) {
            return DATASTORE_NO_SUCH_ITEM;
        }
        --found;
        key = found->first;
        value = found->second;
        return PLATFORM_OK;
    },
    [](void*, std::string_view key, const datastore_stored& value) -> platform_status {
        if (memory.fails()) {
            return ENOSPC;
        }
        memory.items[std::string(key)] = value;
        return PLATFORM_OK;
    },
    [](void*, std::string_view key) -> platform_status {
        if (memory.fails()) {
            return ENOSPC;
        }
        memory.items.erase(std::string(key));
        return PLATFORM_OK;
    },
    [](void*) -> std::string { return "failed as requested"; },
};

}  // namespace datastore_test

#endif
