// The BOM writer and the listing: what is written reads back the same, in the layout of real
// BOM files, and bad entries or lines are refused by name.
#include "repair/BomWriter.h"

#include "TestSupport.h"
#include "support/ByteReader.h"

#include <deque>
#include <gtest/gtest.h>

namespace quelm {
namespace {

using namespace std::string_literals;

const std::filesystem::path dataFolder = QUELM_TEST_BOM_DIR;

std::string longListingOf(std::span<const BomEntry> entries) {
    std::string text;
    for (const auto& entry : entries)
        appendLongListingLine(text, entry);
    return text;
}

/// What the reader lists of the written entries, in the long form.
std::string readBack(std::span<const BomEntry> entries) {
    const auto bytes = writeBom(entries);
    if (!bytes)
        return "refused: " + bytes.error().message;
    BomReader reader("memory");
    const auto read = reader.parseBytes(*bytes);
    return read ? longListingOf(*read) : "unreadable: " + read.error().message;
}

/// A tree of depth levels below ".", width entries in each folder, in breadth-first order.
std::vector<BomEntry> treeEntries(std::size_t width, std::size_t depth,
                                  std::deque<std::string>& paths) {
    std::vector<BomEntry> entries{{".", 040755, 0, 0}};
    for (std::size_t start = 0, level = 0; level < depth; ++level) {
        const std::size_t end = entries.size();
        for (std::size_t parent = start; parent < end; ++parent)
            for (std::size_t index = 0; index < width; ++index)
                entries.emplace_back(
                    paths.emplace_back(std::string(entries[parent].path) + "/n" +
                                       std::to_string(index)),
                    static_cast<std::uint16_t>(level + 1 < depth ? 040755 : 0100644),
                    static_cast<std::uint32_t>(index), 20);
        start = end;
    }
    return entries;
}

TEST(BomWriterTest, UnusualNamesModesOwnersAndContentRoundTrip) {
    const std::vector<BomEntry> entries{
        {".", 041777, 0, 0},
        {"./Library", 040755, 0, 80},
        {"./Library/Icon\r", 0100644, 501, 20, 38, 3557505254u},
        {"./Library/with  blanks ", 0104755, 4294967295u, 4294967294u, 4294967295u, 0},
        {"./Library/setgid", 0102711, 0, 0},
        {"./Library/link", 0120755, 0, 0, 4, 1234, "../a b"},
        {"./Library/disk0", 060640, 0, 5},
        {"./Library/Ünïcödé", 0100000, 0, 0},
    };
    EXPECT_EQ(readBack(entries), longListingOf(entries));
}

TEST(BomWriterTest, ManyPathsRoundTripThroughLeavesAndBranchLevels) {
    // A leaf holds 510 entries: 510 paths fill one, 511 need two under a branch, more than
    // 510 * 510 need two branch levels.
    std::deque<std::string> paths;
    for (const auto& entries : {treeEntries(509, 1, paths), treeEntries(510, 1, paths),
                                treeEntries(7, 3, paths), treeEntries(511, 2, paths)})
        EXPECT_EQ(readBack(entries), longListingOf(entries)) << entries.size() << " paths";
}

TEST(BomWriterTest, FileHasTheLayoutOfRealBoms) {
    std::deque<std::string> paths;
    const std::string bytes = *writeBom(treeEntries(600, 1, paths));
    const BigEndianSlice file(bytes);
    ASSERT_EQ(bytes.substr(0, 12), std::string("BOMStore\0\0\0\1", 12));
    const std::uint32_t tableOffset = *file.u32(16);
    EXPECT_EQ(*file.u32(12), *file.u32(tableOffset) - 1) << "non-null blocks";
    EXPECT_EQ(*file.u32(tableOffset + 4), 0u) << "block 0 is the null block";
    const auto block = [&](std::uint32_t id) {
        return *file.slice(*file.u32(tableOffset + 4 + 8 * id),
                           *file.u32(tableOffset + 8 + 8 * id));
    };
    std::vector<std::string_view> names;
    std::vector<std::uint32_t> ids;
    for (std::size_t at = *file.u32(24) + 4; names.size() < *file.u32(*file.u32(24));
         at += 5 + names.back().size()) {
        ids.push_back(*file.u32(at));
        names.push_back(file.slice(at + 5, *file.u8(at + 4))->bytes());
    }
    ASSERT_EQ(names,
              (std::vector<std::string_view>{"BomInfo", "Paths", "HLIndex", "VIndex", "Size64"}));
    const auto tree = block(ids[1]);
    EXPECT_EQ(tree.bytes().substr(0, 4), "tree");
    EXPECT_EQ(*tree.u32(12), 4096u);
    EXPECT_EQ(*tree.u32(16), 601u);
    const auto root = block(*tree.u32(8));
    EXPECT_EQ(*root.u32(0), 2u) << "a branch of two leaves";
    const std::uint32_t first = *root.u32(12), second = *root.u32(20);
    EXPECT_EQ(block(first).size(), 4096u);
    EXPECT_EQ(*block(first).u32(4), second) << "forward link";
    EXPECT_EQ(*block(second).u32(8), first) << "backward link";
    // The attribute type follows the mode: 2 for the root folder, 1 for a file.
    const auto typeOf = [&](std::size_t entry) {
        return *block(*block(*block(first).u32(12 + 8 * entry)).u32(4)).u8(0);
    };
    EXPECT_EQ(typeOf(0), 2);
    EXPECT_EQ(typeOf(1), 1);
}

TEST(BomWriterTest, EntriesThatCannotBeStoredAreRefusedByName) {
    const auto refusal = [](std::vector<BomEntry> entries) {
        const auto written = writeBom(entries);
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
    const std::string text = ".\t40755\t0/0\n./a b\r\t100644\t501/20\t9\t7\n./c\t1777\t1/2\n"
                             "./l\t120755\t0/0\t3\t5\t../x y\n./f\t104755\t4294967295/7\t0\t0\n";
    const std::string unended = text.substr(0, text.size() - 1);
    const auto entries = parseListing(unended);
    ASSERT_TRUE(entries) << entries.error().message;
    EXPECT_EQ(longListingOf(*entries), text);
    for (const char* bad :
         {"./x 40755 0/0", "./x\t8\t0/0", "./x\t200000\t0/0", "./x\t755\t0:0", "./x\t755\t0/",
          "./x\t755\t-1/0", "\t755\t0/0", "./x\t755\t0/0\tmore", ""}) {
        const auto parsed = parseListing(".\t40755\t0/0\n" + std::string(bad) + "\n");
        ASSERT_FALSE(parsed) << bad;
        EXPECT_TRUE(parsed.error().message.starts_with("line 2: ")) << parsed.error().message;
    }
}

TEST(BomWriterTest, RealListingsRoundTripThroughTheWriter) {
    for (const char* name : {"pkgbuild-python-applications", "packagemaker-archive"}) {
        const std::string text = test::readText(dataFolder / (name + std::string(".listing")));
        const auto entries = parseListing(text);
        ASSERT_TRUE(entries) << entries.error().message;
        const auto bytes = writeBom(*entries);
        BomReader reader("memory");
        const auto read = reader.parseBytes(*bytes);
        ASSERT_TRUE(read) << read.error().message;
        std::string listing;
        for (const auto& entry : *read)
            appendListingLine(listing, entry);
        EXPECT_EQ(listing, text) << name;
    }
}

} // namespace
} // namespace quelm
