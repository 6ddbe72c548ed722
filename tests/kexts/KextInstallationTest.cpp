// Kext installation on real folders: the old bundle replaced whole or kept whole, root's modes,
// and what a hostile source, a second writer or an interrupted run must never do: make root copy
// what the user could not read, leave a setuid program, mix two kexts, or leave a kext half
// replaced.
#include "kexts/KextInstallation.h"

#include "TestSupport.h"
#include "kexts/KextBackups.h"
#include "kexts/KextCaches.h"
#include "volumes/VolumeLock.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <tuple>
#include <unistd.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using test::TemporaryFolder;

struct stat statOf(const fs::path& path) {
    struct stat info {};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
    return info;
}

/// The reasons of the kexts that failed to install, a line each.
std::string install(const std::vector<Kext>& kexts, const Volume& volume,
                    const std::string& into = "/Library/Extensions/",
                    const Reader* reader = nullptr) {
    std::string reasons;
    for (const auto& failure : installKexts(kexts, into, volume, reader))
        reasons += failure.reason + "\n";
    return reasons;
}

/// From a child: sends text to the test; exit status 0 when all of it went.
int report(int socket, const std::string& text) {
    return ::write(socket, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1;
}

class KextInstallationTest : public testing::Test {
protected:
    void SetUp() override {
        if (!test::runningAsRoot())
            GTEST_SKIP() << "installed kexts must belong to root";
        test::makeVolume(volumeRoot, "10.12.6", "16G29");
        fs::create_directories(extensions);
        volume = Volume::initWithMountPoint(volumeRoot.string());
    }

    /// A kext whose driver holds "new", mode 600, with a link to it.
    Kext newKext(const std::string& name) {
        const auto bundle = test::makeKext(sources.path(), name, PlistValue::Dict{});
        test::writeText(bundle / "Contents/MacOS/driver", "new");
        fs::create_symlink("driver", bundle / "Contents/MacOS/alias");
        ::chmod((bundle / "Contents/MacOS/driver").c_str(), 0600);
        return Kext(FileURL::fromPath(bundle.string(), false));
    }
    /// A Lilu.kext in where of files resource files, each holding text.
    Kext liluOf(const fs::path& where, const std::string& text, int files = 1) {
        const auto bundle = test::makeKext(where, "Lilu.kext", PlistValue::Dict{});
        for (int i = 0; i < files; ++i)
            test::writeText(bundle / "Contents/Resources" / ("file" + std::to_string(i)), text);
        return Kext(FileURL::fromPath(bundle.string(), true));
    }
    std::string install(const std::vector<Kext>& kexts,
                        const std::string& into = "/Library/Extensions/") {
        return quelm::install(kexts, *volume, into);
    }
    long entries() const { return std::distance(fs::directory_iterator(extensions), {}); }

    TemporaryFolder folder, sources;
    fs::path volumeRoot = folder / "Mac HD";
    fs::path extensions = volumeRoot / "Library/Extensions";
    std::optional<Volume> volume;
};

using KextSafetyTest = KextInstallationTest;

TEST_F(KextInstallationTest, ReplacesTheOldBundleWholeAsRootsAndKeepsItsLinks) {
    // Left by someone else, a run cut short and an interrupted removal: only ours are put right.
    test::writeText(extensions / ".hidden-by-someone-else", "theirs");
    test::writeText(extensions / ".Half.kext.quelm-staging-7-1/Contents/Info.plist", "part");
    const auto staged = volumeRoot / "Library/StagedExtensions/Library/Extensions";
    test::writeText(staged / ".Out.kext.quelm-removing-7-1/Contents/Info.plist", "out");
    const auto installed = extensions / "Lilu.kext";
    test::writeText(installed / "Contents/OldOnly.plist", "old");
    EXPECT_EQ(install({newKext("Lilu.kext")}), "");
    EXPECT_FALSE(fs::exists(installed / "Contents/OldOnly.plist"));
    EXPECT_EQ(test::readText(installed / "Contents/MacOS/driver"), "new");
    EXPECT_TRUE(fs::is_symlink(installed / "Contents/MacOS/alias"));
    for (const auto& entry : fs::recursive_directory_iterator(installed)) {
        const auto info = statOf(entry.path());
        EXPECT_TRUE(info.st_uid == 0 && info.st_gid == 0) << entry.path();
        EXPECT_TRUE(S_ISLNK(info.st_mode) || (info.st_mode & 07777) == 0755) << entry.path();
    }
    EXPECT_EQ(entries(), 2);
    EXPECT_TRUE(fs::is_empty(staged));
}

TEST_F(KextInstallationTest, RefusesFoldersOutsideOrThroughLinks) {
    TemporaryFolder outside;
    fs::create_directory_symlink(outside.path(), volumeRoot / "Escape");
    const auto kext = newKext("A.kext");
    for (const auto* destination : {"/Escape/", "/Escape/Extensions/", "/Library/../Escape/",
                                    "Library/Extensions/", "/Library/Extensions"})
        EXPECT_NE(install({kext}, destination), "") << destination;
    EXPECT_TRUE(fs::is_empty(outside.path()));
    test::makeKext(outside.path(), "A.kext", PlistValue::Dict{});
    EXPECT_TRUE(kextsReplacedBy(*volume, "/Escape/", {kext}).empty()) << "a link replaces nothing";
}

TEST_F(KextSafetyTest, RootCopiesOnlyWhatTheUserCouldRead) {
    // A link named like a kext, to a folder only root may read: never followed.
    test::writeText(sources / "secret/Contents/Info.plist", "root's");
    ::chmod((sources / "secret").c_str(), 0700);
    fs::create_directory_symlink(sources / "secret", sources / "Secret.kext");
    EXPECT_EQ(install({Kext(FileURL::fromPath((sources / "Secret.kext").string(), true))}),
              "it is a link, not a kext bundle folder\n");

    // A file the user may not read fails the copy for that user, and only for them.
    const auto kext = liluOf(sources.path(), "driver");
    const Reader nobody = Reader::forUser(65534);
    const auto asNobody = [&] {
        return quelm::install({kext}, *volume, "/Library/Extensions/", &nobody);
    };
    ::chmod(sources.path().c_str(), 0700);
    EXPECT_EQ(asNobody(), sources.path().string() + " cannot be read by you\n");
    ::chmod(sources.path().c_str(), 0755);
    const auto file = fs::path(kext.path()) / "Contents/Resources/file0";
    ::chmod(file.c_str(), 0600);
    EXPECT_EQ(asNobody(), "permission denied; the installed Lilu.kext is unchanged\n");
    EXPECT_TRUE(fs::is_empty(extensions)) << "no staging left";
    ::chmod(file.c_str(), 0644);
    EXPECT_EQ(asNobody(), "");
}

TEST_F(KextSafetyTest, TheBackupIsAUserOwnedCopyThatKeepsNoSetuidBit) {
    const auto tool = extensions / "Lilu.kext/Contents/MacOS/tool";
    test::writeText(tool, "#!/bin/sh\n");
    ::chmod(tool.c_str(), 06755);
    const auto backup = folder / "Backups/1";
    fs::create_directories(backup.parent_path());
    const auto outcome = copyKextsToBackup(
        *volume, {"/Library/Extensions/Lilu.kext", "/Library/Extensions/Absent.kext"},
        backup.string(), "install", std::chrono::system_clock::now());
    EXPECT_EQ(outcome.failed, std::vector<std::string>{"/Library/Extensions/Absent.kext"});
    EXPECT_EQ(statOf(backup / "Lilu.kext/Contents/MacOS/tool").st_mode & 07777, 0755u);
    EXPECT_TRUE(fs::exists(tool)) << "copied, not moved";
    const auto info = statOf(backup);
    EXPECT_EQ(std::tuple(info.st_uid, info.st_gid, info.st_mode & 07777),
              std::tuple(501u, 80u, 0755u));
}

TEST_F(KextSafetyTest, TheVolumeLockKeepsASecondWriterOut) {
    // Another process holds the lock until the test closes its end of the socket.
    const auto holder = test::startChild([&](int socket) {
        const auto lock = VolumeLock::acquire(volumeRoot.string());
        char byte = lock ? 'y' : 'n';
        return ::write(socket, &byte, 1) == 1 && ::read(socket, &byte, 1) == 0 ? 0 : 1;
    });
    char byte = 0;
    ASSERT_EQ(::read(holder.socket, &byte, 1), 1);
    ASSERT_EQ(byte, 'y');
    const auto refused = VolumeLock::acquire(volumeRoot.string(), 100ms);
    ASSERT_FALSE(refused);
    EXPECT_TRUE(refused.error().message.contains("is busy"));
    ::shutdown(holder.socket, SHUT_WR);
    EXPECT_EQ(test::finish(holder).status, 0);

    const auto held = VolumeLock::acquire(volumeRoot.string(), 100ms);
    ASSERT_TRUE(held);
    EXPECT_TRUE(VolumeLock::acquire(volumeRoot.string(), 100ms)) << "the same thread again";
    bool otherThread = true;
    std::thread([&] {
        otherThread = bool(VolumeLock::acquire(volumeRoot.string(), 100ms));
    }).join();
    EXPECT_FALSE(otherThread);
}

TEST_F(KextSafetyTest, TwoInstallsAtOnceLeaveOneWholeKext) {
    // Small enough for the 4 MiB HFS+ volume of the real file-system lane, where this runs too.
    const auto first = liluOf(sources / "a", "a", 64);
    const auto second = liluOf(sources / "b", "b", 64);
    std::vector<test::Child> children;
    for (const auto* kext : {&first, &second, &first, &second})
        children.push_back(
            test::startChild([&](int socket) { return report(socket, install({*kext})); }));
    for (const auto& child : children) {
        const auto [status, reasons] = test::finish(child);
        EXPECT_TRUE(status == 0 && reasons.empty()) << reasons;
    }
    const auto resources = extensions / "Lilu.kext/Contents/Resources";
    const auto text = test::readText(resources / "file0");
    int files = 0;
    for (const auto& entry : fs::directory_iterator(resources))
        files += test::readText(entry.path()) == text ? 1 : 0;
    EXPECT_EQ(files, 64) << "every file of one kext";
    EXPECT_EQ(entries(), 1);
}

TEST(KextCachesTest, ACacheDatedInTheFutureIsStillOutrun) {
    // The folders a good bootcaches.plist names are the 10.15 group test's; a strange one names
    // the two Extensions folders.
    for (const PlistValue& strange :
         {PlistValue("text"), PlistValue(PlistValue::Dict{{"PostBootPaths", PlistValue::Array{}}}),
          PlistValue(PlistValue::Dict{
              {"PostBootPaths",
               PlistValue::Dict{{"Other", PlistValue::Dict{{"ExtensionsDir", "/S/E"}}}}}})})
        EXPECT_EQ(kernelCacheFolders(strange),
                  (std::vector<std::string>{"/System/Library/Extensions", "/Library/Extensions"}));
    TemporaryFolder volumeRoot;
    test::makeVolume(volumeRoot.path(), "10.14.6", "18G103");
    const auto volume = *Volume::initWithMountPoint(volumeRoot.path().string());
    EXPECT_FALSE(rebuildCaches(volume)) << "no Extensions folder at all";
    const auto cache = volumeRoot / "System/Library/PrelinkedKernels/prelinkedkernel";
    test::writeText(cache, "cache");
    const auto future = fs::file_time_type::clock::now() + 24h * 365;
    fs::last_write_time(cache, future);
    for (const auto* folder : {"System/Library/Extensions", "Library/Extensions", "Custom/Ext"})
        fs::create_directories(volumeRoot / folder);
    const auto before = fs::last_write_time(volumeRoot / "Custom/Ext");
    ASSERT_TRUE(rebuildCaches(volume));
    EXPECT_GT(fs::last_write_time(volumeRoot / "Library/Extensions"), future);
    EXPECT_EQ(fs::last_write_time(volumeRoot / "Custom/Ext"), before) << "only the folders named";
}

} // namespace
} // namespace quelm
