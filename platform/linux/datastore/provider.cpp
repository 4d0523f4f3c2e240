#include <errno.h>

#include <algorithm>
#include <new>

#include "linux/datastore/datastore_internal.h"
#include "linux/datastore/state.h"

/// A read in progress: the answer built so far.
struct datastore_read_request {
    datastore_answer answer;
};

namespace {

std::string_view without_last_slash(std::string_view path) {
    return !path.empty() && path.back() == '/' ? path.substr(0, path.size() - 1) : path;
}

bool serves(const datastore_provider& provider, std::string_view path) {
    return path.compare(0, provider.path.size(), provider.path) == 0 &&
           (path.size() == provider.path.size() || path[provider.path.size()] == '/');
}

/// The provider with the longest path that serves `path`, since one tree may lie within another.
const datastore_provider* find_provider(std::string_view path) {
    const datastore_provider* found = nullptr;
    for (const auto& provider : the_datastore().providers) {
        if (serves(*provider, path) && (found == nullptr || provider->path.size() > found->path.size())) {
            found = provider.get();
        }
    }
    return found;
}

platform_status append(datastore_read_request* request, const record_descriptor* descriptor, const void* record,
                       size_t size) try {
    if (request == nullptr || descriptor == nullptr || (record == nullptr && size != 0)) {
        return EINVAL;
    }
    request->answer.records.push_back({descriptor, std::string(static_cast<const char*>(record), size)});
    return PLATFORM_OK;
} catch (const std::bad_alloc&) {
    return ENOMEM;
}

}  // namespace

platform_status datastore_provider_register(const char* path, datastore_provider_callback callback, event_manager*,
                                            void* context, datastore_provider** provider) try {
    if (path == nullptr || path[0] != '/' || callback == nullptr || provider == nullptr) {
        return EINVAL;
    }
    const std::string_view tree = without_last_slash(path);
    auto& providers = the_datastore().providers;
    if (std::any_of(providers.begin(), providers.end(), [&](const auto& other) { return other->path == tree; })) {
        return EEXIST;
    }
    providers.push_back(std::make_unique<datastore_provider>(datastore_provider{std::string(tree), callback, context}));
    *provider = providers.back().get();
    return PLATFORM_OK;
} catch (const std::bad_alloc&) {
    return ENOMEM;
}

platform_status datastore_provider_unregister(datastore_provider* provider) {
    if (provider == nullptr) {
        return PLATFORM_OK;
    }
    const size_t found =
        std::erase_if(the_datastore().providers, [&](const auto& row) { return row.get() == provider; });
    return found == 1 ? platform_status{PLATFORM_OK} : platform_status{EINVAL};
}

platform_status datastore_request_set_record(datastore_read_request* request, const record_descriptor* descriptor,
                                             const void* record, size_t size) {
    if (request == nullptr || request->answer.is_list) {
        return EINVAL;
    }
    request->answer.records.clear();
    return append(request, descriptor, record, size);
}

platform_status datastore_request_create_list(datastore_read_request* request) {
    if (request == nullptr) {
        return EINVAL;
    }
    request->answer.is_list = true;
    request->answer.records.clear();
    return PLATFORM_OK;
}

platform_status datastore_request_add_record(datastore_read_request* request, const record_descriptor* descriptor,
                                             const void* record, size_t size) {
    if (request == nullptr || !request->answer.is_list) {
        return EINVAL;
    }
    return append(request, descriptor, record, size);
}

datastore_answer datastore_fill(datastore_provider_callback fill, const char* item, void* context) {
    const datastore_handler_scope scope;
    datastore_read_request request;
    platform_status status = fill(&request, item, context);
    if (status == PLATFORM_OK && !request.answer.is_list && request.answer.records.empty()) {
        status = DATASTORE_NOTHING_TO_ENCODE;
    }
    if (status != PLATFORM_OK) {
        request.answer.records.clear();
    }
    request.answer.status = status;
    return std::move(request.answer);
}

datastore_answer datastore_read(std::string_view path) try {
    const std::string wanted(without_last_slash(path));
    const datastore_provider* provider = find_provider(wanted);
    if (provider == nullptr) {
        datastore_answer answer;
        answer.status = DATASTORE_NO_SUCH_TREE;
        return answer;
    }
    const size_t start = std::min(wanted.size(), provider->path.size() + 1);
    return datastore_fill(provider->callback, wanted.c_str() + start, provider->context);
} catch (const std::bad_alloc&) {
    datastore_answer answer;
    answer.status = ENOMEM;
    return answer;
}
