// Frames on the channel: a 4-byte big-endian length, then a binary property list.
#include "helper/Channel.h"

#include "support/Files.h"

#include <cerrno>
#include <unistd.h>

namespace quelm {
namespace {

constexpr std::size_t kHeaderSize = 4;

std::uint32_t frameLength(std::string_view header) {
    std::uint32_t length = 0;
    for (std::size_t i = 0; i < kHeaderSize; ++i)
        length = (length << 8) | static_cast<unsigned char>(header[i]);
    return length;
}

} // namespace

std::string frameOfBody(std::string_view body) {
    const auto length = static_cast<std::uint32_t>(body.size());
    std::string frame;
    frame.reserve(kHeaderSize + body.size());
    for (int shift = 24; shift >= 0; shift -= 8)
        frame += static_cast<char>((length >> shift) & 0xFF);
    return frame.append(body);
}

std::string encodeFrame(const PlistValue& message) {
    return frameOfBody(serializePlist(message, PlistFormat::binary).value_or(""));
}

std::expected<std::optional<std::string>, Error> takeFrameBody(std::string& buffer) {
    if (buffer.size() < kHeaderSize)
        return std::nullopt;
    const std::uint32_t length = frameLength(buffer);
    if (length > kMaxFrameSize)
        return std::unexpected(
            Error{"frame of " + std::to_string(length) + " bytes is over the limit"});
    if (buffer.size() - kHeaderSize < length)
        return std::nullopt;
    std::string body = buffer.substr(kHeaderSize, length);
    buffer.erase(0, kHeaderSize + length);
    return std::optional(std::move(body));
}

std::expected<std::optional<PlistValue>, Error> takeFrame(std::string& buffer) {
    auto body = takeFrameBody(buffer);
    if (!body || !*body)
        return body ? std::expected<std::optional<PlistValue>, Error>()
                    : std::unexpected(body.error());
    auto message = parsePlist(**body);
    if (!message)
        return std::unexpected(Error{"frame is not a property list"});
    return std::optional(std::move(*message));
}

bool FrameWriter::write(const PlistValue& message) {
    return writeFrame(encodeFrame(message));
}

bool FrameWriter::writeFrame(std::string_view frame) {
    std::lock_guard lock(mutex_);
    return writeAll(fd_, frame);
}

std::expected<std::optional<PlistValue>, Error> FrameReader::read() {
    char chunk[65536];
    for (;;) {
        auto frame = takeFrame(buffer_);
        if (!frame || *frame)
            return frame;
        const ssize_t count = ::read(fd_, chunk, sizeof chunk);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return std::unexpected(Error{"cannot read the channel"});
        if (count == 0)
            return buffer_.empty() ? std::expected<std::optional<PlistValue>, Error>()
                                   : std::unexpected(Error{"the channel ended within a frame"});
        buffer_.append(chunk, static_cast<std::size_t>(count));
    }
}

} // namespace quelm
