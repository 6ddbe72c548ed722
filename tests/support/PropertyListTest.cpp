// Property lists: both encodings round-trip, bad input is refused, writes are atomic.
#include "support/PropertyList.h"

#include "TestSupport.h"
#include "helper/Channel.h"
#include "helper/RemoteProtocol.h"
#include "repair/Package.h"
#include "support/BinaryPlistCheck.h"

#include <cstdlib>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <limits>
#include <plist/plist.h>

namespace quelm {
namespace {

using test::appendBigEndian;
using test::BinaryPlist;
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

/// A value libplist would read, through its own parser, from the bytes given: the reference our
/// binary encoder and reader are held to.
PlistValue throughLibplist(const std::string& binary) {
    plist_t root = nullptr;
    plist_from_bin(binary.data(), static_cast<std::uint32_t>(binary.size()), &root);
    char* xml = nullptr;
    std::uint32_t length = 0;
    plist_to_xml(root, &xml, &length);
    plist_free(root);
    std::string text(xml ? xml : "", length);
    std::free(xml);
    return parsePlist(text).value_or(PlistValue(false));
}

TEST(BinaryPlistTest, WhatWeWriteLibplistReadsAndWhatLibplistWritesWeRead) {
    PlistValue::Array many;
    for (int i = 0; i < 70'000; ++i)
        many.push_back("item " + std::to_string(i % 1000));
    const PlistValue::Data bytes(300, 7);
    const PlistValue value = PlistValue::Dict{
        {"sample", sampleValue()},
        {"accents and a surrogate pair", "Téléchargements #1 100% \xF0\x9F\x92\xBE"},
        {"long ascii", std::string(40, 'x')},
        {"data", bytes},
        {"integers", PlistValue::Array{0, 255, 256, 65535, 65536, std::int64_t{4294967295},
                                       std::int64_t{4294967296}, std::int64_t{-1},
                                       std::numeric_limits<std::int64_t>::min()}},
        {"many", many},
    };
    const auto ours = *serializePlist(value, PlistFormat::binary);
    EXPECT_EQ(throughLibplist(ours), value);
    plist_t node = nullptr;
    const auto xml = *serializePlist(value, PlistFormat::xml);
    plist_from_xml(xml.data(), static_cast<std::uint32_t>(xml.size()), &node);
    char* theirs = nullptr;
    std::uint32_t length = 0;
    plist_to_bin(node, &theirs, &length);
    plist_free(node);
    const std::string libplistBinary(theirs, length);
    std::free(theirs);
    EXPECT_EQ(*parsePlist(libplistBinary), value);
}

TEST(BinaryPlistTest, TextThatIsNotUtf8BecomesReplacementCharacters) {
    // A file name from a hostile disk: Latin-1 bytes, a cut sequence, an encoded surrogate.
    const PlistValue value = std::string("caf\xE9 \xE2\x82 \xED\xA0\x80 ok \xC3\xA9");
    const auto read = parsePlist(*serializePlist(value, PlistFormat::binary));
    ASSERT_TRUE(read);
    EXPECT_EQ(*read->string(), "caf\uFFFD \uFFFD\uFFFD \uFFFD\uFFFD\uFFFD ok \u00E9");
}

TEST(BinaryPlistTest, AListIsReadAnElementAtATime) {
    const auto bytes = *serializePlist(
        PlistValue::Dict{{"list", PlistValue::Array{"a", PlistValue::Dict{{"k", 1}}}}},
        PlistFormat::binary);
    const auto document = BinaryPlistDocument::open(bytes);
    ASSERT_TRUE(document);
    const auto list = document->entry(document->top(), "list");
    ASSERT_TRUE(list);
    EXPECT_FALSE(document->entry(document->top(), "other"));
    EXPECT_FALSE(document->items(document->top())) << "a dictionary is no array";
    const auto items = document->items(*list);
    ASSERT_TRUE(items && items->size() == 2);
    EXPECT_EQ(*document->read(items->front()), PlistValue("a"));
    EXPECT_EQ(*document->read(items->back()), PlistValue(PlistValue::Dict{{"k", 1}}));
    EXPECT_FALSE(document->read(1'000'000));
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

/// Arrays nested depth deep, each holding the next; the innermost holds the string "x", or
/// the outermost array when closed.
std::string nestedBinaryArrays(std::size_t depth, bool closed = false) {
    BinaryPlist plist(3);
    for (std::size_t i = 1; i <= depth; ++i)
        plist.add(0xA1, {closed && i == depth ? 0 : i});
    plist.add(0x51, {}, "x");
    return plist.bytes();
}

std::string nestedXmlArrays(std::size_t depth) {
    std::string text = R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0">)";
    for (std::size_t i = 0; i < depth; ++i)
        text += "<array>";
    text += "<string>x</string>";
    for (std::size_t i = 0; i < depth; ++i)
        text += "</array>";
    return text + "</plist>";
}

TEST_P(PropertyListEncodingTest, NestingIsRefusedJustBeyondTheLimit) {
    // The limit counts the innermost string as a level of its own.
    PlistValue deepest = "x";
    for (std::size_t i = 1; i < kMaxPlistDepth; ++i)
        deepest = PlistValue::Array{deepest};
    const auto parsed = parsePlist(*serializePlist(deepest, GetParam()));
    ASSERT_TRUE(parsed) << parsed.error().message;
    EXPECT_EQ(*parsed, deepest);
    const auto tooDeep = parsePlist(*serializePlist(PlistValue::Array{deepest}, GetParam()));
    ASSERT_FALSE(tooDeep);
    EXPECT_EQ(tooDeep.error().kind, ErrorKind::unsupported);
}

// Deep enough to overflow the stack: libplist parses binary lists recursively, but XML ones
// only free recursively, which takes deeper nesting.
constexpr std::size_t kDeepBinary = 100000;
constexpr std::size_t kDeepXml = 1000000;

TEST(PropertyListGateTest, RegressionDeepBinaryFrameIsRefusedByTheChannel) {
    const std::string body = nestedBinaryArrays(kDeepBinary);
    std::string frame;
    appendBigEndian(frame, body.size(), 4);
    frame += body;
    EXPECT_FALSE(takeFrame(frame));
}

TEST(PropertyListGateTest, RegressionDeepReceiptsAreSkipped) {
    TemporaryFolder folder;
    test::writeText(folder / "xml.plist", nestedXmlArrays(kDeepXml));
    test::writeText(folder / "binary.plist", nestedBinaryArrays(kDeepBinary));
    for (const char* name : {"xml.plist", "binary.plist"})
        EXPECT_FALSE(Package::initWithReceiptPath((folder / name).string())) << name;
}

TEST(PropertyListGateTest, RegressionCyclicBinaryPlistIsRefused) {
    BinaryPlist eachOther(1);
    eachOther.add(0xA1, {1});
    eachOther.add(0xA1, {0});
    BinaryPlist ownKey(1);
    ownKey.add(0xD1, {0, 1});
    ownKey.add(0x51, {}, "v");
    EXPECT_FALSE(parsePlist(eachOther.bytes()));
    EXPECT_FALSE(parsePlist(ownKey.bytes()));
    EXPECT_FALSE(parsePlist(nestedBinaryArrays(kDeepBinary, true)));
}

TEST(PropertyListGateTest, RegressionXmlEntityDeclarationIsRefused) {
    // libplist skips an internal subset, so declarations alone would reach it unchecked.
    EXPECT_FALSE(parsePlist(R"(<?xml version="1.0"?>
<!DOCTYPE plist [<!ENTITY a "aaaaaaaaaa"><!ENTITY b "&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;">]>
<plist version="1.0"><string>ok</string></plist>)"));
}

TEST(PropertyListGateTest, OnlyScalarsMayBeShared) {
    BinaryPlist sharedString(1);
    sharedString.add(0xA2, {1, 1});
    sharedString.add(0x51, {}, "x");
    EXPECT_EQ(parsePlist(sharedString.bytes()), PlistValue(PlistValue::Array{"x", "x"}));
    // Each array holds the next twice: libplist would copy the innermost 2^40 times.
    BinaryPlist doubling(1);
    for (std::uint64_t i = 1; i <= 40; ++i)
        doubling.add(0xA2, {i, i});
    doubling.add(0xA0, {});
    EXPECT_FALSE(parsePlist(doubling.bytes()));
}

TEST(PropertyListGateTest, TooManyValuesAreRefused) {
    // libplist makes a value of its own at each reference to the shared string.
    std::string references = "\x13";
    appendBigEndian(references, kMaxPlistValues, 8);
    references.append(kMaxPlistValues, '\1');
    BinaryPlist binary(1);
    binary.add(0xAF, {}, references);
    binary.add(0x51, {}, "x");
    EXPECT_FALSE(parsePlist(binary.bytes()));
    std::string xml = "<plist><array>";
    for (std::size_t i = 0; i < kMaxXmlPlistElements; ++i)
        xml += "<true/>";
    EXPECT_FALSE(parsePlist(xml + "</array></plist>"));
}

/// An array of count references to one object of type (data, ASCII or UTF-16 string) holding
/// content: a file about as large as the content and the references, that decodes to count
/// copies of the content.
std::string sharedContentBomb(std::uint8_t type, const std::string& content, std::uint64_t count) {
    std::string object = "\x12";
    appendBigEndian(object, type == 0x6 ? content.size() / 2 : content.size(), 4);
    BinaryPlist plist(1);
    const auto shared = plist.add(static_cast<std::uint8_t>(type << 4 | 0xF), {}, object + content);
    return plist.bytes(plist.repeated(shared, count));
}

std::string utf16Text(std::size_t units) {
    std::string text;
    for (std::size_t i = 0; i < units; ++i)
        text += {'\0', '\xE9'};
    return text;
}

// Refused before anything is read, so the test holds no more than each file: reading them
// would take terabytes, or hundreds of megabytes for a file of 70 kB.
TEST(PropertyListGateTest, RegressionSharedValuesThatDecodeTooLargeAreRefused) {
    const std::string megabomb = sharedContentBomb(0x5, std::string(1 << 20, 'x'), 2'500'000);
    const auto parsed = parsePlist(megabomb);
    ASSERT_FALSE(parsed);
    EXPECT_EQ(parsed.error().kind, ErrorKind::unsupported);
    EXPECT_EQ(parsed.error().message, "binary property list would take more than 512 MiB to read");
    for (const auto& small : {sharedContentBomb(0x4, std::string(64 << 10, '\7'), 4096),
                              sharedContentBomb(0x5, std::string(64 << 10, 'x'), 4096),
                              sharedContentBomb(0x6, utf16Text(32 << 10), 4096)}) {
        EXPECT_LT(small.size(), 71'000u);
        const auto refused = parsePlist(small);
        ASSERT_FALSE(refused);
        EXPECT_THAT(refused.error().message, testing::HasSubstr("more than 17 MiB to read"));
        EXPECT_FALSE(BinaryPlistDocument::open(small));
    }
}

TEST(PropertyListGateTest, SharedValuesWithinTheBudgetRead) {
    // Three bytes of UTF-8 for each UTF-16 unit: 1,000 copies of 4,000 units take 12 MB.
    const auto bytes = sharedContentBomb(0x6, utf16Text(4000), 1000);
    const auto parsed = parsePlist(bytes);
    ASSERT_TRUE(parsed) << parsed.error().message;
    ASSERT_EQ(parsed->array()->size(), 1000u);
    const auto* last = parsed->array()->back().string();
    ASSERT_TRUE(last && last->size() == 8000);
    EXPECT_TRUE(last->starts_with("\u00E9") && last->ends_with("\u00E9"));
}

// The largest list we read: the reply of a repair of 100,000 files, its keys and class names
// shared by every result, decodes to some 140 MiB and must stay within its budget.
TEST(PropertyListGateTest, TheReplyOfALargeRepairOpens) {
    std::vector<ResultRecord> results;
    for (int i = 0; i < 100'000; ++i)
        results.push_back({"com.apple.pkg.Essentials",
                           "/Volumes/Macintosh HD/System/Library/Frameworks/Framework" +
                               std::to_string(i % 500) +
                               ".framework/Versions/A/Resources/English.lproj/Localizable" +
                               std::to_string(i) + ".strings",
                           "POSIX Permissions Mismatched", 0644, 0755, 0755, "Fixed"});
    const auto encoded = encodeReplyPlist(1, results);
    const auto message = BinaryPlistDocument::open(encoded);
    ASSERT_TRUE(message) << message.error().message;
    const auto envelope = decodeReplyEnvelope(*message);
    ASSERT_TRUE(envelope);
    const auto items = message->items(envelope->value);
    ASSERT_TRUE(items && items->size() == results.size());
    const auto last = message->read(items->back());
    ASSERT_TRUE(last);
    EXPECT_EQ(unarchive<ResultRecord>(*last), results.back());
}

TEST(PropertyListGateTest, MarkupOutsideElementsDoesNotCount) {
    const std::string hidden(2 * kMaxPlistDepth, '<');
    const auto parsed = parsePlist(R"(<?xml version="1.0" encoding="UTF-8"?>
<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">
<!-- )" + nestedXmlArrays(kMaxPlistDepth) +
                                   R"( -->
<plist version="1.0"><array><string><![CDATA[)" +
                                   hidden + R"(]]></string><true/></array></plist>)");
    ASSERT_TRUE(parsed) << parsed.error().message;
    EXPECT_EQ(*parsed, PlistValue(PlistValue::Array{hidden, true}));
}

TEST(PropertyListGateTest, CloseTagsQuotedInsideMarkupDoNotHideNesting) {
    // libplist reads the quoted "?>" and </array> as part of the instruction.
    std::string text = "<plist>";
    for (std::size_t i = 0; i < kDeepXml; ++i)
        text += R"(<array><?x "?></array>"?>)";
    text += "<string>x</string>";
    for (std::size_t i = 0; i < kDeepXml; ++i)
        text += "</array>";
    EXPECT_FALSE(parsePlist(text + "</plist>"));
}

TEST(PropertyListTest, MissingFileAndWrongTopLevelAreErrors) {
    TemporaryFolder folder;
    EXPECT_EQ(readPlistFile(folder / "missing.plist").error().kind, ErrorKind::io);
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
    EXPECT_EQ(written.error().kind, ErrorKind::io);
    EXPECT_EQ(test::readText(folder / "target/keep"), "x");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 1);
    EXPECT_FALSE(writePlistFileAtomically(folder / "no/such/folder.plist", sampleValue()));
}

} // namespace
} // namespace quelm
