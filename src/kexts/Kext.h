// One kext bundle: known by its file URL, and once read from the disk, what it says of itself.
#pragma once

#include "kexts/MachO.h"
#include "support/FileURL.h"
#include "support/KeyedArchive.h"
#include "support/PropertyList.h"

#include <cstddef>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quelm {

/// A kext given by the user or found on a volume. Only the URL is archived and sent to the
/// helper; the rest is filled by readKext, readKextAt and installedKexts (KextCatalog.h), in
/// either layout that macOS loads: Info.plist, the executable (in MacOS) and PlugIns inside
/// Contents, or, flat, all of them at the bundle's top.
class Kext {
public:
    static constexpr std::string_view className = "QVKernelExtension";

    /// Stores the URL only; never looks at the disk.
    explicit Kext(FileURL url) : url_(std::move(url)) {}
    [[nodiscard]] static std::expected<Kext, Error> initWithCoder(const KeyedUnarchiver& coder);
    void encodeWithCoder(KeyedArchiver& coder) const;

    const FileURL& url() const { return url_; }
    void setUrl(FileURL url) { url_ = std::move(url); }

    /// The bundle folder name, extension included: "Lilu.kext".
    std::string name() const { return url_.lastPathComponent(); }
    /// The path of the bundle, every escape decoded; for a kext found on a volume, its path
    /// there: "/Library/Extensions/Lilu.kext".
    std::string path() const { return url_.path(); }

    /// The string hash of the path.
    std::size_t hash() const;
    /// Compares the hashes of the two paths, not the paths.
    bool isEqual(const Kext& other) const { return hash() == other.hash(); }
    bool operator==(const Kext& other) const { return isEqual(other); }

    /// True when the bundle has no Contents folder.
    bool flat = false;
    /// Its Info.plist and version.plist; nothing when missing or not a dictionary.
    std::optional<PlistValue::Dict> info;
    std::optional<PlistValue::Dict> versionList;
    /// The code its CFBundleExecutable names; nothing when it names none.
    std::optional<std::expected<MachOFile, Error>> executable;
    /// Every item owned by 0:0, every folder 755, every file 755 or 644.
    bool ownersAndModesRight = false;
    bool hasCodeSignature = false;
    std::vector<Kext> plugIns;

    /// The string under key in its Info.plist; "" when missing or not a string.
    std::string infoString(std::string_view key) const;
    std::string identifier() const { return infoString("CFBundleIdentifier"); }
    /// The version shown to the user: the first present of version.plist's then Info.plist's
    /// "CFBundleShortVersionString", then version.plist's then Info.plist's "CFBundleVersion";
    /// nothing when that one is not a string.
    std::optional<std::string> version() const;
    /// Info.plist's "CFBundleVersion": what libraries are compared by, against the version a
    /// kext asks for and OSBundleCompatibleVersion.
    std::string bundleVersion() const { return infoString("CFBundleVersion"); }
    bool isApple() const { return identifier().starts_with("com.apple."); }
    /// "x86_64", "i386"...; empty when there is no readable executable.
    std::vector<std::string> cpuTypes() const;

private:
    FileURL url_;
};

} // namespace quelm
