// One macOS installation: its mount point and the versions read from its system-version file.
#include "volumes/Volume.h"

#include "support/FolderTrees.h"
#include "support/Log.h"
#include "support/PropertyList.h"
#include "support/Strings.h"

#include <array>
#include <charconv>
#include <filesystem>
#include <functional>
#include <utility>

namespace quelm {
namespace {

std::optional<std::int64_t> parseMajorVersion(const std::string& build) {
    const std::string digits = characterRange(build, 0, 1);
    std::int64_t value = 0;
    const auto* end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, value);
    if (digits.empty() || error != std::errc() || stop != end)
        return std::nullopt;
    return value;
}

bool pathExists(const std::string& path) {
    std::error_code error;
    return std::filesystem::exists(path, error);
}

/// The volume's system-version file, reached without following a link: the disk may be the
/// user's own, and a link there could make a root process read any file of the host.
std::optional<PlistValue::Dict> readSystemVersion(const std::string& mountPoint) {
    const auto place = openParentBelow(mountPoint, Volume::systemVersionPath);
    const auto bytes =
        place ? readFileAt(place->first.get(), place->second, kMaxPlistFileSize) : std::nullopt;
    auto plist = bytes ? parsePlist(*bytes) : std::unexpected(Error{});
    if (!plist || !plist->dict())
        return std::nullopt;
    return *plist->dict();
}

std::string withoutTrailingSlash(std::string folder) {
    if (folder.size() > 1 && folder.back() == '/')
        folder.pop_back();
    return folder;
}

std::vector<Firmlink> readFirmlinks(const std::string& mountPoint) {
    const auto place = openParentBelow(mountPoint, Volume::firmlinksPath);
    constexpr std::size_t kMaxFirmlinksSize = 64 * 1024;
    const auto bytes =
        place ? readFileAt(place->first.get(), place->second, kMaxFirmlinksSize) : std::nullopt;
    return bytes ? parseFirmlinks(*bytes) : std::vector<Firmlink>{};
}

bool hasFolder(const std::string& mountPoint, std::string_view path) {
    return static_cast<bool>(openFolderBelow(mountPoint, path));
}

} // namespace

VolumeKind Volume::kindOf(const std::string& folder) {
    if (const auto volume = initWithMountPoint(folder))
        return volume->isSystemVolume() ? VolumeKind::system : VolumeKind::single;
    // A data volume holds the firmlinks' targets at its root, and no system.
    if (hasFolder(folder, "/Library") && hasFolder(folder, "/private/var") &&
        !hasFolder(folder, "/System/Library/CoreServices"))
        return VolumeKind::data;
    return VolumeKind::none;
}

void Volume::setDataMountPoint(std::optional<std::string> folder) {
    dataMountPoint_ =
        folder ? std::optional(withoutTrailingSlash(std::move(*folder))) : std::nullopt;
}

VolumePlace Volume::placeOf(std::string_view path) const {
    if (dataMountPoint_)
        if (auto onData = dataPathOf(firmlinks_, path))
            return {*dataMountPoint_, std::move(*onData), true};
    return {mountPoint_, std::string(path), false};
}

std::optional<Volume> Volume::initWithMountPoint(std::string mountPoint) {
    mountPoint = withoutTrailingSlash(std::move(mountPoint));
    const auto info = readSystemVersion(mountPoint);
    if (!info)
        return std::nullopt;
    const auto valueOf = [&](std::string_view key) -> std::optional<std::string> {
        const auto found = info->find(key);
        if (found == info->end() || !found->second.string())
            return std::nullopt;
        return *found->second.string();
    };
    Volume volume(std::move(mountPoint));
    volume.version_ = valueOf("ProductVersion");
    volume.buildVersion_ = valueOf("ProductBuildVersion");
    if (!volume.version_ || !volume.buildVersion_)
        return std::nullopt;
    volume.majorVersion_ = parseMajorVersion(*volume.buildVersion_);
    volume.firmlinks_ = readFirmlinks(volume.mountPoint_);
    return volume;
}

