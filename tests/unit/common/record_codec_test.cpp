#include "platform/record_codec.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "common/record_schema.h"
#include "platform/acl_entry.h"
#include "record_schemas.h"

namespace {

void register_record(const record_descriptor& descriptor) {
    record_transaction* transaction = nullptr;
    ASSERT_EQ(record_registration_begin(&transaction), PLATFORM_OK);
    ASSERT_EQ(record_register(transaction, &descriptor), PLATFORM_OK);
    ASSERT_EQ(record_registration_end(transaction), PLATFORM_OK);
}

/// An encoded record.
struct encoded_record {
    void* bytes = nullptr;
    size_t size = 0;
    platform_status status = PLATFORM_OK;

    encoded_record(const record_descriptor& descriptor, const void* record)
        : status(record_encode(&descriptor, record, &bytes, &size)) {}
    ~encoded_record() { free(bytes); }
    encoded_record(const encoded_record&) = delete;
    encoded_record& operator=(const encoded_record&) = delete;

    std::string text() const { return {static_cast<const char*>(bytes), size}; }
};

/// Fills native structures of any schema with random values, allocated so that record_release frees them.
class random_record {
  public:
    random_record(const record_schema& schema, unsigned seed) : schema_(schema), random_(seed) {}

    void fill(const record_definition& definition, unsigned char* base, int depth = 0) {
        for (const record_field& field : definition.fields) {
            fill_field(field, base + field.offset, depth);
        }
    }

    unsigned up_to(unsigned most) { return std::uniform_int_distribution<unsigned>(0, most)(random_); }

  private:
    unsigned char* make(size_t count, size_t size) { return static_cast<unsigned char*>(calloc(count, size)); }

    unsigned char* make_record(const record_definition& type, int depth) {
        unsigned char* record = make(1, type.size);
        fill(type, record, depth + 1);
        return record;
    }

    void put_pointer(unsigned char* at, const void* pointer) { memcpy(at, &pointer, sizeof(pointer)); }

    void fill_text(char* text, unsigned length) {
        for (unsigned i = 0; i < length; ++i) {
            text[i] = static_cast<char>('!' + up_to(90));
        }
    }

    void fill_field(const record_field& field, unsigned char* at, int depth) {
        switch (field.kind) {
            case record_field_kind::text: {
                if (up_to(3) != 0) {
                    const unsigned length = up_to(30);
                    auto* text = reinterpret_cast<char*>(make(length + 1, 1));
                    fill_text(text, length);
                    put_pointer(at, text);
                }
                return;
            }
            case record_field_kind::fixed_text:
                fill_text(reinterpret_cast<char*>(at), up_to(field.width - 1));
                return;
            case record_field_kind::boolean: {
                const uint32_t value = up_to(1);
                memcpy(at, &value, sizeof(value));
                return;
            }
            case record_field_kind::array: {
                const uint32_t count = up_to(4);
                const record_definition& type = schema_.type_of(field);
                unsigned char* elements = count != 0 ? make(count, type.size) : nullptr;
                memcpy(at, &count, sizeof(count));
                put_pointer(at + sizeof(void*), elements);
                for (uint32_t i = 0; i < count; ++i) {
                    fill(type, elements + i * type.size, depth + 1);
                }
                return;
            }
            case record_field_kind::pointer:
            case record_field_kind::link:
                if (depth < 6 && up_to(4) != 0) {
                    put_pointer(at, make_record(schema_.type_of(field), depth));
                }
                return;
            case record_field_kind::optional_value:
                if (up_to(1) != 0) {
                    const uint32_t value = up_to(1);
                    unsigned char* place = make(1, sizeof(value));
                    memcpy(place, &value, field.optional_letter == 'I' ? sizeof(uint16_t) : sizeof(value));
                    put_pointer(at, place);
                }
                return;
            case record_field_kind::embedded:
                fill(schema_.type_of(field), at, depth);
                return;
            default: {
                const size_t size = field.kind == record_field_kind::number8    ? 1
                                    : field.kind == record_field_kind::number16 ? 2
                                    : field.kind == record_field_kind::bytes    ? field.width
                                                                                : 4;
                for (size_t i = 0; i < size; ++i) {
                    at[i] = static_cast<unsigned char>(up_to(255));
                }
            }
        }
    }

