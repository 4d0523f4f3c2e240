/// Runs every test in its own process if more than one is selected.
#ifndef SUPPORT_RUN_SEPARATELY_H
#define SUPPORT_RUN_SEPARATELY_H

#include <optional>

/// Runs each selected test by executing this program again, prints the output of failed ones, and returns the exit
/// status. Returns nullopt if at most one test is selected; the caller runs it.
std::optional<int> run_separately(char** argv);

#endif
