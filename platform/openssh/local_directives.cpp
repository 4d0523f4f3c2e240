#include "openssh/local_directives.h"

#include <fnmatch.h>

#include <algorithm>
#include <map>
#include <optional>

#include "common/nearest.h"
#include "common/text.h"
#include "openssh/config_line.h"
#include "openssh/keyword_table.h"
#include "openssh/local_keyword_table.h"
#include "openssh/text.h"

namespace openssh {

namespace {

constexpr std::string_view place_prefix = "# local: ";
constexpr std::string_view match_keyword = "Match";

/// Returns the value of a keyword's line in a translated text, or nothing.
std::optional<std::string_view> value_in(std::string_view text, std::string_view keyword) {
    std::optional<std::string_view> value;
    for_each_line(text, [&](size_t, std::string_view line) {
        if (!value && line.starts_with(keyword) && line.substr(keyword.size()).starts_with(' ')) {
            value = line.substr(keyword.size() + 1);
        }
    });
    return value;
}

/// Removes the lines of a keyword.
void remove_lines(std::string& text, std::string_view keyword) {
    std::string kept;
    for_each_line(text, [&](size_t, std::string_view line) {
        if (!line.starts_with(keyword) || !line.substr(keyword.size()).starts_with(' ')) {
            kept.append(line).append("\n");
        }
    });
    text = std::move(kept);
}

bool contains(const std::vector<std::string_view>& names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

bool is_pattern(std::string_view name) {
    return std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
               std::string_view("@.-_*?").find(c) != std::string_view::npos;
    });
}

bool matches(std::string_view pattern, std::string_view name) {
    return fnmatch(std::string(pattern).c_str(), std::string(name).c_str(), 0) == 0;
}

std::string shown_names(const std::vector<std::string_view>& names) {
    return shown(joined(names));
}

class local_merger {
  public:
    local_merger(const local_context& context, std::string_view settings) : context_(context) {
        merge_.settings = settings;
    }

    void take_file(const local_file& file) {
        file_ = &file;
        in_block_ = false;
        for_each_line(file.text, [this](size_t number, std::string_view line) { take_line(number, line); });
    }

    local_merge finish() {
        settle_addresses();
        remark_on_passwords();
        return std::move(merge_);
    }

  private:
    void take_line(size_t number, std::string_view line) {
        const setting found = parse_line(number, line);
        if (found.keyword.empty()) {
            return;
        }
        line_ = &found;
        whole_ = shown(trimmed(line));
        if (line.size() > longest_line) {
            refuse(text_format("the line is longer than %zu bytes", longest_line));
        } else if (has_control_character(trimmed(line)) || !text_is_utf8(line)) {
            refuse("the line contains a control character or invalid UTF-8");
        } else if (equal_ignoring_case(found.keyword, match_keyword)) {
            begin_block();
        } else if (const local_row* row = find_local_row(found.keyword, in_block_)) {
            take_directive(*row);
        } else {
            refuse_keyword();
        }
        line_ = nullptr;
    }

    void add(local_outcome outcome, std::string text, bool is_reserved = false) {
        merge_.verdicts.push_back({outcome, file_->path, line_->line, whole_, std::move(text), is_reserved});
    }

    void refuse(std::string reason) { add(local_outcome::refused, std::move(reason)); }

    /// A keyword that is not accepted here.
    void refuse_keyword() {
        const std::string keyword = shown(line_->keyword);
        if (find_local_row(line_->keyword, !in_block_) != nullptr) {
            refuse(keyword + (in_block_ ? " is not accepted in a Match block" : " is accepted in Match blocks only"));
            return;
        }
        if (find_keyword_row(server_keyword_rows(), line_->keyword) != nullptr) {
            refuse(keyword + " is not among the keywords that local directives may have");
            return;
        }
        const std::string nearest = nearest_keyword();
        refuse("unknown keyword" + (nearest.empty() ? "" : "; did you mean " + nearest + "?"));
    }

    std::string nearest_keyword() const {
        const auto rows = local_rows();
        std::vector<std::string> names;
        for (const local_row& row : rows) {
            names.push_back(lower_case(row.keyword));
        }
        const std::vector<std::string_view> candidates(names.begin(), names.end());
        const std::string_view nearest = nearest_word(lower_case(line_->keyword), candidates);
        const auto row = std::find_if(rows.begin(), rows.end(), [&](const local_row& candidate) {
            return !nearest.empty() && equal_ignoring_case(candidate.keyword, nearest);
        });
        return row == rows.end() ? std::string() : std::string(row->keyword);
    }

