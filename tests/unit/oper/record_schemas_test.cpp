#include "oper/record_schemas.h"

#include <gtest/gtest.h>

#include "../agent_test.h"
#include "common/record_registry.h"
#include "common/record_schema.h"
#include "ocsystem_ssh_telemetry_edm.h"
#include "oper/server_params.h"
#include "oper/session_cli.h"
#include "oper/session_records.h"

TEST(record_schemas_test, every_compact_schema_follows_from_the_full_one) {
    uint32_t count = 0;
    const record_descriptor* descriptors = record_descriptors(&count);
    ASSERT_EQ(count, 15U);
    for (uint32_t i = 0; i < count; i++) {
        const auto schema = parse_record_schema(descriptors[i].full_schema);
        ASSERT_TRUE(schema.has_value()) << descriptors[i].name;
        EXPECT_EQ(compact_record_schema(*schema), descriptors[i].compact_schema) << descriptors[i].name;
    }
}

TEST(record_schemas_test, structures_are_laid_out_as_their_schemas) {
    ASSERT_EQ(register_session_records(), PLATFORM_OK);
    ASSERT_EQ(register_command_line_records(), PLATFORM_OK);
    ASSERT_EQ(register_server_parameter_records(), PLATFORM_OK);
    ASSERT_EQ(register_telemetry_records(), PLATFORM_OK);
    const auto size_of = [](const record_descriptor* descriptor) {
        return find_record_schema(descriptor)->record().size;
    };
    EXPECT_EQ(size_of(ssh_mcinfo_descriptor()), sizeof(ssh_mcinfo));
    EXPECT_EQ(size_of(session_brief_info_descriptor()), sizeof(session_brief_info));
    EXPECT_EQ(size_of(session_detail_info_descriptor()), sizeof(session_detail_info));
    EXPECT_EQ(size_of(session_rekey_info_descriptor()), sizeof(session_rekey_info));
    EXPECT_EQ(size_of(sshd_mcinfo_descriptor()), sizeof(sshd_mcinfo));
    EXPECT_EQ(size_of(sshd_sessioninfo_descriptor()), sizeof(sshd_sessioninfo));
    EXPECT_EQ(size_of(sshd_kexinfo_descriptor()), sizeof(sshd_kexinfo));
    EXPECT_EQ(size_of(sshd_rekey_descriptor()), sizeof(sshd_rekey));
    EXPECT_EQ(size_of(ssh_server_params_descriptor()), sizeof(ssh_server_params));
    EXPECT_EQ(size_of(overlay_crypto_ssh_system_descriptor()), sizeof(overlay_crypto_ssh_system));
}
