// Folder trees handled through descriptors: opened, copied and removed without following links.
#include "support/FolderTrees.h"

#include "support/Files.h"
#include "support/PathValidation.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#if !defined(O_PATH)
#define O_PATH O_RDONLY
#endif

namespace quelm {
namespace {

constexpr int flagsFor(FolderUse use) {
    return (use == FolderUse::reach ? O_PATH : O_RDONLY) | O_DIRECTORY | O_CLOEXEC;
}

struct Entry {
    std::string name;
    ino_t inode;
};

/// The entries of an open folder, "." and ".." left out; nothing when it cannot be read.
std::optional<std::vector<Entry>> entriesOf(int folder) {
    const int copy = ::openat(folder, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    DIR* listing = copy < 0 ? nullptr : ::fdopendir(copy);
    if (!listing) {
        if (copy >= 0)
            ::close(copy);
        return std::nullopt;
    }
    std::vector<Entry> entries;
    errno = 0;
    while (const dirent* entry = ::readdir(listing)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..")
            entries.push_back({name, entry->d_ino});
    }
    const bool complete = errno == 0;
    ::closedir(listing);
    return complete ? std::optional(std::move(entries)) : std::nullopt;
}

bool applyAttributes(int fd, const std::optional<ItemAttributes>& attributes, mode_t keptMode) {
    // A copy made by root must not hand anyone a program that runs as its owner.
    if (!attributes)
        return ::fchmod(fd, keptMode & 01777) == 0;
    return ::fchown(fd, attributes->owner, attributes->group) == 0 &&
           ::fchmod(fd, attributes->mode) == 0;
}

/// Refuses the item for reader with EACCES, as the system would have refused the user.
bool mayCopy(const struct stat& item, const Reader* reader) {
    if (!reader || reader->mayRead(item))
        return true;
    errno = EACCES;
    return false;
}

bool copyFileAt(int sourceFolder, const std::string& name, int destinationFolder,
                const std::string& destinationName, const std::optional<ItemAttributes>& attributes,
                const Reader* reader) {
    // Non-blocking, so that a FIFO swapped in for the file cannot hold the copy.
    const UniqueFd in(
        ::openat(sourceFolder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat info {};
    if (!in || ::fstat(in.get(), &info) != 0 || !S_ISREG(info.st_mode) || !mayCopy(info, reader))
        return false;
    const UniqueFd out(::openat(destinationFolder, destinationName.c_str(),
                                O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (!out)
        return false;
    std::vector<char> buffer(256 * 1024);
    for (;;) {
        const ssize_t count = ::read(in.get(), buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return false;
        if (count == 0)
            break;
        if (!writeAll(out.get(), std::string_view(buffer.data(), static_cast<std::size_t>(count))))
            return false;
    }
    return applyAttributes(out.get(), attributes, info.st_mode);
}

bool copyLinkAt(int sourceFolder, const std::string& name, int destinationFolder,
                const std::optional<ItemAttributes>& attributes) {
    std::string target(PATH_MAX, '\0');
    const ssize_t length = ::readlinkat(sourceFolder, name.c_str(), target.data(), target.size());
    if (length < 0 || static_cast<std::size_t>(length) >= target.size())
        return false;
    target.resize(static_cast<std::size_t>(length));
    if (::symlinkat(target.c_str(), destinationFolder, name.c_str()) != 0)
        return false;
    return !attributes || ::fchownat(destinationFolder, name.c_str(), attributes->owner,
                                     attributes->group, AT_SYMLINK_NOFOLLOW) == 0;
}

bool copyFolder(int source, int destinationParent, const std::string& destinationName,
                const std::optional<ItemAttributes>& attributes, const Reader* reader, int depth);

bool copyEntry(int sourceFolder, const std::string& name, int destinationFolder,
               const std::optional<ItemAttributes>& attributes, const Reader* reader, int depth) {
    struct stat info {};
    if (::fstatat(sourceFolder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
        return false;
    if (S_ISREG(info.st_mode))
        return copyFileAt(sourceFolder, name, destinationFolder, name, attributes, reader);
    if (S_ISLNK(info.st_mode))
        return copyLinkAt(sourceFolder, name, destinationFolder, attributes);
    if (!S_ISDIR(info.st_mode)) {
        errno = ENOTSUP;
        return false;
    }
    const UniqueFd inner = openFolderAt(sourceFolder, name);
    return inner && copyFolder(inner.get(), destinationFolder, name, attributes, reader, depth + 1);
}

bool copyFolder(int source, int destinationParent, const std::string& destinationName,
                const std::optional<ItemAttributes>& attributes, const Reader* reader, int depth) {
    struct stat info {};
    if (depth > kMaxTreeDepth || ::fstat(source, &info) != 0 || !mayCopy(info, reader) ||
        ::mkdirat(destinationParent, destinationName.c_str(), 0700) != 0)
        return false;
    const UniqueFd destination = openFolderAt(destinationParent, destinationName);
    const auto entries = entriesOf(source);
    if (!destination || !entries)
        return false;
    for (const auto& entry : *entries)
        if (!copyEntry(source, entry.name, destination.get(), attributes, reader, depth))
            return false;
    // The mode comes last: a folder without write permission would refuse its own entries.
    return applyAttributes(destination.get(), attributes, info.st_mode);
}

bool applyEntryAttributes(int folder, const std::string& name, const ItemAttributes& attributes,
                          int depth);

bool applyFolderAttributes(int folder, const ItemAttributes& attributes, int depth) {
    const auto entries = entriesOf(folder);
    if (depth > kMaxTreeDepth || !entries)
        return false;
    bool all = true;
    for (const auto& entry : *entries)
        all = applyEntryAttributes(folder, entry.name, attributes, depth) && all;
    return applyAttributes(folder, attributes, 0) && all;
}

bool applyEntryAttributes(int folder, const std::string& name, const ItemAttributes& attributes,
                          int depth) {
    struct stat info {};
    if (::fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
        return false;
    if (S_ISDIR(info.st_mode)) {
        const UniqueFd inner = openFolderAt(folder, name);
        return inner && applyFolderAttributes(inner.get(), attributes, depth + 1);
    }
    if (!S_ISREG(info.st_mode))
        return ::fchownat(folder, name.c_str(), attributes.owner, attributes.group,
                          AT_SYMLINK_NOFOLLOW) == 0;
    const UniqueFd file(
        ::openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat opened {};
    return file && ::fstat(file.get(), &opened) == 0 && opened.st_ino == info.st_ino &&
           applyAttributes(file.get(), attributes, 0);
}

bool removeTree(int parent, const std::string& name, int depth) {
    struct stat info {};
    if (::fstatat(parent, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT;
    if (!S_ISDIR(info.st_mode))
        return ::unlinkat(parent, name.c_str(), 0) == 0;
    const UniqueFd folder = openFolderAt(parent, name);
    const auto entries = folder ? entriesOf(folder.get()) : std::nullopt;
    if (depth > kMaxTreeDepth || !entries)
        return false;
    for (const auto& entry : *entries)
        if (!removeTree(folder.get(), entry.name, depth + 1))
            return false;
    return ::unlinkat(parent, name.c_str(), AT_REMOVEDIR) == 0;
}

} // namespace

UniqueFd::~UniqueFd() {
    if (fd_ >= 0)
        ::close(fd_);
}

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
}

UniqueFd openFolder(const std::string& path, FolderUse use) {
    return UniqueFd(::open(path.c_str(), flagsFor(use)));
}

UniqueFd openFolderAt(int parent, const std::string& name, FolderUse use) {
    return UniqueFd(::openat(parent, name.c_str(), flagsFor(use) | O_NOFOLLOW));
}

UniqueFd openOrMakeFolderAt(int parent, const std::string& name, const ItemAttributes& attributes) {
    if (::mkdirat(parent, name.c_str(), 0700) != 0)
        return errno == EEXIST ? openFolderAt(parent, name) : UniqueFd();
    UniqueFd folder = openFolderAt(parent, name);
    if (!folder || !applyAttributes(folder.get(), attributes, 0))
        return UniqueFd();
    return folder;
}

UniqueFd openFolderBelow(const std::string& base, std::string_view path,
                         const std::optional<ItemAttributes>& makeWith) {
    UniqueFd current = openFolder(base);
    for (const auto& name : pathComponents(path)) {
        if (!current)
            break;
        current = makeWith ? openOrMakeFolderAt(current.get(), name, *makeWith)
                           : openFolderAt(current.get(), name);
    }
    return current;
}

std::optional<std::pair<UniqueFd, std::string>> openParentBelow(const std::string& base,
                                                                std::string_view path) {
    const auto slash = path.rfind('/');
    const std::string name(path.substr(slash + 1));
    if (!isCleanAbsolutePath(path) || !isPlainFileName(name))
        return std::nullopt;
    UniqueFd parent = openFolderBelow(base, path.substr(0, slash));
    if (!parent)
        return std::nullopt;
    return std::pair{std::move(parent), name};
}

std::optional<std::string> readFileAt(int folder, const std::string& name, std::size_t maxSize) {
    // Not blocking: a FIFO swapped in for the file would otherwise hold the open forever.
    const UniqueFd file(
        ::openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    struct stat info {};
    if (!file || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode) ||
        static_cast<std::size_t>(info.st_size) > maxSize)
        return std::nullopt;
    std::string bytes(static_cast<std::size_t>(info.st_size), '\0');
    const ssize_t count = ::pread(file.get(), bytes.data(), bytes.size(), 0);
    if (count != static_cast<ssize_t>(bytes.size()))
        return std::nullopt;
    return bytes;
}

bool copyTreeAt(int sourceParent, const std::string& sourceName, int destinationParent,
                const std::string& destinationName, const std::optional<ItemAttributes>& attributes,
                const Reader* reader) {
    const UniqueFd source = openFolderAt(sourceParent, sourceName);
    if (!source && errno == ENOTDIR)
        return copyFileAt(sourceParent, sourceName, destinationParent, destinationName, attributes,
                          reader);
    return source &&
           copyFolder(source.get(), destinationParent, destinationName, attributes, reader, 0);
}

Reader Reader::forUser(uid_t uid) {
    Reader reader{uid, {}};
    const passwd* entry = ::getpwuid(uid);
    if (!entry)
        return reader;
    int count = 64;
    for (;;) {
        reader.groups.resize(static_cast<std::size_t>(count));
        const int previous = count;
        if (::getgrouplist(entry->pw_name, entry->pw_gid, reader.groups.data(), &count) >= 0)
            break;
        if (count <= previous)
            count = previous * 2;
    }
    reader.groups.resize(static_cast<std::size_t>(count));
    return reader;
}

bool Reader::mayRead(const struct stat& item) const {
    if (uid == 0)
        return true;
    const bool folder = S_ISDIR(item.st_mode);
    const auto allows = [&](mode_t read, mode_t search) {
        return (item.st_mode & read) && (!folder || (item.st_mode & search));
    };
    if (item.st_uid == uid)
        return allows(S_IRUSR, S_IXUSR);
    if (std::ranges::find(groups, item.st_gid) != groups.end())
        return allows(S_IRGRP, S_IXGRP);
    return allows(S_IROTH, S_IXOTH);
}

std::string failureCause(int error) {
    switch (error) {
    case ENOSPC:
    case EDQUOT:
        return "no space left on the volume";
    case EROFS:
        return "the volume is read-only";
    case EIO:
        return "an I/O error on the disk";
    case EACCES:
    case EPERM:
        return "permission denied";
    case ELOOP:
        return "a link where a folder or file was expected";
    case ENOTSUP:
        return "it holds a device, FIFO or socket, which no kext holds";
    default:
        return std::strerror(error);
    }
}

bool applyTreeAttributes(int folder, const ItemAttributes& attributes) {
    return applyFolderAttributes(folder, attributes, 0);
}

bool removeTreeAt(int parent, const std::string& name) {
    return removeTree(parent, name, 0);
}

std::optional<std::vector<std::string>> entryNamesAt(int folder) {
    const auto entries = entriesOf(folder);
    if (!entries)
        return std::nullopt;
    std::vector<std::string> names;
    for (const auto& entry : *entries)
        names.push_back(entry.name);
    return names;
}

std::optional<std::string> listedNameAt(int parent, const std::string& name) {
    struct stat wanted {};
    if (::fstatat(parent, name.c_str(), &wanted, AT_SYMLINK_NOFOLLOW) != 0)
        return std::nullopt;
    const auto entries = entriesOf(parent);
    if (!entries)
        return std::nullopt;
    for (const auto& entry : *entries)
        if (entry.name == name)
            return name;
    for (const auto& entry : *entries) {
        struct stat info {};
        if (entry.inode == wanted.st_ino &&
            ::fstatat(parent, entry.name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
            info.st_ino == wanted.st_ino && info.st_dev == wanted.st_dev)
            return entry.name;
    }
    // Something answers to the name though no listed entry matched it: take it as spelled.
    return name;
}

} // namespace quelm
