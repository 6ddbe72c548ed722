// The installation-folder policy and its settings keys.
#include "kexts/KextFolder.h"

#include "support/RawValues.h"
#include "volumes/MountedFileSystem.h"

namespace quelm {
namespace {

constexpr RawValueTable<KextFolder, 5> kRawValues{
    {"/Extra/Extensions/", "/Library/Extensions/", "/System/Library/Extensions/",
     "QVKextFolderAskMeEveryTime", "QVKextFolderUseSmartTable"}};

bool isReadOnlySystemFolder(std::string_view folder, const Volume& volume) {
    return folder == rawValue(KextFolder::SystemLibraryExtensions) &&
           volume.majorVersion().value_or(0) >= kReadOnlySystemFolderMajorVersion;
}

} // namespace

std::string folderOnVolume(std::string_view folder, const Volume& volume) {
    return std::string(
        isReadOnlySystemFolder(folder, volume) ? rawValue(KextFolder::LibraryExtensions) : folder);
}

std::optional<Error> folderRefusal(std::string_view folder, const Volume& volume) {
    if (!isReadOnlySystemFolder(folder, volume))
        return volume.isSealed() && !volume.placeOf(folder).onDataVolume
                   ? writeRefusal(volume, folder)
                   : std::nullopt;
    return Error{volume.mountPoint() + " holds macOS " +
                     volume.version().value_or("10.15 or later") +
                     ", whose /System/Library/Extensions/ lies on a read-only system volume "
                     "(sealed from macOS 11): install into /Library/Extensions/ instead.",
                 ErrorKind::refused};
}

std::string_view rawValue(KextFolder folder) {
    return kRawValues.rawValue(folder);
}

std::optional<KextFolder> kernelExtensionFolderFromRawValue(std::string_view raw) {
    return kRawValues.fromRawValue(raw);
}

bool isConcreteFolder(KextFolder folder) {
    return folder != KextFolder::AskMeEveryTime && folder != KextFolder::UseSmartTable;
}

} // namespace quelm
