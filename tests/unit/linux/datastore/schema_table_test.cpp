#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <sstream>
#include <string>

#include "golden.h"
#include "linux/datastore/schema.h"
#include "platform/value_tuple.h"

namespace {

TEST(schema_table, stands_in_byte_order_without_a_pattern_twice) {
    const auto rows = schema_rows();
    ASSERT_FALSE(rows.empty());
    for (size_t i = 1; i < rows.size(); i++) {
        EXPECT_LT(std::string(rows[i - 1].pattern), rows[i].pattern);
    }
}

void expect_meaning(const schema_row& row) {
    EXPECT_NE(row.form.help, nullptr) << row.pattern;
    EXPECT_EQ(strchr(row.pattern, '*') != nullptr, row.wildcard.help != nullptr) << row.pattern;
    EXPECT_EQ(row.form.kind == schema_kind::tuple, !row.fields.empty()) << row.pattern;
    for (const schema_field& field : row.fields) {
        EXPECT_TRUE(field.name != nullptr && field.form.help != nullptr) << row.pattern;
    }
}

TEST(schema_table, has_a_meaning_for_every_item_and_field) {
    for (const schema_row& row : schema_rows()) {
        expect_meaning(row);
    }
}

void expect_storable(const schema_row& row) {
    EXPECT_LE(row.fields.size(), size_t{TUPLE_FIELDS_MAX}) << row.pattern;
    EXPECT_GE(row.form.lowest, 0) << row.pattern;
    EXPECT_LE(row.form.highest, INT64_C(0xffffffff)) << row.pattern;
    for (const schema_field& field : row.fields) {
        const bool is_name = field.form.charset == schema_charset::algorithm_name;
        const int64_t longest = is_name ? TUPLE_NAME_MAX : TUPLE_TEXT_MAX;
        EXPECT_LE(field.form.highest, field.form.kind == schema_kind::text ? longest : INT_MAX) << row.pattern;
    }
}

// What the forms allow has to fit the packed forms it is stored in.
TEST(schema_table, asks_for_nothing_that_cannot_be_stored) {
    for (const schema_row& row : schema_rows()) {
        expect_storable(row);
    }
}

TEST(schema_table, knows_the_items_of_server_client_and_backup_server) {
    for (const char* path : {"/cfg/gl/crypto/ssh/server/sshd/vrf/blue",
                             "/cfg/gl/crypto/ssh/server/sshd/v2",
                             "/cfg/gl/crypto/ssh/server/cmn/v1",
                             "/cfg/gl/crypto/ssh/server/sshd/vrf-netconf/blue",
                             "/cfg/gl/crypto/ssh/server/sshd/netconf",
                             "/cfg/gl/crypto/ssh/server/cmn/timeout",
                             "/cfg/gl/crypto/ssh/server/cmn/rate_limit",
                             "/cfg/gl/crypto/ssh/server/cmn/disable/hmac/hmac_sha512",
                             "/cfg/gl/crypto/ssh/server/cmn/disable/hmac/hmac_sha1",
                             "/cfg/gl/crypto/ssh/server/cmn/disable/hmac/hmac_sha256",
                             "/cfg/gl/crypto/ssh/server/cmn/enable/cipher",
                             "/cfg/gl/crypto/ssh/server/cmn/session_limit",
                             "/cfg/gl/crypto/ssh/server/cmn/logging",
                             "/cfg/gl/crypto/ssh/server/cmn/dscp",
                             "/cfg/gl/crypto/ssh/server/cmn/capability/netconf-xml",
                             "/cfg/gl/crypto/ssh/server/cmn/rekey_time",
                             "/cfg/gl/crypto/ssh/server/cmn/rekey_volume",
                             "/cfg/gl/crypto/ssh/server/cmn/algorithms/key-exchange",
                             "/cfg/gl/crypto/ssh/server/cmn/algorithms/cipher",
                             "/cfg/gl/crypto/ssh/server/cmn/algorithms/host-key",
                             "/cfg/gl/crypto/ssh/server/cmn/tcp_window_scale",
                             "/cfg/gl/crypto/ssh/server/cmn/username/ann",
                             "/cfg/gl/crypto/ssh/server/cmn/username/ann/keystr",
                             "/cfg/gl/crypto/ssh/server/cmn/trustpoint/host",
                             "/cfg/gl/crypto/ssh/server/cmn/trustpoint/user/root-ca",
                             "/cfg/gl/crypto/ssh/server/cmn/certificate/username",
                             "/cfg/gl/crypto/ssh/server/cmn/max_auth_limit",
                             "/cfg/gl/crypto/ssh/server/cmn/port_forwarding",
                             "/cfg/gl/crypto/ssh/client/dscp",
                             "/cfg/gl/crypto/ssh/client/rekey_time",
                             "/cfg/gl/crypto/ssh/client/rekey_volume",
                             "/cfg/gl/crypto/ssh/client/algorithms/key-exchange",
                             "/cfg/gl/crypto/ssh/client/algorithms/cipher",
                             "/cfg/gl/crypto/ssh/client/disable/hmac/hmac_sha1",
                             "/cfg/gl/crypto/ssh/client/disable/hmac/hmac_sha512",
                             "/cfg/gl/crypto/ssh/client/disable/hmac/hmac_sha256",
                             "/cfg/gl/crypto/ssh/client/enable/cipher",
                             "/cfg/gl/crypto/ssh/client/host_pubkey",
                             "/cfg/gl/crypto/ssh/client/portnvrf",
                             "/cfg/gl/crypto/ssh/client/vrf",
                             "/cfg/gl/crypto/ssh/client/v2",
                             "/cfg/gl/crypto/ssh/client/v1",
                             "/cfg/gl/crypto/ssh/client/source",
                             "/cfg/gl/crypto/ssh/client/tcp_window_scale",
                             "/cfg/gl/crypto/ssh/sshd_backup/portnvrf"}) {
        EXPECT_NE(schema_find(path, nullptr), nullptr) << path;
    }
}

// Stored tuples depend on the order of their fields.
TEST(schema_table, tuples_of_algorithms_have_the_fields_as_ever) {
    std::ostringstream out;
    for (const schema_row& row : schema_rows()) {
        if (strstr(row.pattern, "/algorithms/") == nullptr) {
            continue;
        }
        out << row.pattern << '\n';
        for (const schema_field& field : row.fields) {
            out << "    " << field.name << ": " << field.form.help << '\n';
        }
    }
    expect_golden("linux/datastore/golden/algorithm_fields", out.str());
}

}  // namespace
