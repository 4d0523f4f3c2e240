#include "linux/rehearsal/stored_reads.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "linux/datastore/state.h"
#include "unit/linux/datastore/datastore_fixture.h"

namespace {

using datastore_test::database_test;
using testing::ElementsAre;

constexpr std::chrono::seconds ample{20};

/// A process that reads what is stored through its parent, with changes on top of it.
class stored_reads_test : public database_test {
  protected:
    void SetUp() override {
        database_test::SetUp();
        for (const char* key : {"/b", "/d", "/f"}) {
            put(key, std::string("stored ") + key);
        }
    }

    static void put(const char* key, const std::string& bytes) {
        ASSERT_EQ(the_datastore().engine->put(the_datastore().store, key, {7, bytes}), PLATFORM_OK);
    }

    /// Runs `work` in another process and answers its questions. Returns the report, or the failure in words.
    std::string converse(const std::function<std::string(rehearsal_store& store)>& work,
                         std::chrono::milliseconds limit = ample) {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
        const pid_t child = fork();
        if (child == 0) {
            close(ends[0]);
            rehearsal_store store = {ends[1], changes};
            const std::string report = work(store);
            _exit(report.empty() || send_report(ends[1], report) == PLATFORM_OK ? 0 : 1);
        }
        close(ends[1]);
        std::string report;
        const auto is_running = [](const std::string& vrf_name) { return vrf_name == "red"; };
        const platform_status status =
            answer_questions(ends[0], {*the_datastore().engine, the_datastore().store, is_running},
                             std::chrono::steady_clock::now() + limit, report);
        close(ends[0]);
        int wait_status = 0;
        waitpid(child, &wait_status, 0);
        return status == PLATFORM_OK ? report : platform_status_text(status);
    }

    static std::string get(rehearsal_store& store, const char* key) {
        datastore_stored value;
        const platform_status status = rehearsal_engine.get(&store, key, value);
        return status == PLATFORM_OK              ? std::to_string(value.kind) + " " + value.bytes
               : status == DATASTORE_NO_SUCH_ITEM ? "none"
                                                  : "failure";
    }

    /// All keys from a first one on.
    static std::string walk(rehearsal_store& store, std::string from) {
        std::string keys;
        std::string key;
        datastore_stored value;
        bool inclusive = true;
        while (rehearsal_engine.next(&store, from, inclusive, key, value) == PLATFORM_OK) {
            keys += key + "=" + value.bytes + ";";
            from = key;
            inclusive = false;
        }
        return keys;
    }

    std::map<std::string, std::optional<datastore_stored>, std::less<>> changes;
};

TEST_F(stored_reads_test, changes_hide_what_is_stored) {
    changes["/a"] = datastore_stored{1, "new"};
    changes["/d"] = std::nullopt;
    changes["/e"] = std::nullopt;
    changes["/f"] = datastore_stored{1, "changed"};
    EXPECT_EQ(converse([](rehearsal_store& store) {
                  return get(store, "/a") + ", " + get(store, "/b") + ", " + get(store, "/d") + ", " +
                         get(store, "/f") + ", " + get(store, "/g");
              }),
              "1 new, 7 stored /b, none, 1 changed, none");
    EXPECT_EQ(converse([](rehearsal_store& store) { return walk(store, "/"); }), "/a=new;/b=stored /b;/f=changed;");
    EXPECT_EQ(converse([](rehearsal_store& store) { return walk(store, "/b"); }), "/b=stored /b;/f=changed;");
    EXPECT_EQ(converse([](rehearsal_store& store) { return walk(store, "/c"); }), "/f=changed;");
}

TEST_F(stored_reads_test, what_is_written_stays_in_the_process) {
    EXPECT_EQ(converse([](rehearsal_store& store) {
                  rehearsal_engine.put(&store, "/c", {2, "written"});
                  rehearsal_engine.erase(&store, "/b");
                  return get(store, "/c") + ", " + get(store, "/b") + ", " + walk(store, "/");
              }),
              "2 written, none, /c=written;/d=stored /d;/f=stored /f;");
    EXPECT_EQ(converse([](rehearsal_store& store) { return walk(store, "/"); }),
              "/b=stored /b;/d=stored /d;/f=stored /f;");
}

TEST_F(stored_reads_test, long_values_and_reports_come_through) {
    const std::string bytes(3'000'000, 'x');
    put("/long", bytes);
    EXPECT_EQ(converse([&](rehearsal_store& store) { return get(store, "/long"); }), "7 " + bytes);
}

TEST_F(stored_reads_test, the_parent_knows_which_servers_run) {
    EXPECT_EQ(converse([](rehearsal_store& store) {
                  return std::string(ask_for_server(store.connection, "red") ? "runs" : "-") +
                         (ask_for_server(store.connection, "blue") ? "runs" : "-");
              }),
              "runs-");
}

TEST_F(stored_reads_test, a_process_that_ends_without_a_report_is_noticed) {
    EXPECT_EQ(converse([](rehearsal_store&) { return std::string(); }), platform_status_text(ECONNRESET));
}

TEST_F(stored_reads_test, the_wait_for_a_report_has_a_limit) {
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(converse(
                  [](rehearsal_store& store) {
                      char byte = 0;
                      // Ends when the parent has given up and closed its end.
                      recv(store.connection, &byte, 1, 0);
                      return std::string();
                  },
                  std::chrono::milliseconds(100)),
              platform_status_text(ETIMEDOUT));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(100));
}

TEST_F(stored_reads_test, endless_questions_end_with_the_limit) {
    EXPECT_EQ(converse(
                  [](rehearsal_store& store) {
                      while (get(store, "/b") != "failure") {
                      }
                      return std::string();
                  },
                  std::chrono::milliseconds(100)),
              platform_status_text(ETIMEDOUT));
}

TEST_F(stored_reads_test, a_report_that_is_too_long_is_refused) {
    EXPECT_EQ(converse([](rehearsal_store&) { return std::string(size_t{17} * 1024 * 1024, 'x'); }),
              platform_status_text(EMSGSIZE));
}

}  // namespace