std::expected<Volume, Error> Volume::initWithCoder(const KeyedUnarchiver& coder) {
    auto mountPoint = coder.decodeString("mountPoint");
    if (!mountPoint)
        return std::unexpected(mountPoint.error());
    auto version = coder.decodeOptionalString("version");
    if (!version)
        return std::unexpected(version.error());
    auto build = coder.decodeOptionalString("buildVersion");
    if (!build)
        return std::unexpected(build.error());
    auto major = coder.decodeInteger("majorVersion");
    if (!major)
        return std::unexpected(major.error());
    auto data = coder.decodeOptionalString("dataMountPoint");
    if (!data)
        return std::unexpected(data.error());
    Volume volume(std::move(*mountPoint));
    volume.version_ = std::move(*version);
    volume.buildVersion_ = std::move(*build);
    volume.majorVersion_ = *major;
    volume.firmlinks_ = readFirmlinks(volume.mountPoint_);
    volume.setDataMountPoint(std::move(*data));
    return volume;
}

void Volume::encodeWithCoder(KeyedArchiver& coder) const {
    if (!majorVersion_)
        fatalError("QVOSVolume::encodeWithCoder() FatalError: the volume at " + mountPoint_ +
                   " has no major version.");
    coder.encodeObject("mountPoint", PlistValue(mountPoint_));
    coder.encodeObject("version", version_);
    coder.encodeObject("buildVersion", buildVersion_);
    coder.encodeInteger("majorVersion", *majorVersion_);
    if (dataMountPoint_)
        coder.encodeObject("dataMountPoint", PlistValue(*dataMountPoint_));
}

std::size_t Volume::hash() const {
    return std::hash<std::string>{}(mountPoint_);
}

std::string Volume::getOSNameString() const {
    static constexpr std::array<std::pair<std::string_view, std::string_view>, 16> kNames{{
        {"10", "Mac OS X Snow Leopard"},
        {"11", "Mac OS X Lion"},
        {"12", "OS X Mountain Lion"},
        {"13", "OS X Mavericks"},
        {"14", "OS X Yosemite"},
        {"15", "OS X El Capitan"},
        {"16", "macOS Sierra"},
        {"17", "macOS High Sierra"},
        {"18", "macOS Mojave"},
        {"19", "macOS Catalina"},
        {"20", "macOS Big Sur"},
        {"21", "macOS Monterey"},
        {"22", "macOS Ventura"},
        {"23", "macOS Sonoma"},
        {"24", "macOS Sequoia"},
        {"25", "macOS Tahoe"},
    }};
    const std::string prefix = characterRange(buildVersion_.value_or(""), 0, 1);
    for (const auto& [build, name] : kNames)
        if (prefix == build)
            return std::string(name);
    return "Mac OS Legacy";
}

std::string Volume::getFullNameVersionString() const {
    if (!version_ || !buildVersion_)
        fatalError("QVOSVolume::getFullNameVersionString() FatalError: the volume at " +
                   mountPoint_ + " has no version or build version.");
    return getOSNameString() + " " + *version_ + " (" + *buildVersion_ + ")";
}

bool Volume::isRecovery(std::string_view hostRoot) const {
    return pathExists(mountPoint_ + "/System/Installation") ||
           pathExists(std::string(hostRoot) + "/com.apple.recovery.boot");
}

bool Volume::hasExtraFolder() const {
    return pathExists(mountPoint_ + "/Extra");
}

UniqueFd openFolderOn(const Volume& volume, std::string_view path,
                      const std::optional<ItemAttributes>& makeWith) {
    const auto place = volume.placeOf(path);
    return openFolderBelow(place.root, place.path, makeWith);
}

std::optional<std::pair<UniqueFd, std::string>> openParentOn(const Volume& volume,
                                                             std::string_view path) {
    const auto place = volume.placeOf(path);
    return openParentBelow(place.root, place.path);
}

} // namespace quelm
