/// Commits under failing system calls and sudden death: afterwards an acknowledged commit is stored, and every commit
/// completely or not at all.
#include <errno.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <fstream>
#include <random>

#include "common/text.h"
#include "syscall_faults.h"
#include "unit/linux/datastore/datastore_fixture.h"

namespace datastore_test {
namespace {

platform_status accept(const datastore_backend_call* call, void*) {
    if (call->accepted != nullptr) {
        *call->accepted = 1;
    }
    return PLATFORM_OK;
}

/// Commit number n, from 1: three items that belong together.
std::vector<datastore_change_request> commit_number(int64_t n) {
    return {{rate_path, number(n)}, {limit_path, number(n % 100 + 1)}, {timeout_path, number(n % 100 + 5)}};
}

constexpr int64_t torn = -1;
constexpr int64_t unreadable = -2;

/// Whether the history ends with the commit whose value of the rate limit is stored.
bool history_agrees(int64_t rate) {
    bool agrees = false;
    datastore_visit_history([&](const datastore_kept_commit& kept) {
        for (const datastore_kept_change& change : kept.changes) {
            agrees = agrees || (change.key == rate_path && change.value == datastore_present_value(rate_path));
        }
        return false;
    });
    return rate == 0 ? datastore_last_commit() == 0 : agrees;
}

/// The number of the last stored commit, 0 if there is none, `torn` if the database contains parts of several commits.
int64_t last_stored() {
    datastore_value value;
    const platform_status status = datastore_get_value(rate_path, value);
    const std::string limit = stored(limit_path);
    const std::string timeout = stored(timeout_path);
    if ((status != PLATFORM_OK && status != DATASTORE_NO_SUCH_ITEM) || limit == "unreadable" ||
        timeout == "unreadable") {
        return unreadable;
    }
    if (status == DATASTORE_NO_SUCH_ITEM) {
        return limit == "none" && timeout == "none" && history_agrees(0) ? 0 : torn;
    }
    const int64_t n = std::get<int64_t>(value);
    const bool whole =
        limit == std::to_string(n % 100 + 1) && timeout == std::to_string(n % 100 + 5) && history_agrees(n);
    return whole ? n : torn;
}

/// What a child process has done, as far as it recorded it before it died.
struct progress {
    int64_t begun = 0;
    int64_t acknowledged = 0;
    int64_t refused = 0;
};

class datastore_crash_test : public testing::Test {
  protected:
    void SetUp() override {
        shared = static_cast<progress*>(
            mmap(nullptr, sizeof(progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
        ASSERT_NE(shared, MAP_FAILED);
        *shared = {};
    }
    void TearDown() override {
        datastore_unbind(std::exchange(binding, nullptr));
        datastore_close();
        munmap(shared, sizeof(progress));
    }

    /// Opens the database and registers the handlers, also in child processes.
    bool open() {
        datastore_configure(nullptr, path.c_str());
        return datastore_bind(server_path, &binding) == PLATFORM_OK &&
               datastore_register_verification(binding, "", 7, accept, accept, nullptr, nullptr) == PLATFORM_OK;
    }

    void close() {
        datastore_unbind(std::exchange(binding, nullptr));
        datastore_close();
    }

    void commit(int64_t n) {
        shared->begun = n;
        if (datastore_commit(commit_number(n), false).status == PLATFORM_OK) {
            shared->acknowledged = n;
        } else {
            shared->refused++;
        }
    }

    /// A new database for each attempt, with one commit in it.
    void fresh_database(const std::string& name) {
        path = folder / (name + "/datastore.db").c_str();
        *shared = {};
        ASSERT_TRUE(open());
        commit(1);
        close();
        ASSERT_EQ(shared->acknowledged, 1);
    }

    /// The last acknowledged commit is stored, or the one that was in progress.
    void expect_nothing_lost(const std::string& when) {
        ASSERT_TRUE(open()) << when;
        const int64_t last = last_stored();
        EXPECT_GE(last, shared->acknowledged) << when;
        EXPECT_LE(last, shared->begun) << when;
        close();
    }

    /// How far apart the calls are that fail or are the last ones.
    static uint32_t step() { return syscall_faults::every_call() ? 1 : 3; }

    /// Runs `body` with a fault at one of its system calls, from the first to the last.
    void at_every_call(syscall_faults::plan plan, const std::string& name, const std::function<int()>& body) {
        bool hit = true;
        for (plan.call = 1; hit && !HasFatalFailure(); plan.call += step()) {
            const std::string try_name = name + std::to_string(plan.call);
            fresh_database(try_name);
            const syscall_faults::outcome outcome = syscall_faults::run(plan, body);
            hit = outcome.hit;
            const std::string when = try_name + " " + outcome.name;
            EXPECT_TRUE(outcome.killed || outcome.status == 0) << when;
            expect_nothing_lost(when);
            std::filesystem::remove_all(folder / try_name.c_str());
        }
        EXPECT_GT(plan.call, 10u);
    }

    /// Runs a child process that commits endlessly, and kills it after a while.
    void kill_a_committing_child(useconds_t after) {
        fflush(nullptr);
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0) {
            const bool opened = open();
            for (int64_t n = shared->acknowledged + 1; opened && n <= 600; n++) {
                commit(n);
            }
            _exit(opened ? 0 : 1);
        }
        usleep(after);
        kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_FALSE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
    }

    scratch_folder folder;
    std::string path;
    progress* shared = nullptr;
    datastore_binding* binding = nullptr;
};

TEST_F(datastore_crash_test, loses_nothing_when_killed_before_any_system_call) {
    at_every_call({.kind = syscall_faults::fault::kill}, "kill", [this] {
        if (open()) {
            commit(2);
            commit(3);
        }
        return 0;
    });
}

/// A new database is created completely or not at all, wherever the first start dies.
TEST_F(datastore_crash_test, creates_a_complete_database_or_none) {
    bool hit = true;
    for (uint32_t call = 1; hit; call += step()) {
        const std::string name = "new" + std::to_string(call);
        path = folder / (name + "/datastore.db").c_str();
        *shared = {};
        hit = syscall_faults::run({.kind = syscall_faults::fault::kill, .call = call}, [this] {
                  if (open()) {
                      commit(1);
                  }
                  return 0;
              }).hit;
        expect_nothing_lost(name);
        std::filesystem::remove_all(folder / name.c_str());
    }
}

struct error_case {
    const char* name;
    syscall_faults::plan plan;
};

void PrintTo(const error_case& row, std::ostream* out) {
    *out << row.name;
}

class datastore_fault_test : public datastore_crash_test, public testing::WithParamInterface<error_case> {};

TEST_P(datastore_fault_test, stores_all_or_nothing_and_continues) {
    at_every_call(GetParam().plan, GetParam().name, [this] {
        if (!open()) {
            return 0;
        }
        commit(2);
        // While every call fails, only what is in memory can be read.
        const int64_t now = last_stored();
        if (now != 1 && now != 2 && !(GetParam().plan.for_ever && now == unreadable)) {
            return 1;
        }
        commit(3);
        return 0;
    });
}

using syscall_faults::fault;

INSTANTIATE_TEST_SUITE_P(
    errors, datastore_fault_test,
    testing::Values(error_case{"full_disk_once", {.kind = fault::error, .error = ENOSPC}},
                    error_case{"full_disk_for_ever", {.kind = fault::error, .for_ever = true, .error = ENOSPC}},
                    error_case{"io_error_once", {.kind = fault::error, .error = EIO}},
                    error_case{"io_error_for_ever", {.kind = fault::error, .for_ever = true, .error = EIO}},
                    error_case{"read_only_for_ever", {.kind = fault::error, .for_ever = true, .error = EROFS}},
                    error_case{"no_descriptors_once", {.kind = fault::error, .error = EMFILE}},
                    error_case{"interrupted_once", {.kind = fault::error, .error = EINTR}},
                    error_case{"short_writes", {.kind = fault::short_write, .for_ever = true}}),
    [](const testing::TestParamInfo<error_case>& info) { return std::string(info.param.name); });

TEST_F(datastore_crash_test, loses_nothing_when_killed_at_random) {
    std::mt19937 random(20240229);
    std::uniform_int_distribution<useconds_t> pause(2000, 22000);
    path = folder / "random/datastore.db";
    for (int round = 0; round < 20; round++) {
        kill_a_committing_child(pause(random));
        expect_nothing_lost(text_format("round %d", round));
    }
    EXPECT_GT(shared->acknowledged, 0);
    EXPECT_EQ(shared->refused, 0);
}

}  // namespace
}  // namespace datastore_test
