/// Checks with sshd itself that a translation means what the server file requested.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "common/text.h"
#include "openssh/run_programs.h"
#include "openssh/text.h"
#include "openssh/translate.h"
#include "scratch.h"

using namespace openssh;
using openssh_test::scratch_directory;

namespace {

constexpr int configurations = 300;
constexpr size_t at_once = 10;

/// A generated server file, and the lines that `sshd -T` must print for it.
struct generated_file {
    std::string text;
    std::map<std::string, std::string> expected;
};

struct generator {
    std::mt19937 random;
    known_algorithms known;
    std::string key;

    unsigned below(unsigned limit) { return random() % limit; }

    /// A list of known and unknown names with misplaced commas, and its known names in order.
    std::string make_list(algorithm_kind kind, std::string& remainder) {
        std::vector<std::string> names = known.names[static_cast<size_t>(kind)];
        std::shuffle(names.begin(), names.end(), random);
        names.resize(1 + below(static_cast<unsigned>(names.size())));
        std::string list = below(4) == 0 ? "," : "";
        remainder.clear();
        for (const std::string& name : names) {
            if (below(4) == 0) {
                list += text_format("x509v3-%s,", name.c_str());
            }
            if (below(8) == 0 && !remainder.empty()) {
                list += remainder.substr(0, remainder.find(',')) + ",";
            }
            list += name + (below(5) == 0 ? ",," : ",");
            remainder += (remainder.empty() ? "" : ",") + name;
        }
        if (below(2) == 0) {
            list.pop_back();
        }
        return list;
    }

    void add_lists(generated_file& file) {
        const std::pair<const char*, algorithm_kind> keywords[] = {{"Ciphers", algorithm_kind::cipher},
                                                                   {"MACs", algorithm_kind::mac},
                                                                   {"KexAlgorithms", algorithm_kind::kex},
                                                                   {"HostKeyAlgorithms", algorithm_kind::key}};
        for (const auto& [keyword, kind] : keywords) {
            std::string remainder;
            file.text += text_format("%s %s\n", keyword, make_list(kind, remainder).c_str());
            file.expected[lower_case(keyword)] = remainder;
        }
    }

    void add_number(generated_file& file, const char* keyword, unsigned limit) {
        const std::string number = std::to_string(1 + below(limit));
        file.text += text_format("%s %s\n", keyword, number.c_str());
        file.expected[lower_case(keyword)] = number;
        // A later line with the same keyword has no effect.
        if (below(4) == 0) {
            file.text += text_format("%s 7777\n", keyword);
        }
    }

    void add_settings(generated_file& file) {
        add_number(file, "MaxAuthTries", 100);
        add_number(file, "MaxSessions", 100);
        add_number(file, "LoginGraceTime", 1000);
        add_number(file, "ClientAliveInterval", 1000);
        const unsigned volume = 1 + below(4096);
        const unsigned minutes = 1 + below(1440);
        file.text += text_format("RekeyLimit %uM %um\n", volume, minutes);
        file.expected["rekeylimit"] = text_format("%llu %u", volume * 1048576ULL, minutes * 60);
        const char* forwarding = below(2) == 0 ? "local" : "no";
        file.text += text_format("AllowTcpForwarding %s\n", forwarding);
        file.expected["allowtcpforwarding"] = forwarding;
        file.text += text_format("IPQoS 0x%x\n", below(64) << 2);
        file.expected["usepam"] = "yes";
        file.expected["pidfile"] = "none";
        for (const char* own : {"RateLimitQd 60", "SessionLimitQd 64", "WindowScaleQd 3", "HostTrustpointQd a b",
                                "Protocol 2", "SomethingNew 1", "Port 0", "LogLevel LOUD", "IPQoS 0xfff"}) {
            if (below(2) == 0) {
                file.text += std::string(own) + "\n";
            }
        }
    }

