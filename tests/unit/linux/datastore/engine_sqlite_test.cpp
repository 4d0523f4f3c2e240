#include <errno.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>

#include "common/text.h"
#include "linux/datastore/state.h"
#include "scratch_root.h"
#include "unit/linux/datastore/datastore_fixture.h"

namespace datastore_test {
namespace {

using testing::HasSubstr;

const datastore_engine& engine = datastore_engine_sqlite;

class datastore_engine_sqlite_test : public testing::Test {
  protected:
    void TearDown() override { close(); }

    platform_status open() { return engine.open(path.c_str(), &store, reason); }
    void close() {
        if (store != nullptr) {
            engine.close(std::exchange(store, nullptr));
        }
    }

    /// A closed database that contains a few items.
    void make_database() {
        ASSERT_EQ(open(), PLATFORM_OK) << reason;
        for (const char* key : {"/a", "/b", "/c"}) {
            ASSERT_EQ(engine.put(store, key, {DATASTORE_VALUE_TEXT, std::string(400, 'v') + '\0'}), PLATFORM_OK);
        }
        close();
    }

    /// Runs SQLite's own tool on the closed database.
    void with_sqlite(const char* statements) {
        sqlite3* database = nullptr;
        ASSERT_EQ(sqlite3_open(path.c_str(), &database), SQLITE_OK);
        EXPECT_EQ(sqlite3_exec(database, statements, nullptr, nullptr, nullptr), SQLITE_OK) << sqlite3_errmsg(database);
        sqlite3_close(database);
    }

