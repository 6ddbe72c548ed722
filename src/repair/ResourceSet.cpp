// All resources of a job, verified or repaired in parallel slices.
#include "repair/ResourceSet.h"

#include "repair/Processor.h"
#include "repair/WorkSlices.h"

#include <algorithm>
#include <iterator>

namespace quelm {

ResourceSet& ResourceSet::shared() {
    static ResourceSet manager;
    return manager;
}

void ResourceSet::appendResource(FileResource resource) {
    resources_.push_back(std::move(resource));
}

namespace {

// Large enough for sequential reads at disk speed, small enough to stay in the cache while the
// checksum runs over it.
constexpr std::size_t kContentBufferSize = std::size_t{256} << 10;

} // namespace

template <class Operation>
void ResourceSet::pass(const char* fatalMessage, RepairMode jobType, Operation operation) {
    total_ = static_cast<std::int64_t>(resources_.size());
    const auto pathAt = [this](std::size_t i) {
        return resources_[i].volumePath();
    };
    // A walker's folders, and the item that repair or the content check opens.
    const std::int64_t threads = boundedWorkItems(Processor::shared().maxthread(),
                                                  folderDepth(resources_.size(), pathAt) + 2);
    runWorkSlices(
        resources_.size(), threads, fatalMessage, [&](std::size_t begin, std::size_t end) {
            VolumeWalker walker(root_);
            std::vector<char> buffer(checksContent_ ? kContentBufferSize : 0);
            for (const std::size_t position :
                 folderOrder(end - begin, [&](std::size_t i) { return pathAt(begin + i); })) {
                const FileResource& resource = resources_[begin + position];
                auto found = operation(resource, walker);
                if (checksContent_)
                    std::ranges::move(resource.verifyContent(walker, buffer, jobType),
                                      std::back_inserter(found));
                SerialWorkingQueue::shared().sync([&] {
                    for (auto& result : found)
                        results_.push_back(std::move(result));
                    ++counter_;
                    if (delegate_)
                        delegate_->fileSystemResourceManagerDidProcess(counter_, total_);
                });
            }
        });
    resources_.clear();
    counter_ = 0;
}

void ResourceSet::verify() {
    pass("QVFileSystemResourceManager::verify() FatalError: the maximum number of threads is 0.",
         RepairMode::verifyPermissions,
         [](const FileResource& resource, VolumeWalker&) { return resource.verify(); });
}

void ResourceSet::repair() {
    pass("QVFileSystemResourceManager::repair() FatalError: the maximum number of threads is 0.",
         RepairMode::repairPermissions, [](const FileResource& resource, VolumeWalker& walker) {
             return resource.repair(walker);
         });
}

std::vector<RepairResult> ResourceSet::takeResults() {
    return std::exchange(results_, {});
}

void ResourceSet::reset() {
    delegate_ = nullptr;
    root_.reset();
    resources_.clear();
    results_.clear();
    total_ = 0;
    counter_ = 0;
    checksContent_ = false;
}

} // namespace quelm
