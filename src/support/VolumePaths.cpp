// Paths beneath a volume's root folder, reached without following any symbolic link.
#include "support/VolumePaths.h"

#include <fcntl.h>
#include <unistd.h>

#if !defined(O_PATH)
#define O_PATH O_RDONLY
#endif

namespace quelm {
namespace {

bool isPlainName(std::string_view name) {
    return !name.empty() && name != "." && name != "..";
}

/// The components of path after its leading "/", or nothing if one of them is not plain.
std::optional<std::vector<std::string_view>> componentsOf(std::string_view path) {
    if (path.size() < 2 || path.front() != '/')
        return std::nullopt;
    std::vector<std::string_view> components;
    for (std::size_t start = 1;;) {
        const auto slash = path.find('/', start);
        const auto name = path.substr(start, slash - start);
        if (!isPlainName(name))
            return std::nullopt;
        components.push_back(name);
        if (slash == std::string_view::npos)
            return components;
        start = slash + 1;
    }
}

} // namespace

std::shared_ptr<const VolumeRoot> VolumeRoot::open(const std::string& mountPoint) {
    const int fd = ::open(mountPoint.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return nullptr;
    return std::shared_ptr<const VolumeRoot>(new VolumeRoot(fd));
}

VolumeRoot::~VolumeRoot() {
    ::close(fd_);
}

VolumeWalker::VolumeWalker(std::shared_ptr<const VolumeRoot> root) : root_(std::move(root)) {
}

VolumeWalker::~VolumeWalker() {
    popTo(0);
}

void VolumeWalker::popTo(std::size_t depth) {
    while (open_.size() > depth) {
        ::close(open_.back().second);
        open_.pop_back();
    }
}

std::optional<std::pair<int, std::string_view>> VolumeWalker::parentOf(std::string_view path) {
    const auto components = componentsOf(path);
    if (!components)
        return std::nullopt;
    const std::size_t folders = components->size() - 1;
    std::size_t shared = 0;
    while (shared < open_.size() && shared < folders &&
           open_[shared].first == (*components)[shared])
        ++shared;
    popTo(shared);
    for (std::size_t i = shared; i < folders; ++i) {
        const int parent = open_.empty() ? root_->fd() : open_.back().second;
        const std::string name((*components)[i]);
        const int fd =
            ::openat(parent, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (fd < 0)
            return std::nullopt;
        open_.emplace_back(name, fd);
    }
    return std::pair{open_.empty() ? root_->fd() : open_.back().second, components->back()};
}

} // namespace quelm
