/// Has nft check commands without executing them.
#ifndef LINUX_ACCESS_LISTS_RULE_CHECK_H
#define LINUX_ACCESS_LISTS_RULE_CHECK_H

#include <chrono>
#include <string>
#include <string_view>
#include <vector>

enum class rule_verdict : uint8_t { loadable, rejected, unknown };

struct rule_check {
    rule_verdict verdict = rule_verdict::unknown;
    std::string words;  ///< nft's complaints, or why there is no result; at most 64 KiB
};

/// Checks every text with its own `nft -c`, all of them at the same time, and waits for at most `limit`. Each runs in a new
/// network namespace, which ends with it, and is killed if this process ends. The results have the order of the texts.
/// May throw std::bad_alloc.
std::vector<rule_check> check_rules(const std::vector<std::string_view>& texts, std::chrono::milliseconds limit);

/// A complaint about one line of a text.
struct rule_complaint {
    size_t line;          ///< from 1; 0 if it is about no line in particular
    std::string message;  ///< without nft's "Error: "
};

/// The complaints as nft words them.
std::vector<rule_complaint> rule_complaints(std::string_view words);

#endif
