// quelmctl's first commands, run as a user would run them.
#include "KextFixtures.h"
#include "TestSupport.h"
#include "kexts/KextHistory.h"
#include "repair/RepairResult.h"

#include <bit>
#include <gtest/gtest.h>
#include <sstream>
#include <unistd.h>

namespace quelm {
namespace {

using test::runCommand;
using test::shellQuote;
using test::TemporaryFolder;

std::string quelmctl(const std::string& arguments) {
    return std::string(QUELMCTL_PATH) + " " + arguments;
}

/// What quelmctl writes on stderr alone.
test::CommandResult quelmctlErrors(const std::string& arguments) {
    return runCommand("(" + quelmctl(arguments) + " >/dev/null)");
}

/// Whether text is well-formed UTF-8: no stray or missing continuation byte, no overlong form,
/// surrogate or code point past U+10FFFF.
bool isUtf8(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        const auto lead = static_cast<unsigned char>(text[i]);
        // A lead byte says the length by its leading ones; C0, C1 and F5 up lead nothing valid.
        const int length = lead < 0x80 ? 1 : std::countl_one(lead);
        if ((lead >= 0x80 && (lead < 0xC2 || lead > 0xF4)) || i + length > text.size())
            return false;
        char32_t point = length == 1 ? lead : lead & (0x7Fu >> length);
        for (int k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80)
                return false;
            point = point << 6 | (next & 0x3F);
        }
        if ((length == 3 && point < 0x800) || (length == 4 && point < 0x10000) ||
            point > 0x10FFFF || (point >= 0xD800 && point <= 0xDFFF))
            return false;
        i += length;
    }
    return true;
}

TEST(QuelmctlTest, VolumeInfoAndKextInfoPrintWhatTheyFindOrSayWhyNot) {
    TemporaryFolder folder;
    const auto root = folder / "Macintosh HD";
    test::makeVolume(root, "10.12.6", "16G29", PlistFormat::binary);
    std::filesystem::create_directory(root / "Extra");
    const auto volume = runCommand(quelmctl("volume-info " + shellQuote(root.string() + "/")));
    EXPECT_EQ(volume.status, 0);
    EXPECT_TRUE(volume.output.starts_with(
        "macOS Sierra 10.12.6 (16G29)\nmountPoint: " + root.string() +
        "\nversion: 10.12.6\nbuildVersion: 16G29\nmajorVersion: 16\nisRecovery: false\n"
        "hasExtraFolder: true\nkind: whole volume\nfileSystem: "))
        << volume.output;
    EXPECT_TRUE(volume.output.ends_with("\nreadOnly: no\nwritable: yes\n")) << volume.output;
    const auto none = runCommand(quelmctl("volume-info " + shellQuote(folder.path().string())));
    EXPECT_EQ(none.status, 1);
    EXPECT_TRUE(none.output.contains(" is not a macOS volume"));

    const auto bundle = test::makeKext(folder / "my kexts", "Lilu.kext",
                                       PlistValue::Dict{{"CFBundleShortVersionString", "1.2.3"}});
    const auto kext = runCommand(quelmctl("kext-info " + shellQuote(bundle.string())));
    EXPECT_EQ(kext.output, "name: Lilu.kext\npath: " + bundle.string() + "\nversion: 1.2.3\n");
    const auto notes = folder / "notes.txt";
    test::writeText(notes, "not a kext");
    for (const auto& [path, message] :
         {std::pair(notes, " is not a kext bundle: its name must end in .kext\n"),
          std::pair(folder / "Gone.kext", ": no such bundle folder\n")}) {
        const auto text = quelmctlErrors("kext-info " + shellQuote(path.string()));
        EXPECT_EQ(text.status, 1);
        EXPECT_EQ(text.output, "quelmctl: " + path.string() + message);
    }
}

TEST(QuelmctlTest, InstallSaysEachKextsFateAndExitsByTheWorst) {
    if (!test::runningAsRoot())
        GTEST_SKIP() << "installed kexts belong to root";
    TemporaryFolder folder;
    const auto volume = folder / "Macintosh HD";
    test::makeVolume(volume, "10.15.7", "19H2");
    test::writeText(volume / "Library/Extensions/Lilu.kext/Old", "old");
    const auto lilu = test::makeKextBundle(folder / "in", "Lilu.kext",
                                           test::kextInfo("as.vit9696.Lilu", "1.4.5"));
    const auto unknown = test::makeKextBundle(folder / "in", "Unknown.kext",
                                              test::kextInfo("com.example.Unknown", "1.0"));
    const std::string install = "XDG_DATA_HOME=" + shellQuote((folder / "data").string()) + " " +
                                quelmctl("install --volume " + shellQuote(volume.string()) +
                                         " --backup-to " + shellQuote((folder / "b").string()));
    const auto smart =
        runCommand(install + " " + shellQuote(lilu.string()) + " " + shellQuote(unknown.string()));
    EXPECT_EQ(smart.status, 1) << smart.output;
    for (const auto* line :
         {"installed Lilu.kext into /Library/Extensions/\n",
          "skipped Unknown.kext: not in the smart table\n", "backed up what is replaced into "})
        EXPECT_TRUE(smart.output.contains(line)) << smart.output;
    // macOS 10.15 keeps its system folder read-only: refused before anything is written.
    const auto system = runCommand(install + " --folder system " + shellQuote(unknown.string()));
    EXPECT_EQ(system.status, 2);
    EXPECT_TRUE(system.output.contains("lies on a read-only system volume"));
}

