// Fixtures that the tests build for themselves: temporary folders, volumes, kext bundles.
#pragma once

#include "repair/BomWriter.h"
#include "support/PropertyList.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <unistd.h>
#include <utility>
#include <vector>

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

/// A macOS of 10.15 or later as its two volumes: at system the system-version file, the
/// firmlinks of 10.15.7 and /System/Library/Extensions; at data Library/Extensions, private/var/db
/// and Users, as the firmlinks lead there.
void makeVolumeGroup(const std::filesystem::path& system, const std::filesystem::path& data,
                     std::string_view version, std::string_view build);

/// A kext bundle folder named name in folder, with the lists that are given.
std::filesystem::path makeKext(const std::filesystem::path& folder, std::string_view name,
                               const std::optional<PlistValue::Dict>& info,
                               const std::optional<PlistValue::Dict>& versionList = std::nullopt,
                               PlistFormat format = PlistFormat::xml);

/// A receipt at VOLUME/System/Library/Receipts/relativePath with its BOM beside it.
void writeReceipt(const std::filesystem::path& volume, std::string_view relativePath,
                  std::string_view identifier, const std::vector<std::string>& groups,
                  const std::vector<BomEntry>& records, PlistFormat format = PlistFormat::xml);

/// The standard group of receipts whose permissions are repaired.
inline const std::string kRepairGroup = "com.apple.snowleopard-repair-permissions.pkg-group";

/// Appends the width lowest bytes of value, most significant first.
void appendBigEndian(std::string& bytes, std::uint64_t value, int width);

/// A binary property list built object by object, each numbered in the order it is added, so
/// that one object can be referred to from anywhere and any number of times.
class BinaryPlist {
public:
    explicit BinaryPlist(int refSize) : refSize_(refSize) {}

    /// An object of marker, then references to the objects numbered refs, then raw bytes.
    std::uint64_t add(std::uint8_t marker, std::initializer_list<std::uint64_t> refs,
                      std::string_view raw = {});
    std::uint64_t string(std::string_view ascii);
    /// An array of the items; many references to one large string or data make a memory bomb,
    /// as a reader copies it at every reference.
    std::uint64_t array(const std::vector<std::uint64_t>& items);
    /// A dictionary whose keys are ASCII strings.
    std::uint64_t dict(const std::vector<std::pair<std::string_view, std::uint64_t>>& entries);
    /// The file, with the object numbered top on top.
    std::string bytes(std::uint64_t top = 0) const;

private:
    std::uint64_t append(std::string_view object);
    /// The marker of a type with its count: in the marker when short, else an integer after it.
    static std::string header(std::uint8_t type, std::uint64_t count);

    int refSize_;
    std::string objects_ = "bplist00";
    std::string offsets_;
    std::uint64_t count_ = 0;
};

inline bool runningAsRoot() {
    return ::geteuid() == 0;
}

/// What work gives, run in a child process once prepare agreed, given the descriptor it goes to;
/// nothing when prepare refused. The child's standard error goes to out / "log".
std::optional<std::string> inChild(const std::function<bool(int output)>& prepare,
                                   const std::function<std::string()>& work,
                                   const TemporaryFolder& out);

/// Limits the process to its highest open descriptor plus spare, and takes every free number
/// below that descriptor, so that spare free numbers remain whatever the process inherited.
bool leaveSpareDescriptors(int reference, rlim_t spare);

/// The output and exit status of a shell command line.
struct CommandResult {
    int status;
    std::string output;
};
CommandResult runCommand(const std::string& commandLine);

/// A forked process running a body of the test, joined to the test by a socket.
struct Child {
    int pid;
    int socket;
};
/// Forks a child that runs body, given its end of the socket, and exits with what body returns.
Child startChild(const std::function<int(int socket)>& body);
/// All that the child writes until it ends, and its exit status (128 + signal when killed).
CommandResult finish(Child child);

/// Single-quotes text for the shell.
std::string shellQuote(std::string_view text);

} // namespace quelm::test
