// The application's information dictionary and resources, found beside the executable.
#pragma once

#include "support/PropertyList.h"

#include <filesystem>
#include <string_view>

namespace quelm {

/// What macOS keeps in an application bundle: the Info.plist and the resources folder.
/// Here both live in one folder, share/quelm, next to the bin folder of the executable.
class Bundle {
public:
    /// The bundle of the running program: EXE_DIR/../share/quelm, in the build tree as once
    /// installed. Loaded once per process.
    static const Bundle& main();

    /// A bundle over any resources folder; its Info.plist may be missing (empty dictionary).
    explicit Bundle(std::filesystem::path resourceFolder);

    const std::filesystem::path& resourceFolder() const { return resourceFolder_; }
    const PlistValue::Dict& infoDictionary() const { return info_; }
    /// The entry of the information dictionary, or null.
    const PlistValue* objectForInfoDictionaryKey(std::string_view key) const;
    std::filesystem::path resourcePath(std::string_view name) const;

private:
    std::filesystem::path resourceFolder_;
    PlistValue::Dict info_;
};

/// The running executable.
std::filesystem::path executablePath();
/// The folder of the running executable.
std::filesystem::path executableFolder();

} // namespace quelm
