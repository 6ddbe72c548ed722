// Checks on paths received from elsewhere, before anything touches the disk.
#pragma once

#include <string_view>

namespace quelm {

/// Begins with "/", holds no NUL and no "." or ".." component.
bool isCleanAbsolutePath(std::string_view path);

/// A folder of a volume as the folder policy names it: "/Library/Extensions/". Begins and
/// ends with "/", and is otherwise a clean absolute path.
bool isVolumeFolder(std::string_view folder);

/// A single file name: not empty, no "/", no NUL, not "." or "..".
bool isPlainFileName(std::string_view name);

} // namespace quelm
