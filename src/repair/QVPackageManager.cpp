// The receipts of the target volume, their bills of materials, and the resources made of them.
#include "repair/QVPackageManager.h"

#include "repair/QVCPU.h"
#include "repair/QVFileSystemResourceManager.h"
#include "repair/WorkSlices.h"
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
    std::string path;
    /// Whether the receipt's BOM is a regular file reached without following a link.
    bool hasBom;
};

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0)
            ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
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
            const FileDescriptor child(
                ::openat(folder, name.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
            if (child.get() >= 0)
                findReceipts(child.get(), folderPath + name + "/", depth + 1, receipts);
        } else if (S_ISREG(info.st_mode) && extensionOf(name) == "plist") {
            const auto bom = name.substr(0, name.size() - 5) + "bom";
            receipts.push_back({folderPath + name, isRegularFileAt(folder, bom)});
        }
    }
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
    readBoms();
    for (const auto& parser : parsers_)
        makeResources(*parser, root);
}

void QVPackageManager::findPackages(const std::shared_ptr<const VolumeRoot>& root) {
    VolumeWalker walker(root);
    const auto parent = walker.parentOf("/System/Library/Receipts");
    if (!parent)
        return;
    const FileDescriptor receipts(::openat(parent->first, std::string(parent->second).c_str(),
                                           O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (receipts.get() < 0)
        return;
    std::vector<Receipt> found;
    findReceipts(receipts.get(), receiptDirectory(), 0, found);
    for (const auto& receipt : found) {
        auto package = QVStandardPackage::initWithReceiptPath(receipt.path);
        if (!package)
            continue;
        // A BOM that is a link or a special file is never opened: it reads as empty.
        bomIsSafe_.push_back(receipt.hasBom);
        standardPackages_.push_back(std::move(*package));
    }
}

void QVPackageManager::readBoms() {
    for (std::size_t i = 0; i < standardPackages_.size(); ++i) {
        auto parser = YRBomParserWrapper::initWithFileName(standardPackages_[i].bomPathString());
        if (bomIsSafe_[i])
            parser->parse();
        total_ += parser->count();
        parsers_.push_back(std::move(parser));
    }
}

void QVPackageManager::dropRecord() {
    SerialWorkingQueue::shared().sync([this] { --total_; });
}

void QVPackageManager::makeResources(const YRBomParserWrapper& parser,
                                     const std::shared_ptr<const VolumeRoot>& root) {
    const std::int64_t threads =
        std::min<std::int64_t>(QVCPU::shared().maxthread(), parser.count());
    const std::string fatalMessage =
        parser.count() == 0
            ? "QVPackageManager::setup() FatalError: the bill of materials lists nothing: " +
                  parser.fileName()
            : "QVPackageManager::setup() FatalError: the maximum number of threads is 0.";
    const auto& mountPoint = targetVolume_->mountPoint();
    runWorkSlices(parser.count(), threads, fatalMessage, [&](std::size_t begin, std::size_t end) {
        VolumeWalker walker(root);
        for (std::size_t i = begin; i < end; ++i) {
            const auto& record = parser.results()[i];
            // BOM paths begin with the "." of the volume root, which itself is no resource.
            const std::string_view volumePath = *record.path ? record.path + 1 : "";
            auto resource =
                volumePath.empty()
                    ? std::nullopt
                    : QVFileSystemResource::init(walker, mountPoint, volumePath, record.uid,
                                                 record.gid, permissionsFromMode(record.mode));
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
    bomIsSafe_.clear();
    parsers_.clear();
    total_ = 0;
    counter_ = 0;
}

} // namespace quelm
