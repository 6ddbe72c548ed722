// The BOM writer and the listing: what is written reads back the same, in the layout of real
// BOM files, and bad records or lines are refused by name.
#include "repair/BomWriter.h"

#include "TestSupport.h"
#include "repair/BomReader.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

using namespace std::string_literals;

const std::filesystem::path dataFolder = QUELM_TEST_BOM_DIR;

std::vector<BomRecord> readBack(const std::string& bytes) {
    BomReader parser("memory");
    EXPECT_EQ(parser.parseBytes(bytes), BomReader::success);
    std::vector<BomRecord> records;
    for (std::uint32_t index = 0; index < parser.total(); ++index) {
        const auto& record = parser.resources()[index];
        records.push_back({record.path, record.mode, record.uid, record.gid});
    }
    return records;
}

std::uint32_t readU32(const std::string& bytes, std::size_t offset) {
    std::uint32_t value = 0;
    for (std::size_t index = 0; index < 4; ++index)
        value = value << 8 | static_cast<unsigned char>(bytes[offset + index]);
    return value;
}

/// A tree of depth levels below ".", width entries in each folder, in breadth-first order.
std::vector<BomRecord> treeRecords(std::size_t width, std::size_t depth) {
    std::vector<BomRecord> records{{".", 040755, 0, 0}};
    for (std::size_t start = 0, level = 0; level < depth; ++level) {
        const std::size_t end = records.size();
        for (std::size_t parent = start; parent < end; ++parent)
            for (std::size_t index = 0; index < width; ++index)
                records.push_back({records[parent].path + "/n" + std::to_string(index),
                                   static_cast<std::uint16_t>(level + 1 < depth ? 040755 : 0100644),
                                   static_cast<std::uint32_t>(index), 20});
        start = end;
    }
    return records;
}

TEST(BomWriterTest, UnusualNamesModesAndOwnersRoundTrip) {
    const std::vector<BomRecord> records{
        {".", 041777, 0, 0},
        {"./Library", 040755, 0, 80},
        {"./Library/Icon\r", 0100644, 501, 20},
        {"./Library/with  blanks ", 0104755, 4294967295u, 4294967294u},
        {"./Library/setgid", 0102711, 0, 0},
        {"./Library/link", 0120755, 0, 0},
        {"./Library/disk0", 060640, 0, 5},
        {"./Library/Ünïcödé", 0100000, 0, 0},
    };
    EXPECT_EQ(readBack(*writeBom(records)), records);
}

TEST(BomWriterTest, ManyPathsRoundTripThroughLeavesAndBranchLevels) {
    // A leaf holds 510 entries: 510 paths fill one, 511 need two under a branch, more than
    // 510 * 510 need two branch levels.
    for (const auto& records :
         {treeRecords(509, 1), treeRecords(510, 1), treeRecords(7, 3), treeRecords(511, 2)})
        EXPECT_EQ(readBack(*writeBom(records)), records) << records.size() << " paths";
}

TEST(BomWriterTest, FileHasTheLayoutOfRealBoms) {
    const std::string bytes = *writeBom(treeRecords(600, 1));
    ASSERT_EQ(bytes.substr(0, 12), std::string("BOMStore\0\0\0\1", 12));
    const std::uint32_t tableOffset = readU32(bytes, 16);
    const std::uint32_t blockCount = readU32(bytes, tableOffset);
    EXPECT_EQ(readU32(bytes, 12), blockCount - 1) << "non-null blocks";
    EXPECT_EQ(readU32(bytes, tableOffset + 4), 0u) << "block 0 is the null block";
    const auto block = [&](std::uint32_t id) {
        return bytes.substr(readU32(bytes, tableOffset + 4 + 8 * id),
                            readU32(bytes, tableOffset + 8 + 8 * id));
    };
    std::size_t offset = readU32(bytes, 24);
    std::vector<std::string> names;
    std::vector<std::uint32_t> ids;
    for (std::uint32_t count = readU32(bytes, offset), index = 0; index < count; ++index) {
        ids.push_back(readU32(bytes, offset + 4));
        names.push_back(bytes.substr(offset + 9, static_cast<unsigned char>(bytes[offset + 8])));
        offset += 5 + names.back().size();
    }
    ASSERT_EQ(names, (std::vector<std::string>{"BomInfo", "Paths", "HLIndex", "VIndex", "Size64"}));
    const std::string paths = block(ids[1]);
    EXPECT_EQ(paths.substr(0, 4), "tree");
    EXPECT_EQ(readU32(paths, 12), 4096u);
    EXPECT_EQ(readU32(paths, 16), 601u);
    const std::string root = block(readU32(paths, 8));
    EXPECT_EQ(root.substr(0, 4), std::string("\0\0\0\2", 4)) << "a branch of two leaves";
    const std::uint32_t first = readU32(root, 12);
    const std::uint32_t second = readU32(root, 20);
    EXPECT_EQ(block(first).size(), 4096u);
    EXPECT_EQ(readU32(block(first), 4), second) << "forward link";
    EXPECT_EQ(readU32(block(second), 8), first) << "backward link";
    // The attribute type follows the mode: 2 for the root folder, 1 for a file.
    const std::string leaf = block(first);
    EXPECT_EQ(block(readU32(block(readU32(leaf, 12)), 4))[0], 2);
    EXPECT_EQ(block(readU32(block(readU32(leaf, 20)), 4))[0], 1);
}

