// Fixtures that the tests build for themselves: temporary folders, volumes, kext bundles.
#include "TestSupport.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <gtest/gtest.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace quelm::test {

TemporaryFolder::TemporaryFolder() {
    std::string pattern = (std::filesystem::temp_directory_path() / "quelm-test-XXXXXX").string();
    if (!::mkdtemp(pattern.data()))
        throw std::runtime_error("cannot create a temporary folder");
    path_ = pattern;
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code error;
    std::filesystem::remove_all(path_, error);
}

void writeText(const std::filesystem::path& path, std::string_view text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

void writePlist(const std::filesystem::path& path, const PlistValue& value, PlistFormat format) {
    const auto bytes = serializePlist(value, format);
    ASSERT_TRUE(bytes.has_value());
    writeText(path, *bytes);
}

std::string readText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void makeVolume(const std::filesystem::path& root, std::string_view version, std::string_view build,
                PlistFormat format) {
    writePlist(root / "System/Library/CoreServices/SystemVersion.plist",
               PlistValue::Dict{{"ProductName", "Mac OS X"},
                                {"ProductVersion", std::string(version)},
                                {"ProductBuildVersion", std::string(build)}},
               format);
}

std::filesystem::path makeKext(const std::filesystem::path& folder, std::string_view name,
                               const std::optional<PlistValue::Dict>& info,
                               const std::optional<PlistValue::Dict>& versionList,
                               PlistFormat format) {
    const auto bundle = folder / name;
    std::filesystem::create_directories(bundle / "Contents");
    if (info)
        writePlist(bundle / "Contents/Info.plist", *info, format);
    if (versionList)
        writePlist(bundle / "Contents/version.plist", *versionList, format);
    return bundle;
}

void writeBomFile(const std::filesystem::path& path, const std::vector<BomRecord>& records) {
    const auto bytes = writeBom(records);
    ASSERT_TRUE(bytes.has_value()) << bytes.error().message;
    writeText(path, *bytes);
}

void writeReceipt(const std::filesystem::path& volume, std::string_view relativePath,
                  std::string_view identifier, const std::vector<std::string>& groups,
                  const std::vector<BomRecord>& records, PlistFormat format) {
    const auto receipt = volume / "System/Library/Receipts" / relativePath;
    PlistValue::Array groupList(groups.begin(), groups.end());
    writePlist(receipt,
               PlistValue::Dict{{"PackageIdentifier", std::string(identifier)},
                                {"PackageGroups", std::move(groupList)},
                                {"PackageVersion", "1.0"}},
               format);
    auto bom = receipt;
    writeBomFile(bom.replace_extension(".bom"), records);
}

bool runningAsRoot() {
    return ::geteuid() == 0;
}

CommandResult runCommand(const std::string& commandLine) {
    FILE* pipe = ::popen((commandLine + " 2>&1").c_str(), "r");
    if (!pipe)
        return {-1, {}};
    std::string output;
    char buffer[4096];
    for (std::size_t count; (count = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
        output.append(buffer, count);
    const int status = ::pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

std::string shellQuote(std::string_view text) {
    std::string quoted = "'";
    for (const char c : text)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

} // namespace quelm::test
