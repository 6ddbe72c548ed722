// Keyed archives: only the allowed classes open, and every decoder checks presence and type.
#include "support/KeyedArchive.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

PlistValue sampleArchive() {
    KeyedArchiver archiver("Sample");
    archiver.encodeObject("name", PlistValue("x"));
    archiver.encodeObject("absent", std::optional<std::string>());
    archiver.encodeInteger("count", 7);
    archiver.encodeURL("url", FileURL::fromPath("/a b", false));
    return std::move(archiver).finish();
}

TEST(KeyedArchiveTest, OnlyAllowedClassesOpenAndDecodersCheckPresenceAndType) {
    EXPECT_TRUE(KeyedUnarchiver::open(sampleArchive(), {"Other", "Sample"}));
    for (const auto& archive :
         {sampleArchive(), PlistValue(PlistValue::Dict{{"name", "x"}}),
          PlistValue(PlistValue::Dict{{"$class", 3}}), PlistValue(PlistValue::Array{"Sample"})})
        EXPECT_FALSE(KeyedUnarchiver::open(archive, {"Other"}));
    const auto archive = sampleArchive();
    const auto coder = *KeyedUnarchiver::open(archive, {"Sample"});
    EXPECT_EQ(*coder.decodeString("name"), "x");
    EXPECT_FALSE(coder.decodeString("absent"));
    EXPECT_FALSE(coder.decodeString("count"));
    EXPECT_EQ(*coder.decodeOptionalString("absent"), std::nullopt);
    EXPECT_FALSE(coder.decodeOptionalString("count"));
    EXPECT_EQ(*coder.decodeInteger("count"), 7);
    EXPECT_FALSE(coder.decodeInteger("name"));
    EXPECT_EQ(coder.decodeURL("url")->path(), "/a b");
    EXPECT_FALSE(coder.decodeURL("name"));
}

} // namespace
} // namespace quelm
