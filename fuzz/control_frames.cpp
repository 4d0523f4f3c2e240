/// Data on the control socket. Frames are the same however the stream is split; accepted JSON can be written and read
/// back; a value accepted by the schema is shown in the same notation. Every refusal has a one-line text.
///
/// Input: one byte for the size of the pieces, then a stream of frames.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "control_protocol/frame.h"
#include "control_protocol/json_text.h"
#include "linux/control/value.h"
#include "linux/datastore/schema_form.h"
#include "require.h"

namespace {

void require_one_clean_line(const std::string& text) {
    require(!text.empty() && schema_has_charset(text, schema_charset::printable));
}

/// All complete documents of a stream that arrives in pieces of this size, up to the first oversized frame.
std::vector<std::string> documents_of(std::string_view stream, size_t piece) {
    std::vector<std::string> documents;
    control_frame_reader reader;
    while (!stream.empty()) {
        const size_t taken = control_frame_take(reader, stream.substr(0, piece));
        stream.remove_prefix(taken);
        if (control_frame_progress(reader) == control_frame_state::too_large) {
            return documents;
        }
        if (control_frame_progress(reader) == control_frame_state::complete) {
            documents.push_back(std::move(reader.document));
            reader = {};
        }
        require(control_frame_missing(reader) > 0);
    }
    return documents;
}

/// A stored value is displayed in a notation that stores the same value.
void check_value(const schema_row& row, const std::string& path, const std::optional<datastore_value>& value,
                 std::string refusal) {
    datastore_stored stored;
    if (!value.has_value() || schema_store(row, path, *value, stored, refusal) != PLATFORM_OK) {
        require_one_clean_line(refusal);
        return;
    }
    datastore_value loaded;
    require(schema_load(row, stored, loaded) == PLATFORM_OK);
    const std::string shown = control_json_text(control_value_to_json(loaded));
    const std::optional<datastore_value> again = control_value_from_word(row, path, shown, refusal);
    datastore_stored stored_again;
    require(again.has_value() && schema_store(row, path, *again, stored_again, refusal) == PLATFORM_OK);
    require(stored == stored_again);
}

void check_item(const std::string& path, const control_json& value) {
    const schema_row* row = schema_find(path, nullptr);
    if (row == nullptr) {
        return;
    }
    std::string refusal;
    const std::optional<datastore_value> from_json = control_value_from_json(*row, path, value, refusal);
    check_value(*row, path, from_json, refusal);
    refusal.clear();
    const std::string word = value.is_string() ? value.get<std::string>() : control_json_text(value);
    const std::optional<datastore_value> from_word = control_value_from_word(*row, path, word, refusal);
    check_value(*row, path, from_word, refusal);
}

void check_document(const std::string& document) {
    std::string error;
    const std::optional<control_json> json = control_json_parse(document, error);
    if (!json.has_value()) {
        require_one_clean_line(error);
        return;
    }
    const std::string text = control_json_text(*json);
    const std::optional<control_json> again = control_json_parse(text, error);
    require(again.has_value() && control_json_text(*again) == text);
    if (json->is_object()) {
        for (const auto& [path, value] : json->items()) {
            check_item(path, value);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string_view stream(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::vector<std::string> documents = documents_of(stream, size_t{data[0]} + 1);
    require(documents == documents_of(stream, std::max<size_t>(stream.size(), 1)));
    for (const std::string& document : documents) {
        check_document(document);
    }
    return 0;
}
