#include <algorithm>
#include <variant>

#include "linux/datastore/schema.h"

namespace {

bool is_set(const std::optional<datastore_scalar>& field) {
    if (!field.has_value()) {
        return false;
    }
    const bool* flag = std::get_if<bool>(&*field);
    const int64_t* number = std::get_if<int64_t>(&*field);
    return (flag != nullptr && *flag) || (number != nullptr && *number != 0);
}

}  // namespace

std::string schema_not_carried_out(const schema_row& row, const datastore_value& value) {
    if (row.not_carried_out != nullptr) {
        return row.not_carried_out;
    }
    std::string reasons;
    const auto* fields = std::get_if<datastore_fields>(&value);
    const size_t count = fields == nullptr ? 0 : std::min(fields->size(), row.fields.size());
    for (size_t i = 0; i < count; i++) {
        if (row.fields[i].not_carried_out != nullptr && is_set((*fields)[i])) {
            reasons += (reasons.empty() ? "" : "; ") + std::string(row.fields[i].not_carried_out);
        }
    }
    return reasons;
}