    void begin_block() {
        in_block_ = true;
        set_in_block_.clear();
        if (!is_match_criteria(line_->value)) {
            refuse(
                "expected all, or pairs of User, Group, Address, LocalAddress or LocalPort and a list of patterns, "
                "networks or ports");
            return;
        }
        add(local_outcome::accepted, "");
        append(merge_.blocks, "Match", line_->value);
    }

    /// Adds a line with its place.
    void append(std::string& text, std::string_view keyword, std::string_view value) {
        const std::string_view indent = in_block_ && keyword != match_keyword ? "    " : "";
        text.append(indent).append(place_prefix).append(local_place_text(file_->path, line_->line)).append("\n");
        text.append(indent).append(keyword).append(" ").append(value).append("\n");
    }

    void take_directive(const local_row& row) {
        const std::string_view value = line_->value;
        switch (row.how) {
            case local_rule::configured:
                refuse(text_format("it would overrule what is configured; set %s instead", row.reason));
                return;
            case local_rule::refused:
                refuse(row.reason);
                return;
            case local_rule::narrowed:
            case local_rule::key_types:
                take_list(row);
                return;
            case local_rule::setting:
            case local_rule::cumulative:
            case local_rule::address:
                break;
        }
        if (!row.form(value)) {
            refuse(text_format("\"%s\" is not valid; expected %s", shown(value).c_str(), row.expected));
        } else if (row.how == local_rule::address) {
            take_address();
        } else if (row.how == local_rule::cumulative || is_first(row)) {
            write(row, value, "");
        }
    }

    /// Whether no earlier line has set the keyword; otherwise gives the line its verdict.
    bool is_first(const local_row& row) {
        auto& set = in_block_ ? set_in_block_ : set_;
        const auto [earlier, is_new] = set.try_emplace(lower_case(row.keyword), place{file_, line_->line});
        if (is_new) {
            return true;
        }
        const place& first = earlier->second;
        if (first.file == file_) {
            refuse(text_format("duplicate: line %zu has set it", first.line));
        } else {
            add(local_outcome::overruled, "overruled by " + local_place_text(first.file->path, first.line));
        }
        return false;
    }

    void write(const local_row& row, std::string_view value, std::string remark) {
        add(local_outcome::accepted, std::move(remark), row.is_reserved_to_root);
        if (in_block_) {
            append(merge_.blocks, row.keyword, value);
            return;
        }
        if (row.how != local_rule::cumulative) {
            remove_lines(merge_.settings, row.keyword);
        }
        append(merge_.settings, row.keyword, value);
    }

    void take_list(const local_row& row) {
        const bool removes = line_->value.starts_with('-');
        const auto names = split(line_->value.substr(removes ? 1 : 0), ", \t");
        if (names.empty() || !std::all_of(names.begin(), names.end(), is_pattern) ||
            (removes && row.how == local_rule::key_types)) {
            refuse(text_format("\"%s\" is not valid; expected %s", shown(line_->value).c_str(), row.expected));
            return;
        }
        if (row.how == local_rule::key_types) {
            take_key_types(row);
        } else {
            narrow_list(row, names, removes);
        }
    }

    void take_key_types(const local_row& row) {
        const list_cut cut = cut_list(line_->value, row.kind, *context_.known, context_.fips_mode);
        std::string remark;
        add_names(remark, "not supported by this OpenSSH", cut.unknown);
        add_names(remark, "not approved in FIPS mode", cut.not_approved);
        if (cut.kept.empty()) {
            refuse("nothing is left of the list: " + remark);
        } else if (is_first(row)) {
            write(row, joined(cut.kept), remark.empty() ? "" : "left out: " + remark);
        }
    }

    static void add_names(std::string& remark, const char* why, const std::vector<std::string_view>& names) {
        if (!names.empty()) {
            remark += (remark.empty() ? "" : "; ") + shown_names(names) + " (" + why + ")";
        }
    }

