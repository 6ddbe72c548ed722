// Kext installation on real folders: the old bundle replaced whole or kept whole, root's modes,
// and what a hostile source, a second writer or an interrupted run must never do: make root copy
// what the user could not read, leave a setuid program, mix two kexts, or leave a kext half
// replaced.
#include "kexts/KextInstallation.h"

#include "TestSupport.h"
#include "kexts/KextBackups.h"
#include "kexts/KextCaches.h"
#include "kexts/KextSwaps.h"
#include "volumes/VolumeLock.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
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

TEST_F(KextInstallationTest, ReplacesTheOldBundleWholeAndMakesMissingFoldersRootOwned) {
    const auto installed = extensions / "Lilu.kext";
    test::writeText(installed / "Contents/OldOnly.plist", "old");
    const auto kext = newKext("Lilu.kext");
    EXPECT_EQ(kextsReplacedBy(*volume, "/Library/Extensions/", {kext, newKext("New.kext")}),
              std::vector<Kext>{kext});
    EXPECT_EQ(install({kext}) + install({kext}, "/Extra/Extensions/"), "");
    EXPECT_FALSE(fs::exists(installed / "Contents/OldOnly.plist"));
    EXPECT_EQ(test::readText(installed / "Contents/MacOS/driver"), "new");
    EXPECT_TRUE(fs::is_symlink(installed / "Contents/MacOS/alias"));
    for (const auto& made : {volumeRoot / "Extra", volumeRoot / "Extra/Extensions", installed}) {
        for (const auto& entry : fs::recursive_directory_iterator(made)) {
            const auto info = statOf(entry.path());
            EXPECT_TRUE(info.st_uid == 0 && info.st_gid == 0) << entry.path();
            EXPECT_TRUE(S_ISLNK(info.st_mode) || (info.st_mode & 07777) == 0755) << entry.path();
        }
        EXPECT_EQ(statOf(made).st_mode & 07777, 0755u) << made;
    }
    EXPECT_EQ(entries(), 1);
}

