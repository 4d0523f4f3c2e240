#include <errno.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>

#include "fake_internal.h"

struct acl_handle {
    uint32_t family;
    std::string name;
    std::vector<acl_change_callback> callbacks;
};

namespace fake_platform {
namespace {

struct der_form {
    std::string der;
    uint32_t bits;
};

struct access_state {
    std::vector<std::unique_ptr<acl_handle>> handles;
    acl_verifier verifier = {};
    void* verifier_context = nullptr;
    std::map<uint32_t, std::string> actions = {{0, "deny"}, {1, "permit"}};
    std::vector<stored_key> keys;
    std::map<std::string, der_form> der_forms;
    std::map<uint32_t, std::string> configured_banners;
    std::map<uint32_t, std::string> platform_banners;
    std::optional<std::string> aaa_banner;
};

access_state holdings;

/// The callbacks in the order of registration, copied because they may unregister themselves.
template <typename condition>
std::vector<acl_change_callback> callbacks_where(condition wanted) {
    std::vector<acl_change_callback> found;
    for (const auto& handle : holdings.handles) {
        if (wanted(*handle)) {
            found.insert(found.end(), handle->callbacks.begin(), handle->callbacks.end());
        }
    }
    return found;
}

std::vector<int> call_all(const std::vector<acl_change_callback>& callbacks, const acl_change_notice* notice) {
    std::vector<int> results;
    results.reserve(callbacks.size());
    for (const acl_change_callback callback : callbacks) {
        results.push_back(callback(notice));
    }
    return results;
}

void set_banner(std::map<uint32_t, std::string>& banners, uint32_t kind, std::optional<std::string> text) {
    if (text) {
        banners[kind] = std::move(*text);
    } else {
        banners.erase(kind);
    }
}

char* banner_text(const std::map<uint32_t, std::string>& banners, uint32_t kind, platform_status status) {
    const auto banner = banners.find(kind);
    if (status != PLATFORM_OK || banner == banners.end()) {
        return nullptr;
    }
    return internal::allocated_text(banner->second);
}

stored_key* find_key(const char* label, uint32_t type) {
    const auto key = std::find_if(holdings.keys.begin(), holdings.keys.end(), [&](const stored_key& candidate) {
        return candidate.label == label && candidate.type == type;
    });
    return key != holdings.keys.end() ? &*key : nullptr;
}

}  // namespace

std::vector<int> change_acl(uint32_t family, std::string_view acl_name, bool present) {
    acl_change_notice notice = {};
    memcpy(notice.acl_name, acl_name.data(), std::min(acl_name.size(), sizeof notice.acl_name - 1));
    notice.present = present ? 1 : 0;
    return call_all(
        callbacks_where([=](const acl_handle& handle) { return handle.family == family && handle.name == acl_name; }),
        &notice);
}

std::vector<int> send_acl_notice(const acl_change_notice* notice) {
    return call_all(callbacks_where([](const acl_handle&) { return true; }), notice);
}

size_t acl_handles() {
    return holdings.handles.size();
}

size_t acl_subscriptions(std::string_view acl_name) {
    return callbacks_where([acl_name](const acl_handle& handle) { return handle.name == acl_name; }).size();
}

acl_rules make_acl_rules(uint32_t family, uint32_t service, const std::vector<std::string>& records) {
    acl_rules made;
    if (holdings.verifier.make_rules == nullptr) {
        return made;
    }
    std::vector<acl_list_entry> entries;
    entries.reserve(records.size());
    for (const std::string& record : records) {
        entries.push_back({record.data(), record.size()});
    }
    made.entries.resize(entries.size());
    acl_list_rules rules = {};
    made.status = holdings.verifier.make_rules(family, service, entries.data(), entries.size(), made.entries.data(),
                                               &rules, holdings.verifier_context);
    if (made.status == PLATFORM_OK) {
        made.text.assign(rules.text, rules.size);
        made.compared_port = rules.compared_port;
        free(rules.text);
    }
    return made;
}

void set_acl_action(uint32_t grant, std::string name) {
    holdings.actions[grant] = std::move(name);
}

void set_key(stored_key key) {
    if (stored_key* old = find_key(key.label.c_str(), key.type)) {
        *old = std::move(key);
    } else {
        holdings.keys.push_back(std::move(key));
    }
}

const std::vector<stored_key>& keys() {
    return holdings.keys;
}

void set_der(std::string text, std::string der, uint32_t bits) {
    holdings.der_forms[std::move(text)] = {std::move(der), bits};
}

void set_configured_banner(uint32_t kind, std::optional<std::string> text) {
    set_banner(holdings.configured_banners, kind, std::move(text));
}

void set_platform_banner(uint32_t kind, std::optional<std::string> text) {
    set_banner(holdings.platform_banners, kind, std::move(text));
}

void set_aaa_banner(std::optional<std::string> text) {
    holdings.aaa_banner = std::move(text);
}

namespace internal {

void reset_acl_keys_banners() {
    holdings = access_state();
}

}  // namespace internal
}  // namespace fake_platform

