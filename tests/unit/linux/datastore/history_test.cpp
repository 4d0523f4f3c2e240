#include "linux/datastore/history.h"

#include <errno.h>

#include "unit/linux/datastore/datastore_fixture.h"

namespace datastore_test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class datastore_history_test : public served_datastore_test {
  protected:
    /// The kept commits, the latest first: number, author, call and changed items.
    static std::vector<std::string> history() {
        std::vector<std::string> lines;
        datastore_visit_history([&lines](const datastore_kept_commit& commit) {
            std::string line = std::to_string(commit.number) + ' ' + datastore_author_name(commit.author) + ' ' +
                               commit.author.call + (commit.author.note.empty() ? "" : " (" + commit.author.note + ')');
            for (const datastore_kept_change& change : commit.changes) {
                line += ' ' + change.key.substr(change.key.rfind('/') + 1);
            }
            lines.push_back(line);
            return true;
        });
        return lines;
    }

    static datastore_stored stored_number(uint32_t value) {
        return {DATASTORE_VALUE_NUMBER, std::string(reinterpret_cast<const char*>(&value), sizeof value)};
    }
};

TEST_F(datastore_history_test, every_commit_is_kept_with_its_author_and_its_changes) {
    datastore_commit_order order;
    order.author = {1000, "alice", "set", "the night shift"};
    EXPECT_EQ(datastore_commit({{timeout_path, number(30)}}, false, order).number, 1U);
    order.author = {1001, "", "load", ""};
    EXPECT_EQ(datastore_commit({{timeout_path, number(45)}, {rate_path, number(10)}}, false, order).number, 2U);
    EXPECT_EQ(erase(rate_path).number, 3U);
    const std::vector<std::string> expected = {"3 agent  rate_limit", "2 1001 load rate_limit timeout",
                                               "1 alice set (the night shift) timeout"};
    EXPECT_EQ(history(), expected);
    reopen();
    EXPECT_EQ(history(), expected);
    EXPECT_EQ(datastore_last_commit(), 3U);
}

TEST_F(datastore_history_test, what_changes_nothing_is_not_kept) {
    set(timeout_path, number(30));
    EXPECT_EQ(set(timeout_path, number(30)).number, 0U);
    EXPECT_EQ(datastore_commit({{timeout_path, number(45)}}, true).number, 0U);
    handlers.verify_results["cmn/rate_limit"] = EINVAL;
    EXPECT_EQ(set(rate_path, number(10)).number, 0U);
    EXPECT_EQ(history().size(), 1U);
}

TEST_F(datastore_history_test, the_oldest_commits_are_removed) {
    datastore_keep_commits(3);
    for (int64_t n = 10; n < 16; n++) {
        set(timeout_path, number(n));
    }
    EXPECT_EQ(history().size(), 3U);
    datastore_past past;
    EXPECT_EQ(datastore_past_at(3, past), PLATFORM_OK);
    EXPECT_EQ(past.at(timeout_path), stored_number(12));
    EXPECT_EQ(datastore_past_at(2, past), platform_status{DATASTORE_NO_SUCH_ITEM});
    datastore_keep_commits(1);
    EXPECT_THAT(history(), ElementsAre("6 agent  timeout"));
    reopen();
    EXPECT_EQ(set(timeout_path, number(20)).number, 7U) << "numbers are never reused";
}

TEST_F(datastore_history_test, the_database_does_not_grow_with_the_number_of_commits) {
    memory = {};
    datastore_close();
    datastore_configure(&engine_in_memory, "memory");
    ASSERT_EQ(datastore_open(), PLATFORM_OK);
    datastore_keep_commits(3);
    for (int64_t n = 0; n < 200; n++) {
        set(timeout_path, number(10 + n % 2));
        EXPECT_LT(memory.items.size(), 40U);
    }
    EXPECT_EQ(history().size(), 3U);
}

TEST_F(datastore_history_test, a_configuration_of_the_past_can_be_found) {
    set(timeout_path, number(30));
    datastore_commit({{timeout_path, number(45)}, {rate_path, number(10)}}, false);
    erase(timeout_path);
    datastore_past past;
    ASSERT_EQ(datastore_past_at(1, past), PLATFORM_OK);
    EXPECT_EQ(past.at(timeout_path), stored_number(30));
    EXPECT_EQ(past.at(rate_path), std::nullopt);
    ASSERT_EQ(datastore_past_at(0, past), PLATFORM_OK);
    EXPECT_EQ(past.at(timeout_path), std::nullopt);
    ASSERT_EQ(datastore_past_at(3, past), PLATFORM_OK);
    EXPECT_THAT(past, IsEmpty());
    EXPECT_EQ(datastore_past_at(4, past), platform_status{DATASTORE_NO_SUCH_ITEM});
}

TEST_F(datastore_history_test, a_commit_that_is_cut_off_or_has_a_byte_too_many_is_refused) {
    datastore_kept_commit commit = {7, 1234, {1000, "alice", "load", "note"}, {}};
    commit.changes.push_back({timeout_path, stored_number(1), std::nullopt});
    commit.changes.push_back({rate_path, std::nullopt, stored_number(2)});
    const std::string bytes = history_encode(commit);
    datastore_kept_commit decoded;
    ASSERT_EQ(history_decode(bytes, decoded), PLATFORM_OK);
    EXPECT_EQ(decoded.number, 7U);
    EXPECT_EQ(decoded.time, 1234);
    EXPECT_EQ(decoded.author.uid, 1000U);
    EXPECT_EQ(decoded.author.note, "note");
    ASSERT_EQ(decoded.changes.size(), 2U);
    EXPECT_EQ(decoded.changes[0].previous, stored_number(1));
    EXPECT_EQ(decoded.changes[1].value, stored_number(2));
    for (size_t size = 0; size < bytes.size(); size++) {
        EXPECT_EQ(history_decode(bytes.substr(0, size), decoded), platform_status{EBADMSG}) << size;
    }
    EXPECT_EQ(history_decode(bytes + '\0', decoded), platform_status{EBADMSG});
    EXPECT_EQ(decoded.number, 7U);
}

}  // namespace
}  // namespace datastore_test
