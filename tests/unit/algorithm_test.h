/// Fixture of the tests of algorithm lists and FIPS mode: an agent that has started with an empty configuration, and
/// commits to it.
#ifndef UNIT_ALGORITHM_TEST_H
#define UNIT_ALGORITHM_TEST_H

#include <gmock/gmock.h>

#include <algorithm>
#include <optional>
#include <string>
#include <vector>

#include "agent_test.h"
#include "core/debug.h"
#include "core/start_up.h"

/// What differs between the server's and the client's settings.
struct side_case {
    const char* name;
    std::string tree;
    const char* file;
};

inline void PrintTo(const side_case& side, std::ostream* output) {
    *output << side.name;
}

inline const side_case server_case = {"server", "/cfg/gl/crypto/ssh/server/cmn/", paths::server_file};
inline const side_case client_case = {"client", "/cfg/gl/crypto/ssh/client/", paths::client_file};

class algorithm_test : public agent_test {
  protected:
    static constexpr char fips_item[] = "/cfg/gl/crypto/fipsmode/value";
    static constexpr char fips_question[] = "datastore_item_get(/cfg/gl/crypto/fipsmode/value)";
    static constexpr char fips_binding[] = "datastore_bind(/cfg/gl/crypto/)";

    using names = std::vector<fake_platform::field>;

    /// Runs the start-up sequence and clears what was recorded so far.
    static void start() {
        ASSERT_EQ(start_up(), START_UP_DONE);
        fake_platform::preset_debug_flag(debug_cfg_agent, true);
        forget();
    }

    static void forget() {
        fake_platform::clear_calls();
        fake_platform::clear_reports();
    }

    /// A list of at most ten names, or flags; the rest is absent.
    static names padded(names fields, size_t count) {
        fields.resize(std::max(fields.size(), count));
        return fields;
    }

    static fake_platform::value kex_value(const names& fields) {
        return fake_platform::tuple_value("%s%s%s%s%s%s%s%s%s", padded(fields, 9));
    }
    static fake_platform::value cipher_value(const names& fields) {
        return fake_platform::tuple_value("%s%s%s%s%s%s%s%s%s%s", padded(fields, 10));
    }

    static fake_platform::change kex_change(const side_case& side, const names& fields) {
        return {side.tree + "algorithms/key-exchange", kex_value(fields)};
    }
    static fake_platform::change cipher_change(const side_case& side, const names& fields) {
        return {side.tree + "algorithms/cipher", cipher_value(fields)};
    }
    static fake_platform::change legacy_change(const side_case& side, const names& fields) {
        return fake_platform::set_tuple(side.tree + "enable/cipher", "%d%d", padded(fields, 2));
    }
    static fake_platform::change host_key_change(const names& flags) {
        return fake_platform::set_tuple(server_case.tree + "algorithms/host-key", "%d%d%d%d%d%d%d%d%d%d", flags);
    }
    static fake_platform::change mac_change(const side_case& side, const std::string& item, uint32_t disabled = 1) {
        return fake_platform::set_number(side.tree + "disable/hmac/" + item, disabled);
    }

    static fake_platform::commit_result commit_ok(const fake_platform::change& change) {
        auto result = fake_platform::commit(change);
        EXPECT_EQ(result.status, PLATFORM_OK) << result.error_text;
        return result;
    }

    static void turn_fips(bool on) {
        commit_ok(on ? fake_platform::set_number(fips_item, 1) : fake_platform::remove(fips_item));
        forget();
    }

    /// The values of the keyword's lines in order, without leading blanks.
    static std::vector<std::string> values(const std::string& path, const std::string& keyword) {
        std::vector<std::string> found;
        for (const std::string& line : file_lines(path)) {
            if (line.starts_with(keyword + " ")) {
                found.push_back(line.substr(line.find_first_not_of(' ', keyword.size())));
            }
        }
        return found;
    }

    /// The value of the keyword's only line; "no line" if there is none.
    static std::string value(const std::string& path, const std::string& keyword) {
        const auto found = values(path, keyword);
        EXPECT_LE(found.size(), 1u) << keyword;
        return found.empty() ? "no line" : found.front();
    }

    static std::string both_files() { return read_file(paths::server_file) + read_file(paths::client_file); }
};

class algorithm_side_test : public algorithm_test, public testing::WithParamInterface<side_case> {
  protected:
    static const side_case& side() { return GetParam(); }
    static std::string line(const std::string& keyword) { return value(side().file, keyword); }
};

#define FOR_BOTH_SIDES(suite)                                                         \
    INSTANTIATE_TEST_SUITE_P(sides, suite, testing::Values(server_case, client_case), \
                             [](const auto& info) { return info.param.name; })

#endif
