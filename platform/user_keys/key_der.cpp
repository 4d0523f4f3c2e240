#include "user_keys/key_der.h"

#include <openssl/asn1.h>
#include <openssl/asn1t.h>
#include <openssl/bn.h>
#include <openssl/err.h>
#include <openssl/objects.h>
#include <openssl/x509.h>

#include <cerrno>
#include <memory>

// The DER form is built from OpenSSL's ASN.1 types. Its key objects would do the same, but load its providers: almost a
// megabyte that the agent has no other use for.

namespace {

template <auto free_function>
struct freed_by {
    template <typename T>
    void operator()(T* object) const {
        free_function(object);
    }
};

void free_fields(ASN1_SEQUENCE_ANY* fields) {
    sk_ASN1_TYPE_pop_free(fields, ASN1_TYPE_free);
}

using big_number = std::unique_ptr<BIGNUM, freed_by<BN_free>>;
using asn1_number = std::unique_ptr<ASN1_INTEGER, freed_by<ASN1_INTEGER_free>>;
using asn1_type = std::unique_ptr<ASN1_TYPE, freed_by<ASN1_TYPE_free>>;
using asn1_fields = std::unique_ptr<ASN1_SEQUENCE_ANY, freed_by<free_fields>>;
using algorithm = std::unique_ptr<X509_ALGOR, freed_by<X509_ALGOR_free>>;
using x509_key = std::unique_ptr<X509_PUBKEY, freed_by<X509_PUBKEY_free>>;

/// Clears OpenSSL's error queue, so that the next call does not find the errors of this one.
struct error_scope {
    error_scope() = default;
    ~error_scope() { ERR_clear_error(); }
    error_scope(const error_scope&) = delete;
    error_scope& operator=(const error_scope&) = delete;
};

const unsigned char* start_of(std::string_view bytes) {
    return reinterpret_cast<const unsigned char*>(bytes.data());
}

/// The DER form of an object, made by its i2d function. Returns false when out of memory.
template <typename T>
bool write_object(const T* object, int (*write)(const T* object, unsigned char** place), std::string& der) {
    const int size = write(object, nullptr);
    if (size <= 0) {
        return false;
    }
    der.resize(static_cast<size_t>(size));
    auto* place = reinterpret_cast<unsigned char*>(der.data());
    return write(object, &place) == size;
}

/// Appends a number of the key to a sequence.
bool add_number(ASN1_SEQUENCE_ANY* fields, const std::string& bytes) {
    const big_number number(BN_bin2bn(start_of(bytes), static_cast<int>(bytes.size()), nullptr));
    asn1_number encoded(number == nullptr ? nullptr : BN_to_ASN1_INTEGER(number.get(), nullptr));
    asn1_type field(ASN1_TYPE_new());
    if (encoded == nullptr || field == nullptr) {
        return false;
    }
    ASN1_TYPE_set(field.get(), V_ASN1_INTEGER, encoded.release());
    if (sk_ASN1_TYPE_push(fields, field.get()) <= 0) {
        return false;
    }
    static_cast<void>(field.release());
    return true;
}

/// RSAPublicKey (RFC 8017, appendix A.1.1): modulus and exponent.
bool write_numbers(const rsa_public_key& key, std::string& der) {
    const asn1_fields fields(sk_ASN1_TYPE_new_null());
    return fields != nullptr && add_number(fields.get(), key.modulus) && add_number(fields.get(), key.exponent) &&
           write_object<ASN1_SEQUENCE_ANY>(fields.get(), i2d_ASN1_SEQUENCE_ANY, der);
}

bool write_key(const rsa_public_key& key, std::string& der) {
    std::string numbers;
    const x509_key made(X509_PUBKEY_new());
    if (made == nullptr || !write_numbers(key, numbers)) {
        return false;
    }
    auto* copy = static_cast<unsigned char*>(OPENSSL_memdup(numbers.data(), numbers.size()));
    if (copy == nullptr) {
        return false;
    }
    if (X509_PUBKEY_set0_param(made.get(), OBJ_nid2obj(NID_rsaEncryption), V_ASN1_NULL, nullptr, copy,
                               static_cast<int>(numbers.size())) != 1) {
        OPENSSL_free(copy);
        return false;
    }
    return write_object<X509_PUBKEY>(made.get(), i2d_X509_PUBKEY, der);
}

/// The fields of a sequence that consists of exactly two; null if it does not.
asn1_fields read_pair(std::string_view der) {
    const unsigned char* place = start_of(der);
    const unsigned char* const end = place + der.size();
    asn1_fields fields(d2i_ASN1_SEQUENCE_ANY(nullptr, &place, static_cast<long>(der.size())));
    if (fields == nullptr || place != end || sk_ASN1_TYPE_num(fields.get()) != 2) {
        return nullptr;
    }
    return fields;
}

/// The bytes of a field of this type; null data if it has another type.
std::string_view bytes_of(const asn1_fields& fields, int index, int type) {
    const ASN1_TYPE* field = sk_ASN1_TYPE_value(fields.get(), index);
    if (field->type != type) {
        return {};
    }
    const ASN1_STRING* bytes = field->value.asn1_string;
    return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(bytes)),
            static_cast<size_t>(ASN1_STRING_length(bytes))};
}

bool is_rsa(std::string_view der) {
    const unsigned char* place = start_of(der);
    const algorithm read(d2i_X509_ALGOR(nullptr, &place, static_cast<long>(der.size())));
    const ASN1_OBJECT* name = nullptr;
    if (read != nullptr) {
        X509_ALGOR_get0(&name, nullptr, nullptr, read.get());
    }
    return name != nullptr && OBJ_obj2nid(name) == NID_rsaEncryption;
}

bool read_key(std::string_view der, rsa_public_key& key) {
    const asn1_fields outer = read_pair(der);
    if (outer == nullptr || !is_rsa(bytes_of(outer, 0, V_ASN1_SEQUENCE))) {
        return false;
    }
    const asn1_fields numbers = read_pair(bytes_of(outer, 1, V_ASN1_BIT_STRING));
    if (numbers == nullptr) {
        return false;
    }
    key = {std::string(bytes_of(numbers, 0, V_ASN1_INTEGER)), std::string(bytes_of(numbers, 1, V_ASN1_INTEGER))};
    return true;
}

}  // namespace

platform_status key_der_make(const rsa_public_key& key, std::string& der) {
    const error_scope scope;
    std::string written;
    if (!write_key(key, written)) {
        return ENOMEM;
    }
    if (written.size() > KEY_STORE_DER_MAX) {
        return KEY_TOO_LARGE;
    }
    der = std::move(written);
    return PLATFORM_OK;
}

platform_status key_der_read(std::string_view der, rsa_public_key& key) {
    const error_scope scope;
    rsa_public_key found;
    std::string again;
    // The DER form of a key is unique: input that is not reproduced exactly is invalid.
    if (!read_key(der, found) || !write_key(found, again) || again != der) {
        return EBADMSG;
    }
    key = std::move(found);
    return PLATFORM_OK;
}
