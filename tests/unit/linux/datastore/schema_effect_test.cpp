#include <gtest/gtest.h>

#include "linux/datastore/schema.h"

namespace {

std::string reason(const char* path, const datastore_value& value) {
    const schema_row* row = schema_find(path, nullptr);
    EXPECT_NE(row, nullptr) << path;
    return row == nullptr ? "" : schema_not_carried_out(*row, value);
}

constexpr char host_keys[] = "/cfg/gl/crypto/ssh/server/cmn/algorithms/host-key";
constexpr char legacy_ciphers[] = "/cfg/gl/crypto/ssh/server/cmn/enable/cipher";

}  // namespace

TEST(schema_effect, an_item_without_effect_has_a_reason) {
    EXPECT_EQ(reason("/cfg/gl/crypto/ssh/server/cmn/tcp_window_scale", int64_t{7}),
              "the kernel chooses the TCP window");
    EXPECT_EQ(reason("/cfg/gl/crypto/ssh/server/cmn/trustpoint/user/ca", true),
              "OpenSSH does not support x509v3 certificates");
    EXPECT_EQ(reason("/cfg/gl/crypto/ssh/client/vrf", std::string("red")),
              "the client uses the VRF in which it is started");
}

TEST(schema_effect, an_item_with_effect_has_none) {
    EXPECT_EQ(reason("/cfg/gl/crypto/ssh/server/cmn/rate_limit", int64_t{7}), "");
    EXPECT_EQ(reason("/cfg/gl/crypto/ssh/server/cmn/session_limit", int64_t{7}), "");
    EXPECT_EQ(reason("/cfg/gl/crypto/ssh/server/sshd/vrf/red", datastore_fields{}), "");
}

TEST(schema_effect, in_a_tuple_only_flags_that_are_set_count) {
    EXPECT_EQ(reason(legacy_ciphers, datastore_fields{true, false}), "");
    EXPECT_EQ(reason(legacy_ciphers, datastore_fields{true, true}), "3des-cbc is not supported");
    EXPECT_EQ(reason(legacy_ciphers, datastore_fields{int64_t{1}, int64_t{1}}), "3des-cbc is not supported");
    EXPECT_EQ(reason(legacy_ciphers, datastore_fields{int64_t{1}, int64_t{0}}), "");
    EXPECT_EQ(reason(legacy_ciphers, datastore_fields{std::nullopt, std::nullopt}), "");
    EXPECT_EQ(reason(legacy_ciphers, datastore_fields{true}), "");
    EXPECT_EQ(reason(host_keys, datastore_fields{true, true, true, true, true, false}), "");
    EXPECT_EQ(reason(host_keys, datastore_fields{false, false, false, false, false, true}),
              "OpenSSH does not support x509v3 certificates");
}
