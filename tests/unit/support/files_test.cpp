#include "files.h"

#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

namespace {

using testing::ElementsAre;

TEST(files, are_written_with_their_directories_and_read_back) {
    write_file("/tmp/a/b/c", std::string("one\0two\n", 8));
    EXPECT_EQ(read_file("/tmp/a/b/c"), std::string("one\0two\n", 8));
    EXPECT_EQ(file_content("/tmp/a/b/d"), std::nullopt);
    EXPECT_NONFATAL_FAILURE(read_file("/tmp/a/b/d"), "cannot read");
    EXPECT_NONFATAL_FAILURE(write_file("/proc/nothing/there", ""), "cannot write");
}

TEST(files, are_read_as_lines) {
    write_file("/tmp/lines", "one\n\nthree");
    EXPECT_THAT(file_lines("/tmp/lines"), ElementsAre("one", "", "three"));
}

TEST(files, are_listed_and_removed) {
    write_file("/tmp/d/b", "");
    write_file("/tmp/d/a", "");
    EXPECT_THAT(directory_names("/tmp/d"), ElementsAre("a", "b"));
    remove_path("/tmp/d");
    EXPECT_FALSE(path_exists("/tmp/d"));
}

}  // namespace