    generated_file make() {
        generated_file file;
        file.text = below(2) == 0 ? "HostKey  " + key + ",/nonexistent/dsa," + key + "\n"
                                  : "HostKey  /nonexistent/rsa\nHostKey " + key + "\n";
        if (below(2) == 0) {
            add_lists(file);
            add_settings(file);
        } else {
            add_settings(file);
            add_lists(file);
        }
        if (below(2) == 0) {
            file.text += "AcceptedAlgorithms x509v3-ssh-rsa,ssh-rsa";
        }
        return file;
    }
};

std::map<std::string, std::string> printed_settings(const std::string& output) {
    std::map<std::string, std::string> settings;
    for (const std::string_view line : split(output, "\n")) {
        const size_t end = std::min(line.find(' '), line.size());
        settings.emplace(line.substr(0, end), trimmed(line.substr(end)));
    }
    return settings;
}

translation translate_file(const std::string& text, const known_algorithms& known) {
    return translate({.text = text, .source_name = "/test", .known = &known, .key_is_usable = is_readable_file});
}

void expect_settings(const program_result& sshd, const generated_file& file) {
    ASSERT_EQ(sshd.status, 0) << sshd.errors << sshd.failure << file.text;
    EXPECT_EQ(sshd.errors, "") << file.text;
    auto printed = printed_settings(sshd.output);
    for (const auto& [keyword, value] : file.expected) {
        EXPECT_EQ(printed[keyword], value) << keyword << "\n" << file.text;
    }
}

void expect_approved_algorithms(const program_result& sshd, const std::string& text) {
    constexpr std::pair<const char*, algorithm_kind> checked[] = {{"ciphers", algorithm_kind::cipher},
                                                                  {"macs", algorithm_kind::mac},
                                                                  {"kexalgorithms", algorithm_kind::kex},
                                                                  {"hostkeyalgorithms", algorithm_kind::key},
                                                                  {"pubkeyacceptedalgorithms", algorithm_kind::key},
                                                                  {"hostbasedacceptedalgorithms", algorithm_kind::key},
                                                                  {"casignaturealgorithms", algorithm_kind::key}};
    ASSERT_EQ(sshd.status, 0) << sshd.errors << text;
    auto printed = printed_settings(sshd.output);
    for (const auto& [keyword, kind] : checked) {
        EXPECT_NE(printed[keyword], "") << keyword;
        for (const std::string_view name : split(printed[keyword], ",")) {
            EXPECT_TRUE(is_fips_approved(kind, name)) << keyword << " " << name << "\n" << text;
        }
    }
}

}  // namespace

TEST(launcher_sshd_acceptance, sshd_reads_the_settings_of_the_server_file) {
    openssh_test::ensure_sshd_directory();
    const scratch_directory scratch;
    generator random{std::mt19937(20), openssh_test::installed_algorithms(), scratch.make_host_key()};
    for (int done = 0; done < configurations; done += at_once) {
        std::vector<generated_file> files;
        std::vector<std::vector<std::string>> programs;
        for (size_t i = 0; i < at_once; ++i) {
            files.push_back(random.make());
            const translation result = translate_file(files[i].text, random.known);
            EXPECT_FALSE(result.refused) << files[i].text;
            programs.push_back({"/usr/sbin/sshd", "-T", "-f", scratch.write(std::to_string(i), result.text)});
        }
        const auto results = run_programs(programs, std::chrono::seconds(60));
        for (size_t i = 0; i < at_once; ++i) {
            expect_settings(results[i], files[i]);
        }
    }
}

// Whatever the lists of a file in FIPS mode contain, and if they are missing, the server offers no forbidden algorithm.
TEST(launcher_sshd_acceptance, sshd_offers_only_approved_algorithms_in_fips_mode) {
    openssh_test::ensure_sshd_directory();
    const scratch_directory scratch;
    generator random{std::mt19937(21), openssh_test::installed_algorithms(), scratch.make_host_key()};
    int taken = 0;
    for (int round = 0; round < 100; ++round) {
        const generated_file file = random.make();
        std::string text = "NorvoSSHFipsMode yes\n";
        for (const std::string_view line : split(file.text, "\n")) {
            if (random.below(4) != 0 || line.starts_with("HostKey ")) {
                text.append(line).append("\n");
            }
        }
        const translation result = translate_file(text, random.known);
        if (!result.refused) {
            ++taken;
            expect_approved_algorithms(openssh_test::run_sshd("-T", scratch.write("fips", result.text)), text);
        }
    }
    EXPECT_GT(taken, 30);
}

// Outside FIPS mode sshd accepts the additional algorithms after all those that it accepts by itself.
TEST(launcher_sshd_acceptance, sshd_accepts_the_additional_key_algorithms_after_its_own) {
    openssh_test::ensure_sshd_directory();
    const scratch_directory scratch;
    const known_algorithms known = openssh_test::installed_algorithms();
    const auto accepted = [&](const std::string& text) {
        const auto sshd = openssh_test::run_sshd("-T", scratch.write("f", translate_file(text, known).text));
        return printed_settings(sshd.output)["pubkeyacceptedalgorithms"];
    };
    const std::string key_line = "HostKey " + scratch.make_host_key() + "\n";
    const std::string own = accepted(key_line);
    EXPECT_NE(own, "");
    EXPECT_EQ(accepted(key_line + "AcceptedAlgorithms x509v3-ssh-rsa,ssh-rsa\n"), own + ",ssh-rsa");
}
