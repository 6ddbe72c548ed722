// The POSIX cksum CRC of a file's bytes: the checksum a receipt's bill of materials records.
#include "repair/PosixChecksum.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <unistd.h>

#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#include <immintrin.h>
#define QUELM_CARRYLESS_CRC 1
#endif

namespace quelm {
namespace {

constexpr std::uint32_t kPolynomial = 0x04C11DB7;

using Table = std::array<std::uint32_t, 256>;

/// Tables for eight bytes at a time: tables[k][b] is the CRC of byte b followed by k zero bytes.
constexpr std::array<Table, 8> makeTables() {
    std::array<Table, 8> tables{};
    for (std::uint32_t byte = 0; byte < 256; ++byte) {
        std::uint32_t crc = byte << 24;
        for (int bit = 0; bit < 8; ++bit)
            crc = (crc << 1) ^ ((crc & 0x80000000u) != 0 ? kPolynomial : 0);
        tables[0][byte] = crc;
    }
    for (std::size_t k = 1; k < tables.size(); ++k)
        for (std::size_t byte = 0; byte < 256; ++byte) {
            const std::uint32_t previous = tables[k - 1][byte];
            tables[k][byte] = (previous << 8) ^ tables[0][previous >> 24];
        }
    return tables;
}

constexpr std::array<Table, 8> kTables = makeTables();

std::uint32_t crcByte(std::uint32_t crc, unsigned char byte) {
    return (crc << 8) ^ kTables[0][(crc >> 24) ^ byte];
}

std::uint32_t bigEndian32(const unsigned char* bytes) {
    return std::uint32_t{bytes[0]} << 24 | std::uint32_t{bytes[1]} << 16 |
           std::uint32_t{bytes[2]} << 8 | bytes[3];
}

std::uint32_t tableCrc(std::uint32_t crc, const unsigned char* data, std::size_t size) {
    for (; size >= 8; data += 8, size -= 8) {
        const std::uint32_t high = crc ^ bigEndian32(data);
        crc = kTables[7][high >> 24] ^ kTables[6][(high >> 16) & 0xFF] ^
              kTables[5][(high >> 8) & 0xFF] ^ kTables[4][high & 0xFF] ^ kTables[3][data[4]] ^
              kTables[2][data[5]] ^ kTables[1][data[6]] ^ kTables[0][data[7]];
    }
    for (; size > 0; ++data, --size)
        crc = crcByte(crc, *data);
    return crc;
}

#if defined(QUELM_CARRYLESS_CRC)

/// x^n modulo the polynomial, for the folding constants.
constexpr std::uint64_t powerOfX(unsigned n) {
    std::uint64_t remainder = 1;
    for (unsigned i = 0; i < n; ++i) {
        remainder <<= 1;
        if ((remainder & (std::uint64_t{1} << 32)) != 0)
            remainder ^= (std::uint64_t{1} << 32) | kPolynomial;
    }
    return remainder;
}

#define QUELM_CARRYLESS __attribute__((target("pclmul,ssse3")))

QUELM_CARRYLESS __m128i reversedLoad(const unsigned char* at) {
    const __m128i reverse = _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    return _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(at)), reverse);
}

/// lane times x^(n + 128) plus next, modulo the polynomial in effect; constants holds
/// x^(n + 64) and x^n modulo it in its high and low halves.
QUELM_CARRYLESS __m128i fold(__m128i lane, __m128i constants, __m128i next) {
    return _mm_xor_si128(_mm_xor_si128(_mm_clmulepi64_si128(lane, constants, 0x11),
                                       _mm_clmulepi64_si128(lane, constants, 0x00)),
                         next);
}

/// Folds 128-byte blocks with carry-less multiplication: eight 128-bit lanes, each multiplied
/// by x^1024 modulo the polynomial per block, keep a value congruent to the bytes read so far;
/// its 16 bytes then have the same CRC as all of them. The bytes are loaded byte-reversed, so
/// that bit i of a lane is the coefficient of x^i as in the table method. Eight lanes keep the
/// multiplier busy while each lane waits on its previous product.
QUELM_CARRYLESS std::uint32_t foldedCrc(std::uint32_t crc, const unsigned char* data,
                                        std::size_t blocks) {
    constexpr int kLanes = 8;
    static const __m128i byBlock = _mm_set_epi64x(static_cast<long long>(powerOfX(1088)),
                                                  static_cast<long long>(powerOfX(1024)));
    static const __m128i byLane = _mm_set_epi64x(static_cast<long long>(powerOfX(192)),
                                                 static_cast<long long>(powerOfX(128)));
    __m128i lanes[kLanes];
    for (int lane = 0; lane < kLanes; ++lane)
        lanes[lane] = reversedLoad(data + 16 * lane);
    lanes[0] = _mm_xor_si128(lanes[0], _mm_set_epi32(static_cast<int>(crc), 0, 0, 0));
    for (std::size_t block = 1; block < blocks; ++block) {
        data += 16 * kLanes;
#pragma GCC unroll 8
        for (int lane = 0; lane < kLanes; ++lane)
            lanes[lane] = fold(lanes[lane], byBlock, reversedLoad(data + 16 * lane));
    }
    __m128i folded = lanes[0];
    for (int lane = 1; lane < kLanes; ++lane)
        folded = fold(folded, byLane, lanes[lane]);
    alignas(16) unsigned char bytes[16];
    const __m128i reverse = _mm_set_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    _mm_store_si128(reinterpret_cast<__m128i*>(bytes), _mm_shuffle_epi8(folded, reverse));
    return tableCrc(0, bytes, sizeof bytes);
}

bool hasCarrylessMultiply() {
    static const bool has = __builtin_cpu_supports("pclmul") && __builtin_cpu_supports("ssse3");
    return has;
}

#endif

} // namespace

void PosixChecksum::update(std::string_view bytes) {
    const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
    std::size_t size = bytes.size();
    length_ += size;
#if defined(QUELM_CARRYLESS_CRC)
    constexpr std::size_t kBlock = 128;
    if (size >= 4 * kBlock && hasCarrylessMultiply()) {
        const std::size_t blocks = size / kBlock;
        crc_ = foldedCrc(crc_, data, blocks);
        data += blocks * kBlock;
        size -= blocks * kBlock;
    }
#endif
    crc_ = tableCrc(crc_, data, size);
}

std::uint32_t PosixChecksum::value() const {
    std::uint32_t crc = crc_;
    for (std::uint64_t length = length_; length != 0; length >>= 8)
        crc = crcByte(crc, static_cast<unsigned char>(length & 0xFF));
    return ~crc;
}

std::uint32_t posixChecksum(std::string_view bytes) {
    PosixChecksum checksum;
    checksum.update(bytes);
    return checksum.value();
}

std::optional<FileDigest> digestOfFile(int fd, std::span<char> buffer) {
    PosixChecksum checksum;
    for (;;) {
        const ssize_t count = ::read(fd, buffer.data(), buffer.size());
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0)
            return std::nullopt;
        if (count == 0)
            return FileDigest{checksum.length(), checksum.value()};
        checksum.update(std::string_view(buffer.data(), static_cast<std::size_t>(count)));
    }
}

} // namespace quelm
