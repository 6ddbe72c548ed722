// All resources of a job, verified or repaired in parallel slices.
#pragma once

#include "repair/FileResource.h"
#include "support/VolumePaths.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace quelm {

class ResourceSetDelegate {
public:
    virtual ~ResourceSetDelegate() = default;
    /// After each resource of a pass, on the serial working queue.
    virtual void fileSystemResourceManagerDidProcess(std::int64_t counter, std::int64_t total) = 0;
};

class ResourceSet {
public:
    static ResourceSet& shared();

    void setDelegate(ResourceSetDelegate* delegate) { delegate_ = delegate; }
    /// The volume that repair reaches its paths from.
    void setVolumeRoot(std::shared_ptr<const VolumeRoot> root) { root_ = std::move(root); }
    /// Called on the serial working queue.
    void appendResource(FileResource resource);
    /// Whether passes also compare each file's size and checksum with its receipt.
    void setChecksContent(bool checks) { checksContent_ = checks; }

    /// Passes over every resource in Processor maxthread slices; both empty the resources and the
    /// counter when done and keep results and total.
    void verify();
    void repair();

    std::int64_t total() const { return total_; }
    const std::vector<FileResource>& currentFileSystemResources() const { return resources_; }
    /// Hands the results over and forgets them, ready for the next job.
    std::vector<RepairResult> takeResults();
    /// Back to the state of a new process: between two jobs.
    void reset();

private:
    template <class Operation>
    void pass(const char* fatalMessage, RepairMode jobType, Operation operation);

    ResourceSetDelegate* delegate_ = nullptr;
    std::shared_ptr<const VolumeRoot> root_;
    std::vector<FileResource> resources_;
    std::vector<RepairResult> results_;
    std::int64_t total_ = 0;
    std::int64_t counter_ = 0;
    bool checksContent_ = false;
};

} // namespace quelm
