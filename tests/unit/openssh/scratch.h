/// Helpers of the launcher tests: a scratch directory, files in it, and the names that this machine's OpenSSH knows.
#ifndef TESTS_UNIT_OPENSSH_SCRATCH_H
#define TESTS_UNIT_OPENSSH_SCRATCH_H

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "openssh/algorithm_query.h"
#include "openssh/paths.h"
#include "openssh/run_programs.h"
#include "openssh/state_files.h"
#include "platform/algorithms.h"

namespace openssh_test {

/// A temporary directory, removed by the destructor.
class scratch_directory {
  public:
    scratch_directory() {
        std::string name = testing::TempDir() + "/launcher.XXXXXX";
        path_ = mkdtemp(name.data());
    }
    ~scratch_directory() { std::filesystem::remove_all(path_); }
    scratch_directory(const scratch_directory&) = delete;
    scratch_directory& operator=(const scratch_directory&) = delete;

    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }

    std::string write(const std::string& name, const std::string& text, mode_t mode = 0600) const {
        std::ofstream(file(name), std::ios::binary) << text;
        chmod(file(name).c_str(), mode);
        return file(name);
    }

    /// A shell script that replaces a program.
    std::string write_program(const std::string& name, const std::string& body) const {
        return write(name, "#!/bin/sh\n" + body, 0755);
    }

    /// A real host key.
    std::string make_host_key(const std::string& name = "ed25519") const {
        const auto result = openssh::run_programs(
            {{"/usr/bin/ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", file(name)}}, std::chrono::seconds(20));
        EXPECT_EQ(result[0].status, 0) << result[0].errors;
        return file(name);
    }

  private:
    std::string path_;
};

/// A launcher's paths in the directory, with the installed ssh and sshd.
inline openssh::launcher_paths launcher_paths_in(const scratch_directory& scratch) {
    openssh::launcher_paths paths;
    paths.state_directory = scratch.file("state");
    paths.privilege_separation_directory = scratch.file("privsep");
    paths.agent_directory = scratch.path() + "/";
    paths.local_directory = scratch.file("sshd.d");
    paths.accepted_local_directory = scratch.file("accepted_local");
    paths.sshd = "/usr/sbin/sshd";
    paths.user_keys_program = scratch.file("authorized_keys");
    paths.session_reporter = scratch.file("reporter.so");
    return paths;
}

inline std::string text_of(const std::string& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

inline bool exists(const std::string& path) {
    return std::filesystem::exists(std::filesystem::symlink_status(path));
}

/// The names that this machine's ssh lists.
inline openssh::known_algorithms installed_algorithms() {
    const scratch_directory scratch;
    openssh::known_algorithms known;
    EXPECT_EQ(openssh::query_algorithms("/usr/bin/ssh", scratch.file("cache"), known), "");
    return known;
}

/// Names that do not depend on the machine.
inline openssh::known_algorithms fixed_algorithms() {
    openssh::known_algorithms known;
    known.names = {{{"3des-cbc", "aes128-cbc", "aes192-cbc", "aes256-cbc", "aes128-ctr", "aes192-ctr", "aes256-ctr",
                     "aes128-gcm@openssh.com", "aes256-gcm@openssh.com", "chacha20-poly1305@openssh.com"},
                    {"hmac-sha1", "hmac-sha2-256", "hmac-sha2-512", "hmac-md5", "umac-64@openssh.com"},
                    {"diffie-hellman-group1-sha1", "diffie-hellman-group14-sha1", "diffie-hellman-group14-sha256",
                     "diffie-hellman-group16-sha512", "ecdh-sha2-nistp256", "ecdh-sha2-nistp384", "ecdh-sha2-nistp521",
                     "curve25519-sha256", "curve25519-sha256@libssh.org"},
                    {"ssh-ed25519", "ecdsa-sha2-nistp256", "ecdsa-sha2-nistp384", "ecdsa-sha2-nistp521", "ssh-dss",
                     "ssh-rsa", "rsa-sha2-256", "rsa-sha2-512"}}};
    return known;
}

/// The router's default list of a kind for the client, which is the server's without the certificate.
inline std::string default_list(algorithm_kind kind) {
    std::string list;
    for (int rank = 1;; rank++) {
        const algorithm_row* row = algorithm_at(kind, &algorithm_row::client_rank, rank);
        if (row == nullptr) {
            return list;
        }
        list += (rank > 1 ? "," : "") + std::string(row->name);
    }
}

/// Runs the installed sshd on a file ("-t" tests it, "-T" prints its effective configuration).
inline openssh::program_result run_sshd(const char* option, const std::string& file) {
    return openssh::run_programs({{"/usr/sbin/sshd", option, "-f", file}}, std::chrono::seconds(60))[0];
}

/// sshd requires its directory even to test a file.
inline void ensure_sshd_directory() {
    ASSERT_EQ(openssh::ensure_directory("/run/sshd", 0755), "");
}

}  // namespace openssh_test

#endif
