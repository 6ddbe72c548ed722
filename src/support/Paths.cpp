// Where the application keeps its own files for the user.
#include "support/Paths.h"

#include <cstdlib>
#include <pwd.h>
#include <unistd.h>

namespace quelm {
namespace {

std::filesystem::path homeFolder() {
    if (const char* home = std::getenv("HOME"); home && *home)
        return home;
    if (const passwd* entry = ::getpwuid(::getuid()); entry && entry->pw_dir)
        return entry->pw_dir;
    return "/";
}

} // namespace

std::filesystem::path applicationSupportFolder() {
#if defined(__APPLE__)
    return homeFolder() / "Library" / "Application Support" / kDisplayName;
#else
    // XDG says a relative value is invalid and must be ignored.
    if (const char* data = std::getenv("XDG_DATA_HOME"); data && *data == '/')
        return std::filesystem::path(data) / kDisplayName;
    return homeFolder() / ".local" / "share" / kDisplayName;
#endif
}

} // namespace quelm
