#include "appliers/vrf_name_verifier.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <cstdlib>

#include "../agent_test.h"
#include "command_trail.h"
#include "core/item_table.h"
#include "platform/event_manager.h"
#include "scratch_root.h"

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

struct verdict {
    platform_status status;
    uint32_t accepted;
    std::string text;
    bool operator==(const verdict&) const = default;
};

const verdict accepted_name = {PLATFORM_OK, 1, ""};
const verdict invalid_characters = {EINVAL, 0, "Invalid characters in vrf_name"};

verdict verify(const char* name, uint32_t event = 3, const void* value = "", uint32_t components = 3) {
    const char* const path[] = {"sshd", "vrf", name};
    const datastore_path_components split = {path, components};
    const datastore_change change = {event, nullptr, value, 0, value != nullptr ? 1u : 0u};
    char* text = nullptr;
    verdict found = {PLATFORM_OK, 7, ""};
    found.status = vrf_name_verifier(&change, &text, &found.accepted, &split);
    found.text = text != nullptr ? text : "";
    std::free(text);
    return found;
}

using vrf_name_verifier_test = agent_test;

// Letters, digits, '_', '-' and '.' are accepted at any position of the name; every other byte is refused.
TEST_F(vrf_name_verifier_test, every_byte_value_is_checked) {
    const std::string allowed = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.";
    for (int byte = 1; byte < 256; byte++) {
        const char character = static_cast<char>(byte);
        const bool harmless = allowed.find(character) != std::string::npos;
        for (const std::string& name : {std::string(1, character), "a" + std::string(1, character) + "b",
                                        "ab" + std::string(1, character), std::string(1, character) + "ab"}) {
            EXPECT_EQ(verify(name.c_str()), harmless ? accepted_name : invalid_characters) << "byte " << byte;
        }
    }
}

// A NUL ends the name; the bytes after it are not part of it.
TEST_F(vrf_name_verifier_test, a_nul_ends_the_name) {
    EXPECT_EQ(verify("red\0;reboot"), accepted_name);
}

TEST_F(vrf_name_verifier_test, a_change_is_checked_like_a_creation) {
    EXPECT_EQ(verify("re d", 2), invalid_characters);
    EXPECT_EQ(verify("re d", 1), invalid_characters);
    EXPECT_EQ(verify("red", 2), accepted_name);
    EXPECT_EQ(verify("red", 1), accepted_name);
}

TEST_F(vrf_name_verifier_test, a_missing_value_is_refused) {
    const verdict missing = {EINVAL, 0, "newvalue returned from datastore is NULL"};
    EXPECT_EQ(verify("red", 3, nullptr), missing);
    EXPECT_EQ(verify("re d", 2, nullptr), missing);
}

TEST_F(vrf_name_verifier_test, a_missing_name_is_refused) {
    EXPECT_EQ(verify(nullptr), invalid_characters);
    EXPECT_EQ(verify("red", 3, "", 2), invalid_characters);
}

// Any stored name can be removed.
TEST_F(vrf_name_verifier_test, a_removal_is_accepted) {
    EXPECT_EQ(verify("red", 4, nullptr), accepted_name);
    EXPECT_EQ(verify("$(reboot)", 4, nullptr), accepted_name);
}

// A whole commit through the item table: the name is refused, nothing is stored, and no command is run.
TEST_F(vrf_name_verifier_test, a_hostile_name_reaches_no_command) {
    event_manager* manager = nullptr;
    event_manager_create(paths::device, &manager);
    datastore_bind(paths::server_tree, &agent_handles.server_binding);
    datastore_register_verification(agent_handles.server_binding, "", 7, verify_configuration, apply_configuration,
                                    manager, nullptr);
    write_file(paths::server_file, "UsePAM yes\n");
    scratch_root::add_namespace_file("vrf-default");
    command_trail::begin();
    fake_platform::clear_calls();
    for (const char* item : {"vrf", "vrf-netconf"}) {
        for (const char* name : {"a;systemctl", "$(systemctl\tstop)", "`id`", "a|b", "a&b", "a b", "a'b", "a\"b",
                                 "a\\b", "a\nb", "a>b", "a*b", "a?b", "~", "#", "%n", "r\xc3\xa9seau"}) {
            const std::string path = std::string(paths::server_tree) + "sshd/" + item + "/" + name;
            const auto result = fake_platform::commit(fake_platform::set_tuple(path, "%d%S%S", {{}, {}, {}}));
            EXPECT_EQ(result.status, platform_status{EINVAL}) << name;
            EXPECT_EQ(result.error_text, "Invalid characters in vrf_name") << name;
            EXPECT_EQ(fake_platform::stored(path), std::nullopt) << name;
        }
    }
    EXPECT_THAT(stub_commands::log(), ElementsAre());
    EXPECT_THAT(fake_platform::calls(), Each(Not(HasSubstr("$ "))));
    EXPECT_EQ(server_config.nodes, nullptr);
    EXPECT_THAT(directory_names(paths::configuration_directory), ElementsAre("sshd_config"));
    command_trail::end();
}

}  // namespace
