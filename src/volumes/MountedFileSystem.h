// How a volume is mounted on this host, and whether root can write to it.
#pragma once

#include "volumes/QVOSVolume.h"

#include <optional>
#include <string>
#include <string_view>

namespace quelm {

/// The mount that holds a folder, as the kernel lists it.
struct MountedFileSystem {
    std::string type;       ///< "hfsplus", "apfs", "ext4", "fuse.apfs-fuse"...
    std::string source;     ///< what is mounted: "/dev/sdb2"
    std::string mountPoint; ///< where; the folder may lie below it
    bool readOnly = false;
    /// Whether an HFS+ volume keeps a journal (its volume header says so); nothing for other
    /// file systems or when the header cannot be read (it takes root).
    std::optional<bool> journaled;
};

/// The mount holding path; nothing where the host does not say (no /proc).
std::optional<MountedFileSystem> mountedFileSystemOf(const std::string& path);

/// Parses the kernel's mount table (the text of /proc/self/mountinfo) for the mount holding
/// path, which must be absolute and free of links: the deepest mount point above it, the later
/// of two at one place. The journal is not looked at.
std::optional<MountedFileSystem> findMount(std::string_view mountInfo, const std::string& path);

/// Whether the HFS+ volume header in the first bytes of a volume (at least 1,536) says that
/// it is journaled; nothing when they hold no HFS+ header.
std::optional<bool> isJournaledHFSPlus(std::string_view firstBytes);

/// One sentence saying why root cannot write to the volume and what to do: a read-only mount
/// (a journaled HFS+ volume that Linux mounted read-only, an APFS volume mounted without
/// readwrite, a snapshot), a FUSE mount that cannot give files to root. Nothing when it can.
std::optional<std::string> writeRefusal(const QVOSVolume& volume);

} // namespace quelm
