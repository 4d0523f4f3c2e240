/// Runs each test in its own process, unless only a single test is selected by name.
#ifndef SUPPORT_RUN_SEPARATELY_H
#define SUPPORT_RUN_SEPARATELY_H

#include <optional>

/// Runs each selected test in a child process, prints the output of those that fail, and returns the exit status.
/// Returns nullopt in such a child, and if the filter is the name of a single test: the caller then runs the selected
/// test. Must be called before anything that could affect a test. Runs only the share of the tests that
/// GTEST_TOTAL_SHARDS and GTEST_SHARD_INDEX define.
std::optional<int> run_separately();

#endif
