/// Running every test in a process of its own, when more than one was asked for.
#ifndef SUPPORT_RUN_SEPARATELY_H
#define SUPPORT_RUN_SEPARATELY_H

#include <optional>

/// Runs each of the wished tests by calling this program again for it, shows what the failed ones printed, and returns
/// the exit status. Nothing when at most one test was wished, which the caller runs itself.
std::optional<int> run_separately(char** argv);

#endif
