// The POSIX cksum CRC: the same numbers as the cksum program for every length around the
// boundaries of the table and the carry-less paths, whole or in pieces, in memory or read.
#include "repair/PosixChecksum.h"

#include "TestSupport.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <random>
#include <sstream>
#include <unistd.h>

namespace quelm {
namespace {

std::string randomBytes(std::size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

TEST(PosixChecksumTest, AgreesWithCksumOverEveryBoundaryWholeInPiecesAndRead) {
    test::TemporaryFolder folder;
    std::vector<std::size_t> sizes{0, 3, 4096 + 13, (1 << 20) + 7, (3 << 20) + 129};
    for (const std::size_t boundary : {1, 8, 16, 64, 128, 256, 512, 1024, 65536})
        sizes.insert(sizes.end(), {boundary - 1, boundary, boundary + 1});
    std::string command = "cksum";
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        test::writeText(folder / std::to_string(i), randomBytes(sizes[i], unsigned(i)));
        command += " " + test::shellQuote((folder / std::to_string(i)).string());
    }
    const auto result = test::runCommand(command);
    ASSERT_EQ(result.status, 0) << result.output;
    std::istringstream lines(result.output);
    // An odd buffer size makes the reads end everywhere but on a block boundary, and pieces of
    // every length from 1 to 64 Ki start anywhere in a block.
    std::vector<char> buffer(1000 + 3);
    constexpr std::size_t pieces[] = {1, 17, 128, 4099, 65536};
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        std::uint32_t checksum = 0;
        std::uint64_t size = 0;
        std::string name;
        ASSERT_TRUE(lines >> checksum >> size >> name) << sizes[i];
        const std::string bytes = randomBytes(sizes[i], unsigned(i));
        PosixChecksum inPieces;
        for (std::size_t at = 0, piece = 0; at < bytes.size(); at += pieces[piece++ % 5])
            inPieces.update(std::string_view(bytes).substr(at, pieces[piece % 5]));
        const int fd = ::open((folder / std::to_string(i)).c_str(), O_RDONLY | O_CLOEXEC);
        const auto digest = digestOfFile(fd, buffer);
        ::close(fd);
        ASSERT_TRUE(digest) << sizes[i];
        EXPECT_EQ(std::tuple(posixChecksum(bytes), inPieces.value(), inPieces.length(),
                             digest->checksum, digest->size),
                  std::tuple(checksum, checksum, size, checksum, size))
            << sizes[i];
    }
}

} // namespace
} // namespace quelm
