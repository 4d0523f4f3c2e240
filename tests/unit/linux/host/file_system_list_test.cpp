#include "platform/file_system_list.h"

#include <sys/mount.h>
#include <sys/stat.h>

#include <algorithm>
#include <vector>

#include "unit/linux/platform_test_support.h"

namespace {

std::vector<std::string> names() {
    std::vector<std::string> all;
    const char* const* list = file_system_list_get();
    EXPECT_NE(nullptr, list);
    for (; list != nullptr && *list != nullptr; ++list) {
        all.emplace_back(*list);
    }
    return all;
}

bool lists(const std::string& name) {
    const std::vector<std::string> all = names();
    return std::count(all.begin(), all.end(), name) == 1;
}

class file_system_list_test : public testing::Test {
  protected:
    /// Replaces /proc/self/mountinfo for this process with the test's own text.
    void show_mounts(const std::string& text) {
        platform_test::write_file("/tmp/mountinfo", text);
        cover_mounts();
    }
    void cover_mounts() {
        const std::string target = "/proc/" + std::to_string(getpid()) + "/mountinfo";
        ASSERT_EQ(0, mount("/tmp/mountinfo", target.c_str(), nullptr, MS_BIND, nullptr)) << strerror(errno);
        covered = target;
    }
    void TearDown() override {
        if (!covered.empty()) {
            umount2(covered.c_str(), MNT_DETACH);
        }
    }
    std::string covered;
};

TEST_F(file_system_list_test, lists_the_root_and_no_temporary_or_kernel_file_system) {
    EXPECT_EQ("/", names().front());
    EXPECT_FALSE(lists("/tmp"));
    EXPECT_FALSE(lists("/run"));
    EXPECT_FALSE(lists("/proc"));
}

TEST_F(file_system_list_test, lists_each_persistent_file_system_once_by_its_first_mount_point) {
    show_mounts(
        "22 1 0:30 / / rw,relatime - overlay overlay rw\n"
        "23 22 8:1 / /boot rw shared:1 master:2 - ext4 /dev/sda1 rw\n"
        "24 22 8:1 / /mnt/again rw - ext4 /dev/sda1 rw\n"
        "25 22 8:2 /sub /bound rw - ext4 /dev/sda2 rw\n"
        "26 22 0:31 / /tmp rw - tmpfs tmpfs rw\n"
        "27 22 0:32 / /proc rw - proc proc rw\n"
        "28 22 7:0 / /snap/core ro - squashfs /dev/loop0 ro\n"
        "29 22 0:33 / /srv/my\\040files rw - nfs4 server:/files rw\n"
        "30 22 0:34 / /var/lib/images/1/merged rw - overlay overlay rw\n"
        "half a line\n");
    EXPECT_EQ((std::vector<std::string>{"/", "/boot", "/srv/my\\040files"}), names());
}

TEST_F(file_system_list_test, is_truncated_to_the_size_that_can_be_published) {
    std::string text = "22 1 8:1 / / rw - ext4 /dev/sda1 rw\n";
    for (int i = 2; i < 100; ++i) {
        text += "23 22 8:" + std::to_string(i) + " / /mnt/" + std::string(20, 'x') + std::to_string(i) +
                " rw - ext4 /dev/sdb rw\n";
    }
    show_mounts(text);
    platform_test::journal_listener journal;
    size_t size = 0;
    for (const std::string& name : names()) {
        size += name.size() + 1;
    }
    EXPECT_LE(size, 1023u);
    EXPECT_GT(size, 980u);
    EXPECT_NE(std::string::npos, journal.messages().find("The file-system list is full and ends before /mnt/"));
}

TEST_F(file_system_list_test, is_empty_when_nothing_persistent_is_mounted) {
    show_mounts("26 22 0:31 / /tmp rw - tmpfs tmpfs rw\n");
    EXPECT_TRUE(names().empty());
}

TEST_F(file_system_list_test, fails_when_the_mounts_cannot_be_read) {
    // A socket cannot be opened.
    ASSERT_EQ(0, mknod("/tmp/mountinfo", S_IFSOCK | 0600, 0)) << strerror(errno);
    cover_mounts();
    EXPECT_EQ(nullptr, file_system_list_get());
}

}  // namespace
