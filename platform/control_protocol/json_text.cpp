#include "control_protocol/json_text.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "common/text.h"

namespace {

/// A name that two members of an object share; null if all names differ.
const std::string* duplicate_member(const control_json& object) {
    std::vector<const std::string*> names;
    names.reserve(object.size());
    for (const auto& member : object.get_ref<const control_json::object_t&>()) {
        names.push_back(&member.first);
    }
    const auto less = [](const std::string* left, const std::string* right) { return *left < *right; };
    const auto equal = [](const std::string* left, const std::string* right) { return *left == *right; };
    std::sort(names.begin(), names.end(), less);
    const auto found = std::adjacent_find(names.begin(), names.end(), equal);
    return found == names.end() ? nullptr : *found;
}

/// Builds the document from the parser's events and stops at the first violation.
class document_builder {
  public:
    using number_integer_t = control_json::number_integer_t;
    using number_unsigned_t = control_json::number_unsigned_t;
    using number_float_t = control_json::number_float_t;
    using string_t = control_json::string_t;
    using binary_t = control_json::binary_t;

    explicit document_builder(std::string& reason) : error(reason) {}

    control_json document;

    bool null() { return add(nullptr); }
    bool boolean(bool value) { return add(value); }
    bool number_integer(number_integer_t value) { return add(value); }
    bool number_unsigned(number_unsigned_t value) { return add(value); }
    bool number_float(number_float_t value, const string_t& /*text*/) { return add(value); }
    bool string(string_t& value) { return add(std::move(value)); }
    bool binary(binary_t& /*value*/) { return false; }

    bool start_object(size_t /*size*/) { return open(control_json::value_t::object); }
    bool start_array(size_t /*size*/) { return open(control_json::value_t::array); }
    bool end_array() {
        open_containers.pop_back();
        return true;
    }

    // Members are appended to the object's storage directly: searching for a duplicate name each time would take
    // quadratic time. end_object searches once.
    bool key(string_t& name) {
        auto& members = open_containers.back()->get_ref<control_json::object_t&>();
        members.emplace_back(std::move(name), nullptr);
        member_value = &members.back().second;
        return true;
    }

    bool end_object() {
        const std::string* twice = duplicate_member(*open_containers.back());
        open_containers.pop_back();
        if (twice != nullptr) {
            return refuse("duplicate name \"" + text_escape(*twice, 200) + "\" in one object");
        }
        return true;
    }

    template <class parse_exception>
    bool parse_error(size_t /*position*/, const std::string& /*last_token*/, const parse_exception& exception) {
        std::string_view text = exception.what();
        // The library prefixes the text with its own name and an error number.
        if (const size_t end = text.find("] "); text.starts_with('[') && end != std::string_view::npos) {
            text.remove_prefix(end + 2);
        }
        return refuse("not JSON: " + text_escape(text, 300));
    }

  private:
    std::string& error;
    std::vector<control_json*> open_containers;
    control_json* member_value = nullptr;
    size_t values = 0;

    bool refuse(std::string reason) {
        error = std::move(reason);
        return false;
    }

    control_json* place() {
        if (open_containers.empty()) {
            return &document;
        }
        control_json* container = open_containers.back();
        if (container->is_array()) {
            container->get_ref<control_json::array_t&>().emplace_back();
            return &container->get_ref<control_json::array_t&>().back();
        }
        return member_value;
    }

    template <class value_type>
    bool add(value_type&& value) {
        if (++values > CONTROL_JSON_VALUES_MAX) {
            return refuse("more than " + std::to_string(CONTROL_JSON_VALUES_MAX) + " values in one document");
        }
        *place() = control_json(std::forward<value_type>(value));
        return true;
    }

    bool open(control_json::value_t type) {
        if (open_containers.size() == CONTROL_JSON_DEPTH_MAX) {
            return refuse("arrays and objects nested more than " + std::to_string(CONTROL_JSON_DEPTH_MAX) +
                          " levels deep");
        }
        if (++values > CONTROL_JSON_VALUES_MAX) {
            return refuse("more than " + std::to_string(CONTROL_JSON_VALUES_MAX) + " values in one document");
        }
        control_json* container = place();
        *container = control_json(type);
        open_containers.push_back(container);
        return true;
    }
};

}  // namespace

std::optional<control_json> control_json_parse(std::string_view text, std::string& error) {
    // The parser takes a NUL for the end of the document and would ignore anything after it.
    if (text.find('\0') != std::string_view::npos) {
        error = "not JSON: contains a NUL byte";
        return std::nullopt;
    }
    document_builder builder(error);
    if (!control_json::sax_parse(text.begin(), text.end(), &builder)) {
        return std::nullopt;
    }
    return std::move(builder.document);
}

std::string control_json_text(const control_json& value) {
    return value.dump(-1, ' ', false, control_json::error_handler_t::replace);
}
