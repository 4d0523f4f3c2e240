#include "openssh/reporter/page_maker.h"

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>

#include <cerrno>
#include <csignal>
#include <filesystem>

#include "scratch.h"
#include "session_test.h"

using namespace openssh;
using namespace openssh_test;

namespace {

size_t files_in(const std::string& folder) {
    return static_cast<size_t>(
        std::distance(std::filesystem::directory_iterator(folder), std::filesystem::directory_iterator()));
}

size_t open_descriptors() {
    return files_in("/proc/self/fd");
}

/// Returns the wait status of a child that runs `what`.
template <class action>
int status_of_child(action what) {
    const pid_t child = fork();
    if (child == 0) {
        what();
        _exit(0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
}

session_facts facts_in(const std::string& path, size_t offset) {
    session_facts facts;
    const int file = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_TRUE(is_server_file(file));
    read_page(file, offset, facts);
    close(file);
    return facts;
}

class server_page_files : public testing::Test {
  protected:
    int make() { return make_server_pages(folder_.path().c_str(), facts_, pages_); }
    std::string file() const { return folder_.file("351.3510"); }

    scratch_directory folder_;
    session_facts facts_ = facts_of_session(351);
    server_pages pages_;
};

}  // namespace

TEST_F(server_page_files, appear_whole_and_follow_every_change) {
    const size_t before = open_descriptors();
    ASSERT_EQ(make(), 0);
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_STREQ(facts_in(file(), monitors_page).user, "operator");
    EXPECT_STREQ(facts_in(file(), reported_page).user, "") << "nothing was reported yet";
    set_field(facts_.method, "key-intr");
    write_page(*pages_.monitors, facts_);
    set_field(facts_.user, "reported");
    write_page(*pages_.reported, facts_);
    EXPECT_STREQ(facts_in(file(), monitors_page).method, "key-intr");
    EXPECT_STREQ(facts_in(file(), monitors_page).user, "operator");
    EXPECT_STREQ(facts_in(file(), reported_page).user, "reported");
    EXPECT_EQ(files_in(folder_.path()), 1U);
}

TEST_F(server_page_files, are_root_s_alone_whatever_the_umask) {
    umask(0);
    ASSERT_EQ(make(), 0);
    struct stat status = {};
    ASSERT_EQ(stat(file().c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(server_page_files, a_child_has_no_access_to_the_monitors_page) {
    ASSERT_EQ(make(), 0);
    rlimit no_core = {};
    setrlimit(RLIMIT_CORE, &no_core);
    const int status = status_of_child([this] {
        signal(SIGSEGV, SIG_DFL);
        pages_.monitors->facts.user[0] = 'x';
    });
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) << status;
    EXPECT_EQ(status_of_child([this] {
                  session_facts reported = facts_;
                  set_field(reported.user, "reported");
                  write_page(*pages_.reported, reported);
              }),
              0);
    EXPECT_STREQ(facts_in(file(), monitors_page).user, "operator");
    EXPECT_STREQ(facts_in(file(), reported_page).user, "reported");
}

TEST_F(server_page_files, replace_what_an_earlier_process_left_under_the_name) {
    folder_.write("351.3510", "left");
    ASSERT_EQ(make(), 0);
    EXPECT_STREQ(facts_in(file(), monitors_page).user, "operator");
}

TEST_F(server_page_files, are_removed_alone) {
    folder_.write("351.3511", "another");
    ASSERT_EQ(make(), 0);
    remove_server_file(folder_.path().c_str(), facts_);
    EXPECT_FALSE(std::filesystem::exists(file()));
    EXPECT_EQ(files_in(folder_.path()), 1U);
    write_page(*pages_.monitors, facts_);
}

TEST_F(server_page_files, have_a_folder_made_for_them) {
    const std::string folder = folder_.file("sessions");
    ASSERT_EQ(make_server_pages(folder.c_str(), facts_, pages_), 0);
    struct stat status = {};
    ASSERT_EQ(stat(folder.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0700U);
    EXPECT_EQ(make_server_pages(folder_.file("not/there").c_str(), facts_, pages_), ENOENT);
}

TEST_F(server_page_files, on_a_full_file_system_are_not_made_and_harm_nobody) {
    const std::string full = folder_.file("full");
    ASSERT_EQ(mkdir(full.c_str(), 0700), 0);
    ASSERT_EQ(mount("tmpfs", full.c_str(), "tmpfs", 0, "size=12k"), 0);
    server_pages first;
    EXPECT_EQ(make_server_pages(full.c_str(), facts_of_session(1), first), 0);
    // There is room for only half of the second file.
    EXPECT_EQ(make_server_pages(full.c_str(), facts_, pages_), ENOSPC);
    EXPECT_EQ(pages_.monitors, nullptr);
    EXPECT_EQ(pages_.reported, nullptr);
    EXPECT_EQ(files_in(full), 1U);
    write_page(*first.monitors, facts_);
    write_page(*first.reported, facts_);
    umount2(full.c_str(), MNT_DETACH);
}

TEST_F(server_page_files, a_limit_of_file_sizes_ends_nothing) {
    EXPECT_EQ(status_of_child([this] {
                  const rlimit limit = {.rlim_cur = server_file_size - 1, .rlim_max = server_file_size - 1};
                  setrlimit(RLIMIT_FSIZE, &limit);
                  session_page* page = nullptr;
                  const rlimit smaller = {.rlim_cur = 1, .rlim_max = 1};
                  const bool is_refused = make() == EFBIG && files_in(folder_.path()) == 0;
                  setrlimit(RLIMIT_FSIZE, &smaller);
                  _exit(is_refused && make_client_page(page) == EFBIG && page == nullptr ? 7 : 1);
              }),
              7 << 8);
}

TEST(client_page_file, is_shared_with_a_child_and_sealed) {
    session_page* page = nullptr;
    ASSERT_EQ(make_client_page(page), 0);
    EXPECT_TRUE(is_client_file(first_page_descriptor));
    EXPECT_EQ(fcntl(first_page_descriptor, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(status_of_child([page] { write_page(*page, facts_of_session(539)); }), 0);
    session_facts facts;
    ASSERT_TRUE(read_page(first_page_descriptor, 0, facts));
    EXPECT_STREQ(facts.user, "operator");
    EXPECT_NE(ftruncate(first_page_descriptor, 0), 0);
    EXPECT_EQ(mmap(nullptr, session_page_size, PROT_WRITE, MAP_SHARED, first_page_descriptor, 0), MAP_FAILED);
}

TEST(client_page_file, is_where_the_responder_looks_or_not_made) {
    std::vector<int> taken;
    for (int i = 0; i < page_descriptors - 1; ++i) {
        taken.push_back(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, first_page_descriptor));
    }
    session_page* page = nullptr;
    ASSERT_EQ(make_client_page(page), 0);
    EXPECT_TRUE(is_client_file(first_page_descriptor + page_descriptors - 1));
    page = nullptr;
    EXPECT_EQ(make_client_page(page), EMFILE);
    EXPECT_EQ(page, nullptr);
    for (const int descriptor : taken) {
        close(descriptor);
    }
}
