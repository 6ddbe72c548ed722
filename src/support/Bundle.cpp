// The application's information dictionary and resources, found beside the executable.
#include "support/Bundle.h"

#include "support/Log.h"

#if defined(__APPLE__)
#include <mach-o/dyld.h>
#endif

namespace quelm {

std::filesystem::path executablePath() {
#if defined(__APPLE__)
    char buffer[4096];
    uint32_t size = sizeof buffer;
    if (_NSGetExecutablePath(buffer, &size) != 0)
        fatalError("Bundle::FatalError: cannot find the running executable.");
    return std::filesystem::weakly_canonical(buffer);
#else
    std::error_code error;
    auto executable = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error)
        fatalError("Bundle::FatalError: cannot find the running executable.");
    return executable;
#endif
}

std::filesystem::path executableFolder() {
    return executablePath().parent_path();
}

const Bundle& Bundle::main() {
    static const Bundle bundle(executableFolder().parent_path() / "share" / "quelm");
    return bundle;
}

Bundle::Bundle(std::filesystem::path resourceFolder) : resourceFolder_(std::move(resourceFolder)) {
    if (auto info = readPlistDictionary(resourceFolder_ / "Info.plist"))
        info_ = std::move(*info);
}

const PlistValue* Bundle::objectForInfoDictionaryKey(std::string_view key) const {
    const auto found = info_.find(key);
    return found == info_.end() ? nullptr : &found->second;
}

std::filesystem::path Bundle::resourcePath(std::string_view name) const {
    return resourceFolder_ / name;
}

} // namespace quelm
