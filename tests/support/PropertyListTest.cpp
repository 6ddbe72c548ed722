// Property lists: both encodings round-trip and agree with libplist, writes are atomic, and what
// a hostile disk or peer can write is refused before libplist sees it: damaged, cyclic, nested
// too deeply, too many values, too large once decoded.
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

using namespace std::string_literals;
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

TEST(PropertyListTest, BothEncodingsRoundTripThroughFilesWrittenAtomicallyAndLimitNesting) {
    TemporaryFolder folder;
    // The limit counts the innermost string as a level of its own.
    PlistValue deepest = "x";
    for (std::size_t i = 1; i < kMaxPlistDepth; ++i)
        deepest = PlistValue::Array{deepest};
    for (const auto format : {PlistFormat::xml, PlistFormat::binary}) {
        ASSERT_TRUE(writePlistFileAtomically(folder / "a.plist", sampleValue(), format));
        EXPECT_EQ(PlistValue(readPlistDictionary(folder / "a.plist").value()), sampleValue());
        EXPECT_EQ(parsePlist(*serializePlist(deepest, format)).value(), deepest);
        const auto tooDeep = parsePlist(*serializePlist(PlistValue::Array{deepest}, format));
        EXPECT_TRUE(!tooDeep && tooDeep.error().kind == ErrorKind::unsupported);
    }
    // A write that fails leaves no trace, and what stood in its way as it was.
    test::writeText(folder / "target/keep", "x");
    EXPECT_FALSE(writePlistFileAtomically(folder / "target", sampleValue()));
    EXPECT_EQ(test::readText(folder / "target/keep"), "x");
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(folder.path()), {}), 2);
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

std::string nestedXmlArrays(std::size_t depth, std::string_view open = "<array>") {
    std::string text = R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0">)";
    for (std::size_t i = 0; i < depth; ++i)
        text += open;
    text += "<string>x</string>";
    for (std::size_t i = 0; i < depth; ++i)
        text += "</array>";
    return text + "</plist>";
}

