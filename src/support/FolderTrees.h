// Folder trees handled through descriptors: opened, copied and removed without following links.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace quelm {

/// An owned file descriptor, closed when it goes.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    ~UniqueFd();
    UniqueFd(UniqueFd&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_ = -1;
};

/// Owner, group and mode given to items as they are made (a link gets the owner only).
struct ItemAttributes {
    uid_t owner;
    gid_t group;
    mode_t mode;
};

/// The user a copy reads its source for: root copying on a user's behalf copies only what that
/// user could read, so that no one gets root's reading rights through a copy.
struct Reader {
    uid_t uid;
    std::vector<gid_t> groups;

    /// The user with the groups the system lists for them; root reads everything.
    static Reader forUser(uid_t uid);
    /// Whether the user may read the item (and, for a folder, list and enter it).
    bool mayRead(const struct stat& item) const;
};

/// An error number in words for the user: "no space left on the volume", "the volume is
/// read-only", "an I/O error on the disk"...
std::string failureCause(int error);

/// Deeper trees are refused: no kext nests anywhere near this, a hostile disk may.
inline constexpr int kMaxTreeDepth = 64;

/// What a folder is opened for: to list and change it, or only to reach what lies beneath it,
/// which needs no read permission on it and suits a walk through many folders.
enum class FolderUse { read, reach };

/// The folder at path, links on the way followed: a mount point, or a folder the user names.
UniqueFd openFolder(const std::string& path, FolderUse use = FolderUse::read);

/// The folder name inside parent, opened without following a link; invalid when it is not one.
/// Every walk beneath a volume opens its folders through this, one component at a time.
UniqueFd openFolderAt(int parent, const std::string& name, FolderUse use = FolderUse::read);

/// The folder name inside parent, made with the attributes when it is missing; never
/// through a link.
UniqueFd openOrMakeFolderAt(int parent, const std::string& name, const ItemAttributes& attributes);

/// base + the folders of path, opened one at a time below base without following links; with
/// attributes, missing folders are made with them.
UniqueFd openFolderBelow(const std::string& base, std::string_view path,
                         const std::optional<ItemAttributes>& makeWith = std::nullopt);

/// The folder holding path's last component, opened below base without following links, and
/// that component; nothing when the path is not clean and absolute or a folder on the way is
/// missing or a link.
std::optional<std::pair<UniqueFd, std::string>> openParentBelow(const std::string& base,
                                                                std::string_view path);

/// The bytes of the regular file name in folder, reached without following a link; nothing
/// when it is not one, cannot be read or holds more than maxSize bytes.
std::optional<std::string> readFileAt(int folder, const std::string& name, std::size_t maxSize);

/// Copies the folder (or the regular file) sourceName of sourceParent to destinationName of
/// destinationParent, which must not exist yet. Folders, regular files and links are copied (links
/// as links); anything else fails the copy, as does an item that reader, when given, may not read.
/// With attributes, every item is made with them; without, each keeps its mode but for the setuid
/// and setgid bits, which no copy keeps. Nothing outside the two trees is read or changed.
[[nodiscard]] bool copyTreeAt(int sourceParent, const std::string& sourceName,
                              int destinationParent, const std::string& destinationName,
                              const std::optional<ItemAttributes>& attributes,
                              const Reader* reader = nullptr);

/// Gives the open folder and everything beneath it the attributes, never following a link:
/// links get the owner only, devices, FIFOs and sockets the owner only too (changing their
/// mode would mean opening them or naming them again). True when every item took them.
[[nodiscard]] bool applyTreeAttributes(int folder, const ItemAttributes& attributes);

/// Removes name from parent, with everything beneath it when it is a folder; links are removed,
/// never followed. True when nothing is left under that name.
[[nodiscard]] bool removeTreeAt(int parent, const std::string& name);

/// The names listed in the open folder, "." and ".." left out; nothing when it cannot be read.
std::optional<std::vector<std::string>> entryNamesAt(int folder);

/// The name under which parent lists the entry that name reaches there: itself, or on a
/// case-insensitive volume the listed spelling ("Lilu.kext" for "lilu.kext"). Nothing when no
/// entry answers to name.
std::optional<std::string> listedNameAt(int parent, const std::string& name);

} // namespace quelm
