// Paths beneath a volume's root folder, reached without following any symbolic link.
#pragma once

#include "support/Firmlinks.h"
#include "support/FolderTrees.h"

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quelm {

/// An open handle on a volume's root folder; everything verify and repair touch is reached
/// from it, so nothing outside the volume is ever read or changed.
class VolumeRoot {
public:
    /// Nothing when the folder cannot be opened.
    static std::shared_ptr<const VolumeRoot> open(const std::string& mountPoint);
    /// A system volume joined to its data volume: the paths that the firmlinks hold are reached
    /// from the data volume's root. Nothing when either folder cannot be opened.
    static std::shared_ptr<const VolumeRoot> open(const std::string& mountPoint,
                                                  const std::string& dataMountPoint,
                                                  std::vector<Firmlink> firmlinks);
    int fd() const { return fd_.get(); }
    /// The root that holds path and the path beneath it; the path is written to scratch when it
    /// lies on the data volume, which the answer then points into. A path already on the data
    /// volume (onData) is taken from there as it is.
    std::pair<int, std::string_view> resolve(std::string_view path, std::string& scratch,
                                             bool onData = false) const;

private:
    VolumeRoot(UniqueFd fd, UniqueFd dataFd, std::vector<Firmlink> firmlinks)
        : fd_(std::move(fd)), dataFd_(std::move(dataFd)), firmlinks_(std::move(firmlinks)) {}
    UniqueFd fd_;
    UniqueFd dataFd_;
    std::vector<Firmlink> firmlinks_;
};

/// The folder holding a path's last component, opened from the volume root one component at a
/// time by openFolderAt, never through a link. Keeps the folders of the previous path open, so that
/// walking paths in tree order costs one open per new folder. One walker per thread.
class VolumeWalker {
public:
    explicit VolumeWalker(std::shared_ptr<const VolumeRoot> root) : root_(std::move(root)) {}

    /// For "/System/Library/Kernels": the folder /System/Library and the name "Kernels".
    /// Nothing when the path does not begin with "/", holds an empty, "." or ".." component,
    /// passes through a link or a missing folder: such a path would leave the volume or does
    /// not exist, and counts as missing. The folder stays valid until the next call. With
    /// onData the path is one of the data volume's own, reached without the firmlinks.
    std::optional<std::pair<int, std::string_view>> parentOf(std::string_view path,
                                                             bool onData = false);
    /// Why the last parentOf found nothing: 0 when the path is missing, otherwise the error of
    /// a folder that exists but could not be opened (EMFILE, EACCES, EIO...).
    int failure() const { return failure_; }

private:
    std::shared_ptr<const VolumeRoot> root_;
    int openFrom_ = -1; ///< the root the open folders lie beneath
    std::vector<std::pair<std::string, UniqueFd>> open_;
    std::string scratch_;
    int failure_ = 0;
};

/// The number of folders above the deepest of count paths: what a walker keeps open at most.
std::size_t folderDepth(std::size_t count,
                        const std::function<std::string_view(std::size_t)>& pathOf);

/// The positions 0..count-1 of paths (pathOf gives each) in an order in which a VolumeWalker
/// opens each folder about once: grouped by folder, the folders in name order so that a
/// subtree stays together, and the paths of one folder in their given order. Receipts list a
/// folder's items together and gain little; paths in any other order gain most.
std::vector<std::size_t> folderOrder(std::size_t count,
                                     const std::function<std::string_view(std::size_t)>& pathOf);

} // namespace quelm
