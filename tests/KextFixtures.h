// Kexts with real Mach-O executables and libraries, built by the tests on temporary volumes.
#pragma once

#include "support/PropertyList.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace quelm::test {

inline constexpr std::int32_t kX86_64 = 0x01000007;
inline constexpr std::int32_t kI386 = 7;
inline constexpr std::int32_t kArm64 = 0x0100000c;

/// A thin Mach-O file as the compilers write it for Intel and Apple silicon: a little-endian
/// mach_header (mach_header_64 when is64) of filetype MH_KEXT_BUNDLE, then commandBytes bytes
/// of load commands, all zero, which sizeofcmds counts.
std::string thinMachO(std::int32_t cpuType, bool is64 = true, std::uint32_t commandBytes = 0);

/// A fat file: the big-endian fat header (FAT_MAGIC, or FAT_MAGIC_64 when wide) listing each
/// slice with its CPU type, then each slice at a 4096-byte boundary.
std::string fatMachO(const std::vector<std::pair<std::int32_t, std::string>>& slices,
                     bool wide = false);

/// What a kext's Info.plist holds: package type KEXT, the identifier and version, the executable
/// when given, and OSBundleLibraries / OSBundleCompatibleVersion when given.
PlistValue::Dict kextInfo(std::string_view identifier, std::string_view version,
                          std::optional<std::string> executable = std::nullopt,
                          const std::vector<std::pair<std::string, std::string>>& libraries = {},
                          std::optional<std::string> compatibleVersion = std::nullopt);

/// A kext bundle name in folder with that Info.plist, its executable's bytes in
/// Contents/MacOS when the list names one; returns the bundle's path.
std::filesystem::path makeKextBundle(const std::filesystem::path& folder, std::string_view name,
                                     const PlistValue::Dict& info,
                                     std::string_view executableBytes = {});

/// A macOS 10.15.7 (19H2) volume whose libraries lie as Apple ships them: the flat System.kext
/// with its flat kpi plug-ins (bsd, iokit, libkern, mach, dsep, unsupported: version 19.6.0,
/// serving 8.0.0b1 and later), the flat IOPCIFamily.kext with its x86_64 executable at the top,
/// and IOACPIFamily.kext (1.4, serving 1.0.0d1) in /Library/Apple/System/Library/Extensions.
void makeCatalinaVolume(const std::filesystem::path& root);

/// The real third-party kexts, as released: Lilu.kext (as.vit9696.Lilu 1.6.8), VirtualSMC.kext
/// (needs Lilu) and SMCProcessor.kext (needs both).
inline std::filesystem::path realKextsFolder() {
    return QUELM_TEST_KEXTS_DIR;
}

/// A macOS 10.13 volume at root with two kexts that others link against:
/// System.kext (com.apple.kernel, codeless) with its plug-in IOKit.kext (com.apple.kpi.iokit
/// 17.7.0, serving 8.0.0b1 and later), and /Library/Extensions/Lilu.kext (as.vit9696.Lilu
/// 1.4.5, serving 1.2.0 and later, an x86_64 executable, a code signature folder).
void makeRescueVolume(const std::filesystem::path& root);

/// Every item beneath root, in path order, as "path owner:group mode size sha" lines: what a
/// dry run must leave exactly as it was.
std::string treeListing(const std::filesystem::path& root);

} // namespace quelm::test
