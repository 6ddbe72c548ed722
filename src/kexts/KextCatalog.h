// What kext bundles say of themselves, and the kexts installed on a volume, read through
// descriptors without following links.
#pragma once

#include "kexts/Kext.h"
#include "support/FolderTrees.h"
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

/// The bundle name inside the open folder parent, known as path, with its plug-ins.
Kext readKextAt(int parent, const std::string& name, const std::string& path);

/// The open folder holding a path the user gives, its path and the last component, a plain
/// file name: links on the way are the user's, the last component is for the caller to open
/// without following one. Nothing when the folder cannot be opened.
struct UserPathParent {
    UniqueFd folder;
    std::string folderPath;
    std::string name;
};
std::optional<UserPathParent> openUserPathParent(const std::string& path);

/// The bundle at a path the user gives (links on the way to it are the user's, none inside
/// it is followed); nothing when it is not a folder.
std::optional<Kext> readKext(const std::string& path);

/// The kexts in the volume's extensions folders, folder by folder in name order, each with its
/// plug-ins. A missing folder has none.
std::vector<Kext> installedKexts(const Volume& volume);

/// The kexts and, beneath each, its plug-ins, as one list.
std::vector<const Kext*> withPlugIns(const std::vector<Kext>& kexts);

} // namespace quelm
