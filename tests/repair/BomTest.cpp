// BOM files: real ones list exactly, what the writer writes reads back the same in the layout of
// real files, edge cases of the format are read as it says, and each damaged field is refused
// with what is wrong, without reading outside the file or hanging; bad entries and listing
// lines are refused by name.
#include "TestSupport.h"
#include "repair/BomReader.h"
#include "repair/BomWriter.h"
#include "support/ByteReader.h"
#include "support/ByteWriter.h"

#include <deque>
#include <gtest/gtest.h>

namespace quelm {
namespace {

using namespace std::string_literals;

const std::filesystem::path dataFolder = QUELM_TEST_BOM_DIR;

std::string listingOf(std::span<const BomEntry> entries, bool longForm = true) {
    std::string text;
    for (const auto& entry : entries)
        longForm ? appendLongListingLine(text, entry) : appendListingLine(text, entry);
    return text;
}

/// The listing of a BOM in memory, or why the reader refused it.
std::string listingOf(std::string bytes, bool longForm = true) {
    BomReader reader("memory");
    const auto entries = reader.parseBytes(std::move(bytes));
    return entries ? listingOf(*entries, longForm) : "refused: " + entries.error().message;
}

/// What the reader lists of the written entries.
std::string readBack(std::span<const BomEntry> entries, bool longForm = true) {
    const auto bytes = writeBom(entries);
    return bytes ? listingOf(*bytes, longForm) : "not written: " + bytes.error().message;
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

TEST(BomTest, RealFilesListExactlyAndTheirListingsUnusualEntriesAndManyPathsRoundTrip) {
    for (const std::string name : {"pkgbuild-python-applications", "packagemaker-archive"}) {
        const std::string text = test::readText(dataFolder / (name + ".listing"));
        const auto file = BomFile::initWithFileName((dataFolder / (name + ".bom")));
        file->parse();
        EXPECT_EQ(listingOf(file->entries(), false), text) << name;
        const auto entries = parseListing(text);
        ASSERT_TRUE(entries) << entries.error().message;
        EXPECT_EQ(readBack(*entries, false), text) << name;
    }
    const std::vector<BomEntry> unusual{
        {".", 041777, 0, 0},
        {"./Library", 040755, 0, 80},
        {"./Library/Icon\r", 0100644, 501, 20, 38, 3557505254u},
        {"./Library/with  blanks ", 0104755, 4294967295u, 4294967294u, 4294967295u, 0},
        {"./Library/setgid", 0102711, 0, 0},
        {"./Library/link", 0120755, 0, 0, 4, 1234, "../a b"},
        {"./Library/disk0", 060640, 0, 5},
        {"./Library/Ünïcödé", 0100000, 0, 0},
    };
    // A leaf holds 510 entries: 510 paths fill one, 511 need two under a branch, more than
    // 510 * 510 need two branch levels.
    std::deque<std::string> paths;
    for (const auto& entries : {unusual, treeEntries(509, 1, paths), treeEntries(510, 1, paths),
                                treeEntries(7, 3, paths), treeEntries(511, 2, paths)})
        EXPECT_EQ(readBack(entries), listingOf(entries)) << entries.size() << " paths";
}

/// bytes with the big-endian field of width bytes at offset set to value.
std::string with(std::string bytes, std::size_t offset, std::uint64_t value, std::size_t width) {
    std::string field;
    BigEndianWriter(field).uint(value, width);
    return bytes.replace(offset, width, field);
}

std::string swapEntries(std::string bytes, std::size_t at) {
    std::swap_ranges(bytes.begin() + at, bytes.begin() + at + 8, bytes.begin() + at + 8);
    return bytes;
}

/// The layout of our writer's files, to read and damage them in place.
struct Layout {
    explicit Layout(const std::string& bytes) : file(bytes) {}

    std::size_t block(std::uint32_t id) const { return *file.u32(*file.u32(16) + 4 + 8 * id); }
    BigEndianSlice blockAt(std::uint32_t id) const {
        return *file.slice(block(id), *file.u32(*file.u32(16) + 8 + 8 * id));
    }
    /// The root of the Paths tree, the second variable after "BomInfo".
    std::uint32_t root() const { return *blockAt(*file.u32(*file.u32(24) + 16)).u32(8); }
    /// The first entry of the root, a leaf when there are few paths.
    std::size_t rootEntries() const { return block(root()) + 12; }

    BigEndianSlice file;
};

TEST(BomTest, EntriesThatCannotBeStoredAreRefusedByName) {
    const auto refusedAs = [](const std::vector<BomEntry>& entries, const std::string& start) {
        const auto written = writeBom(entries);
        EXPECT_TRUE(!written && written.error().message.starts_with(start)) << start;
    };
    const BomEntry top{".", 040755, 0, 0}, file{"./a", 0100644, 0, 0};
    refusedAs({}, "the first path must be \".\"");
    refusedAs({file}, "the first path must be \".\"");
    refusedAs({top, file, file}, "./a: listed twice");
    for (const std::string& path :
         {"./z/b"s, "./b/"s, "./tab\tname"s, "./line\nbreak"s, "./a\0b"s, "x"s, "."s})
        refusedAs({top, file, {path, 0100644, 0, 0}}, path + ":");
}

TEST(BomTest, ListingParsesBlanksAndCarriageReturnsAndNamesTheBadLine) {
    const std::string text = ".\t40755\t0/0\n./a b\r\t100644\t501/20\t9\t7\n./c\t1777\t1/2\n"
                             "./l\t120755\t0/0\t3\t5\t../x y\n./f\t104755\t4294967295/7\t0\t0\n";
    const std::string unended = text.substr(0, text.size() - 1);
    const auto entries = parseListing(unended);
    ASSERT_TRUE(entries) << entries.error().message;
    EXPECT_EQ(listingOf(*entries), text);
    for (const char* bad :
         {"./x 40755 0/0", "./x\t8\t0/0", "./x\t200000\t0/0", "./x\t755\t0:0", "./x\t755\t0/",
          "./x\t755\t-1/0", "\t755\t0/0", "./x\t755\t0/0\tmore", ""}) {
        const auto parsed = parseListing(".\t40755\t0/0\n" + std::string(bad) + "\n");
        EXPECT_TRUE(!parsed && parsed.error().message.starts_with("line 2: ")) << bad;
    }
}

// A BOM made by hand: one path "orphan" whose parent id 7 is listed nowhere.
const std::string orphan =
    // 0: header: magic, version 1, 5 blocks, block table at 120 (52 bytes), variables at 106
    // (14 bytes)
    "BOMStore\0\0\0\1\0\0\0\5\0\0\0\x78\0\0\0\x34\0\0\0\x6a\0\0\0\x0e"
    // 32, block 1: tree header: "tree", version 1, root block 2, node size 4096, 1 path, flag
    "tree\0\0\0\1\0\0\0\2\0\0\x10\0\0\0\0\1\0"
    // 53, block 2: leaf, 1 entry, no forward or backward link; entry: value 3, key 4
    "\0\1\0\1\0\0\0\0\0\0\0\0\0\0\0\3\0\0\0\4"
    // 73, block 3: value: path id 9, attributes block 5
    "\0\0\0\x09\0\0\0\5"
    // 81, block 4: key: parent id 7, "orphan"
    "\0\0\0\7orphan\0"
    // 92, block 5: attributes: file, reserved, architecture, mode 0100644, uid 501, gid 20
    "\1\0\0\x0f\x81\xa4\0\0\x01\xf5\0\0\0\x14"
    // 106: variables: 1, block 1 named "Paths"
    "\0\0\0\1\0\0\0\1\5Paths"
    // 120: block table: 6 entries (address, length), block 0 the null block
    "\0\0\0\6\0\0\0\0\0\0\0\0\0\0\0\x20\0\0\0\x15\0\0\0\x35\0\0\0\x14\0\0\0\x49\0\0\0\x08"
    "\0\0\0\x51\0\0\0\x0b\0\0\0\x5c\0\0\0\x0e"s;
const std::string orphanListing = "/orphan\t100644\t501/20\t0\t0\n";

constexpr std::size_t tableEntry = 124; // address of block 0; block i's is 8 * i further

/// Whether listing is the one expected, or a refusal whose reason holds what follows "refused: ".
bool matches(const std::string& listing, const std::string& expected) {
    return listing == expected ||
           (expected.starts_with("refused: ") && listing.starts_with("refused: ") &&
            listing.find(expected.substr(9)) != listing.npos);
}

TEST(BomTest, EachFieldIsReadAsTheFormatSaysAndDamageIsRefusedWithWhatIsWrong) {
    // What, where, the value and its width, and the listing or "refused: " and part of the reason.
    const std::tuple<const char*, std::size_t, std::uint32_t, std::size_t, std::string> cases[] = {
        {"the hand-made file as it is", 0, 'B', 1, orphanListing},
        {"the magic ends at the first NUL", 8, 2, 4, orphanListing},
        {"an empty root block", tableEntry + 8 * 2 + 4, 0, 4, ""},
        {"a root block too short for a node", tableEntry + 8 * 2 + 4, 11, 4, ""},
        {"no Paths variable", 115, 'X', 1, ""},
        {"magic not ended by NUL", 8, 0x01000001, 4, "refused: not a BOM store"},
        {"magic misspelt", 4, 'S', 1, "refused: not a BOM store"},
        // The count bounds the table: ids past it would read the free list as addresses.
        {"block table count 0", 120, 0, 4, "refused: Paths tree or its root"},
        {"block table count leaving block 5 out", 120, 5, 4, "refused: attributes lie outside"},
        {"variable block id out of range", 110, 6, 4, "refused: Paths tree or its root"},
        {"root block id out of range", 40, 6, 4, "refused: Paths tree or its root"},
        {"key block id out of range", 69, 0x10000, 4, "refused: key, value or"},
        {"value block id is the null block", 65, 0, 4, "refused: key, value or"},
        {"attributes block id out of range", 77, 99, 4, "refused: key, value or"},
        {"entry count too large for its block", 55, 2, 2, "refused: branch of the Paths tree"},
        {"name without NUL in its block", tableEntry + 8 * 4 + 4, 10, 4, "refused: key, value or"},
        {"value record under 8 bytes", tableEntry + 8 * 3 + 4, 7, 4, "refused: key, value or"},
        {"attributes under 14 bytes", tableEntry + 8 * 5 + 4, 13, 4, "refused: key, value or"},
        {"forward link out of range", 57, 77, 4, "refused: leaf of the Paths tree"},
        {"forward link to itself", 57, 2, 4, "refused: leaves of the Paths tree loop"},
    };
    for (const auto& [what, offset, value, width, expected] : cases) {
        const auto listing = listingOf(with(orphan, offset, value, width));
        EXPECT_TRUE(matches(listing, expected)) << what << ": " << listing;
    }
    // Offsets, counts and lengths that run past the end are refused as every cut of the file is.
    for (std::size_t length = 0; length < orphan.size(); ++length)
        EXPECT_TRUE(listingOf(orphan.substr(0, length)).starts_with("refused: ")) << length;
}

TEST(BomTest, WrittenFilesHaveTheLayoutOfRealBomsAndDamageInThemIsRefused) {
    std::deque<std::string> paths;
    const std::string bytes = *writeBom(treeEntries(600, 1, paths));
    const Layout layout(bytes);
    const BigEndianSlice& file = layout.file;
    EXPECT_EQ(*file.u32(12), *file.u32(*file.u32(16)) - 1) << "non-null blocks";
    EXPECT_EQ(layout.block(0), 0u) << "block 0 is the null block";
    const auto root = layout.blockAt(layout.root());
    EXPECT_EQ(*root.u32(0), 2u) << "a branch of two leaves";
    const std::uint32_t first = *root.u32(12), second = *root.u32(20);
    EXPECT_EQ(*layout.blockAt(first).u32(4), second) << "forward link";
    EXPECT_EQ(*layout.blockAt(second).u32(8), first) << "backward link";

    const std::string three = *writeBom(treeEntries(2, 1, paths));
    const std::string chain = *writeBom(*parseListing(
        ".\t40755\t0/0\n./A\t40755\t0/0\n./A/B\t40755\t0/0\n./A/B/C\t100644\t0/9\t38\t7"));
    const Layout flat(three), folders(chain);
    const std::size_t aKey = folders.block(*folders.file.u32(folders.rootEntries() + 12));
    const std::pair<std::string, std::string> cases[] = {
        {with(bytes, layout.block(first + 1) + 4, first, 4),
         "refused: more entries than the file can hold"},
        {with(bytes, layout.rootEntries(), layout.root(), 4),
         "refused: branches of the Paths tree loop"},
        // Our writer stores the attributes, value and key blocks of path n as blocks 3n-1 to 3n+1.
        {with(three, flat.block(3 * 3), 1, 4), "refused: a path id is listed twice"},
        // B is listed before its folder A, so B is "/B"; C, listed after A, gets the names of all
        // its folders, as the format's walk gives them.
        {swapEntries(chain, folders.rootEntries() + 8),
         ".\t40755\t0/0\n/B\t40755\t0/0\n./A\t40755\t0/0\n./A/B/C\t100644\t0/9\t38\t7\n"},
        // A's folder is B, and A is listed after its child B: C's folders name one another.
        {swapEntries(with(chain, aKey, 3, 4), folders.rootEntries() + 8),
         "refused: name one another"},
    };
    for (const auto& [damaged, expected] : cases)
        EXPECT_TRUE(matches(listingOf(damaged), expected)) << listingOf(damaged);

    // Size and checksum are trusted only when recorded for their type: not with a type byte that
    // says link for a plain file's mode, nor in the orphan's short attributes.
    const auto mistyped = with(chain, folders.block(3 * 4 - 1), 3, 1);
    std::string trusted;
    BomReader reader("memory");
    for (const auto& listed : {chain, mistyped, orphan}) {
        const auto entries = reader.parseBytes(listed);
        for (const auto& entry : *entries)
            trusted += entry.hasChecksum ? '1' : '0';
    }
    EXPECT_EQ(trusted, "000100000") << "chain, mistyped chain, orphan";
}

} // namespace
} // namespace quelm
