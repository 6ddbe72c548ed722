// The split of a job's items into consecutive slices, one work item each, and the serial
// queue that guards the engine's shared state.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string_view>
#include <utility>
#include <vector>

namespace quelm {

/// [begin, end) of each of threads slices of count items: slice i covers S*i to S*(i+1)-1 with
/// S = count / threads, and the last slice also takes the remainder. threads must not be 0.
std::vector<std::pair<std::size_t, std::size_t>> workSlices(std::size_t count, std::size_t threads);

/// Runs work(begin, end) for every slice, each on its own thread, and returns when all are
/// done. A threads of 0 stops the process with fatalMessage, as a division by zero would.
void runWorkSlices(std::size_t count, std::int64_t threads, std::string_view fatalMessage,
                   const std::function<void(std::size_t, std::size_t)>& work);

/// Beyond this many work items a pass gains nothing: the items of one volume wait on the same
/// disk and the same serial queue, and every item holds a stack and a folder descriptor per
/// level of the tree, so more only brings the descriptor table closer to its limit.
inline constexpr std::int64_t kMaxWorkItems = 64;

/// The work items to run at once for a requested count: at most kMaxWorkItems, and no more
/// than the free descriptors allow at descriptorsPerItem each (yet at least 1). 0 stays 0.
std::int64_t boundedWorkItems(std::int64_t requested, std::size_t descriptorsPerItem);

/// Raises this process's soft limit on open descriptors to its hard limit.
void raiseDescriptorLimit();

/// The process-wide serial working queue: every change of the engine's shared arrays and
/// counters runs inside sync, one at a time.
class SerialWorkingQueue {
public:
    static SerialWorkingQueue& shared();

    template <class Work> decltype(auto) sync(Work&& work) {
        std::lock_guard lock(mutex_);
        return std::forward<Work>(work)();
    }

private:
    std::mutex mutex_;
};

} // namespace quelm
