// Property lists: both encodings round-trip, bad input is refused, writes are atomic.
#include "support/PropertyList.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

using test::TemporaryFolder;

PlistValue sampleValue() {
    return PlistValue::Dict{
        {"flag", true},
        {"negative", std::int64_t{-42}},
        {"large", std::int64_t{1} << 40},
        {"real", 2.5},
        {"text", "Ünïcödé name with blanks"},
        {"data", PlistValue::Data{0, 1, 2, 255}},
        {"date", PlistDate{5.0e8}},
        {"list", PlistValue::Array{"a", 1, PlistValue::Dict{{"inner", false}}}},
        {"empty", PlistValue::Dict{}},
    };
}

class PropertyListEncodingTest : public testing::TestWithParam<PlistFormat> {};

TEST_P(PropertyListEncodingTest, RoundTripsEveryValueType) {
    const auto bytes = serializePlist(sampleValue(), GetParam());
    ASSERT_TRUE(bytes);
    const auto parsed = parsePlist(*bytes);
    ASSERT_TRUE(parsed) << parsed.error().message;
    EXPECT_EQ(*parsed, sampleValue());
}

TEST_P(PropertyListEncodingTest, FileWrittenAtomicallyReadsBack) {
    TemporaryFolder folder;
    ASSERT_TRUE(writePlistFileAtomically(folder / "a.plist", sampleValue(), GetParam()));
    const auto read = readPlistDictionary(folder / "a.plist");
    ASSERT_TRUE(read);
    EXPECT_EQ(PlistValue(*read), sampleValue());
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1);
}

INSTANTIATE_TEST_SUITE_P(BothEncodings, PropertyListEncodingTest,
                         testing::Values(PlistFormat::xml, PlistFormat::binary));

TEST(PropertyListTest, XmlWithCommentsAndDoctypeParses) {
    const auto parsed = parsePlist(R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<!-- how entries are chosen -->
<plist version="1.0"><dict><key>Version</key><string>1.0</string></dict></plist>)");
    ASSERT_TRUE(parsed);
    EXPECT_EQ(*parsed->stringForKey("Version"), "1.0");
}

TEST(PropertyListTest, BadInputIsRefusedWithoutCrashing) {
    const auto binary = *serializePlist(sampleValue(), PlistFormat::binary);
    for (const std::string& bytes :
         {std::string(), std::string("garbage"), std::string("<plist><dict><key>a</key>"),
          binary.substr(0, binary.size() / 2), std::string("bplist00"),
          binary.substr(0, binary.size() - 8)}) {
        EXPECT_FALSE(parsePlist(bytes)) << bytes.size() << " bytes";
    }
}

// Found by fuzzing the channel: libplist aborts on a dictionary key that holds a NUL.
TEST(PropertyListTest, RegressionNulInBinaryDictionaryKeyIsRefused) {
    // {"a\0b": "x"}: header, dict of one pair, ASCII key "a\0b", value "x", offsets, trailer.
    const unsigned char asciiKey[] = {
        0x62, 0x70, 0x6c, 0x69, 0x73, 0x74, 0x30, 0x30, 0xd1, 0x01, 0x02, 0x53, 0x61,
        0x00, 0x62, 0x51, 0x78, 0x08, 0x0b, 0x0f, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,
        0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x11};
    // {"\u00e9\0": "x"}: the same with a UTF-16 key.
    const unsigned char utf16Key[] = {
        0x62, 0x70, 0x6c, 0x69, 0x73, 0x74, 0x30, 0x30, 0xd1, 0x01, 0x02, 0x62, 0x00, 0xe9,
        0x00, 0x00, 0x51, 0x78, 0x08, 0x0b, 0x10, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x01,
        0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x12};
    for (const auto& bytes :
         {std::string_view(reinterpret_cast<const char*>(asciiKey), sizeof asciiKey),
          std::string_view(reinterpret_cast<const char*>(utf16Key), sizeof utf16Key)})
        EXPECT_FALSE(parsePlist(bytes));
}

TEST(PropertyListTest, DeepNestingIsRefused) {
    PlistValue value = PlistValue::Array{};
    for (int depth = 0; depth < 200; ++depth)
        value = PlistValue::Array{value};
    const auto parsed = parsePlist(*serializePlist(value, PlistFormat::binary));
    ASSERT_FALSE(parsed);
    EXPECT_EQ(parsed.error().kind, PlistError::Kind::unsupported);
}

TEST(PropertyListTest, MissingFileAndWrongTopLevelAreErrors) {
    TemporaryFolder folder;
    EXPECT_EQ(readPlistFile(folder / "missing.plist").error().kind, PlistError::Kind::unreadable);
    EXPECT_FALSE(readPlistFile(folder.path()));
    test::writePlist(folder / "array.plist", PlistValue::Array{"x"});
    EXPECT_FALSE(readPlistDictionary(folder / "array.plist"));
}

TEST(PropertyListTest, FailedWriteLeavesTargetAndNoTemporaryFile) {
    TemporaryFolder folder;
    std::filesystem::create_directory(folder / "target");
    test::writeText(folder / "target/keep", "x");
    const auto written = writePlistFileAtomically(folder / "target", sampleValue());
    ASSERT_FALSE(written);
    EXPECT_EQ(written.error().kind, PlistError::Kind::unwritable);
    EXPECT_EQ(test::readText(folder / "target/keep"), "x");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1);
    EXPECT_FALSE(writePlistFileAtomically(folder / "no/such/folder.plist", sampleValue()));
}

} // namespace
} // namespace quelm
