#include "platform/packet_filter.h"

#include <utility>

#include "fake_internal.h"

namespace fake_platform {
namespace {

std::function<packet_filter_finding(const packet_filter_table& table)> kernel;

}  // namespace

void set_packet_filter(std::function<packet_filter_finding(const packet_filter_table& table)> look) {
    kernel = std::move(look);
}

namespace internal {

void reset_packet_filter() {
    kernel = nullptr;
}

}  // namespace internal
}  // namespace fake_platform

using namespace fake_platform;

platform_status packet_filter_compare(const struct packet_filter_table* tables, size_t count,
                                      struct packet_filter_finding* findings) {
    const platform_status status = internal::enter("packet_filter_compare", {});
    for (size_t i = 0; status == PLATFORM_OK && i < count; i++) {
        findings[i] = kernel ? kernel(tables[i]) : packet_filter_finding{PACKET_FILTER_AS_WANTED, 0, 0};
    }
    return status;
}
