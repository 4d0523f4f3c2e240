#include "core/upcalls.h"

#include <gtest/gtest.h>

#include "../agent_test.h"

namespace {

using upcalls_test = agent_test;

uint32_t publications;

void count_publication() {
    publications++;
}

TEST_F(upcalls_test, publishing_without_telemetry_does_nothing) {
    agent_upcalls = upcalls{};
    publications = 0;
    publish_telemetry();
    EXPECT_EQ(publications, 0u);
}

TEST_F(upcalls_test, publishing_calls_telemetry) {
    agent_upcalls = upcalls{};
    agent_upcalls.ocssh_telemetry_publish = count_publication;
    publications = 0;
    publish_telemetry();
    agent_upcalls = upcalls{};
    EXPECT_EQ(publications, 1u);
}

}  // namespace
