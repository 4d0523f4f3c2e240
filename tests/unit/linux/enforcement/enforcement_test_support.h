/// An agent's comparison whose behaviour the test chooses.
#ifndef UNIT_LINUX_ENFORCEMENT_ENFORCEMENT_TEST_SUPPORT_H
#define UNIT_LINUX_ENFORCEMENT_ENFORCEMENT_TEST_SUPPORT_H

#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "linux/enforcement/enforcement_internal.h"

namespace enforcement_test {

struct comparison_script {
    std::vector<std::pair<std::string, std::string>> found;
    int remaining = 0;
    std::function<void()> meanwhile;
    std::vector<uint32_t> runs;  ///< the argument of each run
};

inline int compare(uint32_t repair, enforcement_difference_sink sink, void* sink_context, void* context) {
    auto& script = *static_cast<comparison_script*>(context);
    script.runs.push_back(repair);
    for (const auto& [subject, text] : script.found) {
        sink(subject.c_str(), text.c_str(), sink_context);
    }
    if (script.meanwhile) {
        script.meanwhile();
    }
    return script.remaining;
}

inline platform_status register_comparison(comparison_script& script) {
    const enforcement_callbacks callbacks = {compare};
    return enforcement_register(&callbacks, &script);
}

inline std::vector<std::string> subjects(const std::vector<enforcement_entry>& entries) {
    std::vector<std::string> names;
    for (const enforcement_entry& entry : entries) {
        names.push_back(entry.subject);
    }
    return names;
}

/// Clears everything at the end of its scope.
struct reset_at_end {
    reset_at_end() = default;
    ~reset_at_end() { enforcement_reset(); }
    reset_at_end(const reset_at_end&) = delete;
    reset_at_end& operator=(const reset_at_end&) = delete;
};

}  // namespace enforcement_test

#endif
