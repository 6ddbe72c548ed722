// One writer per volume: every command and helper operation that changes a volume holds its lock.
#include "volumes/VolumeLock.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace quelm {

/// The process's hold on one volume: a thread-reentrant mutex, and the file lock that keeps
/// other processes out while any thread here holds it.
struct VolumeLock::Holder {
    std::recursive_timed_mutex mutex;
    int depth = 0;
    int fd = -1;
};

namespace {

/// Where lock files live: /run/lock, which only root writes, when this process may; else the
/// temporary folder, where a lock file of another user is refused rather than shared.
std::filesystem::path lockFolder() {
    return ::access("/run/lock", W_OK) == 0 ? std::filesystem::path("/run/lock")
                                            : std::filesystem::temp_directory_path();
}

std::filesystem::path lockFileOf(const struct stat& mountPoint) {
    return lockFolder() / ("quelm-volume-" + std::to_string(mountPoint.st_dev) + "-" +
                           std::to_string(mountPoint.st_ino) + ".lock");
}

bool flockUntil(int fd, std::chrono::steady_clock::time_point deadline) {
    for (;;) {
        if (::flock(fd, LOCK_EX | LOCK_NB) == 0)
            return true;
        if ((errno != EWOULDBLOCK && errno != EINTR) ||
            std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
}

/// One holder per volume for the life of the process: few volumes are ever locked.
VolumeLock::Holder& holderOf(const struct stat& mountPoint) {
    static std::mutex mutex;
    static std::map<std::pair<dev_t, ino_t>, std::unique_ptr<VolumeLock::Holder>> holders;
    std::lock_guard lock(mutex);
    auto& holder = holders[{mountPoint.st_dev, mountPoint.st_ino}];
    if (!holder)
        holder = std::make_unique<VolumeLock::Holder>();
    return *holder;
}

Error busy(const std::string& mountPoint) {
    return {"the volume " + mountPoint +
                " is busy: another Quelm command or job is changing it; try again once it has "
                "finished",
            ErrorKind::refused};
}

} // namespace

std::expected<VolumeLock, Error> VolumeLock::acquire(const std::string& mountPoint,
                                                     std::chrono::milliseconds wait) {
    struct stat info {};
    if (::stat(mountPoint.c_str(), &info) != 0 || !S_ISDIR(info.st_mode))
        return std::unexpected(Error{mountPoint + " cannot be locked: it is not a folder"});
    const auto deadline = std::chrono::steady_clock::now() + wait;
    Holder& holder = holderOf(info);
    if (!holder.mutex.try_lock_until(deadline))
        return std::unexpected(busy(mountPoint));
    if (holder.depth == 0) {
        const auto file = lockFileOf(info);
        holder.fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (holder.fd < 0 || !flockUntil(holder.fd, deadline)) {
            const bool opened = holder.fd >= 0;
            if (opened)
                ::close(holder.fd);
            holder.fd = -1;
            holder.mutex.unlock();
            return std::unexpected(opened ? busy(mountPoint)
                                          : Error{mountPoint + " cannot be locked: " +
                                                      file.string() + " cannot be opened",
                                                  ErrorKind::io});
        }
    }
    ++holder.depth;
    return VolumeLock(&holder);
}

VolumeLock::VolumeLock(VolumeLock&& other) noexcept
    : holder_(std::exchange(other.holder_, nullptr)) {
}

VolumeLock::~VolumeLock() {
    if (!holder_)
        return;
    if (--holder_->depth == 0) {
        ::close(holder_->fd);
        holder_->fd = -1;
    }
    holder_->mutex.unlock();
}

} // namespace quelm