TEST_F(KextInstallationTest, AFailedKextKeepsTheOldBundleAndLeavesNothingElse) {
    test::writeText(extensions / "Gone.kext/Contents/Info.plist", "old");
    const Kext missing(FileURL::fromPath((sources / "Gone.kext").string(), false));
    const auto odd = newKext("Odd.kext");
    ASSERT_EQ(::mkfifo((fs::path(odd.path()) / "Contents/pipe").c_str(), 0600), 0);
    const auto failed =
        installKexts({missing, odd, newKext("Good.kext")}, "/Library/Extensions/", *volume);
    ASSERT_EQ(failed.size(), 2u);
    EXPECT_EQ(failed[0].kext, missing);
    EXPECT_NE(failed[1].reason.find("FIFO"), std::string::npos) << failed[1].reason;
    EXPECT_EQ(test::readText(extensions / "Gone.kext/Contents/Info.plist"), "old");
    EXPECT_TRUE(fs::exists(extensions / "Good.kext"));
    EXPECT_EQ(entries(), 2) << "neither Odd.kext nor any staging";
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

TEST_F(KextInstallationTest, AnInterruptedSwapGivesTheOldBundleBack) {
    // A swap cut short (power lost) leaves the old bundle under its aside name only.
    const auto aside = extensions / ".Lilu.kext.quelm-previous/Contents/Info.plist";
    test::writeText(aside, "old");
    EXPECT_NE(install({Kext(FileURL::fromPath((sources / "Lilu.kext").string(), false))}), "");
    EXPECT_EQ(test::readText(extensions / "Lilu.kext/Contents/Info.plist"), "old");
    EXPECT_EQ(entries(), 1);

    test::writeText(aside, "older");
    EXPECT_EQ(install({newKext("Lilu.kext")}), "");
    EXPECT_EQ(test::readText(extensions / "Lilu.kext/Contents/MacOS/driver"), "new");
    EXPECT_EQ(entries(), 1);
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

TEST_F(KextSafetyTest, AFullVolumeKeepsTheOldKextAndSaysWhy) {
    // A small file system of its own, in a mount namespace that ends with the child.
    const auto small = folder / "small";
    fs::create_directories(small);
    const auto [status, text] = test::finish(test::startChild([&](int socket) {
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("tmpfs", small.c_str(), "tmpfs", 0, "size=256k") != 0)
            return 77;
        test::makeVolume(small / "HD", "10.12.6", "16G29");
        const auto old = small / "HD/Library/Extensions/Lilu.kext/Contents/Info.plist";
        test::writeText(old, "old");
        const auto big = liluOf(sources / "big", std::string(64 * 1024, 'x'), 8);
        return report(socket,
                      quelm::install({big}, *Volume::initWithMountPoint((small / "HD").string())) +
                          test::readText(old));
    }));
    if (status == 77)
        GTEST_SKIP() << "no mount namespace here";
    EXPECT_EQ(text, "no space left on the volume; the installed Lilu.kext is unchanged\nold");
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

TEST_F(KextSafetyTest, LeftoversOfAnInterruptedRunArePutRightFirst) {
    const auto staged = volumeRoot / "Library/StagedExtensions/Library/Extensions";
    test::writeText(extensions / ".Gone.kext.quelm-previous-7-1/Contents/Info.plist", "old");
    test::writeText(extensions / ".Kept.kext.quelm-previous-7-1/Contents/Info.plist", "older");
    test::writeText(extensions / "Kept.kext/Contents/Info.plist", "new");
    test::writeText(extensions / ".Half.kext.quelm-staging-7-1/Contents/Info.plist", "part");
    test::writeText(staged / ".Out.kext.quelm-removing-7-1/Contents/Info.plist", "out");
    test::writeText(extensions / ".hidden-by-someone-else", "theirs");

    ASSERT_TRUE(beginKextChanges(*volume));
    EXPECT_EQ(test::readText(extensions / "Gone.kext/Contents/Info.plist"), "old");
    EXPECT_EQ(test::readText(extensions / "Kept.kext/Contents/Info.plist"), "new");
    EXPECT_EQ(entries(), 3);
    EXPECT_TRUE(fs::is_empty(staged));
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
    EXPECT_NE(refused.error().message.find("is busy"), std::string::npos);
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

TEST(KextCachesTest, TheFoldersTheBootCachesNameAreMarkedNewerThanTheKernelCache) {
    const auto named = [](const char* key, PlistValue folders) {
        return PlistValue(PlistValue::Dict{
            {"PostBootPaths",
             PlistValue::Dict{{key, PlistValue::Dict{{"ExtensionsDir", std::move(folders)}}}}}});
    };
    EXPECT_EQ(kernelCacheFolders(named("Kernelcache v1.3", PlistValue::Array{"/S/E", "/L/A/E"})),
              (std::vector<std::string>{"/S/E", "/L/A/E"}));
    for (const PlistValue& none :
         {named("Other", "/S/E"), PlistValue("text"),
          PlistValue(PlistValue::Dict{{"PostBootPaths", PlistValue::Array{}}})})
        EXPECT_EQ(kernelCacheFolders(none),
                  (std::vector<std::string>{"/System/Library/Extensions", "/Library/Extensions"}));

    // A kernel cache dated in the future (a wrong clock) must still be outrun.
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
    EXPECT_EQ(fs::last_write_time(volumeRoot / "Custom/Ext"), before);
    test::writePlist(volumeRoot / "usr/standalone/bootcaches.plist",
                     named("Kernelcache v1.4", "/Custom/Ext"), PlistFormat::binary);
    ASSERT_TRUE(rebuildCaches(volume));
    EXPECT_GT(fs::last_write_time(volumeRoot / "Custom/Ext"), future)
        << "only the folders that the boot caches name";
}

} // namespace
} // namespace quelm
