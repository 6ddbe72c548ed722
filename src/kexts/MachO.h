// The architectures of a Mach-O file, thin or fat, read from its headers alone.
#pragma once

#include "support/Error.h"

#include <cstdint>
#include <expected>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace quelm {

inline constexpr std::int32_t kCpuArchABI64 = 0x01000000;
inline constexpr std::int32_t kCpuTypeX86 = 7;
inline constexpr std::int32_t kCpuTypeX86_64 = kCpuTypeX86 | kCpuArchABI64;
inline constexpr std::int32_t kCpuTypeArm = 12;
inline constexpr std::int32_t kCpuTypeArm64 = kCpuTypeArm | kCpuArchABI64;
inline constexpr std::int32_t kCpuTypePowerPC = 18;

/// One architecture of the file: its CPU type and subtype as its header gives them.
struct MachOSlice {
    std::int32_t cpuType = 0;
    std::int32_t cpuSubtype = 0;
    bool operator==(const MachOSlice&) const = default;
};

struct MachOFile {
    bool fat = false;
    std::vector<MachOSlice> slices;

    /// Whether one slice is 64-bit Intel code.
    bool hasX86_64() const;
};

/// Reads length bytes at offset; nothing when they are not all there.
using ByteSource = std::function<std::optional<std::string>(std::uint64_t, std::size_t)>;

/// The headers of a file of size bytes read through source: a thin Mach-O (32 or 64-bit, either
/// byte order) or a fat one (FAT_MAGIC or FAT_MAGIC_64), whose every slice must lie inside the
/// file and begin with a Mach-O header of the CPU type the fat header gives it.
[[nodiscard]] std::expected<MachOFile, Error> readMachO(const ByteSource& source,
                                                        std::uint64_t size);
/// The same over bytes in memory.
[[nodiscard]] std::expected<MachOFile, Error> parseMachO(std::string_view bytes);
/// The same for the regular file name in folder, reached without following a link.
[[nodiscard]] std::expected<MachOFile, Error> readMachOAt(int folder, const std::string& name);

/// "x86_64", "i386", "arm64", "arm64e", "arm", "ppc", "ppc64"; others as "cpu 16777223/3".
std::string cpuTypeName(const MachOSlice& slice);

} // namespace quelm
