#include "common/journal_entry.h"

#include <gtest/gtest.h>

TEST(journal_entry, finds_the_service_of_a_process) {
    EXPECT_EQ(service_of_cgroup("0::/system.slice/sshd_service_red.service\n"), "sshd_service_red.service");
    EXPECT_EQ(service_of_cgroup("0::/a/b/system.slice/sshd_service_red.service/child\n"), "sshd_service_red.service");
    EXPECT_EQ(service_of_cgroup("9:name=systemd:/system.slice/a.service\n0::/\n"), "a.service");
    EXPECT_EQ(service_of_cgroup("4:memory:/x.service\n0::/system.slice/a.service\n"), "a.service");
}

TEST(journal_entry, finds_no_service_outside_one) {
    for (const char* cgroup : {"", "0::/\n", "0::/user.slice/session-1.scope\n", "4:memory:/x.service\n",
                               "0::/x.services/y\n", "nonsense", ":/"}) {
        EXPECT_EQ(service_of_cgroup(cgroup), "") << cgroup;
    }
}
