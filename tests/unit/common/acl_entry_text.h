/// Native access-list entries from texts such as "SourceOperator=1 SourcePort1=22", by the field names of their schema.
#ifndef UNIT_COMMON_ACL_ENTRY_TEXT_H
#define UNIT_COMMON_ACL_ENTRY_TEXT_H

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "common/record_registry.h"

class acl_entry_text {
  public:
    /// The descriptor must be registered. Fields that are not in `text` are zero.
    acl_entry_text(const record_descriptor* descriptor, const std::string& text)
        : descriptor_(descriptor),
          schema_(*find_record_schema(descriptor)),
          text_(text),
          native_((schema_.record().size + sizeof(uint64_t) - 1) / sizeof(uint64_t)) {
        std::istringstream words(text_);
        for (std::string word; words >> word;) {
            const size_t sign = word.find('=');
            put(word.substr(0, sign), word.substr(sign + 1));
        }
    }

    /// The entry as the record codec stores it.
    std::string record() const {
        void* bytes = nullptr;
        size_t size = 0;
        EXPECT_EQ(record_encode(descriptor_, native_.data(), &bytes, &size), PLATFORM_OK) << text_;
        std::string encoded(static_cast<const char*>(bytes), size);
        free(bytes);
        return encoded;
    }

  private:
    void put(const std::string& name, const std::string& value) {
        for (const record_field& field : schema_.record().fields) {
            if (field.name == name) {
                put(field, value);
                return;
            }
        }
        ADD_FAILURE() << "no such field: " << name;
    }

    void put(const record_field& field, const std::string& value) {
        unsigned char* at = reinterpret_cast<unsigned char*>(native_.data()) + field.offset;
        const uint64_t number = strtoull(value.c_str(), nullptr, 10);
        switch (field.kind) {
            case record_field_kind::number32:
            case record_field_kind::enumeration:
            case record_field_kind::boolean:
                memcpy(at, &number, 4);
                break;
            case record_field_kind::number16:
                memcpy(at, &number, 2);
                break;
            case record_field_kind::number8:
                memcpy(at, &number, 1);
                break;
            case record_field_kind::ipv4_address:
                EXPECT_EQ(inet_pton(AF_INET, value.c_str(), at), 1) << value;
                break;
            case record_field_kind::bytes:
                EXPECT_EQ(inet_pton(AF_INET6, value.c_str(), at), 1) << value;
                break;
            case record_field_kind::text:
                names_.reserve(8);
                names_.push_back(value);
                *reinterpret_cast<char**>(at) = names_.back().data();
                break;
            default:
                ADD_FAILURE() << "a kind of field that entries do not use:  " << field.name;
        }
    }

    const record_descriptor* descriptor_;
    const record_schema& schema_;
    std::string text_;
    std::vector<uint64_t> native_;  ///< aligned like the structure
    std::vector<std::string> names_;
};

#endif
