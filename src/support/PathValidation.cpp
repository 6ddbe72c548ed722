// Checks on paths received from elsewhere, before anything touches the disk.
#include "support/PathValidation.h"

#include <algorithm>
#include <filesystem>

namespace quelm {

bool isPlainFileName(std::string_view name) {
    return !name.empty() && name != "." && name != ".." &&
           name.find_first_of(std::string_view("/\0", 2)) == std::string_view::npos;
}

bool isCleanAbsolutePath(std::string_view path) {
    if (path.empty() || path.front() != '/' || path.find('\0') != std::string_view::npos)
        return false;
    for (std::size_t start = 1; start <= path.size();) {
        const auto slash = path.find('/', start);
        const auto name =
            path.substr(start, slash == std::string_view::npos ? slash : slash - start);
        if (name == "." || name == "..")
            return false;
        if (slash == std::string_view::npos)
            break;
        start = slash + 1;
    }
    return true;
}

std::vector<std::string> pathComponents(std::string_view path) {
    std::vector<std::string> names;
    for (std::size_t start = 0; start < path.size();) {
        const auto slash = std::min(path.find('/', start), path.size());
        if (slash > start)
            names.emplace_back(path.substr(start, slash - start));
        start = slash + 1;
    }
    return names;
}

std::string absoluteNormalPath(std::string_view path) {
    std::filesystem::path absolute(path);
    std::error_code error;
    if (absolute.is_relative())
        absolute = std::filesystem::current_path(error) / absolute;
    std::string normal = absolute.lexically_normal().string();
    while (normal.size() > 1 && normal.back() == '/')
        normal.pop_back();
    return normal;
}

bool isVolumeFolder(std::string_view folder) {
    return folder.size() >= 2 && folder.back() == '/' && isCleanAbsolutePath(folder);
}

} // namespace quelm
