#include "common/process_files.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "common/file_descriptor.h"

namespace {

TEST(process_files, are_below_the_folder_of_the_process) {
    EXPECT_EQ(process_file(17, "ns/net"), "/proc/17/ns/net");
}

TEST(process_files, sockets_are_found_and_other_files_are_not) {
    EXPECT_EQ(process_sockets(getpid()).size(), 0U);
    const file_descriptor socket_end(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    int pipe_ends[2];
    ASSERT_EQ(pipe(pipe_ends), 0);
    struct stat status = {};
    ASSERT_EQ(fstat(socket_end.get(), &status), 0);
    EXPECT_EQ(process_sockets(getpid()), std::set<uint64_t>{status.st_ino});
    close(pipe_ends[0]);
    close(pipe_ends[1]);
}

TEST(process_files, a_process_that_does_not_exist_has_no_sockets) {
    EXPECT_TRUE(process_sockets(0x7ffffff0).empty());
}

}  // namespace
