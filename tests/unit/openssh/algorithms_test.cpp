#include "openssh/algorithms.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "golden.h"
#include "platform/algorithms.h"
#include "scratch.h"

using namespace openssh;
using openssh_test::fixed_algorithms;
using testing::ElementsAre;
using testing::IsEmpty;

TEST(launcher_algorithms, keeps_the_known_names_in_order) {
    const known_algorithms known = fixed_algorithms();
    const list_cut cut = cut_list("hmac-sha2-512,hmac-none,hmac-sha1", algorithm_kind::mac, known, false);
    EXPECT_THAT(cut.kept, ElementsAre("hmac-sha2-512", "hmac-sha1"));
    EXPECT_THAT(cut.unknown, ElementsAre("hmac-none"));
    EXPECT_THAT(cut.not_approved, IsEmpty());
}

TEST(launcher_algorithms, a_name_of_another_kind_is_unknown) {
    EXPECT_THAT(cut_list("aes128-ctr", algorithm_kind::mac, fixed_algorithms(), false).unknown,
                ElementsAre("aes128-ctr"));
}

TEST(launcher_algorithms, accepts_trailing_and_repeated_commas) {
    EXPECT_THAT(cut_list(",aes128-ctr,,aes256-ctr,", algorithm_kind::cipher, fixed_algorithms(), false).kept,
                ElementsAre("aes128-ctr", "aes256-ctr"));
    EXPECT_THAT(cut_list(",", algorithm_kind::cipher, fixed_algorithms(), false).kept, IsEmpty());
}

TEST(launcher_algorithms, keeps_a_repeated_name_once) {
    const list_cut cut =
        cut_list("aes128-ctr,aes256-ctr,aes128-ctr", algorithm_kind::cipher, fixed_algorithms(), false);
    EXPECT_THAT(cut.kept, ElementsAre("aes128-ctr", "aes256-ctr"));
    EXPECT_THAT(cut.repeated, ElementsAre("aes128-ctr"));
}

TEST(launcher_algorithms, fips_mode_removes_algorithms_that_are_not_approved) {
    const known_algorithms known = fixed_algorithms();
    EXPECT_THAT(
        cut_list("curve25519-sha256,ecdh-sha2-nistp256,curve25519-sha256@libssh.org", algorithm_kind::kex, known, true)
            .kept,
        ElementsAre("ecdh-sha2-nistp256"));
    EXPECT_THAT(cut_list("chacha20-poly1305@openssh.com,aes128-cbc,3des-cbc", algorithm_kind::cipher, known, true).kept,
                ElementsAre("aes128-cbc"));
    EXPECT_THAT(cut_list("hmac-md5,hmac-sha1,umac-64@openssh.com", algorithm_kind::mac, known, true).kept,
                ElementsAre("hmac-sha1"));
    EXPECT_THAT(cut_list("ssh-rsa,ssh-dss,ssh-ed25519,rsa-sha2-256", algorithm_kind::key, known, true).not_approved,
                ElementsAre("ssh-rsa", "ssh-dss", "ssh-ed25519"));
}

TEST(launcher_algorithms, the_default_of_fips_mode_is_approved_and_known) {
    const known_algorithms known = fixed_algorithms();
    EXPECT_THAT(fips_default_list(known, algorithm_kind::key),
                ElementsAre("ecdsa-sha2-nistp521", "ecdsa-sha2-nistp384", "ecdsa-sha2-nistp256", "rsa-sha2-512",
                            "rsa-sha2-256"));
    for (const algorithm_kind kind : algorithm_kinds) {
        for (const std::string_view name : fips_default_list(known, kind)) {
            EXPECT_TRUE(is_fips_approved(kind, name)) << name;
            EXPECT_TRUE(is_known(known, kind, name)) << name;
        }
    }
    EXPECT_THAT(fips_default_list(known_algorithms{}, algorithm_kind::kex), IsEmpty());
}

// An OpenSSH without one of these names would offer less than configured in FIPS mode.
TEST(launcher_algorithms, the_installed_ssh_knows_every_approved_default) {
    const known_algorithms installed = openssh_test::installed_algorithms();
    const size_t expected[] = {5, 3, 6, 5};
    for (size_t kind = 0; kind < algorithm_kind_count; ++kind) {
        EXPECT_EQ(fips_default_list(installed, algorithm_kinds[kind]).size(), expected[kind]);
    }
}

TEST(launcher_algorithms, the_approved_and_offered_algorithms_do_not_change) {
    known_algorithms all;
    for (const algorithm_row& row : algorithm_rows) {
        all.names[static_cast<size_t>(row.kind)].emplace_back(row.name);
    }
    std::ostringstream out;
    const char* const titles[] = {"ciphers", "MACs", "key exchanges", "keys"};
    for (const algorithm_kind kind : algorithm_kinds) {
        out << titles[static_cast<size_t>(kind)] << " approved\n";
        for (const std::string& name : all.names[static_cast<size_t>(kind)]) {
            out << (is_fips_approved(kind, name) ? "    " + name + '\n' : "");
        }
        out << titles[static_cast<size_t>(kind)] << " offered by default\n";
        for (const std::string_view name : fips_default_list(all, kind)) {
            out << "    " << name << '\n';
        }
    }
    expect_golden("openssh/golden/fips_algorithms", out.str());
}