TEST(QuelmctlTest, EveryCommandTakesTheDataVolumeOfACatalinaDemo) {
    // What volume-info and a repair find on both halves the real file-system lane checks; here the
    // JSON of both halves and the refusal of a half that cannot be joined.
    TemporaryFolder folder;
    const auto demo = runCommand(
        quelmctl("make-demo-volume --macos 10.15 " + shellQuote(folder.path().string())));
    ASSERT_EQ(demo.status, 0);
    const auto system = shellQuote((folder / "Macintosh HD").string());
    const auto data = shellQuote((folder / "Macintosh HD - Data").string());
    const auto verify = runCommand(
        quelmctl("verify-permissions --json --volume " + system + " --data-volume " + data));
    EXPECT_EQ(verify.status, 1);
    for (const auto* text : {"Macintosh HD/bin/ps", "Macintosh HD - Data/private/tmp",
                             "\"attributeMismatchedTypeString\": \"POSIX Permissions Mismatched\"",
                             "\"newAttribute\": null", "\"attributeStatusString\": \"Verified\""})
        EXPECT_TRUE(verify.output.contains(text)) << text;
    for (const auto& [arguments, reason] :
         {std::pair("verify-permissions --volume " + data, "whose system volume was not found"),
          std::pair("rebuild-caches --volume " + system, "--data-volume")}) {
        const auto refused = quelmctlErrors(arguments);
        EXPECT_EQ(refused.status, 2);
        EXPECT_TRUE(refused.output.contains(reason)) << refused.output;
    }
}

TEST(QuelmctlTest, ContentCheckReportsChangedFilesAndRepairLeavesThemForReinstalling) {
    TemporaryFolder folder;
    const auto volume = folder / "Macintosh HD";
    test::makeVolume(volume, "10.12.6", "16G29");
    const std::uint32_t uid = ::getuid(), gid = ::getgid();
    test::writeText(volume / "etc/hosts", "127.0.0.1 localhost\n");
    ::chmod((volume / "etc").c_str(), 0755);
    ::chmod((volume / "etc/hosts").c_str(), 0644);
    const auto sum = runCommand("cksum < " + shellQuote((volume / "etc/hosts").string()));
    std::uint32_t checksum = 0, size = 0;
    std::istringstream(sum.output) >> checksum >> size;
    test::writeReceipt(volume, "com.apple.pkg.Hosts.plist", "com.apple.pkg.Hosts",
                       {test::kRepairGroup},
                       {{".", 040755, uid, gid},
                        {"./etc", 040755, uid, gid},
                        {"./etc/hosts", 0100644, uid, gid, size, checksum}});
    const std::string options = " --volume " + shellQuote(volume.string());
    test::writeText(volume / "etc/hosts", "127.0.0.2 localhost\n");
    const auto report = folder / "report.txt";
    const auto json = runCommand(quelmctl("verify-permissions --content --json --report " +
                                          shellQuote(report.string()) + options));
    EXPECT_EQ(json.status, 1);
    EXPECT_TRUE(json.output.contains("\"attributeMismatchedTypeString\": \"Checksum Mismatched\", "
                                     "\"currentAttribute\": "))
        << json.output;
    EXPECT_NE(test::readText(report).find(" Reason: Checksum Mismatched"), std::string::npos);

    EXPECT_EQ(runCommand(quelmctl("verify-permissions" + options)).status, 0)
        << "content is only checked when asked";
    // A damaged bill of materials is named; the other receipts are still checked.
    test::writeReceipt(volume, "Damaged #2.plist", "Damaged", {test::kRepairGroup},
                       {{".", 040755, uid, gid}});
    std::filesystem::resize_file(volume / "System/Library/Receipts/Damaged #2.bom", 64);
    const auto repair = runCommand(quelmctl("repair-permissions --content" + options));
    EXPECT_EQ(repair.status, 1);
    for (const char* text : {" Reason: Checksum Mismatched", " Status: Failed", " fixed, 2 failed",
                             "reinstall the packages", "cannot read the bill of materials "})
        EXPECT_TRUE(repair.output.contains(text)) << text << repair.output;
    EXPECT_EQ(test::readText(volume / "etc/hosts"), "127.0.0.2 localhost\n");
}

