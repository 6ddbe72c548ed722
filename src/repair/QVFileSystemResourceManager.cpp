// All resources of a job, verified or repaired in parallel slices.
#include "repair/QVFileSystemResourceManager.h"

#include "repair/QVCPU.h"
#include "repair/WorkSlices.h"

namespace quelm {

QVFileSystemResourceManager& QVFileSystemResourceManager::shared() {
    static QVFileSystemResourceManager manager;
    return manager;
}

void QVFileSystemResourceManager::appendResource(QVFileSystemResource resource) {
    resources_.push_back(std::move(resource));
}

template <class Operation>
void QVFileSystemResourceManager::pass(const char* fatalMessage, Operation operation) {
    total_ = static_cast<std::int64_t>(resources_.size());
    runWorkSlices(resources_.size(), QVCPU::shared().maxthread(), fatalMessage,
                  [&](std::size_t begin, std::size_t end) {
                      VolumeWalker walker(root_);
                      for (std::size_t i = begin; i < end; ++i) {
                          auto found = operation(resources_[i], walker);
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

void QVFileSystemResourceManager::verify() {
    pass("QVFileSystemResourceManager::verify() FatalError: the maximum number of threads is 0.",
         [](const QVFileSystemResource& resource, VolumeWalker&) { return resource.verify(); });
}

void QVFileSystemResourceManager::repair() {
    pass("QVFileSystemResourceManager::repair() FatalError: the maximum number of threads is 0.",
         [](const QVFileSystemResource& resource, VolumeWalker& walker) {
             return resource.repair(walker);
         });
}

std::vector<QVRepairPermissionsResult> QVFileSystemResourceManager::takeResults() {
    return std::exchange(results_, {});
}

void QVFileSystemResourceManager::reset() {
    delegate_ = nullptr;
    root_.reset();
    resources_.clear();
    results_.clear();
    total_ = 0;
    counter_ = 0;
}

} // namespace quelm
