// Frames on the channel: a 4-byte big-endian length, then a binary property list.
#pragma once

#include "helper/RemoteProtocol.h"
#include "support/PropertyList.h"

#include <cstdint>
#include <expected>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

namespace quelm {

/// Larger frames are refused.
inline constexpr std::uint32_t kMaxFrameSize = 64u << 20;

/// The frame holding a binary property list already encoded, length prefix included.
std::string frameOfBody(std::string_view body);
/// The frame holding message, length prefix included.
std::string encodeFrame(const PlistValue& message);

/// Takes one whole frame's body off the front of buffer, or nothing when the buffer does not
/// yet hold a whole frame. A frame over the size limit is an error.
[[nodiscard]] std::expected<std::optional<std::string>, Error> takeFrameBody(std::string& buffer);

/// Takes one whole frame off the front of buffer: its message, or nothing when the buffer
/// does not yet hold a whole frame. A frame over the size limit or whose body is not a
/// property list is an error.
[[nodiscard]] std::expected<std::optional<PlistValue>, Error> takeFrame(std::string& buffer);

/// Writes whole frames to a file descriptor; frames from several threads never interleave.
class FrameWriter {
public:
    explicit FrameWriter(int fd) : fd_(fd) {}
    /// False once the other end is gone.
    bool write(const PlistValue& message);
    /// The same for a frame already encoded.
    bool writeFrame(std::string_view frame);

private:
    int fd_;
    std::mutex mutex_;
};

/// Reads frames from a file descriptor.
class FrameReader {
public:
    explicit FrameReader(int fd) : fd_(fd) {}
    /// The next message; nothing at a clean end of stream (between frames); an error for a
    /// cut frame, an oversized frame or a body that is not a property list.
    [[nodiscard]] std::expected<std::optional<PlistValue>, Error> read();

private:
    int fd_;
    std::string buffer_;
};

} // namespace quelm
