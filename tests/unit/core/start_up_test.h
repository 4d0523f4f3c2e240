/// Helpers of the start-up tests.
#ifndef UNIT_CORE_START_UP_TEST_H
#define UNIT_CORE_START_UP_TEST_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "../agent_test.h"
#include "core/start_up.h"

inline std::vector<std::string> sorted_lines(const std::string& path) {
    std::vector<std::string> lines = file_lines(path);
    std::ranges::sort(lines);
    return lines;
}

#endif