TEST(QuelmctlTest, HelpAndVersionExitZeroEvenWithoutRequiredArguments) {
    // Each page with what it must say: the rescue commands their exit statuses, the BOM commands
    // the listing's form.
    for (const auto& [phrase, commands] :
         std::vector<std::pair<std::string, std::vector<std::string>>>{
             {"Usage", {"", "kext-info", "smart-table lookup"}},
             {"Exit status", {"check-kext", "remove", "restore", "undo"}},
             {"PATH<TAB>MODE", {"list-bom", "make-bom"}}}) {
        for (const auto& command : commands) {
            const auto result = runCommand(quelmctl(command + " --help"));
            EXPECT_EQ(result.status, 0) << command;
            EXPECT_TRUE(result.output.contains(phrase)) << command;
        }
    }
    const auto version = runCommand(quelmctl("--version"));
    EXPECT_EQ(version.status, 0);
    EXPECT_FALSE(version.output.empty());
}

TEST(QuelmctlTest, UsageErrorsExitTwoWithOneLineNamingTheProblem) {
    const std::pair<const char*, const char*> cases[] = {
        {"", "quelmctl: a command is required; see quelmctl --help"},
        {"frobnicate", "quelmctl: frobnicate is not a command; see quelmctl --help"},
        {"--bogus", "quelmctl: --bogus is not an option; see quelmctl --help"},
        {"remove Lilu", "quelmctl: remove: --volume is required; see quelmctl remove --help"},
        {"history --json extra", "quelmctl: history: the following argument was not expected: "
                                 "extra; see quelmctl history --help"},
        {"install --volume", "quelmctl: install: --volume"},
        {"verify-permissions --volume /tmp --threads many", "quelmctl: verify-permissions: "},
        {"smart-table nope", "quelmctl: smart-table: nope is not a command; see quelmctl "
                             "smart-table --help"},
        {"smart-table lookup", "quelmctl: smart-table lookup: NAME is required; see quelmctl "
                               "smart-table lookup --help"},
        {"kext-info ''", "quelmctl: kext-info: PATH: an empty path names no file"},
        {"check-kext ''", "quelmctl: check-kext: KEXT: an empty path names no file"},
    };
    for (const auto& [arguments, message] : cases) {
        const auto result = quelmctlErrors(arguments);
        EXPECT_EQ(result.status, 2) << arguments;
        EXPECT_TRUE(result.output.starts_with(message)) << arguments << ": " << result.output;
        EXPECT_EQ(std::ranges::count(result.output, '\n'), 1) << result.output;
        EXPECT_TRUE(result.output.ends_with(" --help\n")) << result.output;
    }
}

TEST(QuelmctlTest, JsonIsValidUtf8WhateverBytesThePathsHold) {
    TemporaryFolder folder;
    const std::string volume = "/mnt/Mac\xff HD";
    const HistoryRecord record{"2026-01-02T03:04:05Z",
                               volume,
                               "remove",
                               {"/Library/Extensions/Caf\xc3\xa9 \xf0\x9f\x98\x80.kext",
                                "/Library/Extensions/\xed\xa0\x80.kext",
                                "/Library/Extensions/\xc0\xaf\xf4\x90\x80\x80.kext",
                                "/Library/Extensions/Tab\tCut\xe2\x82"},
                               "/backups/\x01\"quoted\"\\",
                               false};
    ASSERT_TRUE(appendHistory(folder / "data/Quelm/History.plist", record));
    const auto result = runCommand("XDG_DATA_HOME=" + shellQuote((folder / "data").string()) + " " +
                                   quelmctl("history --json --volume " + shellQuote(volume)));
    EXPECT_EQ(result.status, 0);
    EXPECT_TRUE(isUtf8(result.output)) << result.output;
    const std::string replacement = "\xef\xbf\xbd";
    for (const std::string& text :
         {"\"volume\": \"/mnt/Mac" + replacement + " HD\"",
          std::string("\"/Library/Extensions/Caf\xc3\xa9 \xf0\x9f\x98\x80.kext\""),
          "\"/Library/Extensions/" + replacement + replacement + replacement + ".kext\"",
          "\"/Library/Extensions/" + replacement + replacement + replacement + replacement +
              replacement + replacement + ".kext\"",
          "\"/Library/Extensions/Tab\\u0009Cut" + replacement + replacement + "\"",
          std::string("\"backup\": \"/backups/\\u0001\\\"quoted\\\"\\\\\"")})
        EXPECT_TRUE(result.output.contains(text)) << text << "\n" << result.output;

    const auto checked = runCommand(quelmctl("check-kext --json " + shellQuote("Bad\xfe.kext")));
    EXPECT_EQ(checked.status, 1);
    EXPECT_TRUE(isUtf8(checked.output)) << checked.output;
    EXPECT_TRUE(checked.output.contains("\"kext\": \"Bad" + replacement + ".kext\""))
        << checked.output;
}

} // namespace
} // namespace quelm
