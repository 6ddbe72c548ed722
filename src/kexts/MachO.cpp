// The architectures of a Mach-O file, thin or fat, read from its headers alone.
#include "kexts/MachO.h"

#include "support/ByteReader.h"
#include "support/FolderTrees.h"

#include <algorithm>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace quelm {
namespace {

constexpr std::uint32_t kMagic32 = 0xfeedface;
constexpr std::uint32_t kMagic64 = 0xfeedfacf;
constexpr std::uint32_t kFatMagic = 0xcafebabe;
constexpr std::uint32_t kFatMagic64 = 0xcafebabf;
constexpr std::size_t kHeaderSize32 = 28;
constexpr std::size_t kHeaderSize64 = 32;
constexpr std::size_t kFatHeaderSize = 8;
constexpr std::size_t kFatArchSize = 20;
constexpr std::size_t kFatArch64Size = 32;
/// Real fat files hold a handful of slices; Java class files share the fat magic and give
/// their version here, which is 45 or more.
constexpr std::uint32_t kMaxFatSlices = 32;

std::unexpected<Error> refuse(std::string message) {
    return std::unexpected(Error{std::move(message)});
}

/// A thin header's fields, read in the file's own byte order, which its magic tells.
struct ThinHeader {
    std::size_t size;
    std::optional<std::uint32_t> cpuType;
    std::optional<std::uint32_t> cpuSubtype;
    std::optional<std::uint32_t> commandsSize;
};

template <std::endian Order> std::optional<ThinHeader> thinHeader(std::string_view bytes) {
    const ByteSlice<Order> header(bytes);
    const auto magic = header.u32(0);
    if (magic != kMagic32 && magic != kMagic64)
        return std::nullopt;
    return ThinHeader{magic == kMagic64 ? kHeaderSize64 : kHeaderSize32, header.u32(4),
                      header.u32(8), header.u32(20)};
}

std::expected<MachOSlice, Error> readThin(const ByteSource& source, std::uint64_t offset,
                                          std::uint64_t size) {
    const auto bytes = source(offset, std::min<std::uint64_t>(size, kHeaderSize64));
    auto header = bytes ? thinHeader<std::endian::big>(*bytes) : std::nullopt;
    if (bytes && !header)
        header = thinHeader<std::endian::little>(*bytes);
    if (!header)
        return refuse("not a Mach-O file");
    if (!header->cpuType || !header->cpuSubtype || !header->commandsSize || size < header->size)
        return refuse("the Mach-O header is cut short");
    if (*header->commandsSize > size - header->size)
        return refuse("the Mach-O load commands run past the end of the file");
    return MachOSlice{static_cast<std::int32_t>(*header->cpuType),
                      static_cast<std::int32_t>(*header->cpuSubtype)};
}

struct FatEntry {
    MachOSlice slice;
    std::uint64_t offset;
    std::uint64_t size;
};

/// Entry index of a fat header, which is big-endian whatever the slices are.
std::optional<FatEntry> fatEntry(BigEndianSlice table, std::size_t index, bool wide) {
    const std::size_t at = kFatHeaderSize + index * (wide ? kFatArch64Size : kFatArchSize);
    const auto cpuType = table.u32(at);
    const auto cpuSubtype = table.u32(at + 4);
    using Field = std::optional<std::uint64_t>;
    const Field offset = wide ? table.u64(at + 8) : Field(table.u32(at + 8));
    const Field size = wide ? table.u64(at + 16) : Field(table.u32(at + 12));
    if (!cpuType || !cpuSubtype || !offset || !size)
        return std::nullopt;
    return FatEntry{{static_cast<std::int32_t>(*cpuType), static_cast<std::int32_t>(*cpuSubtype)},
                    *offset,
                    *size};
}

std::expected<MachOFile, Error> readFat(const ByteSource& source, std::uint64_t size,
                                        std::uint32_t count, bool wide) {
    if (count == 0 || count > kMaxFatSlices)
        return refuse("not a Mach-O file: its fat header lists " + std::to_string(count) +
                      " architectures");
    const std::size_t tableSize = kFatHeaderSize + count * (wide ? kFatArch64Size : kFatArchSize);
    const auto table = size >= tableSize ? source(0, tableSize) : std::nullopt;
    if (!table)
        return refuse("the fat header is cut short");
    MachOFile file{true, {}};
    for (std::uint32_t i = 0; i < count; ++i) {
        const auto entry = fatEntry(BigEndianSlice(*table), i, wide);
        if (!entry || entry->offset < tableSize || entry->offset > size ||
            entry->size > size - entry->offset)
            return refuse("architecture " + std::to_string(i + 1) + " lies outside the file");
        const auto slice = readThin(source, entry->offset, entry->size);
        if (!slice)
            return refuse("architecture " + std::to_string(i + 1) + ": " + slice.error().message);
        if (slice->cpuType != entry->slice.cpuType)
            return refuse("architecture " + std::to_string(i + 1) +
                          " holds code for another CPU than its fat header says");
        file.slices.push_back(entry->slice);
    }
    return file;
}

} // namespace