TEST(BomWriterTest, RecordsThatCannotBeStoredAreRefusedByName) {
    const auto refusal = [](std::vector<BomRecord> records) {
        const auto written = writeBom(records);
        return written ? std::string("written") : written.error().message;
    };
    EXPECT_NE(refusal({}).find("\".\""), std::string::npos);
    EXPECT_NE(refusal({{"./a", 040755, 0, 0}}).find("\".\""), std::string::npos);
    for (const std::string& path :
         {"./z/b"s, "./b/"s, "./tab\tname"s, "./line\nbreak"s, "./a\0b"s, "x"s, "."s}) {
        const auto message =
            refusal({{".", 040755, 0, 0}, {"./a", 0100644, 0, 0}, {path, 0100644, 0, 0}});
        EXPECT_TRUE(message.starts_with(path + ":")) << message;
    }
    EXPECT_NE(refusal({{".", 040755, 0, 0}, {"./a", 0, 0, 0}, {"./a", 0, 0, 0}}).find("twice"),
              std::string::npos);
}

TEST(BomWriterTest, ListingParsesBlanksAndCarriageReturnsAndNamesTheBadLine) {
    const auto records = parseListing(".\t40755\t0/0\n./a b\r\t100644\t501/20\n./c\t1777\t1/2");
    ASSERT_TRUE(records) << records.error().message;
    EXPECT_EQ(*records,
              (std::vector<BomRecord>{
                  {".", 040755, 0, 0}, {"./a b\r", 0100644, 501, 20}, {"./c", 01777, 1, 2}}));
    for (const char* bad :
         {"./x 40755 0/0", "./x\t8\t0/0", "./x\t200000\t0/0", "./x\t755\t0:0", "./x\t755\t0/",
          "./x\t755\t-1/0", "\t755\t0/0", "./x\t755\t0/0\tmore", ""}) {
        const auto parsed = parseListing(".\t40755\t0/0\n" + std::string(bad) + "\n");
        ASSERT_FALSE(parsed) << bad;
        EXPECT_TRUE(parsed.error().message.starts_with("line 2: ")) << parsed.error().message;
    }
}

TEST(BomWriterTest, ListingLineHasOctalModeWithTypeBits) {
    std::string out = "x";
    appendListingLine(out, "./a b", 040755, 0, 80);
    appendListingLine(out, "./f", 0104755, 4294967295u, 7);
    EXPECT_EQ(out, "x./a b\t40755\t0/80\n./f\t104755\t4294967295/7\n");
}

TEST(BomWriterTest, RealListingsRoundTripThroughTheWriter) {
    for (const char* name : {"pkgbuild-python-applications", "packagemaker-archive"}) {
        const std::string text = test::readText(dataFolder / (name + std::string(".listing")));
        const auto records = parseListing(text);
        ASSERT_TRUE(records) << records.error().message;
        std::string listing;
        for (const auto& record : readBack(*writeBom(*records)))
            appendListingLine(listing, record.path, record.mode, record.uid, record.gid);
        EXPECT_EQ(listing, text) << name;
    }
}

} // namespace
} // namespace quelm
