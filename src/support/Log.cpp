// Log lines to stderr, and the deliberate fatal stop.
#include "support/Log.h"

#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>

namespace quelm {

void logLine(std::string_view line) {
    static std::mutex mutex;
    std::string text(line);
    text += '\n';
    std::lock_guard lock(mutex);
    std::fwrite(text.data(), 1, text.size(), stderr);
    std::fflush(stderr);
}

void fatalError(std::string_view message) {
    logLine(message);
    std::abort();
}

} // namespace quelm
