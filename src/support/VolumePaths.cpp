// Paths beneath a volume's root folder, reached without following any symbolic link.
#include "support/VolumePaths.h"

#include "support/PathValidation.h"

#include <algorithm>
#include <cerrno>

namespace quelm {
namespace {

/// The components of path after its leading "/", or nothing if one of them is not plain.
std::optional<std::vector<std::string_view>> componentsOf(std::string_view path) {
    if (path.size() < 2 || path.front() != '/')
        return std::nullopt;
    std::vector<std::string_view> components;
    for (std::size_t start = 1;;) {
        const auto slash = path.find('/', start);
        const auto name = path.substr(start, slash - start);
        if (!isPlainFileName(name))
            return std::nullopt;
        components.push_back(name);
        if (slash == std::string_view::npos)
            return components;
        start = slash + 1;
    }
}

} // namespace

std::shared_ptr<const VolumeRoot> VolumeRoot::open(const std::string& mountPoint) {
    UniqueFd fd = openFolder(mountPoint, FolderUse::reach);
    if (!fd)
        return nullptr;
    return std::shared_ptr<const VolumeRoot>(new VolumeRoot(std::move(fd), UniqueFd(), {}));
}

std::shared_ptr<const VolumeRoot> VolumeRoot::open(const std::string& mountPoint,
                                                   const std::string& dataMountPoint,
                                                   std::vector<Firmlink> firmlinks) {
    UniqueFd fd = openFolder(mountPoint, FolderUse::reach);
    UniqueFd dataFd = openFolder(dataMountPoint, FolderUse::reach);
    if (!fd || !dataFd)
        return nullptr;
    return std::shared_ptr<const VolumeRoot>(
        new VolumeRoot(std::move(fd), std::move(dataFd), std::move(firmlinks)));
}

std::pair<int, std::string_view> VolumeRoot::resolve(std::string_view path, std::string& scratch,
                                                     bool onData) const {
    if (!dataFd_)
        return {fd_.get(), path};
    if (onData)
        return {dataFd_.get(), path};
    auto mapped = dataPathOf(firmlinks_, path);
    if (!mapped)
        return {fd_.get(), path};
    scratch = std::move(*mapped);
    return {dataFd_.get(), scratch};
}

std::optional<std::pair<int, std::string_view>> VolumeWalker::parentOf(std::string_view asked,
                                                                       bool onData) {
    failure_ = 0;
    const auto [rootFd, path] = root_->resolve(asked, scratch_, onData);
    if (rootFd != openFrom_) {
        open_.clear();
        openFrom_ = rootFd;
    }
    const auto components = componentsOf(path);
    if (!components)
        return std::nullopt;
    const std::size_t folders = components->size() - 1;
    std::size_t shared = 0;
    while (shared < open_.size() && shared < folders &&
           open_[shared].first == (*components)[shared])
        ++shared;
    open_.resize(shared);
    for (std::size_t i = shared; i < folders; ++i) {
        const int parent = open_.empty() ? rootFd : open_.back().second.get();
        std::string name((*components)[i]);
        UniqueFd fd = openFolderAt(parent, name, FolderUse::reach);
        if (!fd) {
            // A link or a file where a folder should be gives ENOTDIR: the path is missing.
            failure_ = errno == ENOENT || errno == ENOTDIR ? 0 : errno;
            return std::nullopt;
        }
        open_.emplace_back(std::move(name), std::move(fd));
    }
    return std::pair{open_.empty() ? rootFd : open_.back().second.get(), components->back()};
}

namespace {

std::string_view folderOf(std::string_view path) {
    const auto slash = path.rfind('/');
    return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
}

/// Name order with "/" before every other byte, so that a folder's subtree follows it at once.
bool walksBefore(std::string_view left, std::string_view right) {
    const auto rank = [](char c) {
        return c == '/' ? 0 : static_cast<unsigned char>(c) + 1;
    };
    return std::lexicographical_compare(left.begin(), left.end(), right.begin(), right.end(),
                                        [&](char a, char b) { return rank(a) < rank(b); });
}

} // namespace

std::size_t folderDepth(std::size_t count,
                        const std::function<std::string_view(std::size_t)>& pathOf) {
    std::size_t depth = 0;
    for (std::size_t i = 0; i < count; ++i)
        depth = std::max<std::size_t>(depth,
                                      static_cast<std::size_t>(std::ranges::count(pathOf(i), '/')));
    return depth;
}

std::vector<std::size_t> folderOrder(std::size_t count,
                                     const std::function<std::string_view(std::size_t)>& pathOf) {
    // Grouping by a hash of the folder sorts integers, not texts; a rare collision only puts
    // two folders in one group, which costs a few opens and changes no outcome.
    struct Item {
        std::size_t hash;
        std::size_t position;
    };
    std::vector<Item> items(count);
    for (std::size_t i = 0; i < count; ++i)
        items[i] = {std::hash<std::string_view>{}(folderOf(pathOf(i))), i};
    std::ranges::sort(items, [](const Item& a, const Item& b) {
        return a.hash != b.hash ? a.hash < b.hash : a.position < b.position;
    });
    struct Group {
        std::string_view folder;
        std::size_t begin;
        std::size_t end;
    };
    std::vector<Group> groups;
    for (std::size_t begin = 0, end = 0; begin < count; begin = end) {
        while (end < count && items[end].hash == items[begin].hash)
            ++end;
        groups.push_back({folderOf(pathOf(items[begin].position)), begin, end});
    }
    std::ranges::sort(groups, walksBefore, &Group::folder);
    std::vector<std::size_t> order;
    order.reserve(count);
    for (const Group& group : groups)
        for (std::size_t i = group.begin; i < group.end; ++i)
            order.push_back(items[i].position);
    return order;
}

} // namespace quelm
