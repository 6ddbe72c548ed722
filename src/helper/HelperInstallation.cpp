// Putting the helper tool and its launch policy in place.
#include "helper/HelperInstallation.h"

#include "support/Files.h"

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

// The helper binary is a few megabytes; anything far larger is not it.
constexpr std::uintmax_t kMaxToolSize = 256u << 20;

bool writeWithMode(const std::string& path, std::string_view bytes, mode_t mode) {
    std::error_code error;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
    if (error || !writeFileAtomically(path, bytes))
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

bool installHelperFiles(const QVXPCHelper& helper, const std::string& sourceTool,
                        const std::string& policyTemplate, const std::string& root) {
    const auto tool = readFileBytes(sourceTool, kMaxToolSize);
    if (!tool)
        return false;
    const std::string toolPath = helper.toolPath(root);
    return writeWithMode(toolPath, *tool, 0755) &&
           writeWithMode(helper.launchPolicyPath(root), launchPolicyText(policyTemplate, toolPath),
                         0644);
}

} // namespace quelm
