/// Describes the items of the schema in words, for the manual page and for the help of the operator's tool.
#ifndef LINUX_DATASTORE_SCHEMA_DESCRIPTION_H
#define LINUX_DATASTORE_SCHEMA_DESCRIPTION_H

#include <string>
#include <string_view>
#include <vector>

#include "linux/datastore/schema.h"

struct schema_field_description {
    std::string name;
    std::string form;
};

/// Texts that do not apply are empty.
struct schema_description {
    std::string meaning;                           ///< "Login grace time"
    std::string name;                              ///< the form of the name in the path
    std::string value;                             ///< the form of the value: "a number from 5 to 120"
    std::vector<schema_field_description> fields;  ///< only the fields whose names do not say enough
    std::string unit;
    std::string default_value;
    std::string example;  ///< a JSON value
    std::string not_carried_out;
};

schema_description schema_describe(const schema_row& row);

/// Returns the row's pattern with `name` in place of "*".
std::string schema_path_with_name(const schema_row& row, std::string_view name);

#endif
