/// Durable commits per second, compared with bare SQLite that stores the same rows with the same pragmas in the same run,
/// and the memory that 100,000 commits leave allocated.
///
/// usage: bench_datastore_commits [FOLDER [COMMITS]]
///
/// FOLDER (default: the current one) should be on a disk, whose own latency is part of both figures. Memory is measured
/// over COMMITS (default: 100,000) more commits in /dev/shm, which take only seconds.
#include <malloc.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>

#include "common/text.h"
#include "figures.h"
#include "linux/datastore/datastore_internal.h"
#include "linux/datastore/history.h"
#include "linux/datastore/state.h"

namespace {

constexpr int rounds = 9;
constexpr int64_t commits_a_round = 300;
constexpr char item[] = "/cfg/gl/crypto/ssh/server/cmn/rate_limit";

platform_status accept(const datastore_backend_call* call, void*) {
    if (call->accepted != nullptr) {
        *call->accepted = 1;
    }
    return PLATFORM_OK;
}

/// An entry of the history, as a commit of the item stores it.
std::string history_entry() {
    const datastore_stored value = {1, std::string(sizeof(uint32_t), '\0')};
    return history_encode({commits_a_round, 1768478400, {}, {{item, value, value}}});
}

/// Bare SQLite: prepared statements that store an item and an entry of the history in one transaction, and that remove
/// excess entries as often as the datastore does.
class bare_sqlite {
  public:
    explicit bare_sqlite(const std::string& path) {
        require(sqlite3_open(path.c_str(), &database_) == SQLITE_OK, "cannot open bare SQLite");
        const int result = sqlite3_exec(
            database_,
            "PRAGMA locking_mode = EXCLUSIVE; PRAGMA cache_size = -256; PRAGMA journal_mode = WAL;"
            "PRAGMA synchronous = FULL;"
            "CREATE TABLE item (path TEXT PRIMARY KEY NOT NULL, kind INTEGER NOT NULL, value BLOB NOT NULL) WITHOUT ROWID;"
            "CREATE TABLE history (path TEXT PRIMARY KEY NOT NULL, kind INTEGER NOT NULL, value BLOB NOT NULL)"
            " WITHOUT ROWID;",
            nullptr, nullptr, nullptr);
        require(result == SQLITE_OK, "cannot set up bare SQLite");
        begin_ = prepare("BEGIN IMMEDIATE");
        commit_ = prepare("COMMIT");
        put_item_ = prepare("REPLACE INTO item (path, kind, value) VALUES (?1, ?2, ?3)");
        put_entry_ = prepare("REPLACE INTO history (path, kind, value) VALUES (?1, ?2, ?3)");
        remove_entries_ = prepare("DELETE FROM history WHERE path < ?1");
    }
    ~bare_sqlite() {
        for (sqlite3_stmt* statement : {begin_, commit_, put_item_, put_entry_, remove_entries_}) {
            sqlite3_finalize(statement);
        }
        sqlite3_close(database_);
    }
    bare_sqlite(const bare_sqlite&) = delete;
    bare_sqlite& operator=(const bare_sqlite&) = delete;

    void commit(int64_t n) {
        const auto value = static_cast<uint32_t>(n % 600 + 1);
        run(begin_);
        put(put_item_, item, {reinterpret_cast<const char*>(&value), sizeof value});
        put(put_entry_, key_of(n), entry_);
        if (n % removal_interval == 0) {
            const std::string oldest = key_of(std::max<int64_t>(n - datastore_commits_kept_default, 0));
            sqlite3_bind_text(remove_entries_, 1, oldest.data(), static_cast<int>(oldest.size()), SQLITE_STATIC);
            run(remove_entries_);
        }
        run(commit_);
    }

  private:
    static constexpr int64_t removal_interval = 32;

    static std::string key_of(int64_t number) { return text_format("history/%010" PRId64, number); }

    sqlite3_stmt* prepare(const char* text) {
        sqlite3_stmt* statement = nullptr;
        require(sqlite3_prepare_v2(database_, text, -1, &statement, nullptr) == SQLITE_OK,
                "cannot prepare a statement");
        return statement;
    }