    const record_schema& schema_;
    std::mt19937 random_;
};

/// Describes a native structure by its schema: values are included, addresses are not.
class structure_text {
  public:
    static std::string of(const record_schema& schema, const unsigned char* base) {
        structure_text words(schema);
        words.add_record(schema.record(), base);
        return words.words_;
    }

  private:
    explicit structure_text(const record_schema& schema) : schema_(schema) {}

    template <typename value_type>
    static value_type load(const unsigned char* at) {
        value_type value;
        memcpy(&value, at, sizeof value);
        return value;
    }

    void add_bytes(const unsigned char* at, size_t size) {
        for (size_t i = 0; i < size; i++) {
            words_ += std::to_string(at[i]) + ' ';
        }
    }

    void add_record(const record_definition& definition, const unsigned char* base) {
        words_ += "{ ";
        for (const record_field& field : definition.fields) {
            words_ += field.name + ' ';
            add_field(field, base + field.offset);
        }
        words_ += "} ";
    }

    void add_target(const record_field& field, const unsigned char* target) {
        if (target == nullptr) {
            words_ += "null ";
        } else {
            add_record(schema_.type_of(field), target);
        }
    }

    void add_field(const record_field& field, const unsigned char* at) {
        switch (field.kind) {
            case record_field_kind::text: {
                const auto* text = load<const char*>(at);
                words_ += text != nullptr ? '"' + std::string(text) + "\" " : "null ";
                return;
            }
            case record_field_kind::fixed_text:
                words_ += '"' + std::string(reinterpret_cast<const char*>(at)) + "\" ";
                return;
            case record_field_kind::array: {
                const auto count = load<uint32_t>(at);
                words_ += std::to_string(count) + ' ';
                for (uint32_t i = 0; i < count; i++) {
                    const record_definition& type = schema_.type_of(field);
                    add_record(type, load<const unsigned char*>(at + sizeof(void*)) + i * type.size);
                }
                return;
            }
            case record_field_kind::pointer:
            case record_field_kind::link:
                return add_target(field, load<const unsigned char*>(at));
            case record_field_kind::embedded:
                return add_record(schema_.type_of(field), at);
            case record_field_kind::optional_value: {
                const auto* value = load<const unsigned char*>(at);
                value != nullptr ? add_bytes(value, field.optional_letter == 'I' ? 2 : 4) : void(words_ += "null ");
                return;
            }
            case record_field_kind::number16:
                return add_bytes(at, 2);
            case record_field_kind::number8:
                return add_bytes(at, 1);
            case record_field_kind::bytes:
                return add_bytes(at, field.width);
            default:
                return add_bytes(at, 4);
        }
    }

    const record_schema& schema_;
    std::string words_;
};

struct sample_record {
    record_descriptor descriptor;
    record_schema schema;
};

std::vector<sample_record>& samples() {
    static std::vector<sample_record> all = [] {
        std::vector<sample_record> made;
        for (const schema_sample& sample : schema_samples) {
            made.push_back({{"sample", "sample.dll", sample.full, sample.compact}, *parse_record_schema(sample.full)});
        }
        return made;
    }();
    for (const sample_record& sample : all) {
        register_record(sample.descriptor);
    }
    return all;
}

}  // namespace

TEST(record_codec, random_records_round_trip) {
    for (const sample_record& sample : samples()) {
        for (unsigned seed = 0; seed < 50; ++seed) {
            std::vector<unsigned char> record(sample.schema.record().size);
            std::vector<unsigned char> decoded(sample.schema.record().size);
            random_record(sample.schema, seed).fill(sample.schema.record(), record.data());
            const encoded_record first(sample.descriptor, record.data());
            ASSERT_EQ(first.status, PLATFORM_OK) << sample.descriptor.full_schema;
            ASSERT_EQ(record_decode(&sample.descriptor, first.bytes, first.size, decoded.data(), decoded.size()),
                      PLATFORM_OK);
            EXPECT_EQ(structure_text::of(sample.schema, decoded.data()),
                      structure_text::of(sample.schema, record.data()));
            const encoded_record second(sample.descriptor, decoded.data());
            EXPECT_EQ(first.text(), second.text());
            record_release(&sample.descriptor, record.data());
            record_release(&sample.descriptor, decoded.data());
        }
    }
}

