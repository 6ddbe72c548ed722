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

TEST(PosixChecksumTest, AgreesWithCksumOverEveryBoundary) {
    test::TemporaryFolder folder;
    std::vector<std::size_t> sizes{0, 3, 4096 + 13, (1 << 20) + 7, (3 << 20) + 129};
    for (const std::size_t boundary : {1, 8, 16, 64, 128, 256, 512, 1024, 65536})
        sizes.insert(sizes.end(), {boundary - 1, boundary, boundary + 1});
    std::string command = "cksum";
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        test::writeText(folder / std::to_string(i),
                        randomBytes(sizes[i], static_cast<unsigned>(i)));
        command += " " + test::shellQuote((folder / std::to_string(i)).string());
    }
    const auto result = test::runCommand(command);
    ASSERT_EQ(result.status, 0) << result.output;
    std::istringstream lines(result.output);
    // An odd buffer size makes the reads end everywhere but on a block boundary.
    std::vector<char> buffer(1000 + 3);
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        std::uint32_t checksum = 0;
        std::uint64_t size = 0;
        std::string name;
        ASSERT_TRUE(lines >> checksum >> size >> name) << sizes[i];
        EXPECT_EQ(posixChecksum(randomBytes(sizes[i], static_cast<unsigned>(i))), checksum)
            << sizes[i];
        const int fd = ::open((folder / std::to_string(i)).c_str(), O_RDONLY | O_CLOEXEC);
        const auto digest = digestOfFile(fd, buffer);
        ::close(fd);
        ASSERT_TRUE(digest) << sizes[i];
        EXPECT_EQ(digest->checksum, checksum) << sizes[i];
        EXPECT_EQ(digest->size, size) << sizes[i];
    }
}

TEST(PosixChecksumTest, PiecesGiveTheWholeChecksum) {
    const std::string bytes = randomBytes(200'000, 99);
    for (const std::size_t piece : {1u, 17u, 128u, 4099u, 65536u}) {
        PosixChecksum checksum;
        for (std::size_t at = 0; at < bytes.size(); at += piece)
            checksum.update(std::string_view(bytes).substr(at, piece));
        EXPECT_EQ(checksum.value(), posixChecksum(bytes)) << piece;
        EXPECT_EQ(checksum.length(), bytes.size());
    }
    // A length of more than one byte goes into the checksum least significant byte first.
    EXPECT_EQ(posixChecksum(""), 4294967295u);
    EXPECT_EQ(posixChecksum("123456789"), 930766865u);
}

} // namespace
} // namespace quelm