    /// The list in the text is the configured one, in FIPS mode filtered, or what a file before has left of it.
    void narrow_list(const local_row& row, const std::vector<std::string_view>& names, bool removes) {
        const std::string present(value_in(merge_.settings, row.keyword).value_or(""));
        const auto configured = split(present, ",");
        std::vector<std::string_view> kept;
        std::vector<std::string_view> others;
        if (removes) {
            std::copy_if(configured.begin(), configured.end(), std::back_inserter(kept), [&](std::string_view name) {
                return std::none_of(names.begin(), names.end(), [&](auto pattern) { return matches(pattern, name); });
            });
        } else {
            for (const std::string_view name : names) {
                const bool is_new = !contains(kept, name);
                if (!contains(configured, name)) {
                    others.push_back(name);
                } else if (is_new) {
                    kept.push_back(name);
                }
            }
        }
        std::string remark;
        add_names(remark, "not in the configured list", others);
        if (kept.empty()) {
            refuse("nothing is left of the list" + (remark.empty() ? "" : ": " + remark));
        } else if (is_first(row)) {
            write(row, joined(kept), remark.empty() ? "" : "left out: " + remark);
        }
    }

    void take_address() {
        const std::string value(line_->value);
        const bool is_bracketed = value.starts_with('[');
        const std::string address = is_bracketed ? value.substr(1, value.size() - 2) : value;
        has_addresses_ = true;
        if (context_.has_address && !context_.has_address(address)) {
            const std::string remark = "no interface of the VRF has the address " + shown(address) + " now";
            add(local_outcome::accepted, "left out: " + remark);
            merge_.not_in_force.push_back(local_place_text(file_->path, line_->line) +
                                          ": ListenAddress left out: " + remark);
            return;
        }
        listens_ = true;
        add(local_outcome::accepted, "");
        append(merge_.settings, "ListenAddress", value);
    }

    /// A server that listens nowhere does not start.
    void settle_addresses() {
        if (has_addresses_ && !listens_) {
            merge_.not_in_force.emplace_back(
                "the server listens on all addresses, because the VRF has none of those in its local directives");
        }
    }

    /// Passwords have two ways in.
    void remark_on_passwords() {
        const auto is_closed = [this](std::string_view keyword) {
            return equal_ignoring_case(value_in(merge_.settings, keyword).value_or(""), "no");
        };
        if (!is_closed("PasswordAuthentication") || is_closed("KbdInteractiveAuthentication")) {
            return;
        }
        for (local_verdict& one : merge_.verdicts) {
            if (one.outcome == local_outcome::accepted &&
                lower_case(one.directive).starts_with("passwordauthentication")) {
                one.text = "passwords are still accepted by keyboard-interactive authentication";
            }
        }
    }

    struct place {
        const local_file* file;
        size_t line;
    };

    const local_context& context_;
    local_merge merge_;
    const local_file* file_ = nullptr;
    const setting* line_ = nullptr;
    std::string whole_;
    bool in_block_ = false;
    bool has_addresses_ = false;
    bool listens_ = false;
    std::map<std::string, place> set_;
    std::map<std::string, place> set_in_block_;
};

}  // namespace

bool local_merge::is_refused() const {
    return std::any_of(verdicts.begin(), verdicts.end(),
                       [](const local_verdict& one) { return one.outcome == local_outcome::refused; });
}

std::vector<std::string> local_merge::refusals() const {
    std::vector<std::string> sentences;
    for (const local_verdict& one : verdicts) {
        if (one.outcome == local_outcome::refused) {
            sentences.push_back(local_place_text(one.path, one.line) + ": \"" + one.directive +
                                "\" refused: " + one.text);
        }
    }
    return sentences;
}

size_t local_merge::count_in_force() const {
    return static_cast<size_t>(std::count_if(verdicts.begin(), verdicts.end(), [](const local_verdict& one) {
        return one.outcome == local_outcome::accepted;
    }));
}

local_merge merge_local_directives(const std::vector<local_file>& files, const local_context& context,
                                   std::string_view settings) {
    local_merger merger(context, settings);
    for (const local_file& file : files) {
        merger.take_file(file);
    }
    return merger.finish();
}

std::string local_place_text(const std::string& path, size_t line) {
    return text_format("%s, line %zu", shown(path).c_str(), line);
}

bool has_local_directives(std::string_view text) {
    return text.find(place_prefix) != std::string_view::npos;
}

std::string_view local_place_in(std::string_view comment) {
    comment = trimmed(comment);
    return comment.starts_with(place_prefix) ? comment.substr(place_prefix.size()) : std::string_view();
}

}  // namespace openssh
