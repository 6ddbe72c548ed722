// What a hostile source, a second writer or an interrupted run must never do: make root copy
// what the user could not read, leave a setuid program, mix two kexts, or leave a kext half
// replaced.
#include "TestSupport.h"
#include "kexts/KextBackups.h"
#include "kexts/KextInstallation.h"
#include "kexts/KextSwaps.h"
#include "volumes/VolumeLock.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

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
    const Kext link(FileURL::fromPath((sources / "Secret.kext").string(), true));
    auto failed = installKexts({link}, "/Library/Extensions/", *volume);
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].reason, "it is a link, not a kext bundle folder");

    // A file the user may not read fails the copy for that user, and only for them.
    ::chmod(sources.path().c_str(), 0700);
    const auto kext = makeKext(sources.path(), "driver");
    const Reader nobody = Reader::forUser(65534);
    auto refused = installKexts({kext}, "/Library/Extensions/", *volume, &nobody);
    ASSERT_EQ(refused.size(), 1u);
    EXPECT_EQ(refused[0].reason, sources.path().string() + " cannot be read by you");
    ::chmod(sources.path().c_str(), 0755);
    const auto file = fs::path(kext.path()) / "Contents/Resources/file0";
    ::chmod(file.c_str(), 0600);
    failed = installKexts({kext}, "/Library/Extensions/", *volume, &nobody);
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].reason, "permission denied; the installed Lilu.kext is unchanged");
    EXPECT_FALSE(fs::exists(extensions / "Lilu.kext"));
    EXPECT_EQ(std::distance(fs::directory_iterator(extensions), {}), 0) << "no staging left";
    ::chmod(file.c_str(), 0644);
    EXPECT_TRUE(installKexts({kext}, "/Library/Extensions/", *volume, &nobody).empty());
}

TEST_F(KextSafetyTest, AFullVolumeKeepsTheOldKextAndSaysWhy) {
    // A small file system of its own, in a mount namespace that ends with the child.
    int report[2];
    ASSERT_EQ(::pipe(report), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        const auto small = folder / "small";
        fs::create_directories(small);
        if (::unshare(CLONE_NEWNS) != 0 ||
            ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            ::mount("tmpfs", small.c_str(), "tmpfs", 0, "size=256k") != 0)
            ::_exit(77);
        test::makeVolume(small / "HD", "10.12.6", "16G29");
        test::writeText(small / "HD/Library/Extensions/Lilu.kext/Contents/Info.plist", "old");
        const auto kext = makeKext(sources / "big", std::string(64 * 1024, 'x'), 8);
        const auto failed = installKexts({kext}, "/Library/Extensions/",
                                         *Volume::initWithMountPoint((small / "HD").string()));
        const std::string text =
            (failed.size() == 1 ? failed[0].reason : "installed") + "\n" +
            test::readText(small / "HD/Library/Extensions/Lilu.kext/Contents/Info.plist");
        ::_exit(::write(report[1], text.data(), text.size()) == static_cast<ssize_t>(text.size())
                    ? 0
                    : 1);
    }
    ::close(report[1]);
    int status = 0;
    ::waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77)
        GTEST_SKIP() << "no mount namespace here";
    char text[512] = {};
    const auto count = ::read(report[0], text, sizeof text - 1);
    ::close(report[0]);
    ASSERT_GT(count, 0);
    EXPECT_EQ(std::string(text),
              "no space left on the volume; the installed Lilu.kext is unchanged\nold");
}

TEST_F(KextSafetyTest, NoCopyKeepsASetuidBit) {
    test::writeText(extensions / "Lilu.kext/Contents/MacOS/tool", "#!/bin/sh\n");
    ::chmod((extensions / "Lilu.kext/Contents/MacOS/tool").c_str(), 06755);
    const auto backup = (folder / "backup").string();
    const auto outcome = copyKextsToBackup(*volume, {"/Library/Extensions/Lilu.kext"}, backup,
                                           "install", std::chrono::system_clock::now());
    ASSERT_EQ(outcome.failed, std::vector<std::string>{});
    struct stat info {};
    ASSERT_EQ(::stat((fs::path(backup) / "Lilu.kext/Contents/MacOS/tool").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0755u);
    EXPECT_TRUE(fs::exists(fs::path(backup) / "Manifest.plist"));
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
    EXPECT_EQ(std::distance(fs::directory_iterator(staged), {}), 0);
}

TEST_F(KextSafetyTest, TheVolumeLockKeepsASecondWriterOut) {
    int toParent[2], toChild[2];
    ASSERT_EQ(::pipe(toParent), 0);
    ASSERT_EQ(::pipe(toChild), 0);
    const pid_t child = ::fork();
    if (child == 0) {
        const auto lock = VolumeLock::acquire(volumeRoot.string());
        char byte = lock ? 'y' : 'n';
        (void)!::write(toParent[1], &byte, 1);
        (void)!::read(toChild[0], &byte, 1);
        ::_exit(0);
    }
    char byte = 0;
    ASSERT_EQ(::read(toParent[0], &byte, 1), 1);
    ASSERT_EQ(byte, 'y');
    const auto refused = VolumeLock::acquire(volumeRoot.string(), 100ms);
    ASSERT_FALSE(refused);
    EXPECT_NE(refused.error().message.find("is busy"), std::string::npos);
    ASSERT_EQ(::write(toChild[1], "x", 1), 1);
    ::waitpid(child, nullptr, 0);

    const auto held = VolumeLock::acquire(volumeRoot.string(), 100ms);
    ASSERT_TRUE(held);
    EXPECT_TRUE(VolumeLock::acquire(volumeRoot.string(), 100ms)) << "the same thread again";
    bool otherThread = true;
    std::thread([&] {
        otherThread = bool(VolumeLock::acquire(volumeRoot.string(), 100ms));
    }).join();
    EXPECT_FALSE(otherThread);
    for (const int fd : {toParent[0], toParent[1], toChild[0], toChild[1]})
        ::close(fd);
}

TEST_F(KextSafetyTest, TwoInstallsAtOnceLeaveOneWholeKext) {
    // Small enough for the 4 MiB HFS+ volume of the real file-system lane, where this runs too.
    const auto first = makeKext(sources / "a", "a", 64);
    const auto second = makeKext(sources / "b", "b", 64);
    std::vector<pid_t> children;
    for (const auto* kext : {&first, &second, &first, &second}) {
        const pid_t child = ::fork();
        if (child == 0) {
            const auto failed = installKexts({*kext}, "/Library/Extensions/", *volume);
            for (const auto& failure : failed)
                std::fprintf(stderr, "%s\n", failure.reason.c_str());
            ::_exit(failed.empty() ? 0 : 1);
        }
        children.push_back(child);
    }
    for (const pid_t child : children) {
        int status = 0;
        ::waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    const auto resources = extensions / "Lilu.kext/Contents/Resources";
    const std::string text = test::readText(resources / "file0");
    int files = 0;
    for (const auto& entry : fs::directory_iterator(resources)) {
        EXPECT_EQ(test::readText(entry.path()), text) << entry.path();
        ++files;
    }
    EXPECT_EQ(files, 64);
    EXPECT_EQ(std::distance(fs::directory_iterator(extensions), {}), 1);
}

} // namespace
} // namespace quelm
