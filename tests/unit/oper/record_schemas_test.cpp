#include "oper/record_schemas.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>

#include "../agent_test.h"
#include "call_faults.h"
#include "common/record_registry.h"
#include "common/record_schema.h"
#include "ocsystem_ssh_telemetry_edm.h"
#include "oper/server_params.h"
#include "oper/session_records.h"
#include "oper/show_sessions.h"

TEST(record_schemas_test, every_compact_schema_can_be_derived_from_the_full_one) {
    uint32_t count = 0;
    const record_descriptor* descriptors = record_descriptors(&count);
    ASSERT_EQ(count, 15U);
    for (uint32_t i = 0; i < count; i++) {
        const auto schema = parse_record_schema(descriptors[i].full_schema);
        ASSERT_TRUE(schema.has_value()) << descriptors[i].name;
        EXPECT_EQ(compact_record_schema(*schema), descriptors[i].compact_schema) << descriptors[i].name;
    }
}

TEST(record_schemas_test, schemas_are_those_that_readers_know) {
    uint32_t count = 0;
    const record_descriptor* descriptors = record_descriptors(&count);
    std::string text;
    for (uint32_t i = 0; i < count; i++) {
        const record_descriptor& record = descriptors[i];
        text += std::string(record.library) + ' ' + record.name + '\n' + record.full_schema + '\n' +
                record.compact_schema + "\n\n";
    }
    expect_golden("oper/golden/record_schemas", text);
}

namespace {

std::string field_text(const record_schema& schema, const record_field& field) {
    static constexpr const char* kinds[] = {"number32", "number16",    "number8",        "ipv4_address", "bytes",
                                            "text",     "enumeration", "boolean",        "fixed_text",   "array",
                                            "pointer",  "link",        "optional_value", "embedded"};
    std::string text =
        "    " + std::to_string(field.offset) + ' ' + field.name + ": " + kinds[static_cast<size_t>(field.kind)];
    if (field.width != 0) {
        text += ' ' + std::to_string(field.width) + " bytes";
    }
    if (field.optional_letter != 0) {
        text += std::string(" of ") + field.optional_letter;
    }
    if (field.type_number != 0) {
        text += " of $" + std::to_string(schema.type_of(field).number);
    }
    if (!field.enumeration.empty()) {
        text += ' ' + field.enumeration;
    }
    return text + (field.node_id ? ", node id\n" : "\n");
}

/// The structures of a record, with the offset and type of every field.
std::string layout_text(const record_schema& schema) {
    std::string text;
    for (const record_definition& definition : schema.definitions) {
        text += "  $" + std::to_string(definition.number) + (definition.linked ? " linked, " : " ") +
                std::to_string(definition.size) + " bytes, alignment " + std::to_string(definition.alignment) + '\n';
        for (const record_field& field : definition.fields) {
            text += field_text(schema, field);
        }
    }
    return text;
}

}  // namespace

TEST(record_schemas_test, every_field_has_its_type_and_offset) {
    uint32_t count = 0;
    const record_descriptor* descriptors = record_descriptors(&count);
    std::string text;
    for (uint32_t i = 0; i < count; i++) {
        const auto schema = parse_record_schema(descriptors[i].full_schema);
        ASSERT_TRUE(schema.has_value()) << descriptors[i].name;
        text += std::string(descriptors[i].name) + '\n' + layout_text(*schema);
    }
    expect_golden("oper/golden/record_layouts", text);
}

TEST(record_schemas_test, a_record_that_is_encoded_separately_has_its_accessor) {
    const std::pair<const record_descriptor* (*)(), const char*> accessors[] = {
        {ssh_session_brief_descriptor, "ssh_session_brief"},
        {ssh_session_detail_descriptor, "ssh_session_detail"},
        {ssh_session_rekey_descriptor, "ssh_session_rekey"},
        {sshd_sessioninfo_descriptor, "sshd_sessioninfo"},
        {sshd_kexinfo_descriptor, "sshd_kexinfo"},
        {sshd_rekey_descriptor, "sshd_rekey"},
        {ssh_server_params_descriptor, "ssh_server_params"},
        {overlay_crypto_ssh_system_descriptor, "overlay_crypto_ssh_system"},
    };
    for (const auto& [accessor, name] : accessors) {
        EXPECT_STREQ(accessor()->name, name);
    }
}

