/// Encodes several numbers and texts as one text, for the datastore's own values.
#ifndef LINUX_DATASTORE_STORED_FIELDS_H
#define LINUX_DATASTORE_STORED_FIELDS_H

#include <cstdint>
#include <string>
#include <string_view>

void stored_fields_append(std::string& bytes, uint64_t number);
void stored_fields_append(std::string& bytes, std::string_view text);

/// Reads fields from the beginning of a text. If a field is truncated, that field and all later ones are 0 or empty.
class stored_fields_reader {
  public:
    explicit stored_fields_reader(std::string_view bytes) : rest_(bytes) {}

    uint64_t number();
    std::string text();

    /// Returns whether there is nothing left to read.
    bool at_end() const { return rest_.empty(); }
    /// Returns whether all fields read so far were complete.
    bool is_valid() const { return valid_; }

  private:
    std::string_view take(size_t size);

    std::string_view rest_;
    bool valid_ = true;
};

#endif
