// The receipts of the target volume, their bills of materials, and the resources made of them.
#include "repair/Receipts.h"

#include "repair/Processor.h"
#include "repair/ResourceSet.h"
#include "repair/WorkSlices.h"
#include "support/FolderTrees.h"
#include "support/Log.h"
#include "support/PropertyList.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

// Receipt folders are shallow; a deeper tree is not a receipt folder.
constexpr int kMaxReceiptDepth = 16;

/// Called with each readable receipt's path relative to the receipt folder
/// ("Essentials/com.apple.pkg.Essentials.plist") and its bytes, as the walk finds it.
using ReceiptFound = std::function<void(const std::string& path, std::string_view bytes)>;

std::string_view extensionOf(std::string_view name) {
    const auto dot = name.rfind('.');
    return dot == std::string_view::npos || dot == 0 ? std::string_view() : name.substr(dot + 1);
}

bool isRegularFileAt(int folder, const std::string& name) {
    struct stat info {};
    return ::fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(info.st_mode);
}

/// A missing item, or a link where a folder was, is no receipt; anything else that fails (no
/// descriptor left, an I/O error) hides receipts and must be reported.
bool isMissing(int error) {
    return error == ENOENT || error == ENOTDIR || error == ELOOP;
}

/// Every "plist" file below folder, depth first in name order, never through a link. Receipts,
/// and folders that may hold some, that exist but cannot be read go to unreadable.
void findReceipts(int folder, const std::string& folderPath, int depth, const ReceiptFound& found,
                  std::vector<std::string>& unreadable) {
    auto names = entryNamesAt(folder);
    if (!names) {
        unreadable.push_back(folderPath);
        return;
    }
    std::ranges::sort(*names);
    for (const auto& name : *names) {
        struct stat info {};
        if (::fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
            if (!isMissing(errno))
                unreadable.push_back(folderPath + name);
        } else if (S_ISDIR(info.st_mode) && depth < kMaxReceiptDepth) {
            const UniqueFd child(
                ::openat(folder, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (child)
                findReceipts(child.get(), folderPath + name + "/", depth + 1, found, unreadable);
            else if (!isMissing(errno))
                unreadable.push_back(folderPath + name + "/");
        } else if (S_ISREG(info.st_mode) && extensionOf(name) == "plist") {
            const auto bytes = readFileAt(folder, name, kMaxPlistFileSize);
            if (bytes)
                found(folderPath + name, *bytes);
            else
                unreadable.push_back(folderPath + name);
        }
    }
}

/// The BOM beside a receipt: its name with "bom" for "plist".
std::string bomPathOf(std::string_view receiptPath) {
    return std::string(receiptPath.substr(0, receiptPath.size() - 5)) + "bom";
}

/// Reads the BOM at volumePath only when it is a regular file reached without following a
/// link; a special file is never opened, since opening one can block or act on a device.
void parseBom(BomFile& parser, VolumeWalker& walker, std::string_view volumePath) {
    const auto parent = walker.parentOf(volumePath);
    if (!parent)
        return;
    const std::string name(parent->second);
    if (!isRegularFileAt(parent->first, name))
        return;
    const UniqueFd bom(::openat(parent->first, name.c_str(),
                                O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (bom)
        parser.parseFile(bom.get());
}

} // namespace

Receipts& Receipts::shared() {
    static Receipts manager;
    return manager;
}

std::vector<std::string> Receipts::receiptFolders() const {
    std::vector<std::string> folders{std::string(systemReceiptDirectoryPathString)};
    if (targetVolume_->dataMountPoint()) {
        folders.emplace_back("/Library/Apple/System/Library/Receipts/");
        folders.emplace_back("/private/var/db/receipts/");
    }
    return folders;
}

std::string Receipts::hostPath(std::string_view volumePath) const {
    return targetVolume_->placeOf(volumePath).hostPath();
}

void Receipts::setup() {
    if (!targetVolume_)
        fatalError("QVPackageManager::setup() FatalError: no target volume.");
    const auto& volume = *targetVolume_;
    const auto root =
        volume.dataMountPoint()
            ? VolumeRoot::open(volume.mountPoint(), *volume.dataMountPoint(), volume.firmlinks())
            : VolumeRoot::open(volume.mountPoint());
    if (!root) {
        markUnreadable(hostPath(systemReceiptDirectoryPathString));
        return;
    }
    ResourceSet::shared().setVolumeRoot(root);
    for (const auto& folder : receiptFolders())
        findPackages(root, folder);
    readBoms(root);
    for (const auto& parser : parsers_)
        makeResources(*parser, root);
}

void Receipts::findPackages(const std::shared_ptr<const VolumeRoot>& root,
                            const std::string& folder) {
    VolumeWalker walker(root);
    const auto parent = walker.parentOf(std::string_view(folder).substr(0, folder.size() - 1));
    const UniqueFd receipts(parent ? ::openat(parent->first, std::string(parent->second).c_str(),
                                              O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC)
                                   : -1);
    if (!receipts) {
        if (parent ? !isMissing(errno) : walker.failure() != 0)
            markUnreadable(hostPath(folder));
        return;
    }
    std::vector<std::string> unreadable;
    findReceipts(
        receipts.get(), "", 0,
        [&](const std::string& path, std::string_view bytes) { addPackage(folder, path, bytes); },
        unreadable);
    for (const auto& path : unreadable)
        markUnreadable(hostPath(folder + (path.ends_with(".plist") ? bomPathOf(path) : path)));
}

void Receipts::addPackage(const std::string& folder, const std::string& receiptPath,
                          std::string_view bytes) {
    const auto bomPath = bomPathOf(receiptPath);
    const auto receipt = parsePlist(bytes);
    if (!receipt) {
        // A damaged receipt may be a standard one: its package's paths go unchecked.
        markUnreadable(hostPath(folder + bomPath));
        return;
    }
    auto package = StandardPackage::initWithReceipt(*receipt, hostPath(folder + receiptPath));
    if (!package)
        return;
    bomVolumePaths_.push_back(folder + bomPath);
    standardPackages_.push_back(std::move(*package));
}

void Receipts::markUnreadable(const std::string& path) {
    logLine("QVPackageManager::Error: Unable to read " + path);
    unreadableBomPaths_.push_back(path);
}

void Receipts::readBoms(const std::shared_ptr<const VolumeRoot>& root) {
    VolumeWalker walker(root);
    for (std::size_t i = 0; i < standardPackages_.size(); ++i) {
        auto parser = BomFile::initWithFileName(standardPackages_[i].bomPathString());
        parseBom(*parser, walker, bomVolumePaths_[i]);
        // A BOM that lists nothing leaves its package's paths unchecked: the package is
        // reported, and the other packages are checked all the same.
        if (parser->entries().empty()) {
            markUnreadable(parser->fileName());
            continue;
        }
        total_ += static_cast<std::int64_t>(parser->entries().size());
        parsers_.push_back(std::move(parser));
    }
}

void Receipts::dropRecord() {
    SerialWorkingQueue::shared().sync([this] { --total_; });
}

namespace {

/// A BOM path without the "." of the volume root it begins with; empty for the root itself.
std::string_view volumePathOf(const BomEntry& entry) {
    return entry.path.empty() ? entry.path : entry.path.substr(1);
}

/// What the entry says of a regular file's content, when it says anything.
std::optional<ContentDigest> contentOf(const BomEntry& entry) {
    if (!entry.hasChecksum || !S_ISREG(entry.mode))
        return std::nullopt;
    return ContentDigest{entry.size, entry.checksum};
}

} // namespace

void Receipts::makeResources(const BomFile& parser, const std::shared_ptr<const VolumeRoot>& root) {
    const auto entries = parser.entries();
    const auto pathAt = [entries](std::size_t i) {
        return volumePathOf(entries[i]);
    };
    const auto count = static_cast<std::int64_t>(entries.size());
    // One walker per work item keeps a descriptor per folder level open.
    const std::int64_t threads = boundedWorkItems(std::min(Processor::shared().maxthread(), count),
                                                  folderDepth(entries.size(), pathAt) + 1);
    const std::string_view fatalMessage =
        "QVPackageManager::setup() FatalError: the maximum number of threads is 0.";
    const auto& volume = *targetVolume_;
    // A path that the firmlinks lead to the data volume is shown, and later reached, where it
    // lies there. A sealed system volume is left alone: macOS checks its seal itself.
    const auto makeResource = [&](VolumeWalker& walker, const BomEntry& entry,
                                  std::string_view volumePath) -> std::optional<FileResource> {
        const auto onData =
            volume.dataMountPoint() ? dataPathOf(volume.firmlinks(), volumePath) : std::nullopt;
        if (!onData && volume.isSealed())
            return std::nullopt;
        return FileResource::init(walker, onData ? *volume.dataMountPoint() : volume.mountPoint(),
                                  onData ? std::string_view(*onData) : volumePath, entry.uid,
                                  entry.gid, permissionsFromMode(entry.mode), contentOf(entry),
                                  onData.has_value());
    };
    runWorkSlices(entries.size(), threads, fatalMessage, [&](std::size_t begin, std::size_t end) {
        VolumeWalker walker(root);
        const auto order =
            folderOrder(end - begin, [&](std::size_t i) { return pathAt(begin + i); });
        for (const std::size_t position : order) {
            const auto& entry = entries[begin + position];
            // The volume root itself is no resource.
            const std::string_view volumePath = volumePathOf(entry);
            auto resource =
                volumePath.empty() ? std::nullopt : makeResource(walker, entry, volumePath);
            if (!resource) {
                dropRecord();
                continue;
            }
            SerialWorkingQueue::shared().sync([&] {
                ResourceSet::shared().appendResource(std::move(*resource));
                ++counter_;
                if (delegate_)
                    delegate_->packageManagerDidMakeResource(counter_, total_);
            });
        }
    });
}

void Receipts::reset() {
    delegate_ = nullptr;
    targetVolume_.reset();
    standardPackages_.clear();
    bomVolumePaths_.clear();
    unreadableBomPaths_.clear();
    parsers_.clear();
    total_ = 0;
    counter_ = 0;
}

} // namespace quelm