namespace {

/// A record set and its number of records.
struct record_set {
    const char* library;
    platform_status (*start)();
    uint32_t count;
};

const record_set sets[] = {
    {"libssh_xml_bag_desc.dll", register_session_records, 9},
    {"show_ssh_bag_desc.dll", register_command_line_records, 4},
    {"libssh_server_params_bag_desc.dll", register_server_parameter_records, 1},
    {"liboverlay_crypto_ssh_oper_bag_descr.dll", register_telemetry_records, 1},
};

class record_set_test : public testing::TestWithParam<record_set> {
  protected:
    record_set_test() { call_faults::clear(); }

    static bool is_registered(const record_descriptor* descriptor) { return find_record_schema(descriptor) != nullptr; }
};

INSTANTIATE_TEST_SUITE_P(sets, record_set_test, testing::ValuesIn(sets));

}  // namespace

TEST_P(record_set_test, is_registered_completely_and_in_order) {
    call_faults::start_recording();
    EXPECT_EQ(GetParam().start(), PLATFORM_OK);
    std::vector<std::string> expected = {"record_registration_begin()"};
    uint32_t all = 0;
    const record_descriptor* descriptors = record_descriptors(&all);
    for (uint32_t i = 0; i < all; i++) {
        const bool own = descriptors[i].library == std::string(GetParam().library);
        EXPECT_EQ(is_registered(&descriptors[i]), own);
        if (own) {
            expected.push_back(std::string("record_register(") + descriptors[i].name + ")");
        }
    }
    expected.emplace_back("record_registration_end()");
    EXPECT_EQ(expected.size(), GetParam().count + 2);
    EXPECT_EQ(call_faults::recorded_calls(), expected);
}

TEST_P(record_set_test, a_transaction_that_cannot_be_begun_is_returned_at_once) {
    call_faults::fail_call("record_registration_begin", EAGAIN);
    EXPECT_EQ(GetParam().start(), platform_status{EAGAIN});
    EXPECT_EQ(call_faults::count_calls("record_register"), 0U);
}

TEST_P(record_set_test, the_first_refused_record_aborts_the_set) {
    for (uint32_t call = 1; call <= GetParam().count; call++) {
        call_faults::clear();
        call_faults::fail_call("record_register", EIO, call_faults::once, call);
        EXPECT_EQ(GetParam().start(), platform_status{EIO}) << call;
        EXPECT_EQ(call_faults::count_calls("record_register"), call);
        EXPECT_EQ(call_faults::count_calls("record_registration_end"), 0U);
        uint32_t all = 0;
        const record_descriptor* descriptors = record_descriptors(&all);
        EXPECT_TRUE(std::none_of(descriptors, descriptors + all,
                                 [](const record_descriptor& record) { return is_registered(&record); }));
    }
}

size_t native_size(std::string_view record) {
    uint32_t count = 0;
    const record_descriptor* descriptors = record_descriptors(&count);
    const auto* found = std::find_if(descriptors, descriptors + count,
                                     [&](const record_descriptor& candidate) { return candidate.name == record; });
    return found == descriptors + count ? 0 : parse_record_schema(found->full_schema)->record().size;
}

TEST(record_schemas_test, structures_have_the_layout_of_their_schemas) {
    EXPECT_EQ(native_size("ssh_mcinfo"), sizeof(ssh_mcinfo));
    EXPECT_EQ(native_size("session_brief_info"), sizeof(session_brief_info));
    EXPECT_EQ(native_size("session_detail_info"), sizeof(session_detail_info));
    EXPECT_EQ(native_size("session_rekey_info"), sizeof(session_rekey_info));
    EXPECT_EQ(native_size("sshd_mcinfo"), sizeof(sshd_mcinfo));
    EXPECT_EQ(native_size("sshd_sessioninfo"), sizeof(sshd_sessioninfo));
    EXPECT_EQ(native_size("sshd_kexinfo"), sizeof(sshd_kexinfo));
    EXPECT_EQ(native_size("sshd_rekey"), sizeof(sshd_rekey));
    EXPECT_EQ(native_size("ssh_server_params"), sizeof(ssh_server_params));
    EXPECT_EQ(native_size("overlay_crypto_ssh_system"), sizeof(overlay_crypto_ssh_system));
}
