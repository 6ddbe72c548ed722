// How a volume is mounted on this host, and whether root can write to it.
#pragma once

#include "support/Error.h"
#include "volumes/Volume.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quelm {

/// The folder whose half removing, restoring and the cache rebuild write: third-party kexts
/// live there.
inline constexpr std::string_view kKextChangesFolder = "/Library/Extensions";

/// The mount that holds a folder, as the kernel lists it.
struct MountedFileSystem {
    std::string type;       ///< "hfsplus", "apfs", "ext4", "fuse.apfs-fuse"...
    std::string source;     ///< what is mounted: "/dev/sdb2"
    std::string mountPoint; ///< where; the folder may lie below it
    bool readOnly = false;
    /// Mounted with uid= or gid= (linux-apfs-rw): every item shows that owner, not its own.
    bool replacesOwners = false;
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

/// Every mount that the kernel's mount table lists, in its order.
std::vector<MountedFileSystem> parseMounts(std::string_view mountInfo);

/// One sentence saying why root cannot write to the whole volume, every half that Quelm may
/// change, and what to do: a read-only mount (a journaled HFS+ volume that Linux mounted
/// read-only, an APFS volume mounted without readwrite, a snapshot), a FUSE mount that cannot
/// give files to root, an APFS mount whose owners are not the disk's, a system volume whose
/// data volume is missing. A sealed system volume is left out: nothing writes it. Nothing
/// when root can.
std::optional<Error> writeRefusal(const Volume& volume);

/// The same for writing path, a folder of the volume: the half that holds it, which must not
/// be a sealed system volume.
std::optional<Error> writeRefusal(const Volume& volume, std::string_view path);

/// Why a system volume of 10.15 or later without its data volume cannot be changed.
std::string missingDataVolumeSentence(const Volume& volume);

} // namespace quelm
