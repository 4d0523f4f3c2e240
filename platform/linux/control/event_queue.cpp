#include "linux/control/event_queue.h"

#include <algorithm>
#include <set>
#include <string_view>

namespace {

void keep_the_latest(control_event_queue& queue) {
    std::set<std::string_view> subjects;
    std::deque<std::shared_ptr<const control_event>> latest;
    size_t size = 0;
    for (auto event = queue.events.rbegin(); event != queue.events.rend(); ++event) {
        if (subjects.insert((*event)->subject).second) {
            latest.push_front(*event);
            size += control_event_size(**event);
        }
    }
    queue.coalesced += queue.events.size() - latest.size();
    queue.events = std::move(latest);
    queue.size = size;
}

}  // namespace

size_t control_event_size(const control_event& event) {
    return sizeof event + event.subject.size() + event.text.size();
}

bool control_event_add(control_event_queue& queue, const std::shared_ptr<const control_event>& event, size_t size_max) {
    queue.events.push_back(event);
    queue.size += control_event_size(*event);
    if (queue.size > size_max) {
        keep_the_latest(queue);
    }
    return queue.size <= size_max;
}

std::string control_event_take(control_event_queue& queue, size_t frame_size) {
    std::string frame = R"({"data":[)";
    do {
        frame += queue.events.front()->text + ',';
        queue.size -= control_event_size(*queue.events.front());
        queue.events.pop_front();
    } while (!queue.events.empty() && frame.size() + queue.events.front()->text.size() < frame_size);
    frame.back() = ']';
    if (queue.coalesced > 0) {
        frame += R"(,"coalesced":)" + std::to_string(queue.coalesced);
    }
    queue.coalesced = 0;
    return frame + '}';
}
