#include "core/trace_table.h"

#include <algorithm>
#include <array>

#include "acl/trace_points.h"
#include "appliers/trace_points.h"
#include "config_files/trace_points.h"
#include "core/trace_points.h"
#include "fips/trace_points.h"
#include "host/trace_points.h"
#include "oper/trace_points.h"
#include "reconcile/trace_points.h"
#include "vrf/trace_points.h"

namespace {

#define ALL_TRACE_POINTS(ERROR, EVENT)      \
    CORE_TRACE_POINTS(ERROR, EVENT)         \
    CONFIG_FILES_TRACE_POINTS(ERROR, EVENT) \
    VRF_TRACE_POINTS(ERROR, EVENT)          \
    APPLIERS_TRACE_POINTS(ERROR, EVENT)     \
    FIPS_TRACE_POINTS(ERROR, EVENT)         \
    ACL_TRACE_POINTS(ERROR, EVENT)          \
    HOST_TRACE_POINTS(ERROR, EVENT)         \
    OPER_TRACE_POINTS(ERROR, EVENT)         \
    RECONCILE_TRACE_POINTS(ERROR, EVENT)

#define TRACE_ROW(code, module, name, meaning, ...) {code, #module "." #name, meaning, {__VA_ARGS__}},
#define TRACE_CODE(code, ...) code,
#define NOTHING(...)

constexpr trace_point error_points[] = {ALL_TRACE_POINTS(TRACE_ROW, NOTHING)};
constexpr trace_point event_rows[] = {ALL_TRACE_POINTS(NOTHING, TRACE_ROW)
#define SETTING(path, verifier, applier, code, name, meaning, ...) \
    TRACE_ROW(code, appliers, name, meaning, "event", "value")
#include "config_files/configuration.def"
};

template <size_t Size>
constexpr std::array<trace_point, Size> by_code(const trace_point (&rows)[Size]) {
    std::array<trace_point, Size> points = std::to_array(rows);
    std::sort(points.begin(), points.end(), [](const auto& one, const auto& other) { return one.code < other.code; });
    return points;
}

constexpr auto event_points = by_code(event_rows);

constexpr bool codes_are_unique() {
    std::array codes = {ALL_TRACE_POINTS(TRACE_CODE, TRACE_CODE)
#define SETTING(path, verifier, applier, code, ...) code,
#include "config_files/configuration.def"
    };
    std::sort(codes.begin(), codes.end());
    return std::adjacent_find(codes.begin(), codes.end()) == codes.end();
}

static_assert(codes_are_unique(), "two trace points have the same code");

}  // namespace

const trace_table agent_trace_table = {error_points, event_points};