    std::string contents() const {
        std::ifstream file(path, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }
    void overwrite(const std::string& bytes) const { std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes; }

    /// Opening fails, reports why and leaves the file unchanged.
    void expect_refused(platform_status status, const char* words) {
        const std::string before = contents();
        EXPECT_EQ(open(), status);
        EXPECT_EQ(store, nullptr);
        EXPECT_THAT(reason, HasSubstr(words));
        EXPECT_EQ(contents(), before);
    }

    scratch_folder folder;
    std::string path = folder / "data/datastore.db";
    void* store = nullptr;
    std::string reason;
};

std::string value_of(void* store, const char* key) {
    datastore_stored value;
    const platform_status status = engine.get(store, key, value);
    return status == PLATFORM_OK ? value.bytes : platform_status_text(status);
}

TEST_F(datastore_engine_sqlite_test, creates_a_database_that_only_its_owner_can_read) {
    ASSERT_EQ(open(), PLATFORM_OK) << reason;
    struct stat info;
    ASSERT_EQ(stat((folder / "data").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0700u);
    ASSERT_EQ(stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    engine.put(store, "/a", {1, "x"});
    ASSERT_EQ(stat((path + "-wal").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    EXPECT_NE(stat((path + ".new").c_str(), &info), 0);
}

TEST_F(datastore_engine_sqlite_test, sets_the_pragmas_that_durability_depends_on) {
    ASSERT_EQ(open(), PLATFORM_OK);
    // The connection is the store's first member.
    auto* database = *static_cast<sqlite3**>(store);
    const auto ask = [&](const char* statement) {
        std::string answer;
        sqlite3_exec(
            database, statement,
            [](void* out, int, char** columns, char**) {
                *static_cast<std::string*>(out) = columns[0];
                return 0;
            },
            &answer, nullptr);
        return answer;
    };
    EXPECT_EQ(ask("PRAGMA journal_mode"), "wal");
    EXPECT_EQ(ask("PRAGMA synchronous"), "2");
    EXPECT_EQ(ask("PRAGMA locking_mode"), "exclusive");
}

TEST_F(datastore_engine_sqlite_test, stores_items_with_their_kinds_and_bytes) {
    ASSERT_EQ(open(), PLATFORM_OK);
    const datastore_stored given = {DATASTORE_VALUE_TUPLE, std::string("\0\1\xff", 3)};
    EXPECT_EQ(engine.put(store, "/a", given), PLATFORM_OK);
    close();
    ASSERT_EQ(open(), PLATFORM_OK);
    datastore_stored found;
    EXPECT_EQ(engine.get(store, "/a", found), PLATFORM_OK);
    EXPECT_EQ(found, given);
    EXPECT_EQ(engine.put(store, "/a", {DATASTORE_VALUE_NUMBER, "1234"}), PLATFORM_OK);
    EXPECT_EQ(value_of(store, "/a"), "1234");
    EXPECT_EQ(engine.erase(store, "/a"), PLATFORM_OK);
    EXPECT_EQ(engine.erase(store, "/a"), PLATFORM_OK);
    EXPECT_EQ(engine.get(store, "/a", found), platform_status{DATASTORE_NO_SUCH_ITEM});
    EXPECT_EQ(found, given);
}

TEST_F(datastore_engine_sqlite_test, iterates_in_byte_order) {
    ASSERT_EQ(open(), PLATFORM_OK);
    for (const char* key : {"/b", "/a/b", "/a-b", "/B", "/a", "/\xff"}) {
        engine.put(store, key, {1, "x"});
    }
    std::vector<std::string> keys;
    std::string key;
    datastore_stored value;
    while (engine.next(store, key, false, key, value) == PLATFORM_OK) {
        keys.push_back(key);
    }
    EXPECT_THAT(keys, testing::ElementsAre("/B", "/a", "/a-b", "/a/b", "/b", "/\xff"));
    EXPECT_EQ(engine.next(store, "/a", true, key, value), PLATFORM_OK);
    EXPECT_EQ(key, "/a");
    EXPECT_EQ(engine.next(store, "/a0", true, key, value), PLATFORM_OK);
    EXPECT_EQ(key, "/b");
}

TEST_F(datastore_engine_sqlite_test, keeps_the_platforms_own_values_apart_from_the_items) {
    ASSERT_EQ(open(), PLATFORM_OK);
    for (const char* key : {"/b", "acl/ipv4/b", "acl/ipv4/a", "/a", "vrf/red"}) {
        engine.put(store, key, {1, key});
    }
    std::string key;
    datastore_stored value;
    EXPECT_EQ(engine.next(store, "acl/", true, key, value), PLATFORM_OK);
    EXPECT_EQ(key, "acl/ipv4/a");
    EXPECT_EQ(engine.next(store, "acl/ipv4/b", false, key, value), PLATFORM_OK);
    EXPECT_EQ(key, "vrf/red");
    EXPECT_EQ(engine.next(store, "vrf/red", false, key, value), platform_status{DATASTORE_NO_SUCH_ITEM});
    EXPECT_EQ(engine.next(store, "/b", false, key, value), platform_status{DATASTORE_NO_SUCH_ITEM});
    for (const char* number : {"history/0000000009", "history/0000000010"}) {
        engine.put(store, number, {0, "commit"});
    }
    EXPECT_EQ(engine.next(store, "vrf/red", false, key, value), platform_status{DATASTORE_NO_SUCH_ITEM});
    EXPECT_EQ(engine.previous(store, "history/:", key, value), PLATFORM_OK);
    EXPECT_EQ(key, "history/0000000010");
    EXPECT_EQ(engine.previous(store, "history/0000000010", key, value), PLATFORM_OK);
    EXPECT_EQ(key, "history/0000000009");
    EXPECT_EQ(engine.previous(store, "history/0000000009", key, value), platform_status{DATASTORE_NO_SUCH_ITEM});
    EXPECT_EQ(engine.erase(store, "acl/ipv4/b"), PLATFORM_OK);
    EXPECT_EQ(value_of(store, "acl/ipv4/b"), "No such item");
    EXPECT_EQ(value_of(store, "/b"), "/b");
}

TEST_F(datastore_engine_sqlite_test, brings_a_database_of_version_1_up_to_date) {
    std::filesystem::create_directory(folder / "data");
    with_sqlite(
        "PRAGMA application_id = 1396917828; PRAGMA user_version = 1;"
        "CREATE TABLE item (path TEXT PRIMARY KEY NOT NULL, kind INTEGER NOT NULL, value BLOB NOT NULL) WITHOUT ROWID;"
        "INSERT INTO item VALUES ('/a', 3, 'item'), ('acl/ipv4/web', 0, 'list'), ('vrf/red', 0, '4');");
    for (int time = 0; time < 2; time++) {
        ASSERT_EQ(open(), PLATFORM_OK) << reason;
        EXPECT_EQ(value_of(store, "/a"), "item");
        EXPECT_EQ(value_of(store, "acl/ipv4/web"), "list");
        EXPECT_EQ(value_of(store, "vrf/red"), "4");
        close();
    }
    with_sqlite(
        "CREATE TEMP TABLE one (found CHECK (found = 1));"
        "INSERT INTO one SELECT count(*) FROM private WHERE path = 'vrf/red'");
    EXPECT_EQ(open(), PLATFORM_OK) << reason;
}

TEST_F(datastore_engine_sqlite_test, brings_a_database_of_version_2_up_to_date) {
    std::filesystem::create_directory(folder / "data");
    with_sqlite(
        "PRAGMA application_id = 1396917828; PRAGMA user_version = 2;"
        "CREATE TABLE item (path TEXT PRIMARY KEY NOT NULL, kind INTEGER NOT NULL, value BLOB NOT NULL) WITHOUT ROWID;"
        "CREATE TABLE private (path TEXT PRIMARY KEY NOT NULL, kind INTEGER NOT NULL, value BLOB NOT NULL);"
        "INSERT INTO item VALUES ('/a', 3, 'item'); INSERT INTO private VALUES ('vrf/red', 0, '4');");
    ASSERT_EQ(open(), PLATFORM_OK) << reason;
    EXPECT_EQ(engine.put(store, "history/0000000001", {0, "commit"}), PLATFORM_OK);
    close();
    ASSERT_EQ(open(), PLATFORM_OK) << reason;
    EXPECT_EQ(value_of(store, "/a"), "item");
    EXPECT_EQ(value_of(store, "vrf/red"), "4");
    EXPECT_EQ(value_of(store, "history/0000000001"), "commit");
}

TEST_F(datastore_engine_sqlite_test, marks_a_database_of_version_3_so_that_its_program_refuses_it) {
    make_database();
    with_sqlite("INSERT INTO private VALUES ('user_key/alice', 0, 'key'); PRAGMA user_version = 3;");
    ASSERT_EQ(open(), PLATFORM_OK) << reason;
    EXPECT_EQ(value_of(store, "user_key/alice"), "key");
    close();
    with_sqlite(
        "CREATE TEMP TABLE four (version CHECK (version = 4)); INSERT INTO four SELECT user_version FROM pragma_user_version");
}

/// The longest of several commits of one item.
std::chrono::nanoseconds time_of_commits(void* store) {
    const auto begin = std::chrono::steady_clock::now();
    for (int count = 0; count < 50; count++) {
        EXPECT_EQ(engine.begin(store), PLATFORM_OK);
        for (const char* key : {"/cfg/a", "/cfg/b", "/cfg/c"}) {
            EXPECT_EQ(engine.put(store, key, {3, std::to_string(count)}), PLATFORM_OK);
        }
        EXPECT_EQ(engine.commit(store), PLATFORM_OK);
    }
    return std::chrono::steady_clock::now() - begin;
}

TEST_F(datastore_engine_sqlite_test, a_long_access_list_does_not_slow_commits) {
    ASSERT_EQ(open(), PLATFORM_OK);
    auto without = time_of_commits(store);
    // 20,000 entries.
    ASSERT_EQ(engine.put(store, "acl/ipv4/long", {0, std::string(size_t{20'000} * 200, 'x')}), PLATFORM_OK);
    auto with = time_of_commits(store);
    for (int again = 0; again < 3; again++) {
        with = std::min(with, time_of_commits(store));
    }
    std::printf("commits: %.2f ms each without a list, %.2f ms beside 20,000 entries\n",
                std::chrono::duration<double, std::milli>(without).count() / 50,
                std::chrono::duration<double, std::milli>(with).count() / 50);
    EXPECT_LT(with, 4 * without + std::chrono::milliseconds(50));
}

TEST_F(datastore_engine_sqlite_test, stores_nothing_once_its_file_is_gone_or_another) {
    const std::string elsewhere = folder / "elsewhere";
    const std::string places[] = {path, path + "-wal"};
    for (const std::string& place : places) {
        for (const bool replaced : {false, true}) {
            ASSERT_EQ(open(), PLATFORM_OK) << reason;
            ASSERT_EQ(engine.put(store, "/a", {1, "old"}), PLATFORM_OK);
            std::filesystem::rename(place, elsewhere);
            if (replaced) {
                std::filesystem::copy_file(elsewhere, place);
            }
            EXPECT_EQ(engine.put(store, "/a", {1, "new"}), platform_status{ESTALE});
            EXPECT_THAT(engine.reason(store), HasSubstr("has been removed or replaced"));
            EXPECT_EQ(engine.erase(store, "/a"), platform_status{ESTALE});
            EXPECT_EQ(engine.begin(store), PLATFORM_OK);
            EXPECT_EQ(engine.put(store, "/a", {1, "new"}), PLATFORM_OK);
            EXPECT_EQ(engine.commit(store), platform_status{ESTALE});
            engine.rollback(store);
            EXPECT_EQ(value_of(store, "/a"), "old");
            std::filesystem::rename(elsewhere, place);
            EXPECT_EQ(engine.put(store, "/a", {1, "back"}), PLATFORM_OK) << "the same file is there again";
            close();
        }
    }
}

TEST_F(datastore_engine_sqlite_test, does_not_end_a_transaction_whose_file_has_gone) {
    ASSERT_EQ(open(), PLATFORM_OK);
    ASSERT_EQ(engine.begin(store), PLATFORM_OK);
    EXPECT_EQ(engine.put(store, "/a", {1, "new"}), PLATFORM_OK);
    std::filesystem::rename(path, folder / "elsewhere");
    EXPECT_EQ(engine.commit(store), platform_status{ESTALE});
    engine.rollback(store);
    EXPECT_EQ(value_of(store, "/a"), "No such item");
    std::filesystem::rename(folder / "elsewhere", path);
}

TEST_F(datastore_engine_sqlite_test, rolls_a_transaction_back) {
    make_database();
    ASSERT_EQ(open(), PLATFORM_OK);
    EXPECT_EQ(engine.begin(store), PLATFORM_OK);
    engine.put(store, "/d", {1, "x"});
    engine.erase(store, "/a");
    engine.rollback(store);
    engine.rollback(store);
    EXPECT_EQ(value_of(store, "/d"), "No such item");
    EXPECT_NE(value_of(store, "/a"), "No such item");
    EXPECT_EQ(engine.begin(store), PLATFORM_OK);
    engine.put(store, "/d", {1, "x"});
    EXPECT_EQ(engine.commit(store), PLATFORM_OK);
    engine.rollback(store);
    EXPECT_EQ(value_of(store, "/d"), "x");
}

TEST_F(datastore_engine_sqlite_test, refuses_an_empty_file) {
    make_database();
    overwrite("");
    expect_refused(EUCLEAN, "the file is empty");
}

TEST_F(datastore_engine_sqlite_test, refuses_a_file_that_is_not_a_database) {
    make_database();
    overwrite(std::string(20000, 'x'));
    expect_refused(EUCLEAN, "not a database");
}

TEST_F(datastore_engine_sqlite_test, refuses_a_database_of_another_program) {
    std::filesystem::create_directory(folder / "data");
    with_sqlite("CREATE TABLE theirs (x)");
    expect_refused(EUCLEAN, "belongs to another program");
}

TEST_F(datastore_engine_sqlite_test, refuses_a_database_of_a_newer_version) {
    make_database();
    with_sqlite("PRAGMA user_version = 5");
    expect_refused(EUCLEAN, "it was written by a newer version of this program (format 5, expected 4); install that");
}

TEST_F(datastore_engine_sqlite_test, refuses_a_database_without_a_version) {
    make_database();
    with_sqlite("PRAGMA user_version = 0");
    expect_refused(EUCLEAN, "was written by another version of this program (found \"0\", expected \"4\")");
}

TEST_F(datastore_engine_sqlite_test, refuses_a_database_without_its_table) {
    make_database();
    with_sqlite("DROP TABLE item");
    EXPECT_NE(open(), PLATFORM_OK);
    EXPECT_THAT(reason, HasSubstr("no such table"));
}

TEST_F(datastore_engine_sqlite_test, refuses_a_damaged_page) {
    make_database();
    std::string bytes = contents();
    ASSERT_GE(bytes.size(), 8192u);
    for (size_t i = 4096; i < 4096 + 200; i++) {
        bytes[i] = 'x';
    }
    overwrite(bytes);
    expect_refused(EUCLEAN, "");
    EXPECT_NE(reason, "");
}

TEST_F(datastore_engine_sqlite_test, refuses_a_truncated_database) {
    make_database();
    overwrite(contents().substr(0, 4096));
    expect_refused(EUCLEAN, "");
    EXPECT_NE(reason, "");
    overwrite(contents().substr(0, 50));
    expect_refused(EUCLEAN, "");
}

TEST_F(datastore_engine_sqlite_test, refuses_a_log_without_its_database) {
    ASSERT_EQ(open(), PLATFORM_OK);
    engine.put(store, "/a", {1, "x"});
    std::filesystem::copy_file(path + "-wal", folder / "wal");
    close();
    std::filesystem::remove(path);
    std::filesystem::rename(folder / "wal", path + "-wal");
    EXPECT_EQ(open(), platform_status{EUCLEAN});
    EXPECT_THAT(reason, HasSubstr("the file is missing, but its write-ahead log"));
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(datastore_engine_sqlite_test, refuses_anything_but_a_file) {
    std::filesystem::create_directories(path);
    EXPECT_EQ(open(), platform_status{EUCLEAN});
    EXPECT_EQ(reason, "it is not a regular file");
}

TEST_F(datastore_engine_sqlite_test, reports_why_the_folder_cannot_be_created) {
    path = folder / "file/datastore.db";
    std::ofstream(folder / "file") << "x";
    EXPECT_EQ(open(), platform_status{ENOTDIR});
    EXPECT_THAT(reason, HasSubstr("Not a directory"));
    path = "/nowhere/at/all/datastore.db";
    EXPECT_EQ(open(), platform_status{ENOENT});
    EXPECT_THAT(reason, HasSubstr("cannot create the directory /nowhere/at/all"));
}

/// Opens in a child process, optionally as the user nobody, and returns status and reason.
std::string open_elsewhere(const std::string& path, bool as_nobody) {
    int answer[2];
    EXPECT_EQ(pipe(answer), 0);
    const pid_t child = fork();
    if (child == 0) {
        if (as_nobody && setuid(65534) != 0) {
            _exit(1);
        }
        void* store = nullptr;
        std::string reason;
        const platform_status status = engine.open(path.c_str(), &store, reason);
        const std::string text = text_format("%u %s", status, reason.c_str());
        _exit(write(answer[1], text.data(), text.size()) < 0 ? 1 : 0);
    }
    close(answer[1]);
    char text[512] = "";
    const ssize_t size = read(answer[0], text, sizeof text - 1);
    close(answer[0]);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    return std::string(text, size > 0 ? static_cast<size_t>(size) : 0);
}

TEST_F(datastore_engine_sqlite_test, refuses_a_second_process) {
    ASSERT_EQ(open(), PLATFORM_OK);
    EXPECT_EQ(open_elsewhere(path, false),
              text_format("%d another process is using the database; is a second agent running?", EBUSY));
    close();
    EXPECT_EQ(open_elsewhere(path, false), "0 ");
}

TEST_F(datastore_engine_sqlite_test, refuses_a_file_without_permission) {
    make_database();
    std::filesystem::permissions(folder.path(), std::filesystem::perms(0755));
    EXPECT_THAT(open_elsewhere(path, true), HasSubstr("Permission denied"));
    std::filesystem::permissions(folder / "data", std::filesystem::perms(0755));
    EXPECT_THAT(open_elsewhere(path, true), HasSubstr("Permission denied"));
    std::filesystem::permissions(path, std::filesystem::perms(0644));
    EXPECT_EQ(open_elsewhere(path, true), text_format("%d the file is not writable", EACCES));
}

TEST_F(datastore_engine_sqlite_test, refuses_a_read_only_file_system) {
    make_database();
    scratch_root::set_read_only(folder / "data", true);
    EXPECT_NE(open(), PLATFORM_OK);
    EXPECT_NE(reason, "");
    EXPECT_EQ(store, nullptr);
    scratch_root::set_read_only(folder / "data", false);
    EXPECT_EQ(open(), PLATFORM_OK) << reason;
}

TEST_F(datastore_engine_sqlite_test, recovers_from_an_interrupted_first_start) {
    std::filesystem::create_directory(folder / "data");
    std::ofstream(path + ".new") << "part of a database";
    ASSERT_EQ(open(), PLATFORM_OK) << reason;
    EXPECT_FALSE(std::filesystem::exists(path + ".new"));
}

TEST_F(datastore_engine_sqlite_test, reports_a_full_disk_and_continues_when_there_is_space_again) {
    make_database();
    scratch_root::limit_space(folder / "data", 512U * 1024);
    ASSERT_EQ(open(), PLATFORM_OK) << reason;
    const std::string filler = folder / "data/filler";
    std::ofstream(filler) << std::string(2U * 1024 * 1024, 'x');
    EXPECT_EQ(engine.put(store, "/big", {3, std::string(20000, 'b')}), platform_status{ENOSPC});
    EXPECT_THAT(engine.reason(store), HasSubstr("full"));
    EXPECT_NE(value_of(store, "/a"), "No such item");
    EXPECT_EQ(engine.begin(store), PLATFORM_OK);
    engine.put(store, "/c", {3, "changed"});
    EXPECT_EQ(engine.put(store, "/big", {3, std::string(2000, 'b')}), PLATFORM_OK);
    EXPECT_EQ(engine.commit(store), platform_status{ENOSPC});
    engine.rollback(store);
    EXPECT_NE(value_of(store, "/c"), "changed");
    std::filesystem::remove(filler);
    EXPECT_EQ(engine.put(store, "/big", {3, std::string(20000, 'b')}), PLATFORM_OK);
    close();
    ASSERT_EQ(open(), PLATFORM_OK) << reason;
    EXPECT_EQ(value_of(store, "/big").size(), 20000u);
    EXPECT_EQ(value_of(store, "/c").size(), 401u);
}

}  // namespace
}  // namespace datastore_test
