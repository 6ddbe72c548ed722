// What a privileged helper is: its identifier, its version and where it lies once installed.
#pragma once

#include "support/PropertyList.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace quelm {

class HelperIdentity {
public:
    static constexpr std::string_view kIdentifierKey = "QVXPCHelperBundleIdentifier";
    static constexpr std::string_view kVersionKey = "QVXPCHelperBundleVersion";

    /// Reads both keys from an information dictionary; a missing key stops the process.
    explicit HelperIdentity(const PlistValue::Dict& info);
    HelperIdentity(std::string bundleIdentifier, std::string bundleVersion);

    const std::string& bundleIdentifier() const { return bundleIdentifier_; }
    const std::string& bundleVersion() const { return bundleVersion_; }

    /// The installed tool under root ("/" outside tests).
    std::string toolPath(const std::string& root) const;
    /// What lets the system start the tool as root: the launchd job on macOS, the polkit
    /// action on Linux.
    std::string launchPolicyPath(const std::string& root) const;
    /// Both files exist; the policy is not looked at when the tool is missing.
    bool installed(const std::string& root) const;
    /// The hash of identifier + "_" + version.
    std::size_t hashValue() const;

private:
    std::string bundleIdentifier_;
    std::string bundleVersion_;
};

} // namespace quelm
