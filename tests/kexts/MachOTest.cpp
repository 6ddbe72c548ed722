// The Mach-O header reader on files the tests build, whole, cut short and damaged field by field.
#include "kexts/MachO.h"

#include "KextFixtures.h"
#include "TestSupport.h"
#include "support/FolderTrees.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <tuple>

namespace quelm {
namespace {

using test::fatMachO;
using test::thinMachO;

std::vector<std::string> namesOf(const std::expected<MachOFile, Error>& file) {
    std::vector<std::string> names;
    if (file)
        for (const auto& slice : file->slices)
            names.push_back(cpuTypeName(slice));
    return names;
}

/// The bytes with the big-endian 32-bit word at offset replaced.
std::string withWord(std::string bytes, std::size_t offset, std::uint32_t value) {
    for (int i = 0; i < 4; ++i)
        bytes[offset + i] = static_cast<char>(value >> (24 - 8 * i));
    return bytes;
}

TEST(MachOTest, ThinAndFatFilesGiveEverySlice) {
    // A big-endian header, as PowerPC compilers wrote it.
    const std::string ppc =
        std::string("\xfe\xed\xfa\xce\0\0\0\x12\0\0\0\0\0\0\0\x0b", 16) + std::string(12, '\0');
    const auto arm = thinMachO(test::kArm64, true, 100);
    const auto i386 = thinMachO(test::kI386, false);
    for (const auto& [bytes, fat, names] :
         std::vector<std::tuple<std::string, bool, std::vector<std::string>>>{
             {thinMachO(test::kX86_64, true, 72), false, {"x86_64"}},
             {i386, false, {"i386"}},
             {ppc, false, {"ppc"}},
             {fatMachO({{test::kX86_64, thinMachO(test::kX86_64)}, {test::kArm64, arm}}),
              true,
              {"x86_64", "arm64"}},
             {fatMachO({{test::kArm64, arm}, {test::kI386, i386}}, true),
              true,
              {"arm64", "i386"}}}) {
        const auto file = parseMachO(bytes);
        ASSERT_TRUE(file) << file.error().message;
        EXPECT_EQ(file->fat, fat);
        EXPECT_EQ(namesOf(file), names);
        EXPECT_EQ(file->hasX86_64(), names[0] == "x86_64");
    }
}

TEST(MachOTest, HostileFilesAreRefusedNeverReadPastTheirEnd) {
    const std::string thin = thinMachO(test::kX86_64, true, 64);
    const std::string fat = fatMachO({{test::kX86_64, thinMachO(test::kX86_64)}});
    const std::vector<std::pair<const char*, std::string>> refused{
        {"empty", ""},
        {"not Mach-O", "#!/bin/sh\necho this is a script\n"},
        {"magic only", thin.substr(0, 4)},
        {"header cut short", thin.substr(0, 20)},
        {"load commands cut short", thin.substr(0, 40)},
        {"fat header cut short", fat.substr(0, 6)},
        {"fat table cut short", fat.substr(0, 20)},
        {"slice cut short", fat.substr(0, 4096 + 16)},
        {"no slices", withWord(fat, 4, 0)},
        {"a Java class file", withWord(fat, 4, 0x34)},
        {"slices beyond any file", withWord(fat, 4, 0xffffffff)},
        {"slice past the end", withWord(fat, 16, 0xfffffff0)},
        {"slice over the fat header", withWord(fat, 16, 0)},
        {"slice size past the end", withWord(fat, 20, 0xffffffff)},
        {"slice not Mach-O", withWord(fat, 4096, 0x12345678)},
        {"slice of another CPU", withWord(fat, 8, test::kArm64)},
        {"wide slice offset overflowing",
         withWord(withWord(fatMachO({{test::kX86_64, thin}}, true), 16, 0xffffffff), 20,
                  0xffffffff)},
    };
    for (const auto& [what, bytes] : refused)
        EXPECT_FALSE(parseMachO(bytes)) << what;
}

TEST(MachOTest, FilesAreReadThroughTheirFolderWithoutFollowingLinks) {
    test::TemporaryFolder folder;
    test::writeText(folder / "Intel", fatMachO({{test::kI386, thinMachO(test::kI386, false)},
                                                {test::kX86_64, thinMachO(test::kX86_64)}}));
    std::filesystem::create_symlink(folder / "Intel", folder / "Link");
    std::filesystem::create_directory(folder / "Folder");
    const UniqueFd opened(::open(folder.path().c_str(), O_RDONLY | O_DIRECTORY));
    EXPECT_EQ(namesOf(readMachOAt(opened.get(), "Intel")),
              (std::vector<std::string>{"i386", "x86_64"}));
    EXPECT_FALSE(readMachOAt(opened.get(), "Link"));
    EXPECT_FALSE(readMachOAt(opened.get(), "Folder"));
    EXPECT_FALSE(readMachOAt(opened.get(), "Missing"));
}

} // namespace
} // namespace quelm
