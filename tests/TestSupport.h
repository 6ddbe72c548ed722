// Fixtures that the tests build for themselves: temporary folders, volumes, kext bundles.
#pragma once

#include "repair/BomWriter.h"
#include "support/PropertyList.h"

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace quelm::test {

/// How long a test waits for an event before it calls the wait a hang, in milliseconds: only a
/// guard, never what decides a test, so that a busy machine cannot fail it.
inline constexpr int kHangGuardMs = 300'000;

/// A fresh folder under the system's temporary folder, removed with everything in it.
class TemporaryFolder {
public:
    TemporaryFolder();
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    const std::filesystem::path& path() const { return path_; }
    std::filesystem::path operator/(std::string_view name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

/// Writes text to path, making the missing folders.
void writeText(const std::filesystem::path& path, std::string_view text);
/// Writes a property list to path in the given encoding, making the missing folders.
void writePlist(const std::filesystem::path& path, const PlistValue& value,
                PlistFormat format = PlistFormat::xml);
std::string readText(const std::filesystem::path& path);

/// A macOS-shaped volume at root: only its system-version file.
void makeVolume(const std::filesystem::path& root, std::string_view version, std::string_view build,
                PlistFormat format = PlistFormat::xml);

/// A kext bundle folder named name in folder, with the lists that are given.
std::filesystem::path makeKext(const std::filesystem::path& folder, std::string_view name,
                               const std::optional<PlistValue::Dict>& info,
                               const std::optional<PlistValue::Dict>& versionList = std::nullopt,
                               PlistFormat format = PlistFormat::xml);

/// A BOM file made by our writer; the records must list "." first.
void writeBomFile(const std::filesystem::path& path, const std::vector<BomRecord>& records);

/// A receipt at VOLUME/System/Library/Receipts/relativePath with its BOM beside it.
void writeReceipt(const std::filesystem::path& volume, std::string_view relativePath,
                  std::string_view identifier, const std::vector<std::string>& groups,
                  const std::vector<BomRecord>& records, PlistFormat format = PlistFormat::xml);

/// The standard group of receipts whose permissions are repaired.
inline const std::string kRepairGroup = "com.apple.snowleopard-repair-permissions.pkg-group";

bool runningAsRoot();

/// The output and exit status of a shell command line.
struct CommandResult {
    int status;
    std::string output;
};
CommandResult runCommand(const std::string& commandLine);

/// Single-quotes text for the shell.
std::string shellQuote(std::string_view text);

} // namespace quelm::test
