/// Runs every test in its own process if a pattern selects them.
#ifndef SUPPORT_RUN_SEPARATELY_H
#define SUPPORT_RUN_SEPARATELY_H

#include <optional>

/// Runs each selected test in a child process, prints the output of failed ones, and returns the exit status. Returns
/// nullopt in such a child, and if the filter is the name of one test: the caller runs the one that is selected then.
/// To be called before anything that a test could find changed. Of the tests, runs the part that GTEST_TOTAL_SHARDS and
/// GTEST_SHARD_INDEX define.
std::optional<int> run_separately();

#endif