TEST(record_codec, survives_hostile_bytes) {
    std::mt19937 random(7);
    for (const sample_record& sample : samples()) {
        std::vector<unsigned char> record(sample.schema.record().size);
        random_record(sample.schema, 3).fill(sample.schema.record(), record.data());
        const encoded_record good(sample.descriptor, record.data());
        for (size_t cut = 0; cut < good.size; ++cut) {
            std::vector<unsigned char> decoded(record.size());
            EXPECT_NE(record_decode(&sample.descriptor, good.bytes, cut, decoded.data(), decoded.size()), PLATFORM_OK);
            EXPECT_EQ(decoded, std::vector<unsigned char>(record.size())) << "a failed decode leaves nothing behind";
        }
        for (int i = 0; i < 2000; ++i) {
            std::string bytes = good.text();
            const size_t at = 4 + random() % (bytes.size() - 4);
            bytes[at] = static_cast<char>(random());
            std::vector<unsigned char> decoded(record.size());
            if (record_decode(&sample.descriptor, bytes.data(), bytes.size(), decoded.data(), decoded.size()) ==
                PLATFORM_OK) {
                record_release(&sample.descriptor, decoded.data());
            }
        }
        record_release(&sample.descriptor, record.data());
    }
}

TEST(record_codec, distinguishes_record_types) {
    const sample_record& mcinfo = samples()[0];
    const sample_record& detail = samples()[3];
    const std::vector<unsigned char> record(mcinfo.schema.record().size);
    std::vector<unsigned char> decoded(64);
    const encoded_record encoded(mcinfo.descriptor, record.data());
    EXPECT_EQ(record_decode(&detail.descriptor, encoded.bytes, encoded.size, decoded.data(), decoded.size()),
              platform_status{RECORD_MALFORMED});
}

TEST(record_codec, refuses_a_structure_that_is_too_small) {
    const sample_record& mcinfo = samples()[0];
    const std::vector<unsigned char> record(mcinfo.schema.record().size);
    std::vector<unsigned char> decoded(record.size() - 1);
    const encoded_record encoded(mcinfo.descriptor, record.data());
    EXPECT_EQ(record_decode(&mcinfo.descriptor, encoded.bytes, encoded.size, decoded.data(), decoded.size()),
              platform_status{RECORD_MALFORMED});
}

TEST(record_codec, refuses_a_circular_list) {
    const sample_record& detail = samples()[3];
    std::vector<unsigned char> record(detail.schema.record().size);
    const unsigned char* self = record.data();
    memcpy(record.data() + detail.schema.record().link_offset(), &self, sizeof(self));
    EXPECT_EQ(encoded_record(detail.descriptor, record.data()).status, platform_status{RECORD_MALFORMED});
}

TEST(record_codec, refuses_a_fixed_text_without_terminator) {
    static const record_descriptor descriptor = {"text", "sample.dll", "$1={Line}4x%S;", "$1=4x%S;"};
    register_record(descriptor);
    EXPECT_EQ(encoded_record(descriptor, "abcd").status, platform_status{RECORD_MALFORMED});
    EXPECT_EQ(encoded_record(descriptor, "abc").status, platform_status{PLATFORM_OK});
}

TEST(record_codec, refuses_an_invalid_boolean) {
    static const record_descriptor descriptor = {"flag", "sample.dll", "$1={Flag}b;", "$1=b;"};
    register_record(descriptor);
    const uint32_t two = 2;
    EXPECT_EQ(encoded_record(descriptor, &two).status, platform_status{RECORD_MALFORMED});
}

