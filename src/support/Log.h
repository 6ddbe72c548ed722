// Log lines to stderr, and the deliberate fatal stop.
#pragma once

#include <string_view>

namespace quelm {

/// Writes one whole line to stderr; lines from different threads never interleave.
void logLine(std::string_view line);

/// Logs the message, then aborts: for impossible states and missing configuration.
[[noreturn]] void fatalError(std::string_view message);

} // namespace quelm