using namespace fake_platform;
using internal::enter;

platform_status acl_service_get_list(uint32_t family, const char* acl_name, event_manager*, acl_handle** handle) {
    const platform_status status = enter("acl_service_get_list", {family, acl_name});
    if (status == PLATFORM_OK) {
        holdings.handles.push_back(std::make_unique<acl_handle>(acl_handle{family, acl_name, {}}));
        *handle = holdings.handles.back().get();
    }
    return status;
}

platform_status acl_service_register_callback(acl_handle* handle, acl_change_callback callback) {
    const platform_status status = enter("acl_service_register_callback", {handle->name});
    if (status == PLATFORM_OK) {
        handle->callbacks.push_back(callback);
    }
    return status;
}

platform_status acl_service_unregister_callback(acl_handle* handle, acl_change_callback callback) {
    if (const platform_status status = enter("acl_service_unregister_callback", {handle->name});
        status != PLATFORM_OK) {
        return status;
    }
    return std::erase(handle->callbacks, callback) != 0 ? PLATFORM_OK : static_cast<platform_status>(ENOENT);
}

void acl_service_release(acl_handle* handle) {
    enter("acl_service_release", {handle != nullptr ? handle->name.c_str() : nullptr});
    std::erase_if(holdings.handles, [handle](const auto& owned) { return owned.get() == handle; });
}

platform_status acl_service_register_verifier(const acl_verifier* verifier, void* context) {
    const platform_status status = enter("acl_service_register_verifier", {});
    if (status != PLATFORM_OK) {
        return status;
    }
    if (verifier == nullptr || verifier->make_rules == nullptr) {
        return EINVAL;
    }
    holdings.verifier = *verifier;
    holdings.verifier_context = context;
    return PLATFORM_OK;
}

const char* acl_service_action_name(uint32_t grant) {
    const auto action = holdings.actions.find(grant);
    return action != holdings.actions.end() ? action->second.c_str() : "unknown";
}

platform_status key_store_get_user_key(const char* label, uint32_t type, key_store_key* key) {
    if (const platform_status status = enter("key_store_get_user_key", {label, type}); status != PLATFORM_OK) {
        return status;
    }
    const stored_key* found = find_key(label, type);
    *key = {};
    if (found != nullptr) {
        *key = {1, found->added_by_exec_mode ? 1U : 0U, found->bits};
    }
    return PLATFORM_OK;
}

platform_status key_store_pubkey_to_der(const char* text, uint8_t* der, size_t capacity, size_t* size, uint32_t* bits) {
    if (const platform_status status = enter("key_store_pubkey_to_der", {text}); status != PLATFORM_OK) {
        return status;
    }
    const auto form = holdings.der_forms.find(text);
    if (form == holdings.der_forms.end()) {
        return EINVAL;
    }
    if (form->second.der.size() > capacity) {
        return ENOSPC;
    }
    std::copy(form->second.der.begin(), form->second.der.end(), der);
    *size = form->second.der.size();
    *bits = form->second.bits;
    return PLATFORM_OK;
}

platform_status key_store_set_key(const key_store_set_request* request) {
    const platform_status status =
        enter("key_store_set_key", {request->label, request->type, request->remove != 0 ? "remove" : "set"});
    if (status != PLATFORM_OK) {
        return status;
    }
    if (request->remove != 0) {
        const stored_key* old = find_key(request->label, request->type);
        std::erase_if(holdings.keys, [old](const stored_key& key) { return &key == old; });
        return PLATFORM_OK;
    }
    set_key({request->label, request->type, request->time, request->bits,
             std::string(reinterpret_cast<const char*>(request->der), request->size), false});
    return PLATFORM_OK;
}

char* banner_service_configured(uint32_t kind) {
    return banner_text(holdings.configured_banners, kind, enter("banner_service_configured", {kind}));
}

char* banner_service_platform(uint32_t kind) {
    return banner_text(holdings.platform_banners, kind, enter("banner_service_platform", {kind}));
}

char* banner_service_aaa(void) {
    const platform_status status = enter("banner_service_aaa", {});
    return status == PLATFORM_OK && holdings.aaa_banner ? internal::allocated_text(*holdings.aaa_banner) : nullptr;
}
