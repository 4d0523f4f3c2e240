#include "linux/host/banner_tokens.h"

#include <limits.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <sstream>

#include "common/text.h"

namespace {

struct token_row {
    std::string_view name;
    std::string (*value)();
};

/// The router's name as given, with or without a domain.
std::string full_name() {
    char name[HOST_NAME_MAX + 1] = "";
    gethostname(name, sizeof name - 1);
    return name;
}

std::string host_name() {
    const std::string name = full_name();
    return name.substr(0, name.find('.'));
}

/// Format: resolv.conf(5). The last of the lines applies.
std::string resolver_domain() {
    std::ifstream file("/etc/resolv.conf");
    std::string domain;
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        std::string keyword;
        std::string value;
        if (words >> keyword >> value && (keyword == "domain" || keyword == "search")) {
            domain = value;
        }
    }
    return domain;
}

std::string domain_name() {
    const std::string name = full_name();
    const size_t dot = name.find('.');
    return dot == std::string::npos ? resolver_domain() : name.substr(dot + 1);
}

std::string time_as(const char* format) {
    const time_t now = time(nullptr);
    tm parts = {};
    char text[64] = "";
    return localtime_r(&now, &parts) != nullptr && strftime(text, sizeof text, format, &parts) > 0 ? text : "";
}

constexpr token_row tokens[] = {
    {"hostname", host_name},
    {"domain", domain_name},
    {"date", [] { return time_as("%Y-%m-%d"); }},
    {"time", [] { return time_as("%H:%M:%S %Z"); }},
    {"line", [] { return std::string("ssh"); }},
};

const token_row* find_token(std::string_view name) {
    for (const token_row& row : tokens) {
        if (row.name == name) {
            return &row;
        }
    }
    return nullptr;
}

/// A name that the machine was told, by its DHCP server for instance, is shown to whoever connects.
std::string safe_to_show(std::string_view value) {
    std::string safe;
    while (!value.empty()) {
        uint32_t character = 0;
        const size_t length = text_utf8_character(value, character);
        if (length > 0 && !text_is_unsafe(character)) {
            safe += value.substr(0, length);
        }
        value.remove_prefix(length > 0 ? length : 1);
    }
    return safe;
}

}  // namespace

std::string banner_expand_tokens(std::string_view text) {
    constexpr std::string_view opening = "$(";
    std::string expanded;
    for (size_t start = text.find(opening); start != std::string_view::npos; start = text.find(opening)) {
        const size_t end = text.find(')', start);
        const std::string_view name =
            end == std::string_view::npos ? "" : text.substr(start + opening.size(), end - start - opening.size());
        const token_row* token = find_token(name);
        expanded += text.substr(0, start);
        expanded += token == nullptr ? std::string(opening) : safe_to_show(token->value());
        text.remove_prefix(token == nullptr ? start + opening.size() : end + 1);
    }
    return expanded += text;
}
