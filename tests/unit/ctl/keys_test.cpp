#include "ssh_cfg_ctl/keys.h"

#include <gtest/gtest.h>

namespace {

std::string text(const control_json& data, size_t width = 0) {
    return ctl_keys_text({{"result", "done"}, {"data", data}}, width);
}

TEST(ctl_keys, are_a_table) {
    const control_json one = {
        {"user", "alice"},       {"type", "ssh-ed25519"},           {"bits", 256},
        {"origin", "imported"},  {"since", "2026-11-23T01:00:00Z"}, {"fingerprint", "SHA256:a/b+c"},
        {"options", "restrict"}, {"comment", "me\u202e"},           {"not_accepted", "expired"}};
    control_json two = one;
    two["options"] = "";
    two["comment"] = "";
    two["not_accepted"] = nullptr;
    EXPECT_EQ(text({one, two}),
              "User   Type         Bits  Origin    Since                 Fingerprint   Options   Comment\n"
              "alice  ssh-ed25519  256   imported  2026-11-23T01:00:00Z  SHA256:a/b+c  restrict  me\\xe2\\x80\\xae\n"
              "       (expired)\n"
              "alice  ssh-ed25519  256   imported  2026-11-23T01:00:00Z  SHA256:a/b+c  -         -\n");
    for (size_t width = 40; width < 200; width++) {
        EXPECT_NE(text({one, two}, width).find("SHA256:a/b+c"), std::string::npos) << width;
    }
}

TEST(ctl_keys, are_exported_as_lines) {
    EXPECT_EQ(text({"restrict ssh-ed25519 AAAA me", "ssh-rsa AAAA"}), "restrict ssh-ed25519 AAAA me\nssh-rsa AAAA\n");
}

TEST(ctl_keys, may_be_missing) {
    EXPECT_EQ(text(control_json::array()), "no keys\n");
    EXPECT_EQ(ctl_keys_text({{"result", "done"}}, 0), "");
    EXPECT_EQ(text({{{"user", "alice"}}}).substr(0, 4), "User");
}

}  // namespace