namespace {

struct two_numbers {
    uint32_t first;
    uint32_t second;
};

struct counted_numbers {
    uint32_t count;
    two_numbers* elements;
};

struct linked_number {
    uint32_t number;
    linked_number* next;
};

struct counted_links {
    uint32_t count;
    linked_number* elements;
};

constexpr record_descriptor numbers_record = {"numbers", "sample.dll", "$1={Numbers}a($2);$2={A}D{B}D;",
                                              "$1=a($2);$2=DD;"};
constexpr record_descriptor links_record = {"links", "sample.dll", "$1={Links}a($2);$2=L{A}D{Next}Pp($2);",
                                            "$1=a($2);$2=LDPp($2);"};
constexpr record_descriptor text_record = {"text", "sample.dll", "$1={Text}s;", "$1=s;"};
constexpr record_descriptor line_record = {"line", "sample.dll", "$1={Line}8x%S;", "$1=8x%S;"};
constexpr record_descriptor flag_record = {"flag", "sample.dll", "$1={Flag}p(b);", "$1=p(b);"};
constexpr record_descriptor pair_record = {"pair", "sample.dll", "$1={Pair}p($2);$2={A}D{B}D;", "$1=p($2);$2=DD;"};
constexpr record_descriptor list_record = {"list", "sample.dll", "$1=L{A}D{Next}Pp($1);", "$1=LDPp($1);"};
constexpr record_descriptor tree_record = {"tree", "sample.dll", "$1={A}D{Child}p($1);", "$1=Dp($1);"};

/// The decoder's result for the record's hash, as the encoder writes it, followed by `rest`.
platform_status decode_rest(const record_descriptor& descriptor, const std::string& rest) {
    register_record(descriptor);
    const unsigned char nothing[64] = {};
    const encoded_record empty(descriptor, nothing);
    EXPECT_EQ(empty.status, PLATFORM_OK);
    const std::string bytes = empty.text().substr(0, 4) + rest;
    unsigned char decoded[64] = {};
    const platform_status status = record_decode(&descriptor, bytes.data(), bytes.size(), decoded, sizeof decoded);
    if (status == PLATFORM_OK) {
        record_release(&descriptor, decoded);
    } else {
        EXPECT_EQ(std::string(decoded, decoded + sizeof decoded), std::string(sizeof decoded, '\0'));
    }
    return status;
}

std::string bytes_of(std::initializer_list<uint32_t> numbers) {
    std::string bytes;
    for (const uint32_t number : numbers) {
        bytes.append(reinterpret_cast<const char*>(&number), sizeof number);
    }
    return bytes;
}

}  // namespace

TEST(record_codec, refuses_an_array_without_its_elements) {
    register_record(numbers_record);
    counted_numbers record = {1, nullptr};
    EXPECT_EQ(encoded_record(numbers_record, &record).status, platform_status{RECORD_MALFORMED});
    record.count = 0;
    EXPECT_EQ(encoded_record(numbers_record, &record).status, PLATFORM_OK);
}

TEST(record_codec, refuses_an_array_with_millions_of_elements) {
    register_record(numbers_record);
    two_numbers element = {};
    const counted_numbers record = {UINT32_MAX, &element};
    EXPECT_EQ(encoded_record(numbers_record, &record).status, platform_status{RECORD_MALFORMED});
}

TEST(record_codec, refuses_an_array_element_with_a_successor) {
    register_record(links_record);
    linked_number successor = {2, nullptr};
    linked_number element = {1, &successor};
    const counted_links record = {1, &element};
    EXPECT_EQ(encoded_record(links_record, &record).status, platform_status{RECORD_MALFORMED});
    element.next = nullptr;
    EXPECT_EQ(encoded_record(links_record, &record).status, PLATFORM_OK);
}

TEST(record_codec, refuses_an_invalid_optional_boolean) {
    register_record(flag_record);
    uint32_t value = 2;
    const uint32_t* record = &value;
    EXPECT_EQ(encoded_record(flag_record, &record).status, platform_status{RECORD_MALFORMED});
    value = 1;
    EXPECT_EQ(encoded_record(flag_record, &record).status, PLATFORM_OK);
}

TEST(record_codec, refuses_structures_nested_too_deeply) {
    register_record(tree_record);
    struct tree {
        uint32_t number;
        tree* child;
    } nodes[20] = {};
    for (size_t i = 0; i + 1 < std::size(nodes); i++) {
        nodes[i].child = &nodes[i + 1];
    }
    EXPECT_EQ(encoded_record(tree_record, nodes).status, platform_status{RECORD_MALFORMED});
    EXPECT_EQ(encoded_record(tree_record, nodes + 10).status, PLATFORM_OK);
}

