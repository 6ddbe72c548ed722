// The split of a job's items into consecutive slices, one work item each, and the serial
// queue that guards the engine's shared state.
#include "repair/WorkSlices.h"

#include "support/Log.h"

#include <thread>

namespace quelm {

std::vector<std::pair<std::size_t, std::size_t>> workSlices(std::size_t count,
                                                            std::size_t threads) {
    const std::size_t size = count / threads;
    std::vector<std::pair<std::size_t, std::size_t>> slices;
    slices.reserve(threads);
    for (std::size_t i = 0; i < threads; ++i)
        slices.emplace_back(size * i, i + 1 == threads ? count : size * (i + 1));
    return slices;
}

void runWorkSlices(std::size_t count, std::int64_t threads, std::string_view fatalMessage,
                   const std::function<void(std::size_t, std::size_t)>& work) {
    if (threads <= 0)
        fatalError(fatalMessage);
    std::vector<std::jthread> group;
    for (const auto& [begin, end] : workSlices(count, static_cast<std::size_t>(threads)))
        group.emplace_back(work, begin, end);
}

SerialWorkingQueue& SerialWorkingQueue::shared() {
    static SerialWorkingQueue queue;
    return queue;
}

} // namespace quelm
