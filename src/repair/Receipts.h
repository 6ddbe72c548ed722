// The receipts of the target volume, their bills of materials, and the resources made of them.
#pragma once

#include "repair/BomReader.h"
#include "repair/Package.h"
#include "support/VolumePaths.h"
#include "volumes/Volume.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace quelm {

class ReceiptsDelegate {
public:
    virtual ~ReceiptsDelegate() = default;
    /// After each resource handed to the resource manager, on the serial working queue.
    virtual void packageManagerDidMakeResource(std::int64_t counter, std::int64_t total) = 0;
};

class Receipts {
public:
    static constexpr std::string_view systemReceiptDirectoryPathString =
        "/System/Library/Receipts/";

    static Receipts& shared();

    void setTargetVolume(Volume volume) { targetVolume_ = std::move(volume); }
    void setDelegate(ReceiptsDelegate* delegate) { delegate_ = delegate; }

    /// Finds the standard packages, reads their BOMs and hands every listed path that exists on
    /// the volume, and not on a sealed system volume, to the resource manager. Returns when all
    /// are handed over. A package whose BOM cannot be read, or lists nothing, is skipped and its
    /// BOM listed as unreadable; so is a receipt that cannot be read, and a receipt folder that
    /// cannot be listed is listed itself.
    void setup();

    const std::vector<StandardPackage>& standardPackages() const { return standardPackages_; }
    /// The BOM paths, as bomPathString gives them, of the packages that were skipped, and the
    /// receipt folders (ending in "/") that could not be listed.
    const std::vector<std::string>& unreadableBomPaths() const { return unreadableBomPaths_; }
    std::int64_t total() const { return total_; }
    std::int64_t counter() const { return counter_; }
    /// Back to the state of a new process: between two jobs.
    void reset();

private:
    /// The receipt folders of the volume ("/System/Library/Receipts/"; on a joined system and
    /// data volume also those of the data volume), as paths of the volume.
    std::vector<std::string> receiptFolders() const;
    /// A path of the volume as the host reaches it: under the mount point of its half.
    std::string hostPath(std::string_view volumePath) const;
    void findPackages(const std::shared_ptr<const VolumeRoot>& root, const std::string& folder);
    /// Logs and lists a receipt, BOM or receipt folder that exists but could not be read.
    void markUnreadable(const std::string& path);
    void addPackage(const std::string& folder, const std::string& receiptPath,
                    std::string_view bytes);
    void readBoms(const std::shared_ptr<const VolumeRoot>& root);
    void makeResources(const BomFile& parser, const std::shared_ptr<const VolumeRoot>& root);
    void dropRecord();

    ReceiptsDelegate* delegate_ = nullptr;
    std::optional<Volume> targetVolume_;
    std::vector<StandardPackage> standardPackages_;
    /// Per package: its BOM's path below the volume root, which is where it is read from.
    std::vector<std::string> bomVolumePaths_;
    /// One per package whose BOM lists something, in package order.
    std::vector<std::unique_ptr<BomFile>> parsers_;
    std::vector<std::string> unreadableBomPaths_;
    std::int64_t total_ = 0;
    std::int64_t counter_ = 0;
};

} // namespace quelm
