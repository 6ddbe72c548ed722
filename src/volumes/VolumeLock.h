// One writer per volume: every command and helper operation that changes a volume holds its lock.
#pragma once

#include "support/Error.h"

#include <chrono>
#include <expected>
#include <string>

namespace quelm {

/// The lock of one volume, known by the device and inode of its mount point, so that every
/// path to it shares the lock. Another process waits for it; within a process, the thread that
/// holds it may take it again (an undo that restores), others wait as another process would.
/// It is released on the thread that took it.
class VolumeLock {
public:
    struct Holder;

    /// Waits at most wait for the lock; says in one sentence why it was not had.
    [[nodiscard]] static std::expected<VolumeLock, Error>
    acquire(const std::string& mountPoint,
            std::chrono::milliseconds wait = std::chrono::seconds(30));
    ~VolumeLock();
    VolumeLock(VolumeLock&& other) noexcept;
    VolumeLock& operator=(VolumeLock&&) = delete;
    VolumeLock(const VolumeLock&) = delete;
    VolumeLock& operator=(const VolumeLock&) = delete;

private:
    explicit VolumeLock(Holder* holder) : holder_(holder) {}
    Holder* holder_;
};

} // namespace quelm
