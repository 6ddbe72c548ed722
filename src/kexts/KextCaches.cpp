// The kext caches of a volume: rebuilt with kextcache where the host has it, else marked stale.
#include "kexts/KextCaches.h"

#include "support/FolderTrees.h"
#include "support/Log.h"
#include "support/PathValidation.h"
#include "support/Process.h"
#include "volumes/VolumeLock.h"

#include <array>
#include <fcntl.h>
#include <sys/stat.h>

namespace quelm {
namespace {

constexpr std::size_t kMaxBootCachesSize = 1u << 20;
constexpr std::array<std::string_view, 2> kDefaultFolders{"/System/Library/Extensions",
                                                          "/Library/Extensions"};
/// Where macOS 10.11 to 10.15 keep their kernel caches, besides the one the plist names.
constexpr std::array<std::string_view, 3> kKnownKernelCaches{
    "/System/Library/PrelinkedKernels/prelinkedkernel",
    "/System/Library/Caches/com.apple.kext.caches/Startup/kernelcache",
    "/Library/Apple/System/Library/PrelinkedKernels/prelinkedkernel"};

/// The "Kernelcache v1.3" (or similar) entry of the plist's "PostBootPaths" (or of another of
/// its path groups: releases have moved it).
const PlistValue::Dict* kernelCacheEntry(const PlistValue& bootCaches) {
    const auto* groups = bootCaches.dict();
    if (!groups)
        return nullptr;
    for (const auto& [group, paths] : *groups) {
        if (!paths.dict())
            continue;
        for (const auto& [key, value] : *paths.dict())
            if (key.starts_with("Kernelcache") && value.dict())
                return value.dict();
    }
    return nullptr;
}

std::vector<std::string> stringsOf(const PlistValue& value) {
    if (const auto* text = value.string())
        return {*text};
    std::vector<std::string> strings;
    if (const auto* items = value.array())
        for (const auto& item : *items)
            if (item.string())
                strings.push_back(*item.string());
    return strings;
}

std::optional<PlistValue> readBootCaches(const Volume& volume) {
    const UniqueFd folder = openFolderOn(volume, "/usr/standalone");
    const auto bytes =
        folder ? readFileAt(folder.get(), "bootcaches.plist", kMaxBootCachesSize) : std::nullopt;
    auto plist = bytes ? parsePlist(*bytes) : std::unexpected(Error{});
    return plist ? std::optional(std::move(*plist)) : std::nullopt;
}

/// The newest modification time among the volume's kernel caches; zero when there is none.
timespec newestKernelCache(const Volume& volume, const PlistValue::Dict* entry) {
    std::vector<std::string> caches(kKnownKernelCaches.begin(), kKnownKernelCaches.end());
    if (entry)
        if (const auto found = entry->find("Path"); found != entry->end() && found->second.string())
            caches.push_back(*found->second.string());
    timespec newest{};
    for (const auto& cache : caches) {
        struct stat info {};
        const auto place = openParentOn(volume, cache);
        if (place &&
            ::fstatat(place->first.get(), place->second.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
            info.st_mtim.tv_sec > newest.tv_sec)
            newest = info.st_mtim;
    }
    return newest;
}

} // namespace

std::vector<std::string> kernelCacheFolders(const PlistValue& bootCaches) {
    std::vector<std::string> folders;
    if (const auto* entry = kernelCacheEntry(bootCaches))
        if (const auto found = entry->find("ExtensionsDir"); found != entry->end())
            folders = stringsOf(found->second);
    if (folders.empty())
        folders.assign(kDefaultFolders.begin(), kDefaultFolders.end());
    return folders;
}

bool rebuildCaches(const Volume& volume) {
    if (!isCleanAbsolutePath(volume.mountPoint()))
        return false;
    const auto lock = VolumeLock::acquire(volume.mountPoint());
    if (!lock) {
        logLine("KextCaches::Error: " + lock.error().message);
        return false;
    }
    if (const auto& kextcache = SystemTools::host().kextcache)
        return runTool(*kextcache, {"-i", volume.mountPoint()}) == 0;
    const auto bootCaches = readBootCaches(volume);
    const auto folders = kernelCacheFolders(bootCaches.value_or(PlistValue::Dict{}));
    const auto* entry = bootCaches ? kernelCacheEntry(*bootCaches) : nullptr;
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    const timespec newest = newestKernelCache(volume, entry);
    // One second past the newest cache: macOS compares whole seconds on some file systems.
    const timespec stamp = now.tv_sec > newest.tv_sec ? now : timespec{newest.tv_sec + 1, 0};
    const std::array<timespec, 2> times{timespec{0, UTIME_OMIT}, stamp};
    int marked = 0;
    for (const auto& folder : folders) {
        // A sealed system volume is never written; macOS rebuilds what it holds itself.
        if (volume.isSealed() && !volume.placeOf(folder).onDataVolume)
            continue;
        const auto place = openParentOn(volume, folder);
        struct stat info {};
        if (!place ||
            ::fstatat(place->first.get(), place->second.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        if (!S_ISDIR(info.st_mode) || ::utimensat(place->first.get(), place->second.c_str(),
                                                  times.data(), AT_SYMLINK_NOFOLLOW) != 0)
            return false;
        ++marked;
    }
    return marked > 0;
}

std::optional<std::string> auxiliaryCollectionNotice(const Volume& volume) {
    if (!volume.isSealed())
        return std::nullopt;
    return "macOS " + volume.version().value_or("11 or later") +
           " loads third-party kexts only from its auxiliary kernel collection "
           "(/Library/KernelCollections/AuxiliaryKernelExtensions.kc on the data volume), which "
           "only macOS itself rebuilds: the changed kexts take effect once you approve them in "
           "System Settings > Privacy & Security (System Preferences > Security & Privacy on "
           "macOS 11 and 12) and restart.";
}

std::optional<std::string> auxiliaryCollectionRemovalNotice(const Volume& volume) {
    if (!volume.isSealed())
        return std::nullopt;
    return "The auxiliary kernel collection still holds the removed kexts, and macOS loads "
           "them from it until it rebuilds the collection: start once in safe mode, which loads "
           "no third-party kexts, or from Recovery run kmutil trigger-panic-medic --volume-root "
           "with the volume's path, which starts macOS without third-party kexts until you "
           "approve them again.";
}

} // namespace quelm
