// Putting the helper tool and its launch policy in place.
#include "helper/HelperInstallation.h"

#include "support/Files.h"
#include "support/FolderTrees.h"

#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

// The helper binary is a few megabytes; anything far larger is not it.
constexpr std::size_t kMaxToolSize = 256u << 20;
constexpr std::size_t kMaxPolicySize = 1u << 20;

bool writeWithMode(const std::string& path, std::string_view bytes, mode_t mode) {
    const auto folder = std::filesystem::path(path).parent_path().string();
    const ItemAttributes madeFolders{::geteuid(), ::getegid(), 0755};
    if (!openFolderBelow("/", folder, madeFolders) || !writeFileAtomically(path, bytes))
        return false;
    if (::geteuid() == 0 && ::chown(path.c_str(), 0, 0) != 0)
        return false;
    return ::chmod(path.c_str(), mode) == 0;
}

} // namespace

std::string launchPolicyText(const std::string& policyTemplate, const std::string& toolPath) {
    static constexpr std::string_view kPlaceholder = "@HELPER_PATH@";
    std::string text = policyTemplate;
    for (auto at = text.find(kPlaceholder); at != std::string::npos;
         at = text.find(kPlaceholder, at + toolPath.size()))
        text.replace(at, kPlaceholder.size(), toolPath);
    return text;
}

std::optional<std::string> readTrustedFile(const std::string& path, uid_t caller,
                                           std::size_t maxSize) {
    const UniqueFd file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat info {};
    if (!file || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode) ||
        (info.st_uid != 0 && info.st_uid != caller) || (info.st_mode & (S_IWGRP | S_IWOTH)) ||
        static_cast<std::size_t>(info.st_size) > maxSize)
        return std::nullopt;
    std::string bytes(static_cast<std::size_t>(info.st_size), '\0');
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t count = ::read(file.get(), bytes.data() + done, bytes.size() - done);
        if (count <= 0)
            return std::nullopt;
        done += static_cast<std::size_t>(count);
    }
    return bytes;
}

bool installHelperFiles(const HelperIdentity& helper, const std::string& sourceTool,
                        const std::string& policyTemplatePath, const std::string& root,
                        uid_t caller) {
    const auto tool = readTrustedFile(sourceTool, caller, kMaxToolSize);
    const auto policyTemplate = readTrustedFile(policyTemplatePath, caller, kMaxPolicySize);
    if (!tool || !policyTemplate)
        return false;
    const std::string toolPath = helper.toolPath(root);
    return writeWithMode(toolPath, *tool, 0755) &&
           writeWithMode(helper.launchPolicyPath(root), launchPolicyText(*policyTemplate, toolPath),
                         0644);
}

} // namespace quelm
