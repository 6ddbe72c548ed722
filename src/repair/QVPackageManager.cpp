// The receipts of the target volume, their bills of materials, and the resources made of them.
#include "repair/QVPackageManager.h"

#include "repair/QVCPU.h"
#include "repair/QVFileSystemResourceManager.h"
#include "repair/WorkSlices.h"
#include "support/FolderTrees.h"
#include "support/Log.h"

#include <algorithm>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

// Receipt folders are shallow; a deeper tree is not a receipt folder.
constexpr int kMaxReceiptDepth = 16;

struct Receipt {
    /// Both relative to the receipt folder: "Essentials/com.apple.pkg.Essentials.plist".
    std::string path;
    std::string bomPath;
};

std::vector<std::string> sortedNames(int folder) {
    std::vector<std::string> names;
    const int listing = ::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* dir = listing < 0 ? nullptr : ::fdopendir(listing);
    if (!dir) {
        if (listing >= 0)
            ::close(listing);
        return names;
    }
    while (const dirent* entry = ::readdir(dir)) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..")
            names.emplace_back(name);
    }
    ::closedir(dir);
    std::ranges::sort(names);
    return names;
}

std::string_view extensionOf(std::string_view name) {
    const auto dot = name.rfind('.');
    return dot == std::string_view::npos || dot == 0 ? std::string_view() : name.substr(dot + 1);
}

bool isRegularFileAt(int folder, const std::string& name) {
    struct stat info {};
    return ::fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(info.st_mode);
}

/// Every "plist" file below folder, depth first in name order, never through a link.
void findReceipts(int folder, const std::string& folderPath, int depth,
                  std::vector<Receipt>& receipts) {
    for (const auto& name : sortedNames(folder)) {
        struct stat info {};
        if (::fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        if (S_ISDIR(info.st_mode) && depth < kMaxReceiptDepth) {
            const UniqueFd child(
                ::openat(folder, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (child)
                findReceipts(child.get(), folderPath + name + "/", depth + 1, receipts);
        } else if (S_ISREG(info.st_mode) && extensionOf(name) == "plist") {
            const auto bom = name.substr(0, name.size() - 5) + "bom";
            receipts.push_back({folderPath + name, folderPath + bom});
        }
    }
}

/// Reads the BOM at volumePath only when it is a regular file reached without following a
/// link; a special file is never opened, since opening one can block or act on a device.
void parseBom(YRBomParserWrapper& parser, VolumeWalker& walker, std::string_view volumePath) {
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

QVPackageManager& QVPackageManager::shared() {
    static QVPackageManager manager;
    return manager;
}

std::string QVPackageManager::receiptDirectory() const {
    const auto& mountPoint = targetVolume_->mountPoint();
    return (mountPoint == "/" ? "" : mountPoint) + std::string(systemReceiptDirectoryPathString);
}

void QVPackageManager::setup() {
    if (!targetVolume_)
        fatalError("QVPackageManager::setup() FatalError: no target volume.");
    const auto root = VolumeRoot::open(targetVolume_->mountPoint());
    if (!root)
        return;
    QVFileSystemResourceManager::shared().setVolumeRoot(root);
    findPackages(root);
    readBoms(root);
    for (const auto& parser : parsers_)
        makeResources(*parser, root);
}

void QVPackageManager::findPackages(const std::shared_ptr<const VolumeRoot>& root) {
    VolumeWalker walker(root);
    const auto parent = walker.parentOf("/System/Library/Receipts");
    if (!parent)
        return;
    const UniqueFd receipts(::openat(parent->first, std::string(parent->second).c_str(),
                                     O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!receipts)
        return;
    std::vector<Receipt> found;
    findReceipts(receipts.get(), "", 0, found);
    for (const auto& receipt : found) {
        auto package = QVStandardPackage::initWithReceiptPath(receiptDirectory() + receipt.path);
        if (!package)
            continue;
        bomVolumePaths_.push_back(std::string(systemReceiptDirectoryPathString) + receipt.bomPath);
        standardPackages_.push_back(std::move(*package));
    }
}

void QVPackageManager::readBoms(const std::shared_ptr<const VolumeRoot>& root) {
    VolumeWalker walker(root);
    for (std::size_t i = 0; i < standardPackages_.size(); ++i) {
        auto parser = YRBomParserWrapper::initWithFileName(standardPackages_[i].bomPathString());
        parseBom(*parser, walker, bomVolumePaths_[i]);
        // A BOM that lists nothing leaves its package's paths unchecked: the package is
        // reported, and the other packages are checked all the same.
        if (parser->count() == 0) {
            unreadableBomPaths_.push_back(parser->fileName());
            continue;
        }
        total_ += parser->count();
        parsers_.push_back(std::move(parser));
    }
}

void QVPackageManager::dropRecord() {
    SerialWorkingQueue::shared().sync([this] { --total_; });
}

namespace {

/// A BOM path without the "." of the volume root it begins with; empty for the root itself.
std::string_view volumePathOf(const YRFileSystemResource& record) {
    return *record.path ? record.path + 1 : "";
}

/// What the record says of a regular file's content, when it says anything.
std::optional<QVContentDigest> contentOf(const YRFileSystemResource& record) {
    constexpr std::uint8_t fileType = 1;
    if (!record.hasChecksum || record.type != fileType || !S_ISREG(record.mode))
        return std::nullopt;
    return QVContentDigest{record.size, record.checksum};
}

} // namespace

void QVPackageManager::makeResources(const YRBomParserWrapper& parser,
                                     const std::shared_ptr<const VolumeRoot>& root) {
    const YRFileSystemResource* records = parser.results();
    const auto pathAt = [records](std::size_t i) {
        return volumePathOf(records[i]);
    };
    // One walker per work item keeps a descriptor per folder level open.
    const std::int64_t threads =
        boundedWorkItems(std::min<std::int64_t>(QVCPU::shared().maxthread(), parser.count()),
                         folderDepth(parser.count(), pathAt) + 1);
    const std::string_view fatalMessage =
        "QVPackageManager::setup() FatalError: the maximum number of threads is 0.";
    const auto& mountPoint = targetVolume_->mountPoint();
    runWorkSlices(parser.count(), threads, fatalMessage, [&](std::size_t begin, std::size_t end) {
        VolumeWalker walker(root);
        const auto order =
            folderOrder(end - begin, [&](std::size_t i) { return pathAt(begin + i); });
        for (const std::size_t position : order) {
            const auto& record = records[begin + position];
            // The volume root itself is no resource.
            const std::string_view volumePath = volumePathOf(record);
            auto resource = volumePath.empty()
                                ? std::nullopt
                                : QVFileSystemResource::init(
                                      walker, mountPoint, volumePath, record.uid, record.gid,
                                      permissionsFromMode(record.mode), contentOf(record));
            if (!resource) {
                dropRecord();
                continue;
            }
            SerialWorkingQueue::shared().sync([&] {
                QVFileSystemResourceManager::shared().appendResource(std::move(*resource));
                ++counter_;
                if (delegate_)
                    delegate_->packageManagerDidMakeResource(counter_, total_);
            });
        }
    });
}

void QVPackageManager::reset() {
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
