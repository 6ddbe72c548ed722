// Whole-file reading with a size cap, and atomic replacement of a file.
#pragma once

#include "support/Error.h"

#include <cstdint>
#include <expected>
#include <filesystem>
#include <string>
#include <string_view>

namespace quelm {

/// The bytes of a regular file no larger than maxSize.
[[nodiscard]] std::expected<std::string, Error> readFileBytes(const std::filesystem::path& path,
                                                              std::uintmax_t maxSize);

/// Writes every byte to fd, going on after interruptions; false when the other end is gone.
[[nodiscard]] bool writeAll(int fd, std::string_view bytes);

/// Writes beside the target under a temporary name, then renames it over the target, so a
/// reader sees the old file or the whole new one and a failure leaves the target untouched.
[[nodiscard]] std::expected<void, Error> writeFileAtomically(const std::filesystem::path& path,
                                                             std::string_view bytes);

} // namespace quelm
