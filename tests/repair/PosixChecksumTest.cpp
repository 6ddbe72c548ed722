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

using test::TemporaryFolder;

std::string randomBytes(std::size_t size, unsigned seed) {
    std::mt19937 random(seed);
    std::string bytes(size, '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(random());
    return bytes;
}

/// What `cksum` prints for each file: checksum and size, in the order given.
std::vector<std::pair<std::uint32_t, std::uint64_t>>
cksumOf(const std::vector<std::filesystem::path>& files) {
    std::string command = "cksum";
    for (const auto& file : files)
        command += " " + test::shellQuote(file.string());
    const auto result = test::runCommand(command);
    EXPECT_EQ(result.status, 0) << result.output;
    std::vector<std::pair<std::uint32_t, std::uint64_t>> values;
    std::istringstream lines(result.output);
    for (std::string line; std::getline(lines, line);) {
        std::uint32_t checksum = 0;
        std::uint64_t size = 0;
        std::istringstream(line) >> checksum >> size;
        values.emplace_back(checksum, size);
    }
    return values;
}

TEST(PosixChecksumTest, AgreesWithCksumOverEveryBoundary) {
    TemporaryFolder folder;
    const std::vector<std::size_t> sizes{0,
                                         1,
                                         3,
                                         7,
                                         8,
                                         9,
                                         15,
                                         16,
                                         17,
                                         63,
                                         64,
                                         127,
                                         128,
                                         129,
                                         255,
                                         256,
                                         511,
                                         512,
                                         513,
                                         1023,
                                         1024,
                                         1025,
                                         4096 + 13,
                                         65536,
                                         65536 + 100,
                                         (1 << 20) + 7,
                                         (3 << 20) + 129};
    std::vector<std::filesystem::path> files;
    std::vector<std::string> contents;
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        contents.push_back(randomBytes(sizes[i], static_cast<unsigned>(i)));
        files.push_back(folder / ("file" + std::to_string(i)));
        test::writeText(files.back(), contents.back());
    }
    const auto expected = cksumOf(files);
    ASSERT_EQ(expected.size(), sizes.size());
    // An odd buffer size makes the reads end everywhere but on a block boundary.
    std::vector<char> buffer(1000 + 3);
    for (std::size_t i = 0; i < sizes.size(); ++i) {
        EXPECT_EQ(posixChecksum(contents[i]), expected[i].first) << sizes[i];
        const int fd = ::open(files[i].c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_GE(fd, 0);
        const auto digest = digestOfFile(fd, buffer);
        ::close(fd);
        ASSERT_TRUE(digest);
        EXPECT_EQ(digest->checksum, expected[i].first) << sizes[i];
        EXPECT_EQ(digest->size, expected[i].second) << sizes[i];
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
