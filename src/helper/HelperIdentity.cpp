// What a privileged helper is: its identifier, its version and where it lies once installed.
#include "helper/HelperIdentity.h"

#include "support/Log.h"

#include <filesystem>
#include <functional>

namespace quelm {
namespace {

std::string requiredString(const PlistValue::Dict& info, std::string_view key) {
    const auto found = info.find(key);
    if (found == info.end() || !found->second.string())
        fatalError("QVXPCHelper::init() " + std::string(key) +
                   " key is not defined in main bundle's Info.plist file.");
    return *found->second.string();
}

std::string underRoot(const std::string& root, std::string_view path) {
    return (std::filesystem::path(root) / std::filesystem::path(path).relative_path()).string();
}

bool fileExists(const std::string& path) {
    std::error_code error;
    return std::filesystem::exists(path, error);
}

} // namespace

HelperIdentity::HelperIdentity(const PlistValue::Dict& info)
    : bundleIdentifier_(requiredString(info, kIdentifierKey)),
      bundleVersion_(requiredString(info, kVersionKey)) {
}

HelperIdentity::HelperIdentity(std::string bundleIdentifier, std::string bundleVersion)
    : bundleIdentifier_(std::move(bundleIdentifier)), bundleVersion_(std::move(bundleVersion)) {
}

std::string HelperIdentity::toolPath(const std::string& root) const {
#if defined(__APPLE__)
    return underRoot(root, "/Library/PrivilegedHelperTools/" + bundleIdentifier_);
#else
    return underRoot(root, "/usr/local/libexec/quelm/" + bundleIdentifier_);
#endif
}

std::string HelperIdentity::launchPolicyPath(const std::string& root) const {
#if defined(__APPLE__)
    return underRoot(root, "/Library/LaunchDaemons/" + bundleIdentifier_ + ".plist");
#else
    return underRoot(root, "/usr/share/polkit-1/actions/" + bundleIdentifier_ + ".policy");
#endif
}

bool HelperIdentity::installed(const std::string& root) const {
    return fileExists(toolPath(root)) && fileExists(launchPolicyPath(root));
}

std::size_t HelperIdentity::hashValue() const {
    return std::hash<std::string>{}(bundleIdentifier_ + "_" + bundleVersion_);
}

} // namespace quelm