TEST(PropertyListTest, XmlWithCommentsDoctypeAndMarkupOutsideElementsParses) {
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

/// The bytes given as libplist reads and writes them again in the other encoding, through its own
/// parser and writer: the reference our encoders and readers are held to.
std::string throughLibplist(const std::string& bytes, bool fromBinary) {
    plist_t root = nullptr;
    const auto size = static_cast<std::uint32_t>(bytes.size());
    fromBinary ? plist_from_bin(bytes.data(), size, &root)
               : plist_from_xml(bytes.data(), size, &root);
    char* out = nullptr;
    std::uint32_t length = 0;
    fromBinary ? plist_to_xml(root, &out, &length) : plist_to_bin(root, &out, &length);
    plist_free(root);
    std::string text(out ? out : "", length);
    std::free(out);
    return text;
}

TEST(BinaryPlistTest, WhatWeWriteLibplistReadsAndWhatLibplistWritesWeRead) {
    PlistValue::Array many;
    for (int i = 0; i < 70'000; ++i)
        many.push_back("item " + std::to_string(i % 1000));
    const PlistValue value = PlistValue::Dict{
        {"sample", sampleValue()},
        {"accents and a surrogate pair", "Téléchargements #1 100% \xF0\x9F\x92\xBE"},
        {"long ascii", std::string(40, 'x')},
        {"data", PlistValue::Data(300, 7)},
        {"integers", PlistValue::Array{0, 255, 256, 65535, 65536, std::int64_t{4294967295},
                                       std::int64_t{4294967296}, std::int64_t{-1},
                                       std::numeric_limits<std::int64_t>::min()}},
        {"many", many},
    };
    EXPECT_EQ(parsePlist(throughLibplist(*serializePlist(value, PlistFormat::binary), true)),
              value);
    EXPECT_EQ(parsePlist(throughLibplist(*serializePlist(value, PlistFormat::xml), false)), value);
    // A file name from a hostile disk: Latin-1 bytes, a cut sequence, an encoded surrogate.
    const auto read = parsePlist(*serializePlist(
        PlistValue("caf\xE9 \xE2\x82 \xED\xA0\x80 ok \xC3\xA9"), PlistFormat::binary));
    EXPECT_EQ(*read->string(), "caf\uFFFD \uFFFD\uFFFD \uFFFD\uFFFD\uFFFD ok \u00E9");
}

// Deep enough to overflow the stack: libplist parses binary lists recursively, but XML ones
// only free recursively, which takes deeper nesting.
constexpr std::size_t kDeepBinary = 100000;
constexpr std::size_t kDeepXml = 1000000;

TEST(PropertyListGateTest, RegressionDamagedCyclicAndExplosiveListsAreRefused) {
    const auto binary = *serializePlist(sampleValue(), PlistFormat::binary);
    // Found by fuzzing the channel: libplist aborts on a dictionary key that holds a NUL:
    // {"a\0b": "x"} and {"\u00e9\0": "x"}.
    const std::string trailer =
        std::string(6, '\0') + "\1\1" + std::string(7, '\0') + "\3" + std::string(15, '\0');
    const std::string asciiKey = "bplist00\xd1\1\2\x53"
                                 "a\0b\x51x\x08\x0b\x0f"s +
                                 trailer + "\x11";
    const std::string utf16Key =
        "bplist00\xd1\1\2\x62\0\xe9\0\0\x51x\x08\x0b\x10"s + trailer + "\x12";
    BinaryPlist eachOther(1), ownKey(1), doubling(1), references(1);
    eachOther.add(0xA1, {1});
    eachOther.add(0xA1, {0});
    ownKey.add(0xD1, {0, 1});
    ownKey.add(0x51, {}, "v");
    // Each array holds the next twice: libplist would copy the innermost 2^40 times.
    for (std::uint64_t i = 1; i <= 40; ++i)
        doubling.add(0xA2, {i, i});
    doubling.add(0xA0, {});
    // libplist makes a value of its own at each reference to the shared string.
    std::string refs = "\x13";
    appendBigEndian(refs, kMaxPlistValues, 8);
    references.add(0xAF, {}, refs + std::string(kMaxPlistValues, '\1'));
    references.add(0x51, {}, "x");
    std::string manyElements = "<plist><array>";
    for (std::size_t i = 0; i < kMaxXmlPlistElements; ++i)
        manyElements += "<true/>";
    const std::pair<const char*, std::string> cases[] = {
        {"empty", ""},
        {"garbage", "garbage"},
        {"unended XML", "<plist><dict><key>a</key>"},
        {"half a binary list", binary.substr(0, binary.size() / 2)},
        {"a binary header alone", "bplist00"},
        {"a binary list without its trailer's end", binary.substr(0, binary.size() - 8)},
        {"a NUL in an ASCII key", asciiKey},
        {"a NUL in a UTF-16 key", utf16Key},
        {"arrays that hold each other", eachOther.bytes()},
        {"a dictionary that is its own key", ownKey.bytes()},
        {"deep arrays whose innermost holds the outermost", nestedBinaryArrays(kDeepBinary, true)},
        {"an array shared at every level", doubling.bytes()},
        {"too many references", references.bytes()},
        {"too many XML elements", manyElements + "</array></plist>"},
        // libplist skips an internal subset, so declarations alone would reach it unchecked.
        {"an entity declaration", R"(<?xml version="1.0"?>
<!DOCTYPE plist [<!ENTITY a "aaaaaaaaaa"><!ENTITY b "&a;&a;&a;&a;&a;&a;&a;&a;&a;&a;">]>
<plist version="1.0"><string>ok</string></plist>)"},
        // libplist reads the quoted "?>" and </array> as part of the instruction.
        {"close tags quoted inside markup",
         nestedXmlArrays(kDeepXml, R"(<array><?x "?></array>"?>)")},
    };
    for (const auto& [what, bytes] : cases)
        EXPECT_FALSE(parsePlist(bytes)) << what;
}

TEST(PropertyListGateTest, RegressionDeepListsAreRefusedByTheChannelAndSkippedAsReceipts) {
    const std::string body = nestedBinaryArrays(kDeepBinary);
    auto frame = frameOfBody(body);
    EXPECT_FALSE(takeFrame(frame));
    TemporaryFolder folder;
    test::writeText(folder / "xml.plist", nestedXmlArrays(kDeepXml));
    test::writeText(folder / "binary.plist", body);
    for (const char* name : {"xml.plist", "binary.plist"})
        EXPECT_FALSE(Package::initWithReceiptPath((folder / name).string())) << name;
}

/// An array of count references to one object of type (data, ASCII or UTF-16 string) holding
/// content: a file about as large as the content and the references, that decodes to count
/// copies of the content.
std::string sharedContentBomb(std::uint8_t type, const std::string& content, std::uint64_t count) {
    std::string object = "\x12";
    appendBigEndian(object, type == 0x6 ? content.size() / 2 : content.size(), 4);
    BinaryPlist plist(1);
    const auto shared = plist.add(static_cast<std::uint8_t>(type << 4 | 0xF), {}, object + content);
    return plist.bytes(plist.array(std::vector(count, shared)));
}

std::string utf16Text(std::size_t units) {
    std::string text;
    for (std::size_t i = 0; i < units; ++i)
        text += {'\0', '\xE9'};
    return text;
}

// Refused before anything is read, so the test holds no more than each file: reading them
// would take terabytes, or hundreds of megabytes for a file of 70 kB.
TEST(PropertyListGateTest, RegressionSharedValuesAreReadWithinTheBudgetAndRefusedBeyondIt) {
    const auto megabomb = parsePlist(sharedContentBomb(0x5, std::string(1 << 20, 'x'), 2'500'000));
    ASSERT_FALSE(megabomb);
    EXPECT_EQ(megabomb.error().message,
              "binary property list would take more than 512 MiB to read");
    for (const auto& small : {sharedContentBomb(0x4, std::string(64 << 10, '\7'), 4096),
                              sharedContentBomb(0x5, std::string(64 << 10, 'x'), 4096),
                              sharedContentBomb(0x6, utf16Text(32 << 10), 4096)}) {
        EXPECT_LT(small.size(), 71'000u);
        const auto refused = parsePlist(small);
        ASSERT_FALSE(refused);
        EXPECT_THAT(refused.error().message, testing::HasSubstr("more than 17 MiB to read"));
        EXPECT_FALSE(BinaryPlistDocument::open(small));
    }
    // Three bytes of UTF-8 for each UTF-16 unit: 1,000 copies of 4,000 units take 12 MB.
    std::string accents;
    for (int i = 0; i < 4000; ++i)
        accents += "\u00E9";
    EXPECT_EQ(parsePlist(sharedContentBomb(0x6, utf16Text(4000), 1000)),
              PlistValue(PlistValue::Array(1000, accents)));
    BinaryPlist sharedString(1);
    sharedString.add(0xA2, {1, 1});
    sharedString.add(0x51, {}, "x");
    EXPECT_EQ(parsePlist(sharedString.bytes()), PlistValue(PlistValue::Array{"x", "x"}));
}

// The largest list we read: the reply of a repair of 100,000 files, its keys and class names
// shared by every result, decodes to some 140 MiB and must stay within its budget. It is read an
// element at a time, and what is not there is refused.
TEST(PropertyListGateTest, TheReplyOfALargeRepairOpens) {
    std::vector<ResultRecord> results(100'000,
                                      {"com.apple.pkg.Essentials", "",
                                       "POSIX Permissions Mismatched", 0644, 0755, 0755, "Fixed"});
    for (std::size_t i = 0; i < results.size(); ++i)
        results[i].fileSystemResourcePath =
            "/Volumes/Macintosh HD/System/Library/Frameworks/Framework" + std::to_string(i % 500) +
            ".framework/Versions/A/Resources/English.lproj/Localizable" + std::to_string(i) +
            ".strings";
    const auto encoded = encodeReplyPlist(1, results);
    const auto message = BinaryPlistDocument::open(encoded);
    ASSERT_TRUE(message) << message.error().message;
    const auto items = message->items(decodeReplyEnvelope(*message).value().value);
    ASSERT_TRUE(items && items->size() == results.size());
    EXPECT_EQ(unarchive<ResultRecord>(*message->read(items->back())), results.back());
    EXPECT_FALSE(message->entry(message->top(), "other"));
    EXPECT_FALSE(message->items(message->top())) << "a dictionary is no array";
    EXPECT_FALSE(message->read(std::numeric_limits<BinaryPlistDocument::Ref>::max()));
}

} // namespace
} // namespace quelm
