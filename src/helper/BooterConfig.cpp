// The boot configuration variable: its value text and how it reaches the firmware.
#include "helper/BooterConfig.h"

#include "support/Process.h"

#include <cctype>
#include <fcntl.h>
#include <unistd.h>

#if defined(__linux__)
#include <linux/fs.h>
#include <sys/ioctl.h>
#endif

namespace quelm {
namespace {

/// The bytes that "%28%00" stands for.
std::string decodeBytes(const std::string& text) {
    std::string bytes;
    for (std::size_t i = 0; i + 2 < text.size(); i += 3)
        bytes += static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16));
    return bytes;
}

/// efivarfs marks variables immutable; the flag must go before the file can be rewritten.
void clearImmutable([[maybe_unused]] const std::string& path) {
#if defined(__linux__)
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0)
        return;
    int flags = 0;
    if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0 && (flags & FS_IMMUTABLE_FL)) {
        flags &= ~FS_IMMUTABLE_FL;
        ::ioctl(fd, FS_IOC_SETFLAGS, &flags);
    }
    ::close(fd);
#endif
}

bool writeEfiVariable(const std::string& folder, const std::string& data) {
    std::string guid = kBooterConfigGUID;
    for (auto& c : guid)
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    const std::string path = folder + "/bootercfg-" + guid;
    clearImmutable(path);
    // Attributes, little-endian: non-volatile (1), boot-service (2) and runtime (4) access.
    std::string bytes{'\x07', '\0', '\0', '\0'};
    bytes += data;
    const int fd =
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0)
        return false;
    // efivarfs takes a variable in one write.
    const bool written =
        ::write(fd, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
    return ::close(fd) == 0 && written;
}

} // namespace

std::optional<std::string> booterConfigValueText(std::int64_t value) {
    if (value < 0)
        return std::nullopt;
    static constexpr char kHex[] = "0123456789abcdef";
    std::string hex;
    for (auto rest = static_cast<std::uint64_t>(value); rest != 0; rest >>= 4)
        hex.insert(hex.begin(), kHex[rest & 0xF]);
    while (hex.size() < 4)
        hex.insert(hex.begin(), '0');
    return "%" + hex.substr(2, 2) + "%" + hex.substr(0, 2);
}

bool applyBooterConfig(std::int64_t value, const std::string& efivarsFolder) {
    const auto text = booterConfigValueText(value);
    if (!text)
        return false;
    if (const auto& nvram = SystemTools::host().nvram)
        return runTool(*nvram, {std::string(kBooterConfigGUID) + ":bootercfg=" + *text}) == 0;
    return writeEfiVariable(efivarsFolder, decodeBytes(*text));
}

} // namespace quelm
