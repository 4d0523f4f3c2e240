/// Has nft judge commands without carrying them out.
#ifndef LINUX_ACCESS_LISTS_RULE_CHECK_H
#define LINUX_ACCESS_LISTS_RULE_CHECK_H

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

enum class rule_verdict : uint8_t { loadable, rejected, unknown };

struct rule_check {
    rule_verdict verdict = rule_verdict::unknown;
    std::string words;  ///< nft's complaints, or why there is no verdict; at most 64 KiB
};

/// Has every text checked by an `nft -c` of its own, all at the same time, and waits for them, at most `limit` in all. Each
/// runs in a new network namespace, which ends with it, as it ends with this process. The results have the order of the
/// texts. May throw std::bad_alloc.
std::vector<rule_check> check_rules(const std::vector<std::string_view>& texts, std::chrono::milliseconds limit);

/// A complaint about one line of a text.
struct rule_complaint {
    size_t line;          ///< from 1; 0 if it is about no line in particular
    std::string message;  ///< without nft's "Error: "
};

/// The complaints in nft's words.
std::vector<rule_complaint> rule_complaints(std::string_view words);

#endif
