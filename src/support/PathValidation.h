// Checks on paths received from elsewhere, before anything touches the disk.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace quelm {

/// Begins with "/", holds no NUL and no "." or ".." component.
bool isCleanAbsolutePath(std::string_view path);

/// A folder of a volume as the folder policy names it: "/Library/Extensions/". Begins and
/// ends with "/", and is otherwise a clean absolute path.
bool isVolumeFolder(std::string_view folder);

/// A single file name: not empty, no "/", no NUL, not "." or "..".
bool isPlainFileName(std::string_view name);

/// The names between the "/" of a path, empty ones left out: "/Library/Extensions/" gives
/// "Library" and "Extensions".
std::vector<std::string> pathComponents(std::string_view path);

/// An absolute path with "." and ".." resolved by name, not through the disk, and no trailing
/// "/": "../Macintosh HD/" seen from /media/user/x gives "/media/user/Macintosh HD". A relative
/// path starts at the working folder.
std::string absoluteNormalPath(std::string_view path);

} // namespace quelm
