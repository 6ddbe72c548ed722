// The links of macOS 10.15 and later that join a system volume to its data volume.
#include "support/Firmlinks.h"

#include "support/PathValidation.h"

#include <sstream>

namespace quelm {
namespace {

/// Whether path is folder or lies beneath it, component by component.
bool holds(std::string_view folder, std::string_view path) {
    return path == folder ||
           (path.starts_with(folder) && path.size() > folder.size() && path[folder.size()] == '/');
}

std::string withoutTrailingSlash(std::string path) {
    while (path.size() > 1 && path.back() == '/')
        path.pop_back();
    return path;
}

} // namespace

std::vector<Firmlink> parseFirmlinks(std::string_view text) {
    std::vector<Firmlink> firmlinks;
    std::istringstream lines{std::string(text)};
    for (std::string line; firmlinks.size() < kMaxFirmlinks && std::getline(lines, line);) {
        const auto tab = line.find('\t');
        if (tab == std::string::npos)
            continue;
        std::string target = line.substr(tab + 1);
        if (target.starts_with("Device/"))
            target.erase(0, 7);
        Firmlink link{withoutTrailingSlash(line.substr(0, tab)),
                      withoutTrailingSlash("/" + target)};
        if (link.systemPath != "/" && link.dataPath != "/" &&
            isCleanAbsolutePath(link.systemPath) && isCleanAbsolutePath(link.dataPath) &&
            !link.systemPath.contains("//") && !link.dataPath.contains("//"))
            firmlinks.push_back(std::move(link));
    }
    return firmlinks;
}

std::optional<std::string> dataPathOf(const std::vector<Firmlink>& firmlinks,
                                      std::string_view path) {
    const Firmlink* deepest = nullptr;
    for (const auto& link : firmlinks)
        if (holds(link.systemPath, path) &&
            (!deepest || link.systemPath.size() > deepest->systemPath.size()))
            deepest = &link;
    if (!deepest)
        return std::nullopt;
    return deepest->dataPath + std::string(path.substr(deepest->systemPath.size()));
}

} // namespace quelm
