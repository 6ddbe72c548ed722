// The one error type: what went wrong in a sentence, and what kind of failure it was.
#pragma once

#include <string>

namespace quelm {

enum class ErrorKind {
    /// Input that does not have the shape it must: a damaged file, a bad argument.
    invalid,
    /// The disk or the system failed to read or write.
    io,
    /// The request is well formed but not allowed: a read-only volume, a sealed folder.
    refused,
    /// Well formed, but beyond what is read: nested too deeply, too many values, a type unknown.
    unsupported,
    /// The channel to the helper broke or carried something it must not.
    channel,
};

struct Error {
    std::string message;
    ErrorKind kind = ErrorKind::invalid;
};

} // namespace quelm
