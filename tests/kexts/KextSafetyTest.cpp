// What a hostile source, a second writer or an interrupted run must never do: make root copy
// what the user could not read, leave a setuid program, mix two kexts, or leave a kext half
// replaced.
#include "TestSupport.h"
#include "kexts/KextBackups.h"
#include "kexts/KextInstallation.h"
#include "kexts/KextSwaps.h"
#include "volumes/VolumeLock.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

/// The reasons of the kexts that failed to install into /Library/Extensions, a line each.
std::string install(const std::vector<Kext>& kexts, const Volume& volume,
                    const Reader* reader = nullptr) {
    std::string reasons;
    for (const auto& failure : installKexts(kexts, "/Library/Extensions/", volume, reader))
        reasons += failure.reason + "\n";
    return reasons;
}

/// From a child: sends text to the test; exit status 0 when all of it went.
int report(int socket, const std::string& text) {
    return ::write(socket, text.data(), text.size()) == static_cast<ssize_t>(text.size()) ? 0 : 1;
}

class KextSafetyTest : public testing::Test {
protected:
    void SetUp() override {
        if (!test::runningAsRoot())
            GTEST_SKIP() << "installed kexts must belong to root";
        test::makeVolume(volumeRoot, "10.12.6", "16G29");
        fs::create_directories(extensions);
        volume = Volume::initWithMountPoint(volumeRoot.string());
    }

    /// A kext of files files, each holding text.
    Kext makeKext(const fs::path& where, const std::string& text, int files = 1) {
        const auto bundle = test::makeKext(where, "Lilu.kext", PlistValue::Dict{});
        for (int i = 0; i < files; ++i)
            test::writeText(bundle / "Contents/Resources" / ("file" + std::to_string(i)), text);
        return Kext(FileURL::fromPath(bundle.string(), true));
    }

    test::TemporaryFolder folder, sources;
    fs::path volumeRoot = folder / "Mac HD";
    fs::path extensions = volumeRoot / "Library/Extensions";
    std::optional<Volume> volume;
};

TEST_F(KextSafetyTest, RootCopiesOnlyWhatTheUserCouldRead) {
    // A link named like a kext, to a folder only root may read: never followed.
    test::writeText(sources / "secret/Contents/Info.plist", "root's");
    ::chmod((sources / "secret").c_str(), 0700);
    fs::create_directory_symlink(sources / "secret", sources / "Secret.kext");
    EXPECT_EQ(install({Kext(FileURL::fromPath((sources / "Secret.kext").string(), true))}, *volume),
              "it is a link, not a kext bundle folder\n");

    // A file the user may not read fails the copy for that user, and only for them.
    const auto kext = makeKext(sources.path(), "driver");
    const Reader nobody = Reader::forUser(65534);
    ::chmod(sources.path().c_str(), 0700);
    EXPECT_EQ(install({kext}, *volume, &nobody),
              sources.path().string() + " cannot be read by you\n");
    ::chmod(sources.path().c_str(), 0755);
    const auto file = fs::path(kext.path()) / "Contents/Resources/file0";
    ::chmod(file.c_str(), 0600);
    EXPECT_EQ(install({kext}, *volume, &nobody),
              "permission denied; the installed Lilu.kext is unchanged\n");
    EXPECT_TRUE(fs::is_empty(extensions)) << "no staging left";
    ::chmod(file.c_str(), 0644);
    EXPECT_EQ(install({kext}, *volume, &nobody), "");
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
        const auto big = makeKext(sources / "big", std::string(64 * 1024, 'x'), 8);
        return report(socket, install({big}, *Volume::initWithMountPoint((small / "HD").string())) +
                                  test::readText(old));
    }));
    if (status == 77)
        GTEST_SKIP() << "no mount namespace here";
    EXPECT_EQ(text, "no space left on the volume; the installed Lilu.kext is unchanged\nold");
}

TEST_F(KextSafetyTest, NoCopyKeepsASetuidBit) {
    test::writeText(extensions / "Lilu.kext/Contents/MacOS/tool", "#!/bin/sh\n");
    ::chmod((extensions / "Lilu.kext/Contents/MacOS/tool").c_str(), 06755);
    const auto backup = folder / "backup";
    const auto outcome =
        copyKextsToBackup(*volume, {"/Library/Extensions/Lilu.kext"}, backup.string(), "install",
                          std::chrono::system_clock::now());
    ASSERT_EQ(outcome.failed, std::vector<std::string>{});
    EXPECT_EQ(fs::status(backup / "Lilu.kext/Contents/MacOS/tool").permissions(), fs::perms(0755));
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
    EXPECT_EQ(std::distance(fs::directory_iterator(extensions), {}), 3);
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
    const auto first = makeKext(sources / "a", "a", 64);
    const auto second = makeKext(sources / "b", "b", 64);
    std::vector<test::Child> children;
    for (const auto* kext : {&first, &second, &first, &second})
        children.push_back(test::startChild(
            [&](int socket) { return report(socket, install({*kext}, *volume)); }));
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
    EXPECT_EQ(std::distance(fs::directory_iterator(extensions), {}), 1);
}

} // namespace
} // namespace quelm
