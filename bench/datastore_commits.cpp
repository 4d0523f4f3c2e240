/// Durable commits per second, compared with bare SQLite with the same pragmas in the same run, and the memory that
/// 100,000 commits leave allocated.
///
/// usage: bench_datastore_commits [FOLDER [COMMITS]]
///
/// FOLDER (default: the current one) should be on a disk, whose own latency is part of both figures. Memory is measured
/// over COMMITS (default: 100,000) more commits in /dev/shm, which take only seconds.
#include <malloc.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "figures.h"
#include "linux/datastore/datastore_internal.h"

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

/// Bare SQLite: a prepared statement that stores an item, one per transaction.
class bare_sqlite {
  public:
    explicit bare_sqlite(const std::string& path) {
        require(sqlite3_open(path.c_str(), &database_) == SQLITE_OK, "cannot open bare SQLite");
        const int result = sqlite3_exec(
            database_,
            "PRAGMA locking_mode = EXCLUSIVE; PRAGMA cache_size = -256; PRAGMA journal_mode = WAL;"
            "PRAGMA synchronous = FULL;"
            "CREATE TABLE item (path TEXT PRIMARY KEY NOT NULL, kind INTEGER NOT NULL, value BLOB NOT NULL) WITHOUT ROWID;",
            nullptr, nullptr, nullptr);
        require(result == SQLITE_OK, "cannot set up bare SQLite");
        sqlite3_prepare_v2(database_, "REPLACE INTO item (path, kind, value) VALUES (?1, ?2, ?3)", -1, &put_, nullptr);
    }
    ~bare_sqlite() {
        sqlite3_finalize(put_);
        sqlite3_close(database_);
    }
    bare_sqlite(const bare_sqlite&) = delete;
    bare_sqlite& operator=(const bare_sqlite&) = delete;

    void commit(int64_t n) {
        const auto value = static_cast<uint32_t>(n % 600 + 1);
        sqlite3_bind_text(put_, 1, item, -1, SQLITE_STATIC);
        sqlite3_bind_int(put_, 2, 1);
        sqlite3_bind_blob(put_, 3, &value, sizeof value, SQLITE_STATIC);
        require(sqlite3_step(put_) == SQLITE_DONE, "bare SQLite cannot store an item");
        sqlite3_reset(put_);
    }

  private:
    sqlite3* database_ = nullptr;
    sqlite3_stmt* put_ = nullptr;
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
