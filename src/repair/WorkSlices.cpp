// The split of a job's items into consecutive slices, one work item each, and the serial
// queue that guards the engine's shared state.
#include "repair/WorkSlices.h"

#include "support/Log.h"

#include <algorithm>
#include <dirent.h>
#include <fcntl.h>
#include <limits>
#include <sys/resource.h>
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
    // std::thread, joined by hand: the libc++ of the fuzzing build has no std::jthread.
    std::vector<std::thread> group;
    for (const auto& [begin, end] : workSlices(count, static_cast<std::size_t>(threads)))
        group.emplace_back(work, begin, end);
    for (auto& thread : group)
        thread.join();
}

namespace {

// Left for what else the process opens while a pass runs: BOM files, the helper's channel, logs.
constexpr std::uint64_t kReservedDescriptors = 16;
// Descriptors above this are not counted one by one: with so many free, the budget is ample.
constexpr int kCountedDescriptors = 4096;

/// The descriptors open now: listed in /proc/self/fd, or where a rescue system has no /proc,
/// probed one by one below the limit (at most kCountedDescriptors).
std::uint64_t openDescriptors(rlim_t limit) {
    if (DIR* listing = ::opendir("/proc/self/fd")) {
        std::uint64_t open = 0;
        while (const dirent* entry = ::readdir(listing))
            open += entry->d_name[0] != '.' ? 1 : 0;
        ::closedir(listing);
        // The listing's own descriptor was among them.
        return open - 1;
    }
    const int counted = static_cast<int>(std::min<rlim_t>(limit, kCountedDescriptors));
    std::uint64_t open = 0;
    for (int fd = 0; fd < counted; ++fd)
        open += ::fcntl(fd, F_GETFD) != -1 ? 1 : 0;
    return open;
}

/// The soft limit minus the descriptors open now.
std::uint64_t freeDescriptors() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY)
        return std::numeric_limits<std::uint64_t>::max();
    const std::uint64_t open = openDescriptors(limit.rlim_cur);
    return limit.rlim_cur > open ? limit.rlim_cur - open : 0;
}

} // namespace

std::int64_t boundedWorkItems(std::int64_t requested, std::size_t descriptorsPerItem) {
    if (requested <= 0)
        return requested;
    const std::uint64_t free = freeDescriptors();
    const std::uint64_t budget =
        free > kReservedDescriptors
            ? (free - kReservedDescriptors) / std::max<std::size_t>(1, descriptorsPerItem)
            : 0;
    const auto allowed = static_cast<std::int64_t>(std::min<std::uint64_t>(budget, kMaxWorkItems));
    return std::clamp<std::int64_t>(requested, 1, std::max<std::int64_t>(allowed, 1));
}

void raiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

SerialWorkingQueue& SerialWorkingQueue::shared() {
    static SerialWorkingQueue queue;
    return queue;
}

} // namespace quelm
