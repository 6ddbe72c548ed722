// The BOM reader: real files list exactly, edge cases of the format, and one damaged field per
// case refused without reading outside the file or hanging.
#include "repair/BomReader.h"

#include "TestSupport.h"
#include "repair/BomWriter.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace quelm {
namespace {

using test::TemporaryFolder;

const std::filesystem::path dataFolder = QUELM_TEST_BOM_DIR;

std::string listingOf(const BomEntry* records, std::uint32_t count) {
    std::string text;
    for (std::uint32_t index = 0; index < count; ++index)
        appendListingLine(text, records[index].path, records[index].mode, records[index].uid,
                          records[index].gid);
    return text;
}

std::string listingOf(const BomReader& parser) {
    return listingOf(parser.resources(), parser.total());
}

BomReader::Status statusOf(std::string bytes) {
    BomReader parser("memory");
    return parser.parseBytes(std::move(bytes));
}

// A BOM made by hand: one path "orphan" whose parent id 7 is listed nowhere.
const unsigned char orphanBom[] = {
    // 0: header: magic, version 1, 5 blocks, block table at 120 (52 bytes), variables at 106
    // (14 bytes)
    'B', 'O', 'M', 'S', 't', 'o', 'r', 'e', 0, 0, 0, 1, 0, 0, 0, 5, 0, 0, 0, 120, 0, 0, 0, 52, 0, 0,
    0, 106, 0, 0, 0, 14,
    // 32, block 1: tree header: "tree", version 1, root block 2, node size 4096, 1 path, flag
    't', 'r', 'e', 'e', 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0x10, 0, 0, 0, 0, 1, 0,
    // 53, block 2: leaf, 1 entry, no forward or backward link; entry: value 3, key 4
    0, 1, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0, 4,
    // 73, block 3: value: path id 9, attributes block 5
    0, 0, 0, 9, 0, 0, 0, 5,
    // 81, block 4: key: parent id 7, "orphan"
    0, 0, 0, 7, 'o', 'r', 'p', 'h', 'a', 'n', 0,
    // 92, block 5: attributes: file, reserved, architecture, mode 0100644, uid 501, gid 20
    1, 0, 0, 0x0f, 0x81, 0xa4, 0, 0, 0x01, 0xf5, 0, 0, 0, 20,
    // 106: variables: 1, block 1 named "Paths"
    0, 0, 0, 1, 0, 0, 0, 1, 5, 'P', 'a', 't', 'h', 's',
    // 120: block table: 6 entries (address, length), block 0 the null block
    0, 0, 0, 6, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 32, 0, 0, 0, 21, 0, 0, 0, 53, 0, 0, 0, 20, 0, 0, 0,
    73, 0, 0, 0, 8, 0, 0, 0, 81, 0, 0, 0, 11, 0, 0, 0, 92, 0, 0, 0, 14};

std::string orphan() {
    return std::string(reinterpret_cast<const char*>(orphanBom), sizeof orphanBom);
}

/// orphan() with the big-endian field of width bytes at offset set to value.
std::string orphanWith(std::size_t offset, std::uint32_t value, int width = 4) {
    std::string bytes = orphan();
    for (int index = width - 1; index >= 0; --index, value >>= 8)
        bytes[offset + static_cast<std::size_t>(index)] = static_cast<char>(value & 0xff);
    return bytes;
}

constexpr std::size_t tableEntry = 124; // address of block 0; block i's is 8 * i further

TEST(BomReaderTest, RealFilesGiveExactlyTheirListings) {
    for (const char* name : {"pkgbuild-python-applications", "packagemaker-archive"}) {
        const auto wrapper = BomFile::initWithFileName((dataFolder / (name + std::string(".bom"))));
        wrapper->parse();
        EXPECT_EQ(listingOf(wrapper->results(), wrapper->count()),
                  test::readText(dataFolder / (name + std::string(".listing"))))
            << name;
    }
}

TEST(BomReaderTest, HandMadeFileWithARootLeafAndAnUnseenParent) {
    BomReader parser("memory");
    ASSERT_EQ(parser.parseBytes(orphan()), BomReader::success);
    EXPECT_EQ(listingOf(parser), "/orphan\t100644\t501/20\n");
    ASSERT_EQ(parser.parseBytes(orphan()), BomReader::success);
    EXPECT_EQ(parser.total(), 1u) << "a second parse starts afresh";
}

TEST(BomReaderTest, MagicEndsAtTheFirstNul) {
    EXPECT_EQ(statusOf(orphanWith(8, 0x00000002)), BomReader::success);
    EXPECT_EQ(statusOf(orphanWith(8, 0x01000001)), BomReader::notABomStore);
    EXPECT_EQ(statusOf(orphanWith(4, 'S', 1)), BomReader::notABomStore);
}

TEST(BomReaderTest, EmptyOrShortRootBlockListsNothing) {
    for (const std::uint32_t length : {0u, 11u}) {
        BomReader parser("memory");
        ASSERT_EQ(parser.parseBytes(orphanWith(tableEntry + 8 * 2 + 4, length)),
                  BomReader::success);
        EXPECT_EQ(parser.total(), 0u);
    }
    EXPECT_EQ(statusOf(orphanWith(106, 0)), BomReader::success) << "no variables";
    EXPECT_EQ(statusOf(orphanWith(115, 'X', 1)), BomReader::success) << "no Paths variable";
}

TEST(BomReaderTest, EachDamagedFieldIsRefused) {
    const struct {
        const char* what;
        std::size_t offset;
        std::uint32_t value;
        int width;
    } cases[] = {
        {"block table offset past the end", 16, 170, 4},
        {"variables offset past the end", 24, 1000, 4},
        {"variables count past the end", 106, 1000, 4},
        {"variable name past the end", 114, 200, 1},
        {"variable block id out of range", 110, 6, 4},
        {"root block id out of range", 40, 6, 4},
        {"key block id out of range", 69, 0x10000, 4},
        {"value block id is the null block", 65, 0, 4},
        {"attributes block id out of range", 77, 99, 4},
        {"block address past the end", tableEntry + 8 * 4, 170, 4},
        {"block length past the end", tableEntry + 8 * 4 + 4, 92, 4},
        {"entry count too large for its block", 55, 2, 2},
        {"name without NUL in its block", tableEntry + 8 * 4 + 4, 10, 4},
        {"value record shorter than 8 bytes", tableEntry + 8 * 3 + 4, 7, 4},
        {"attributes shorter than 14 bytes", tableEntry + 8 * 5 + 4, 13, 4},
        {"forward link out of range", 57, 77, 4},
        {"forward link to itself", 57, 2, 4},
    };
    for (const auto& damage : cases)
        EXPECT_EQ(statusOf(orphanWith(damage.offset, damage.value, damage.width)),
                  BomReader::notABomStore)
            << damage.what;
}

TEST(BomReaderTest, EveryTruncationIsRefused) {
    const std::string bytes = orphan();
    for (std::size_t length = 0; length < bytes.size(); ++length)
        EXPECT_EQ(statusOf(bytes.substr(0, length)), BomReader::notABomStore) << length;
}

/// Records of a root folder and count files in it, enough for several leaves.
std::vector<BomRecord> flatRecords(std::size_t count) {
    std::vector<BomRecord> records{{".", 040755, 0, 0}};
    for (std::size_t index = 1; index < count; ++index)
        records.push_back({"./file" + std::to_string(index), 0100644, 0, 0});
    return records;
}

std::uint32_t readU32(const std::string& bytes, std::size_t offset) {
    std::uint32_t value = 0;
    for (std::size_t index = 0; index < 4; ++index)
        value = value << 8 | static_cast<unsigned char>(bytes[offset + index]);
    return value;
}

void writeU32(std::string& bytes, std::size_t offset, std::uint32_t value) {
    for (std::size_t index = 4; index-- > 0; value >>= 8)
        bytes[offset + index] = static_cast<char>(value & 0xff);
}

/// The file offset of block id in a BOM.
std::size_t blockAddress(const std::string& bytes, std::uint32_t id) {
    return readU32(bytes, readU32(bytes, 16) + 4 + 8 * std::size_t{id});
}

/// The root block id of a BOM made by our writer, whose "Paths" tree header is its second
/// variable's block.
std::uint32_t pathsRoot(const std::string& bytes) {
    const std::size_t variables = readU32(bytes, 24);
    const std::size_t paths = variables + 4 + 5 + 7; // past the count and "BomInfo"
    return readU32(bytes, blockAddress(bytes, readU32(bytes, paths)) + 8);
}

TEST(BomReaderTest, LinksThatLoopAreRefused) {
    // 600 paths: two leaves under one branch root.
    const std::string good = *writeBom(flatRecords(600));
    const std::uint32_t root = pathsRoot(good);
    const std::uint32_t firstLeaf = readU32(good, blockAddress(good, root) + 12);
    ASSERT_EQ(statusOf(good), BomReader::success);

    std::string bytes = good;
    writeU32(bytes, blockAddress(bytes, firstLeaf + 1) + 4, firstLeaf);
    EXPECT_EQ(statusOf(bytes), BomReader::notABomStore) << "forward link back to the first leaf";
    bytes = good;
    writeU32(bytes, blockAddress(bytes, root) + 12, root);
    EXPECT_EQ(statusOf(bytes), BomReader::notABomStore) << "branch whose child is itself";
}

TEST(BomReaderTest, APathIdListedTwiceIsRefused) {
    std::string bytes = *writeBom(flatRecords(3));
    // Our writer stores the attributes, value and key blocks of path n as blocks 3n-1 to 3n+1.
    writeU32(bytes, blockAddress(bytes, 3 * 3), 1);
    EXPECT_EQ(statusOf(bytes), BomReader::notABomStore);
}

// Departures from the letter of the format, each on purpose.

TEST(BomReaderTest, ABlockTableCountOfZeroIsRefused) {
    // The count bounds the table: ids past it would read the words after the table (its free
    // list) as block addresses. No writer leaves it 0 in a file that has blocks.
    EXPECT_EQ(statusOf(orphanWith(120, 0)), BomReader::notABomStore);
    EXPECT_EQ(statusOf(orphanWith(120, 5)), BomReader::notABomStore) << "block 5 left out";
    EXPECT_EQ(statusOf(orphanWith(120, 6)), BomReader::success);
}

TEST(BomReaderTest, APathListedBeforeItsFolderIsBuiltFromTheNamesKnownWhenListed) {
    std::string bytes = *writeBom(std::vector<BomRecord>{{".", 040755, 0, 0},
                                                         {"./P", 040755, 0, 0},
                                                         {"./P/C", 040755, 0, 0},
                                                         {"./P/C/D", 0100644, 0, 0}});
    // Swap the leaf's entries 1 and 2: C is listed before its folder P.
    const std::size_t entries = blockAddress(bytes, pathsRoot(bytes)) + 12;
    std::swap_ranges(bytes.begin() + static_cast<std::ptrdiff_t>(entries + 8),
                     bytes.begin() + static_cast<std::ptrdiff_t>(entries + 16),
                     bytes.begin() + static_cast<std::ptrdiff_t>(entries + 16));
    BomReader parser("memory");
    ASSERT_EQ(parser.parseBytes(bytes), BomReader::success);
    // C's folder is unknown when C is listed, so C is "/C"; D, listed after P, gets the names
    // of all its folders, as the format's walk gives them.
    EXPECT_EQ(listingOf(parser), ".\t40755\t0/0\n/C\t40755\t0/0\n./P\t40755\t0/0\n"
                                 "./P/C/D\t100644\t0/0\n");
}

TEST(BomReaderTest, ParentsThatNameEachOtherAreRefused) {
    std::string bytes = *writeBom(std::vector<BomRecord>{{".", 040755, 0, 0},
                                                         {"./A", 040755, 0, 0},
                                                         {"./A/B", 040755, 0, 0},
                                                         {"./A/B/C", 0100644, 0, 0}});
    // Our writer stores the key of path n (id n + 1) as block 3n + 4 after the info block: make
    // A's parent B and list A after its child B, so that C's folders loop.
    const std::size_t entries = blockAddress(bytes, pathsRoot(bytes)) + 12;
    writeU32(bytes, blockAddress(bytes, readU32(bytes, entries + 8 + 4)), 3);
    std::swap_ranges(bytes.begin() + static_cast<std::ptrdiff_t>(entries + 8),
                     bytes.begin() + static_cast<std::ptrdiff_t>(entries + 16),
                     bytes.begin() + static_cast<std::ptrdiff_t>(entries + 16));
    EXPECT_EQ(statusOf(bytes), BomReader::notABomStore);
}

TEST(BomReaderTest, RecordsCarrySizeChecksumAndLinkTarget) {
    const std::string bytes =
        *writeBom(std::vector<BomRecord>{{".", 040755, 0, 0},
                                         {"./file", 0100644, 0, 80, 38, 3557505254u},
                                         {"./link", 0120755, 0, 0, 4, 1234, "file"}});
    BomReader parser("memory");
    ASSERT_EQ(parser.parseBytes(bytes), BomReader::success);
    const auto* records = parser.resources();
    EXPECT_EQ(records[1].type, 1);
    EXPECT_TRUE(records[1].hasChecksum);
    EXPECT_EQ(records[1].size, 38u);
    EXPECT_EQ(records[1].checksum, 3557505254u);
    EXPECT_EQ(records[1].linkTarget, "");
    EXPECT_EQ(records[2].type, 3);
    EXPECT_EQ(records[2].linkTarget, "file");
    // The orphan's attributes stop at the group: no size or checksum.
    ASSERT_EQ(parser.parseBytes(orphan()), BomReader::success);
    EXPECT_FALSE(parser.resources()[0].hasChecksum);
}

TEST(BomReaderTest, UnreadableFileIsStatusOneAndLeavesTheWrapperEmpty) {
    TemporaryFolder folder;
    EXPECT_EQ(BomReader((folder / "missing.bom").string()).parse(), BomReader::unreadable);
    EXPECT_EQ(BomReader(folder.path().string()).parse(), BomReader::unreadable);
    test::writeText(folder / "text.bom", "not a bom");
    for (const char* name : {"missing.bom", "text.bom"}) {
        const auto wrapper = BomFile::initWithFileName(folder / name);
        wrapper->parse();
        EXPECT_EQ(wrapper->count(), 0u);
        EXPECT_EQ(wrapper->results(), nullptr);
    }
}

} // namespace
} // namespace quelm
