#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "platform/acl_entry.h"
#include "platform/acl_service.h"

namespace {

TEST(acl_values, every_prefix_has_its_length) {
    for (uint32_t wanted = 0; wanted <= 128; wanted++) {
        uint8_t mask[16] = {};
        for (uint32_t bit = 0; bit < wanted; bit++) {
            mask[bit / 8] |= static_cast<uint8_t>(0x80U >> bit % 8);
        }
        uint32_t length = 999;
        EXPECT_NE(acl_service_ipv6_prefix_length(mask, &length), 0);
        EXPECT_EQ(length, wanted);
    }
}

TEST(acl_values, a_mask_with_a_gap_is_not_a_prefix) {
    for (uint32_t hole = 0; hole < 127; hole++) {
        uint8_t mask[16];
        memset(mask, 0xff, sizeof mask);
        mask[hole / 8] &= static_cast<uint8_t>(~(0x80U >> hole % 8));
        uint32_t length = 999;
        EXPECT_EQ(acl_service_ipv6_prefix_length(mask, &length), 0) << hole;
        EXPECT_EQ(length, 999u);
    }
}

TEST(acl_values, addresses_are_written_in_their_short_form) {
    uint8_t address[16] = {};
    char text[INET6_ADDRSTRLEN];
    ASSERT_EQ(inet_pton(AF_INET6, "2001:DB8:0:0:0:0:0:1", address), 1);
    EXPECT_EQ(ipv6_address_text(address, text), text);
    EXPECT_STREQ(text, "2001:db8::1");
}

TEST(acl_values, the_compact_schemas_name_each_field_by_its_letter) {
    EXPECT_STREQ(acl_service_ipv4_entry_descriptor()->compact_schema, "$1=DeIIAAAAeIIeIIesbCCCeCCeIIeIIeII;");
    EXPECT_STREQ(acl_service_ipv6_entry_descriptor()->compact_schema,
                 "$1=DeID16xCD16xC16xCD16xCeIIeIIeseCCbCCCeIIeII;");
}

TEST(acl_values, an_entry_round_trips_through_its_record) {
    record_transaction* transaction = nullptr;
    ASSERT_EQ(record_registration_begin(&transaction), PLATFORM_OK);
    EXPECT_EQ(record_register(transaction, acl_service_ipv4_entry_descriptor()), PLATFORM_OK);
    EXPECT_EQ(record_register(transaction, acl_service_ipv6_entry_descriptor()), PLATFORM_OK);
    ASSERT_EQ(record_registration_end(transaction), PLATFORM_OK);
    acl_ipv4_entry entry = {};
    entry.SequenceNumber = 10;
    void* encoded = nullptr;
    size_t size = 0;
    ASSERT_EQ(record_encode(acl_service_ipv4_entry_descriptor(), &entry, &encoded, &size), PLATFORM_OK);
    acl_ipv4_entry decoded = {};
    EXPECT_EQ(record_decode(acl_service_ipv4_entry_descriptor(), encoded, size, &decoded, sizeof decoded), PLATFORM_OK);
    EXPECT_EQ(decoded.SequenceNumber, 10u);
    record_release(acl_service_ipv4_entry_descriptor(), &decoded);
    free(encoded);
}

}  // namespace