TEST(record_codec, accepts_only_bytes_of_the_exact_length) {
    const struct {
        const record_descriptor& descriptor;
        std::string rest;
        platform_status status;
    } cases[] = {
        {numbers_record, bytes_of({1, 7, 8}), PLATFORM_OK},
        {numbers_record, bytes_of({1, 7, 8}) + "x", RECORD_MALFORMED},
        {numbers_record, bytes_of({2, 7, 8}), RECORD_MALFORMED},
        {numbers_record, bytes_of({UINT32_MAX, 7, 8}), RECORD_MALFORMED},
        {text_record, bytes_of({0}), PLATFORM_OK},
        {text_record, bytes_of({1}), PLATFORM_OK},
        {text_record, bytes_of({4}) + "abc", PLATFORM_OK},
        {text_record, bytes_of({4}) + "ab", RECORD_MALFORMED},
        {text_record, bytes_of({4}) + std::string("a\0c", 3), RECORD_MALFORMED},
        {text_record, bytes_of({UINT32_MAX}) + "abc", RECORD_MALFORMED},
        {line_record, bytes_of({7}) + "1234567", PLATFORM_OK},
        {line_record, bytes_of({8}) + "12345678", RECORD_MALFORMED},
        {line_record, bytes_of({3}) + std::string("a\0c", 3), RECORD_MALFORMED},
        {flag_record, std::string(1, '\0'), PLATFORM_OK},
        {flag_record, '\1' + bytes_of({1}), PLATFORM_OK},
        {flag_record, '\1' + bytes_of({2}), RECORD_MALFORMED},
        {flag_record, '\2' + bytes_of({1}), RECORD_MALFORMED},
        {pair_record, '\1' + bytes_of({1, 2}), PLATFORM_OK},
        {pair_record, '\1' + bytes_of({1}), RECORD_MALFORMED},
        {pair_record, '\2' + bytes_of({1, 2}), RECORD_MALFORMED},
        {list_record, bytes_of({2, 7, 8}), PLATFORM_OK},
        {list_record, bytes_of({0}), RECORD_MALFORMED},
        {list_record, bytes_of({3, 7, 8}), RECORD_MALFORMED},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(decode_rest(row.descriptor, row.rest), row.status)
            << row.descriptor.name << ' ' << testing::PrintToString(row.rest);
    }
}

TEST(record_codec, knows_only_registered_descriptors) {
    static const record_descriptor descriptor = {"unknown", "sample.dll", "$1={A}D;", "$1=D;"};
    const uint32_t record = 1;
    uint32_t decoded = 0;
    EXPECT_EQ(encoded_record(descriptor, &record).status, platform_status{RECORD_UNKNOWN});
    EXPECT_EQ(record_decode(&descriptor, &record, sizeof(record), &decoded, sizeof(decoded)),
              platform_status{RECORD_UNKNOWN});
}

TEST(record_codec, a_descriptor_registered_again_has_its_new_schema) {
    static record_descriptor descriptor = {"changing", "sample.dll", "$1={A}D;", "$1=D;"};
    register_record(descriptor);
    descriptor.full_schema = "$1={A}I;";
    descriptor.compact_schema = "$1=I;";
    register_record(descriptor);
    const uint32_t record = 1;
    EXPECT_EQ(encoded_record(descriptor, &record).size, sizeof(uint32_t) + sizeof(uint16_t));
}

TEST(record_codec, refuses_a_compact_schema_of_another_record) {
    static const record_descriptor descriptor = {"wrong", "sample.dll", "$1={A}D;", "$1=I;"};
    record_transaction* transaction = nullptr;
    ASSERT_EQ(record_registration_begin(&transaction), PLATFORM_OK);
    EXPECT_EQ(record_register(transaction, &descriptor), platform_status{RECORD_MALFORMED});
    record_registration_abort(transaction);
}

TEST(record_codec, discards_an_aborted_transaction) {
    static const record_descriptor descriptor = {"aborted", "sample.dll", "$1={A}D;", "$1=D;"};
    record_transaction* transaction = nullptr;
    ASSERT_EQ(record_registration_begin(&transaction), PLATFORM_OK);
    ASSERT_EQ(record_register(transaction, &descriptor), PLATFORM_OK);
    record_registration_abort(transaction);
    const uint32_t record = 1;
    EXPECT_EQ(encoded_record(descriptor, &record).status, platform_status{RECORD_UNKNOWN});
}
