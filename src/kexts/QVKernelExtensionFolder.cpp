// The installation-folder policy and its settings keys.
#include "kexts/QVKernelExtensionFolder.h"

#include "support/RawValues.h"
#include "volumes/MountedFileSystem.h"

namespace quelm {
namespace {

constexpr RawValueTable<QVKernelExtensionFolder, 5> kRawValues{
    {"/Extra/Extensions/", "/Library/Extensions/", "/System/Library/Extensions/",
     "QVKextFolderAskMeEveryTime", "QVKextFolderUseSmartTable"}};

bool isReadOnlySystemFolder(std::string_view folder, const QVOSVolume& volume) {
    return folder == rawValue(QVKernelExtensionFolder::SystemLibraryExtensions) &&
           volume.majorVersion().value_or(0) >= kReadOnlySystemFolderMajorVersion;
}

} // namespace

std::string folderOnVolume(std::string_view folder, const QVOSVolume& volume) {
    return std::string(isReadOnlySystemFolder(folder, volume)
                           ? rawValue(QVKernelExtensionFolder::LibraryExtensions)
                           : folder);
}

std::optional<std::string> folderRefusal(std::string_view folder, const QVOSVolume& volume) {
    if (!isReadOnlySystemFolder(folder, volume))
        return volume.isSealed() && !volume.placeOf(folder).onDataVolume
                   ? writeRefusal(volume, folder)
                   : std::nullopt;
    return volume.mountPoint() + " holds macOS " + volume.version().value_or("10.15 or later") +
           ", whose /System/Library/Extensions/ lies on a read-only system volume (sealed from "
           "macOS 11): install into /Library/Extensions/ instead.";
}

std::string_view rawValue(QVKernelExtensionFolder folder) {
    return kRawValues.rawValue(folder);
}

std::optional<QVKernelExtensionFolder> kernelExtensionFolderFromRawValue(std::string_view raw) {
    return kRawValues.fromRawValue(raw);
}

bool isConcreteFolder(QVKernelExtensionFolder folder) {
    return folder != QVKernelExtensionFolder::AskMeEveryTime &&
           folder != QVKernelExtensionFolder::UseSmartTable;
}

} // namespace quelm
