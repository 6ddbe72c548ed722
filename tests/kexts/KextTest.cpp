// Kexts: the version shown and the one compared, and their archives.
#include "kexts/Kext.h"

#include "TestSupport.h"
#include "kexts/KextCatalog.h"

#include <gtest/gtest.h>

namespace quelm {
namespace {

using Dict = PlistValue::Dict;

TEST(KextTest, TheVersionShownPrefersVersionPlistAndTheShortString) {
    struct Case {
        std::optional<Dict> info, versionList;
        std::optional<std::string> shown;
        std::string compared;
    };
    const Dict both{{"CFBundleShortVersionString", "1.0"}, {"CFBundleVersion", "1.0.1"}};
    for (const auto& [info, versionList, shown, compared] : std::vector<Case>{
             {both, std::nullopt, "1.0", "1.0.1"},
             {both, Dict{{"CFBundleShortVersionString", "2.0"}}, "2.0", "1.0.1"},
             {Dict{{"CFBundleVersion", "3"}}, Dict{{"CFBundleVersion", "4"}}, "4", "3"},
             {Dict{{"CFBundleShortVersionString", 2}, {"CFBundleVersion", "2.0"}}, std::nullopt,
              std::nullopt, "2.0"},
             {std::nullopt, std::nullopt, std::nullopt, ""}}) {
        for (const auto format : {PlistFormat::xml, PlistFormat::binary}) {
            test::TemporaryFolder folder;
            const auto bundle =
                test::makeKext(folder / "with space", "A.kext", info, versionList, format);
            const auto kext = readKext(bundle.string());
            ASSERT_TRUE(kext);
            EXPECT_EQ(kext->version(), shown) << compared;
            EXPECT_EQ(kext->bundleVersion(), compared);
        }
    }
    test::TemporaryFolder folder;
    const auto bundle = test::makeKext(folder.path(), "B.kext", Dict{{"CFBundleVersion", "3"}});
    test::writeText(bundle / "Contents/version.plist", "<plist><dict>");
    EXPECT_EQ(readKext(bundle.string())->version(), "3") << "a damaged version.plist is none";
}

TEST(KextTest, ArchiveCarriesTheURLText) {
    const Kext kext(FileURL::fromPath("/k/My Kext.kext", false));
    const auto archived = archive(kext);
    EXPECT_EQ(*archived.stringForKey("url"), "file:///k/My%20Kext.kext");
    EXPECT_EQ(*unarchive<Kext>(archived), kext);
    for (const auto& bad : {Dict{{"$class", "QVKernelExtension"}},
                            Dict{{"$class", "QVKernelExtension"}, {"url", "/k/A.kext"}},
                            Dict{{"$class", "QVOSVolume"}, {"url", "file:///k/A.kext"}}})
        EXPECT_FALSE(unarchive<Kext>(bad));
}

} // namespace
} // namespace quelm
