// What kext bundles say of themselves, and the kexts installed on a volume, read through
// descriptors without following links.
#pragma once

#include "kexts/MachO.h"
#include "support/FolderTrees.h"
#include "support/PropertyList.h"
#include "volumes/Volume.h"

#include <array>
#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quelm {

/// The folders of a volume that kexts are loaded from: the three of the folder policy, and
/// the one where macOS 10.15 and later keep Apple's own kexts beside the system's.
inline constexpr std::array<std::string_view, 4> kExtensionsFolders{
    "/System/Library/Extensions/", "/Library/Extensions/", "/Extra/Extensions/",
    "/Library/Apple/System/Library/Extensions/"};

/// Plug-ins nest in their parent's PlugIns folder; deeper nesting is not looked into.
inline constexpr int kMaxPlugInDepth = 3;

/// One kext bundle as read from the disk, in either layout that macOS loads: Info.plist, the
/// executable (in MacOS) and PlugIns inside Contents, or, flat, all of them at the bundle's top.
struct KextBundle {
    std::string name; ///< "Lilu.kext"
    std::string path; ///< where it was read: "/Library/Extensions/Lilu.kext" on a volume
    /// True when the bundle has no Contents folder.
    bool flat = false;
    /// Its Info.plist; nothing when it cannot be read as a dictionary.
    std::optional<PlistValue::Dict> info;
    /// The code its CFBundleExecutable names; nothing when it names none.
    std::optional<std::expected<MachOFile, Error>> executable;
    /// Every item owned by 0:0, every folder 755, every file 755 or 644.
    bool ownersAndModesRight = false;
    bool hasCodeSignature = false;
    std::vector<KextBundle> plugIns;

    /// The string under key in its Info.plist; "" when missing or not a string.
    std::string infoString(std::string_view key) const;
    std::string identifier() const { return infoString("CFBundleIdentifier"); }
    std::string version() const { return infoString("CFBundleVersion"); }
    bool isApple() const { return identifier().starts_with("com.apple."); }
    /// "x86_64", "i386"...; empty when there is no readable executable.
    std::vector<std::string> cpuTypes() const;
};

/// The bundle name inside the open folder parent, known as path.
KextBundle readKextBundleAt(int parent, const std::string& name, const std::string& path);

/// The open folder holding a path the user gives, its path and the last component, a plain
/// file name: links on the way are the user's, the last component is for the caller to open
/// without following one. Nothing when the folder cannot be opened.
struct UserPathParent {
    UniqueFd folder;
    std::string folderPath;
    std::string name;
};
std::optional<UserPathParent> openUserPathParent(const std::string& path);

/// The bundle at a path the user gives (links on the way to it are the user's); nothing when
/// it is not a folder.
std::optional<KextBundle> readKextBundle(const std::string& path);

/// The property list name ("Info.plist", "version.plist") of the bundle at path, in either
/// layout, read without following links inside the bundle; nothing when it is missing or not a
/// dictionary.
std::optional<PlistValue::Dict> readKextPlist(const std::string& path, const std::string& name);

/// The kexts in the volume's extensions folders, folder by folder in name order, each with its
/// plug-ins. A missing folder has none.
std::vector<KextBundle> installedKexts(const Volume& volume);

/// The kexts and, beneath each, its plug-ins, as one list.
std::vector<const KextBundle*> withPlugIns(const std::vector<KextBundle>& kexts);

} // namespace quelm
