// Paths beneath a volume's root folder, reached without following any symbolic link.
#pragma once

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
    ~VolumeRoot();
    VolumeRoot(const VolumeRoot&) = delete;
    VolumeRoot& operator=(const VolumeRoot&) = delete;

    int fd() const { return fd_; }

private:
    explicit VolumeRoot(int fd) : fd_(fd) {}
    int fd_;
};

/// The folder holding a path's last component, opened from the volume root one component at a
/// time with O_NOFOLLOW. Keeps the folders of the previous path open, so that walking paths in
/// tree order costs one open per new folder. One walker per thread.
class VolumeWalker {
public:
    explicit VolumeWalker(std::shared_ptr<const VolumeRoot> root);
    ~VolumeWalker();
    VolumeWalker(const VolumeWalker&) = delete;
    VolumeWalker& operator=(const VolumeWalker&) = delete;

    /// For "/System/Library/Kernels": the folder /System/Library and the name "Kernels".
    /// Nothing when the path does not begin with "/", holds an empty, "." or ".." component,
    /// passes through a link or a missing folder: such a path would leave the volume or does
    /// not exist, and counts as missing. The folder stays valid until the next call.
    std::optional<std::pair<int, std::string_view>> parentOf(std::string_view path);

private:
    void popTo(std::size_t depth);

    std::shared_ptr<const VolumeRoot> root_;
    std::vector<std::pair<std::string, int>> open_;
};

} // namespace quelm
