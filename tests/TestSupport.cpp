// Fixtures that the tests build for themselves: temporary folders, volumes, kext bundles.
#include "TestSupport.h"

#include "support/Firmlinks.h"

#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sys/socket.h>
#include <sys/wait.h>

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
    writeText(path, serializePlist(value, format).value());
}

std::string readText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
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

void writeReceipt(const std::filesystem::path& volume, std::string_view relativePath,
                  std::string_view identifier, const std::vector<std::string>& groups,
                  const std::vector<BomEntry>& records, PlistFormat format) {
    const auto receipt = volume / "System/Library/Receipts" / relativePath;
    writePlist(receipt,
               PlistValue::Dict{{"PackageIdentifier", std::string(identifier)},
                                {"PackageGroups", PlistValue::Array(groups.begin(), groups.end())},
                                {"PackageVersion", "1.0"}},
               format);
    writeText(std::filesystem::path(receipt).replace_extension(".bom"), writeBom(records).value());
}

void makeVolumeGroup(const std::filesystem::path& system, const std::filesystem::path& data,
                     std::string_view version, std::string_view build) {
    makeVolume(system, version, build);
    writeText(system / "usr/share/firmlinks", kCatalinaFirmlinks);
    for (const auto* folder : {"System/Library/Extensions", "Library", "private", "Users"})
        std::filesystem::create_directories(system / folder);
    for (const auto* folder : {"Library/Extensions", "private/var/db", "Users"})
        std::filesystem::create_directories(data / folder);
}

void appendBigEndian(std::string& bytes, std::uint64_t value, int width) {
    for (int shift = 8 * (width - 1); shift >= 0; shift -= 8)
        bytes += static_cast<char>((value >> shift) & 0xFF);
}

std::uint64_t BinaryPlist::add(std::uint8_t marker, std::initializer_list<std::uint64_t> refs,
                               std::string_view raw) {
    std::string object(1, static_cast<char>(marker));
    for (const auto ref : refs)
        appendBigEndian(object, ref, refSize_);
    return append(object + std::string(raw));
}

std::uint64_t BinaryPlist::string(std::string_view ascii) {
    return append(header(0x5, ascii.size()) + std::string(ascii));
}

std::uint64_t BinaryPlist::array(const std::vector<std::uint64_t>& items) {
    std::string object = header(0xA, items.size());
    for (const auto item : items)
        appendBigEndian(object, item, refSize_);
    return append(object);
}

std::uint64_t
BinaryPlist::dict(const std::vector<std::pair<std::string_view, std::uint64_t>>& entries) {
    std::vector<std::uint64_t> keys;
    for (const auto& entry : entries)
        keys.push_back(string(entry.first));
    std::string object = header(0xD, entries.size());
    for (const auto key : keys)
        appendBigEndian(object, key, refSize_);
    for (const auto& entry : entries)
        appendBigEndian(object, entry.second, refSize_);
    return append(object);
}

std::string BinaryPlist::bytes(std::uint64_t top) const {
    std::string trailer(6, '\0');
    trailer += {'\4', static_cast<char>(refSize_)};
    appendBigEndian(trailer, count_, 8);
    appendBigEndian(trailer, top, 8);
    appendBigEndian(trailer, objects_.size(), 8);
    return objects_ + offsets_ + trailer;
}

std::uint64_t BinaryPlist::append(std::string_view object) {
    appendBigEndian(offsets_, objects_.size(), 4);
    objects_ += object;
    return count_++;
}

std::string BinaryPlist::header(std::uint8_t type, std::uint64_t count) {
    if (count < 0xF)
        return std::string(1, static_cast<char>(type << 4 | count));
    std::string marker{static_cast<char>(type << 4 | 0xF), '\x13'};
    appendBigEndian(marker, count, 8);
    return marker;
}

std::optional<std::string> inChild(const std::function<bool(int output)>& prepare,
                                   const std::function<std::string()>& work,
                                   const TemporaryFolder& out) {
    constexpr int kRefused = 77;
    const auto [status, output] = finish(startChild([&](int socket) {
        ::alarm(600); // a hang ends the child, not the test run
        ::dup2(::open((out / "log").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), STDERR_FILENO);
        if (!prepare(socket))
            return kRefused;
        const std::string text = work();
        return ::write(socket, text.data(), text.size()) == ssize_t(text.size()) ? 0 : 4;
    }));
    if (status == kRefused)
        return std::nullopt;
    EXPECT_EQ(status, 0) << output;
    return output;
}

bool leaveSpareDescriptors(int reference, rlim_t spare) {
    int highest = 0;
    for (int fd = 0; fd < 1024; ++fd)
        highest = ::fcntl(fd, F_GETFD) != -1 ? fd : highest;
    const rlimit small{highest + 1 + spare, highest + 1 + spare};
    if (::setrlimit(RLIMIT_NOFILE, &small) != 0)
        return false;
    for (int fd = ::fcntl(reference, F_DUPFD, 0); fd >= 0; fd = ::fcntl(reference, F_DUPFD, 0))
        if (fd > highest)
            return ::close(fd) == 0;
    return spare == 0;
}

CommandResult runCommand(const std::string& commandLine) {
    return finish(startChild([&](int socket) {
        ::dup2(socket, STDOUT_FILENO);
        ::dup2(socket, STDERR_FILENO);
        ::execl("/bin/sh", "sh", "-c", commandLine.c_str(), static_cast<char*>(nullptr));
        return 127;
    }));
}

Child startChild(const std::function<int(int socket)>& body) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::close(ends[0]);
        ::_exit(body(ends[1]));
    }
    ::close(ends[1]);
    return {pid, ends[0]};
}

CommandResult finish(Child child) {
    std::string output;
    char buffer[4096];
    for (ssize_t count; (count = ::read(child.socket, buffer, sizeof buffer)) > 0;)
        output.append(buffer, static_cast<std::size_t>(count));
    ::close(child.socket);
    int status = 0;
    ::waitpid(child.pid, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), output};
}

std::string shellQuote(std::string_view text) {
    std::string quoted = "'";
    for (const char c : text)
        quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return quoted + "'";
}

} // namespace quelm::test
