#include "common/record_registry.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <new>
#include <vector>

namespace {

struct registered_record {
    const record_descriptor* descriptor;
    std::unique_ptr<record_schema> schema;
};

std::vector<registered_record>& registry() {
    static std::vector<registered_record> records;
    return records;
}

bool is_complete(const record_descriptor* descriptor) {
    return descriptor != nullptr && descriptor->name != nullptr && descriptor->library != nullptr &&
           descriptor->full_schema != nullptr && descriptor->compact_schema != nullptr;
}

/// Registering a descriptor again replaces the earlier registration.
void add(registered_record record) {
    auto& records = registry();
    const auto known = std::find_if(records.begin(), records.end(), [&record](const registered_record& other) {
        return other.descriptor == record.descriptor;
    });
    if (known == records.end()) {
        records.push_back(std::move(record));
    } else {
        *known = std::move(record);
    }
}

}  // namespace

struct record_transaction {
    std::vector<registered_record> records;
};

const record_schema* find_record_schema(const record_descriptor* descriptor) {
    for (const registered_record& record : registry()) {
        if (record.descriptor == descriptor) {
            return record.schema.get();
        }
    }
    return nullptr;
}

platform_status record_registration_begin(record_transaction** transaction) {
    try {
        *transaction = new record_transaction;
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    return PLATFORM_OK;
}

platform_status record_register(record_transaction* transaction, const record_descriptor* descriptor) {
    if (transaction == nullptr || !is_complete(descriptor)) {
        return EINVAL;
    }
    try {
        auto schema = parse_record_schema(descriptor->full_schema);
        if (!schema || compact_record_schema(*schema) != descriptor->compact_schema) {
            return RECORD_MALFORMED;
        }
        transaction->records.push_back({descriptor, std::make_unique<record_schema>(std::move(*schema))});
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    return PLATFORM_OK;
}

platform_status record_registration_end(record_transaction* transaction) {
    if (transaction == nullptr) {
        return EINVAL;
    }
    const std::unique_ptr<record_transaction> owned(transaction);
    try {
        registry().reserve(registry().size() + owned->records.size());
    } catch (const std::bad_alloc&) {
        return ENOMEM;
    }
    for (registered_record& record : owned->records) {
        add(std::move(record));
    }
    return PLATFORM_OK;
}

void record_registration_abort(record_transaction* transaction) {
    delete transaction;
}
