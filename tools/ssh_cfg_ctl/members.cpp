#include "ssh_cfg_ctl/members.h"

#include <algorithm>
#include <optional>
#include <set>

#include "control_protocol/json_text.h"

namespace {

/// Reads members from left to right.
class member_scanner {
  public:
    explicit member_scanner(std::string_view text) : text_(text) {}

    std::vector<ctl_member> scan() {
        std::vector<ctl_member> members;
        if (!take('{')) {
            return members;
        }
        size_t begin = position_;
        do {
            std::optional<ctl_member> member = read_member();
            if (!member) {
                break;
            }
            member->begin = members.empty() ? member->begin : begin;
            member->is_duplicate = !names_.insert(member->name).second;
            members.push_back(std::move(*member));
            begin = position_;
        } while (take(','));
        return members;
    }

  private:
    void skip_blanks() { position_ = std::min(text_.find_first_not_of(" \t\r\n", position_), text_.size()); }

    bool take(char mark) {
        skip_blanks();
        const bool found = position_ < text_.size() && text_[position_] == mark;
        position_ += found ? 1 : 0;
        return found;
    }

    /// Returns the offset behind the string that begins at `place`.
    size_t end_of_text(size_t place) const {
        for (++place; place < text_.size() && text_[place] != '"'; ++place) {
            place += text_[place] == '\\' ? 1 : 0;
        }
        return std::min(place + 1, text_.size());
    }

    std::optional<ctl_member> read_member() {
        skip_blanks();
        if (position_ >= text_.size() || text_[position_] != '"') {
            return std::nullopt;
        }
        ctl_member member = place_of(position_);
        member.begin = position_;
        position_ = end_of_text(position_);
        std::string error;
        const auto name = control_json_parse(text_.substr(member.begin, position_ - member.begin), error);
        if (!name || !name->is_string() || !take(':')) {
            return std::nullopt;
        }
        member.name = name->get<std::string>();
        member.value = position_;
        skip_value();
        member.end = position_;
        return member;
    }

    /// Goes to the comma or bracket behind a value.
    void skip_value() {
        for (size_t depth = 0; position_ < text_.size(); position_++) {
            const char mark = text_[position_];
            if (mark == '"') {
                position_ = end_of_text(position_) - 1;
            } else if (mark == '[' || mark == '{') {
                depth++;
            } else if (depth == 0 && (mark == ',' || mark == '}' || mark == ']')) {
                return;
            } else if (mark == ']' || mark == '}') {
                depth--;
            }
        }
    }

    /// Counts lines from the last place on, so that a long file is read only once.
    ctl_member place_of(size_t offset) {
        for (; counted_ < offset; counted_++) {
            if (text_[counted_] == '\n') {
                line_++;
                line_begin_ = counted_ + 1;
            }
        }
        ctl_member member;
        member.line = line_;
        member.column = offset - line_begin_ + 1;
        return member;
    }

    std::string_view text_;
    size_t position_ = 0;
    size_t counted_ = 0;
    size_t line_ = 1;
    size_t line_begin_ = 0;
    std::set<std::string> names_;
};

}  // namespace

std::vector<ctl_member> ctl_members(std::string_view text) {
    return member_scanner(text).scan();
}

std::string ctl_without_duplicates(std::string_view text, const std::vector<ctl_member>& members) {
    std::string kept(text);
    for (const ctl_member& member : members) {
        for (size_t i = member.begin; member.is_duplicate && i < member.end; i++) {
            kept[i] = kept[i] == '\n' ? '\n' : ' ';
        }
    }
    return kept;
}

std::string ctl_place_text(const ctl_member& member) {
    return "line " + std::to_string(member.line) + ", column " + std::to_string(member.column);
}