bool MachOFile::hasX86_64() const {
    return std::ranges::any_of(slices,
                               [](const MachOSlice& s) { return s.cpuType == kCpuTypeX86_64; });
}

std::expected<MachOFile, Error> readMachO(const ByteSource& source, std::uint64_t size) {
    const auto head = source(0, std::min<std::uint64_t>(size, kFatHeaderSize));
    const auto magic = head ? BigEndianSlice(*head).u32(0) : std::nullopt;
    if (!magic)
        return refuse("not a Mach-O file: it is too short");
    if (*magic == kFatMagic || *magic == kFatMagic64) {
        const auto count = BigEndianSlice(*head).u32(4);
        if (!count)
            return refuse("the fat header is cut short");
        return readFat(source, size, *count, *magic == kFatMagic64);
    }
    auto slice = readThin(source, 0, size);
    if (!slice)
        return std::unexpected(slice.error());
    return MachOFile{false, {*slice}};
}

std::expected<MachOFile, Error> parseMachO(std::string_view bytes) {
    const ByteSource source = [bytes](std::uint64_t offset,
                                      std::size_t length) -> std::optional<std::string> {
        if (offset > bytes.size() || length > bytes.size() - offset)
            return std::nullopt;
        return std::string(bytes.substr(offset, length));
    };
    return readMachO(source, bytes.size());
}

std::expected<MachOFile, Error> readMachOAt(int folder, const std::string& name) {
    const UniqueFd file(::openat(folder, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    struct stat info {};
    if (!file || ::fstat(file.get(), &info) != 0)
        return refuse("cannot be opened");
    if (!S_ISREG(info.st_mode))
        return refuse("is not a regular file");
    const ByteSource source = [fd = file.get()](std::uint64_t offset,
                                                std::size_t length) -> std::optional<std::string> {
        std::string bytes(length, '\0');
        const ssize_t count = ::pread(fd, bytes.data(), length, static_cast<off_t>(offset));
        if (count != static_cast<ssize_t>(length))
            return std::nullopt;
        return bytes;
    };
    return readMachO(source, static_cast<std::uint64_t>(info.st_size));
}

std::string cpuTypeName(const MachOSlice& slice) {
    // The high byte of a subtype carries capability bits, not the variant.
    const std::int32_t variant = slice.cpuSubtype & 0x00ffffff;
    switch (slice.cpuType) {
    case kCpuTypeX86_64:
        return "x86_64";
    case kCpuTypeX86:
        return "i386";
    case kCpuTypeArm64:
        return variant == 2 ? "arm64e" : "arm64";
    case kCpuTypeArm:
        return "arm";
    case kCpuTypePowerPC:
        return "ppc";
    case kCpuTypePowerPC | kCpuArchABI64:
        return "ppc64";
    default:
        return "cpu " + std::to_string(slice.cpuType) + "/" + std::to_string(variant);
    }
}

} // namespace quelm