    static void run(sqlite3_stmt* statement) {
        require(sqlite3_step(statement) == SQLITE_DONE, "bare SQLite cannot store a commit");
        sqlite3_reset(statement);
    }

    static void put(sqlite3_stmt* statement, std::string_view key, std::string_view value) {
        sqlite3_bind_text(statement, 1, key.data(), static_cast<int>(key.size()), SQLITE_STATIC);
        sqlite3_bind_int(statement, 2, 1);
        sqlite3_bind_blob(statement, 3, value.data(), static_cast<int>(value.size()), SQLITE_STATIC);
        run(statement);
    }

    sqlite3* database_ = nullptr;
    sqlite3_stmt* begin_ = nullptr;
    sqlite3_stmt* commit_ = nullptr;
    sqlite3_stmt* put_item_ = nullptr;
    sqlite3_stmt* put_entry_ = nullptr;
    sqlite3_stmt* remove_entries_ = nullptr;
    std::string entry_ = history_entry();
};

void commit(int64_t n) {
    const datastore_commit_result result = datastore_commit({{item, n % 600 + 1}}, false);
    require(result.status == PLATFORM_OK && result.items[0].outcome != datastore_outcome::unchanged,
            "the datastore cannot store");
}

datastore_binding* open_datastore(const std::string& path) {
    datastore_binding* binding = nullptr;
    datastore_configure(nullptr, path.c_str());
    require(datastore_bind("/cfg/gl/crypto/ssh/server/", &binding) == PLATFORM_OK, "cannot open the datastore");
    datastore_register_verification(binding, "", 7, accept, accept, nullptr, nullptr);
    return binding;
}

void close_datastore(datastore_binding* binding) {
    datastore_unbind(binding);
    datastore_close();
}

void measure_rate(const std::string& folder) {
    bare_sqlite bare(folder + "/bare.db");
    datastore_binding* binding = open_datastore(folder + "/data/datastore.db");
    const auto own = [](int round) {
        for (int64_t i = 0; i < commits_a_round; i++) {
            commit(round * commits_a_round + i);
        }
    };
    const auto floor = [&](int round) {
        for (int64_t i = 0; i < commits_a_round; i++) {
            bare.commit(round * commits_a_round + i);
        }
    };
    const timed_pair pair = measure_in_turns(rounds, own, floor);
    print_row("durable commits", commits_a_round / pair.own, commits_a_round / pair.floor, "/s", goal::at_least, 0.8);
    close_datastore(binding);
}

long resident_kilobytes() {
    long total = 0;
    long resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * sysconf(_SC_PAGESIZE) / 1024;
}

void measure_growth(const std::string& folder, int64_t commits) {
    datastore_binding* binding = open_datastore(folder + "/data/datastore.db");
    const int64_t warm_up = 5000;
    for (int64_t n = 0; n < warm_up; n++) {
        commit(n);
    }
    const long resident = resident_kilobytes();
    const size_t allocated = mallinfo2().uordblks;
    for (int64_t n = 0; n < commits; n++) {
        commit(warm_up + n);
    }
    const auto grown = static_cast<double>(mallinfo2().uordblks) - static_cast<double>(allocated);
    const auto resident_grown = static_cast<double>(resident_kilobytes() - resident);
    const std::string work = "growth over " + std::to_string(commits) + " commits";
    print_row(work + ", allocated", grown, 0, "B", goal::at_most, 0);
    // The C library's heap varies by a few pages; a leak of one byte per commit would exceed that.
    print_row(work + ", resident", resident_grown, 0, "kB", goal::at_most, 64);
    close_datastore(binding);
}

std::string make_folder(const std::string& parent) {
    std::string name = parent + "/bench_datastore.XXXXXX";
    require(mkdtemp(name.data()) != nullptr, "cannot create the folder");
    return name;
}

}  // namespace

int main(int argc, char** argv) {
    const std::string on_disk = make_folder(argc > 1 ? argv[1] : ".");
    measure_rate(on_disk);
    std::filesystem::remove_all(on_disk);
    const std::string in_memory = make_folder("/dev/shm");
    measure_growth(in_memory, argc > 2 ? strtoll(argv[2], nullptr, 10) : 100000);
    std::filesystem::remove_all(in_memory);
    return 0;
}
