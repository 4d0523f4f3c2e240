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

/// Fills native structures of any schema with random values. What it allocates is what record_release frees.
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

TEST(record_codec, gives_random_records_back_as_they_were) {
    for (const sample_record& sample : samples()) {
        for (unsigned seed = 0; seed < 50; ++seed) {
            std::vector<unsigned char> record(sample.schema.record().size);
            std::vector<unsigned char> decoded(sample.schema.record().size);
            random_record(sample.schema, seed).fill(sample.schema.record(), record.data());
            const encoded_record first(sample.descriptor, record.data());
            ASSERT_EQ(first.status, PLATFORM_OK) << sample.descriptor.full_schema;
            ASSERT_EQ(record_decode(&sample.descriptor, first.bytes, first.size, decoded.data(), decoded.size()),
                      PLATFORM_OK);
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

TEST(record_codec, tells_record_types_apart) {
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

TEST(record_codec, refuses_a_list_that_runs_in_a_circle) {
    const sample_record& detail = samples()[3];
    std::vector<unsigned char> record(detail.schema.record().size);
    const unsigned char* self = record.data();
    memcpy(record.data() + detail.schema.record().link_offset(), &self, sizeof(self));
    EXPECT_EQ(encoded_record(detail.descriptor, record.data()).status, platform_status{RECORD_MALFORMED});
}

TEST(record_codec, refuses_a_fixed_text_without_an_end) {
    static const record_descriptor descriptor = {"text", "sample.dll", "$1={Line}4x%S;", "$1=4x%S;"};
    register_record(descriptor);
    EXPECT_EQ(encoded_record(descriptor, "abcd").status, platform_status{RECORD_MALFORMED});
    EXPECT_EQ(encoded_record(descriptor, "abc").status, platform_status{PLATFORM_OK});
}

TEST(record_codec, refuses_a_boolean_that_is_none) {
    static const record_descriptor descriptor = {"flag", "sample.dll", "$1={Flag}b;", "$1=b;"};
    register_record(descriptor);
    const uint32_t two = 2;
    EXPECT_EQ(encoded_record(descriptor, &two).status, platform_status{RECORD_MALFORMED});
}

TEST(record_codec, knows_only_registered_descriptors) {
    static const record_descriptor descriptor = {"unknown", "sample.dll", "$1={A}D;", "$1=D;"};
    const uint32_t record = 1;
    uint32_t decoded = 0;
    EXPECT_EQ(encoded_record(descriptor, &record).status, platform_status{RECORD_UNKNOWN});
    EXPECT_EQ(record_decode(&descriptor, &record, sizeof(record), &decoded, sizeof(decoded)),
              platform_status{RECORD_UNKNOWN});
}

TEST(record_codec, refuses_a_compact_schema_of_another_record) {
    static const record_descriptor descriptor = {"wrong", "sample.dll", "$1={A}D;", "$1=I;"};
    record_transaction* transaction = nullptr;
    ASSERT_EQ(record_registration_begin(&transaction), PLATFORM_OK);
    EXPECT_EQ(record_register(transaction, &descriptor), platform_status{RECORD_MALFORMED});
    record_registration_abort(transaction);
}

TEST(record_codec, forgets_an_aborted_transaction) {
    static const record_descriptor descriptor = {"aborted", "sample.dll", "$1={A}D;", "$1=D;"};
    record_transaction* transaction = nullptr;
    ASSERT_EQ(record_registration_begin(&transaction), PLATFORM_OK);
    ASSERT_EQ(record_register(transaction, &descriptor), PLATFORM_OK);
    record_registration_abort(transaction);
    const uint32_t record = 1;
    EXPECT_EQ(encoded_record(descriptor, &record).status, platform_status{RECORD_UNKNOWN});
}
