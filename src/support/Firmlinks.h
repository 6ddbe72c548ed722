// The links of macOS 10.15 and later that join a system volume to its data volume.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quelm {

/// One line of a system volume's /usr/share/firmlinks: a folder of the system volume that is
/// the folder dataPath of the data volume.
struct Firmlink {
    std::string systemPath; ///< "/Library"
    std::string dataPath;   ///< "/Library", relative to the data volume's root
};

/// What /usr/share/firmlinks of macOS 10.15.7 lists: what demo volumes are made with.
inline constexpr std::string_view kCatalinaFirmlinks =
    "/AppleInternal\tAppleInternal\n/Applications\tApplications\n/Library\tLibrary\n"
    "/System/Library/Caches\tSystem/Library/Caches\n/System/Library/Assets\tSystem/Library/Assets\n"
    "/System/Library/PreinstalledAssets\tSystem/Library/PreinstalledAssets\n"
    "/System/Library/AssetsV2\tSystem/Library/AssetsV2\n"
    "/System/Library/PreinstalledAssetsV2\tSystem/Library/PreinstalledAssetsV2\n"
    "/System/Library/CoreServices/CoreTypes.bundle/Contents/Library\t"
    "System/Library/CoreServices/CoreTypes.bundle/Contents/Library\n"
    "/System/Library/Speech\tSystem/Library/Speech\n/Users\tUsers\n/Volumes\tVolumes\n"
    "/cores\tcores\n/opt\topt\n/private\tprivate\n/usr/local\tusr/local\n"
    "/usr/libexec/cups\tusr/libexec/cups\n/usr/share/snmp\tusr/share/snmp\n";

/// macOS lists about twenty.
inline constexpr std::size_t kMaxFirmlinks = 128;

/// The firmlinks file parsed: one link per line, an absolute system path, a tab and the target
/// relative to the data volume's root ("Device/" before it in early betas). Lines that are not
/// clean paths are left out, so a hostile file can only point inside the data volume; lines
/// past kMaxFirmlinks too, since every path of a repair is looked up among them.
std::vector<Firmlink> parseFirmlinks(std::string_view text);

/// Where path, a clean absolute path of the joined volume, lies on the data volume: the target
/// of the deepest firmlink that holds it, followed by the rest of the path. Nothing when the
/// path lies on the system volume.
std::optional<std::string> dataPathOf(const std::vector<Firmlink>& firmlinks,
                                      std::string_view path);

} // namespace quelm
