#include <errno.h>

#include <algorithm>

#include "datastore_internal.h"
#include "platform/telemetry_producer.h"

namespace fake_platform {
namespace {

using internal::datastore;

std::vector<published_event> published_events;

std::string_view without_slash(std::string_view path) {
    return !path.empty() && path.back() == '/' ? path.substr(0, path.size() - 1) : path;
}

/// The item's path below the provider's; nothing if the provider does not serve it.
std::optional<std::string> item_of(const datastore_provider& provider, std::string_view path) {
    const std::string_view root = without_slash(provider.path);
    if (path.compare(0, root.size(), root) != 0 || (path.size() > root.size() && path[root.size()] != '/')) {
        return std::nullopt;
    }
    return std::string(path.substr(std::min(root.size() + 1, path.size())));
}

}  // namespace

answer ask(datastore_provider_callback fill, const char* item, void* context) {
    const internal::handler_scope scope;
    datastore_read_request request;
    platform_status status = fill(&request, item, context);
    if (status == PLATFORM_OK && !request.answer.is_list && request.answer.records.empty()) {
        status = DATASTORE_NOTHING_TO_ENCODE;
    }
    if (status != PLATFORM_OK) {
        request.answer.records.clear();
    }
    request.answer.status = status;
    return request.answer;
}

answer read(std::string_view path) {
    const datastore_provider* nearest = nullptr;
    for (const auto& provider : datastore.providers) {
        if (item_of(*provider, path) && (nearest == nullptr || provider->path.size() > nearest->path.size())) {
            nearest = provider.get();
        }
    }
    if (nearest == nullptr) {
        return {DATASTORE_NO_SUCH_TREE, false, {}};
    }
    return ask(nearest->callback, item_of(*nearest, path)->c_str(), nearest->context);
}

size_t providers() {
    return datastore.providers.size();
}

const std::vector<published_event>& published() {
    return published_events;
}

namespace internal {

void reset_providers() {
    published_events.clear();
}

}  // namespace internal
}  // namespace fake_platform

using namespace fake_platform;
using internal::enter;

platform_status datastore_provider_register(const char* path, datastore_provider_callback callback, event_manager*,
                                            void* context, datastore_provider** provider) {
    if (const platform_status status = enter("datastore_provider_register", {path}); status != PLATFORM_OK) {
        return status;
    }
    if (path[0] != '/' || callback == nullptr) {
        return EINVAL;
    }
    const auto same_tree = [path](const auto& other) { return without_slash(other->path) == without_slash(path); };
    if (std::any_of(datastore.providers.begin(), datastore.providers.end(), same_tree)) {
        return EEXIST;
    }
    datastore.providers.push_back(std::make_unique<datastore_provider>(datastore_provider{path, callback, context}));
    *provider = datastore.providers.back().get();
    return PLATFORM_OK;
}

platform_status datastore_provider_unregister(datastore_provider* provider) {
    const platform_status status =
        enter("datastore_provider_unregister", {provider != nullptr ? provider->path.c_str() : nullptr});
    if (status == PLATFORM_OK) {
        std::erase_if(datastore.providers, [provider](const auto& owned) { return owned.get() == provider; });
    }
    return status;
}

platform_status datastore_request_set_record(datastore_read_request* request, const record_descriptor* descriptor,
                                             const void* record, size_t size) {
    if (const platform_status status = enter("datastore_request_set_record", {}); status != PLATFORM_OK) {
        return status;
    }
    if (request->answer.is_list || descriptor == nullptr) {
        return EINVAL;
    }
    request->answer.records = {{descriptor, std::string(static_cast<const char*>(record), size)}};
    return PLATFORM_OK;
}

platform_status datastore_request_create_list(datastore_read_request* request) {
    if (const platform_status status = enter("datastore_request_create_list", {}); status != PLATFORM_OK) {
        return status;
    }
    request->answer.is_list = true;
    request->answer.records.clear();
    return PLATFORM_OK;
}

platform_status datastore_request_add_record(datastore_read_request* request, const record_descriptor* descriptor,
                                             const void* record, size_t size) {
    if (const platform_status status = enter("datastore_request_add_record", {}); status != PLATFORM_OK) {
        return status;
    }
    if (!request->answer.is_list || descriptor == nullptr) {
        return EINVAL;
    }
    request->answer.records.push_back({descriptor, std::string(static_cast<const char*>(record), size)});
    return PLATFORM_OK;
}

platform_status telemetry_producer_init(const char* name, const char* path, event_manager*) {
    return enter("telemetry_producer_init", {name, path});
}

platform_status telemetry_producer_publish(const char* path, datastore_provider_callback fill, void* context) {
    if (const platform_status status = enter("telemetry_producer_publish", {path}); status != PLATFORM_OK) {
        return status;
    }
    answer event = ask(fill, "", context);
    const platform_status status = event.status;
    if (internal::recording()) {
        published_events.push_back({path, std::move(event)});
    }
    return status;
}
