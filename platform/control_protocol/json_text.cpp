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

bool refuse_depth(std::string& error) {
    error = "arrays and objects nested more than " + std::to_string(CONTROL_JSON_DEPTH_MAX) + " levels deep";
    return false;
}

bool refuse_values(std::string& error) {
    error = "more than " + std::to_string(CONTROL_JSON_VALUES_MAX) + " values in one document";
    return false;
}

/// The position of a string's closing quote, given that of its opening one; the last one if it has none.
size_t end_of_string(std::string_view text, size_t start) {
    size_t place = start + 1;
    while (place < text.size() && text[place] != '"') {
        place += text[place] == '\\' ? 2 : 1;
    }
    return place;
}

bool is_closing(std::string_view rest) {
    const size_t next = rest.find_first_not_of(" \t\r\n");
    return next != std::string_view::npos && (rest[next] == ']' || rest[next] == '}');
}

/// Checks the limits before anything is built: each comma is followed by a value, and so is each opening bracket unless
/// the closing one follows. What else is wrong with the document is up to the parser.
bool is_within_limits(std::string_view text, std::string& error) {
    size_t values = 1;
    size_t depth = 0;
    for (size_t place = 0; place < text.size(); place++) {
        const char mark = text[place];
        if (mark == '"') {
            place = end_of_string(text, place);
        } else if (mark == '[' || mark == '{') {
            depth++;
            values += is_closing(text.substr(place + 1)) ? 0 : 1;
        } else if (mark == ']' || mark == '}') {
            depth -= depth > 0 ? 1 : 0;
        } else if (mark == ',') {
            values++;
        }
        if (depth > CONTROL_JSON_DEPTH_MAX || values > CONTROL_JSON_VALUES_MAX) {
            return depth > CONTROL_JSON_DEPTH_MAX ? refuse_depth(error) : refuse_values(error);
        }
    }
    return true;
}

/// Values that are released at the end of the scope, unless they have been moved away by then.
struct released_values {
    std::vector<control_json> values;

    released_values() = default;
    released_values(const released_values&) = delete;
    released_values& operator=(const released_values&) = delete;
    ~released_values() {
        for (control_json& value : values) {
            control_json_release(value);
        }
    }
};

/// Makes room for one more member. To grow by itself, the object would copy the values, and if there is no memory for all
/// of them, their destructors would want some, too.
void make_room(control_json::object_t& members) {
    if (members.size() < members.capacity()) {
        return;
    }
    released_values moved;
    moved.values.reserve(members.size());
    for (auto& member : members) {
        moved.values.push_back(std::move(member.second));
    }
    members.reserve(std::max<size_t>(8, 2 * members.size()));
    for (size_t place = 0; place < members.size(); place++) {
        (members.begin() + static_cast<std::ptrdiff_t>(place))->second = std::move(moved.values[place]);
    }
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
    ~document_builder() { control_json_release(document); }
    document_builder(const document_builder&) = delete;
    document_builder& operator=(const document_builder&) = delete;

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
        make_room(members);
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
        *place() = control_json(std::forward<value_type>(value));
        return true;
    }

    bool open(control_json::value_t type) {
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
    if (!is_within_limits(text, error)) {
        return std::nullopt;
    }
    document_builder builder(error);
    if (!control_json::sax_parse(text.begin(), text.end(), &builder)) {
        return std::nullopt;
    }
    return std::move(builder.document);
}

void control_json_release(control_json& value) noexcept {
    if (auto* elements = value.get_ptr<control_json::array_t*>()) {
        for (control_json& element : *elements) {
            control_json_release(element);
        }
        elements->clear();
    } else if (auto* members = value.get_ptr<control_json::object_t*>()) {
        for (auto& member : *members) {
            control_json_release(member.second);
        }
        members->clear();
    }
    value = nullptr;
}

std::string control_json_text(const control_json& value) {
    return value.dump(-1, ' ', false, control_json::error_handler_t::replace);
}
