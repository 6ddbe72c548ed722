// Kexts with real Mach-O executables and libraries, built by the tests on temporary volumes.
#include "KextFixtures.h"

#include "TestSupport.h"

#include <functional>
#include <numeric>
#include <set>
#include <sstream>
#include <sys/stat.h>

namespace quelm::test {

namespace fs = std::filesystem;

/// A bundle with that Info.plist and the executable it names, if any: in Contents and
/// Contents/MacOS, or when flat, as Apple ships System.kext and some families, at its top.
static fs::path writeBundle(const fs::path& bundle, bool flat, const PlistValue::Dict& info,
                            std::string_view bytes = {}) {
    writePlist(bundle / (flat ? "" : "Contents") / "Info.plist", info);
    if (const auto found = info.find("CFBundleExecutable");
        found != info.end() && found->second.string())
        writeText(bundle / (flat ? "" : "Contents/MacOS") / *found->second.string(), bytes);
    return bundle;
}

std::string thinMachO(std::int32_t cpuType, bool is64, std::uint32_t commandBytes) {
    // magic, cputype, cpusubtype ALL, filetype MH_KEXT_BUNDLE, ncmds, sizeofcmds, flags, and
    // for 64 bits reserved; each little-endian.
    std::string out;
    for (const std::uint32_t word :
         {is64 ? 0xfeedfacfu : 0xfeedfaceu, static_cast<std::uint32_t>(cpuType), 3u, 0xbu, 0u,
          commandBytes, 0u, 0u})
        for (int shift = 0; shift < 32; shift += 8)
            out += static_cast<char>((word >> shift) & 0xff);
    out.resize(is64 ? 32 : 28);
    return out + std::string(commandBytes, '\0');
}

std::string fatMachO(const std::vector<std::pair<std::int32_t, std::string>>& slices, bool wide) {
    constexpr std::uint64_t kAlign = 4096;
    std::string out;
    appendBigEndian(out, wide ? 0xcafebabf : 0xcafebabe, 4);
    appendBigEndian(out, slices.size(), 4);
    std::uint64_t offset = kAlign;
    for (const auto& [cpuType, bytes] : slices) {
        appendBigEndian(out, static_cast<std::uint32_t>(cpuType), 4);
        appendBigEndian(out, 3, 4);
        appendBigEndian(out, offset, wide ? 8 : 4);
        appendBigEndian(out, bytes.size(), wide ? 8 : 4);
        appendBigEndian(out, 12, 4);           // align: 2^12
        appendBigEndian(out, 0, wide ? 4 : 0); // reserved, in the 64-bit table only
        offset += (bytes.size() + kAlign - 1) / kAlign * kAlign;
    }
    for (const auto& [cpuType, bytes] : slices) {
        out.resize((out.size() + kAlign - 1) / kAlign * kAlign, '\0');
        out += bytes;
    }
    return out;
}

PlistValue::Dict kextInfo(std::string_view identifier, std::string_view version,
                          std::optional<std::string> executable,
                          const std::vector<std::pair<std::string, std::string>>& libraries,
                          std::optional<std::string> compatibleVersion) {
    PlistValue::Dict info{{"CFBundlePackageType", "KEXT"},
                          {"CFBundleIdentifier", std::string(identifier)},
                          {"CFBundleVersion", std::string(version)}};
    if (executable)
        info.emplace("CFBundleExecutable", *executable);
    if (compatibleVersion)
        info.emplace("OSBundleCompatibleVersion", *compatibleVersion);
    if (!libraries.empty())
        info.emplace("OSBundleLibraries", PlistValue::Dict(libraries.begin(), libraries.end()));
    return info;
}

fs::path makeKextBundle(const fs::path& folder, std::string_view name, const PlistValue::Dict& info,
                        std::string_view executableBytes) {
    return writeBundle(folder / name, false, info, executableBytes);
}

void makeCatalinaVolume(const fs::path& root) {
    makeVolume(root, "10.15.7", "19H2");
    const auto extensions = root / "System/Library/Extensions";
    const auto system =
        writeBundle(extensions / "System.kext", true, kextInfo("com.apple.kernel", "19.6.0"));
    std::istringstream plugIns("BSDKernel bsd IOKit iokit Libkern libkern Mach mach "
                               "MACFramework dsep Unsupported unsupported");
    for (std::string name, kpi; plugIns >> name >> kpi;)
        writeBundle(system / "PlugIns" / (name + ".kext"), true,
                    kextInfo("com.apple.kpi." + kpi, "19.6.0", std::nullopt, {}, "8.0.0b1"));
    writeBundle(extensions / "IOPCIFamily.kext", true,
                kextInfo("com.apple.iokit.IOPCIFamily", "2.9", "IOPCIFamily",
                         {{"com.apple.kpi.iokit", "8.0.0"}}, "1.0.0b1"),
                thinMachO(kX86_64, true, 64));
    makeKextBundle(root / "Library/Apple/System/Library/Extensions", "IOACPIFamily.kext",
                   kextInfo("com.apple.iokit.IOACPIFamily", "1.4", "IOACPIFamily",
                            {{"com.apple.kpi.iokit", "8.0.0"}}, "1.0.0d1"),
                   thinMachO(kX86_64, true, 64));
}

void makeRescueVolume(const fs::path& root) {
    makeVolume(root, "10.13.6", "17G66");
    const auto system = makeKextBundle(root / "System/Library/Extensions", "System.kext",
                                       kextInfo("com.apple.kernel", "17.7.0"));
    makeKextBundle(system / "Contents/PlugIns", "IOKit.kext",
                   kextInfo("com.apple.kpi.iokit", "17.7.0", std::nullopt, {}, "8.0.0b1"));
    const auto lilu = makeKextBundle(
        root / "Library/Extensions", "Lilu.kext",
        kextInfo("as.vit9696.Lilu", "1.4.5", "Lilu", {{"com.apple.kpi.iokit", "12.0"}}, "1.2.0"),
        thinMachO(kX86_64, true, 64));
    fs::create_directories(lilu / "Contents/_CodeSignature");
}

std::string treeListing(const fs::path& root) {
    std::set<std::string> lines;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        struct stat info {};
        ::lstat(entry.path().c_str(), &info);
        auto line = entry.path().string() + " " + std::to_string(info.st_uid) + ":" +
                    std::to_string(info.st_gid) + " " + std::to_string(info.st_mode) + " " +
                    std::to_string(info.st_size);
        if (S_ISREG(info.st_mode))
            line += " " + std::to_string(std::hash<std::string>{}(readText(entry.path())));
        lines.insert(line + "\n");
    }
    return std::accumulate(lines.begin(), lines.end(), std::string());
}

} // namespace quelm::test
