// The real quelm-helper process driven over the channel, and what it does to hostile input.
#include "TestSupport.h"
#include "helper/BooterConfig.h"
#include "helper/Channel.h"
#include "helper/HelperConnection.h"
#include "helper/HelperInstallation.h"

#include <atomic>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;
using test::TemporaryFolder;

class HelperProcessTest : public testing::Test {
protected:
    void SetUp() override {
        test::makeVolume(volumeRoot, "10.12.6", "16G29");
        fs::create_directories(volumeRoot / "Library/Extensions");
        fs::create_directories(volumeRoot / "System/Library/Extensions");
        fs::create_directories(efivars);
        connection = HelperConnection::launch(
            QUELM_HELPER_PATH,
            {"--serve", "--root", (folder / "root").string(), "--efivars", efivars.string()},
            {[this](double value) { progress.push_back(value); },
             [this](const std::string&, std::optional<int>) {
                 ++errors;
             }});
        ASSERT_TRUE(connection);
    }

    RemoteValue call(std::string_view selector, std::vector<RemoteValue> arguments = {}) {
        auto reply = connection->callAndWait(selector, std::move(arguments));
        EXPECT_TRUE(reply) << selector;
        return reply.value_or(RemoteValue(false));
    }
    Volume volume() const { return *Volume::initWithMountPoint(volumeRoot.string()); }

    TemporaryFolder folder;
    fs::path volumeRoot = folder / "Mac HD";
    fs::path efivars = folder / "efivars";
    std::vector<double> progress;
    std::atomic<int> errors = 0;
    std::shared_ptr<HelperConnection> connection;
};

TEST_F(HelperProcessTest, AnswersTheProbesAndItsVersion) {
    EXPECT_EQ(std::get<std::int64_t>(call("test:")), 1234567890);
    EXPECT_EQ(std::get<std::int64_t>(call("test2:")), 9999999999);
    EXPECT_EQ(std::get<std::string>(call("getHelperBundleVersion:")), QUELM_VERSION_TEXT);
    EXPECT_EQ(std::get<std::vector<std::string>>(call("uninstallHelper:")).size(), 2u)
        << "neither file is installed under the test root";
    EXPECT_TRUE(std::get<bool>(call("changeMaximumThreadsNumber:reply:", {std::int64_t{3}})));
    EXPECT_FALSE(std::get<bool>(call("changeMaximumThreadsNumber:reply:", {std::int64_t{0}})));
    EXPECT_EQ(errors, 0);
}

TEST_F(HelperProcessTest, WritesTheBooterConfigBytesToEfivars) {
    EXPECT_EQ(booterConfigValueText(0), "%00%00");
    EXPECT_EQ(booterConfigValueText(0x28), "%28%00");
    EXPECT_EQ(booterConfigValueText(0x2a7), "%a7%02");
    EXPECT_EQ(booterConfigValueText(0x12345), "%34%12");
    EXPECT_EQ(booterConfigValueText(-1), std::nullopt);
    ASSERT_TRUE(std::get<bool>(
        call("applyBooterConfigViaNVRAMWithNewBooterConfig:reply:", {std::int64_t{0x2a7}})));
    EXPECT_EQ(test::readText(efivars / "bootercfg-7c436110-ab2a-4bbb-a880-fe41995c9f82"),
              std::string("\x07\0\0\0\xa7\x02", 6));
}

TEST_F(HelperProcessTest, InstallsRepairsAndInvalidatesCachesAsRoot) {
    if (!test::runningAsRoot())
        GTEST_SKIP() << "the helper runs as root";
    const auto bundle = test::makeKext(folder / "src", "Fake SMC.kext",
                                       PlistValue::Dict{{"CFBundleVersion", "6.26"}});
    test::writeText(volumeRoot / "Library/Extensions/Fake SMC.kext/OldOnly", "old");
    const std::vector kexts{Kext(FileURL::fromPath(bundle.string(), false))};
    const auto failed =
        call("installWithKernelExtensions:toDestinationFolder:onTargetVolume:reply:",
             {kexts, std::string("/Library/Extensions/"), volume()});
    EXPECT_TRUE(std::get<std::vector<Kext>>(failed).empty());
    EXPECT_FALSE(fs::exists(volumeRoot / "Library/Extensions/Fake SMC.kext/OldOnly"));

    EXPECT_EQ(std::get<std::string>(call("checkWritableTargetVolume:reply:", {volume()})), "");

    const auto escaping =
        call("installWithKernelExtensions:toDestinationFolder:onTargetVolume:reply:",
             {kexts, std::string("/../../"), volume()});
    EXPECT_EQ(std::get<std::vector<Kext>>(escaping).size(), 1u);

    test::writeReceipt(volumeRoot, "com.apple.pkg.Base.plist", "com.apple.pkg.Base",
                       {test::kRepairGroup}, {{".", 040755, 0, 0}, {"./Library", 040755, 0, 0}});
    ::chmod((volumeRoot / "Library").c_str(), 0700);
    const auto results = std::get<std::vector<ResultRecord>>(
        call("repairDiskPermissionsOnTargetVolume:reply:", {volume()}));
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].attributeStatusString, "Fixed");
    EXPECT_EQ(results[0].newAttribute, 755);
    EXPECT_FALSE(progress.empty()) << "progress is relayed while the job runs";

    fs::last_write_time(volumeRoot / "System/Library/Extensions",
                        fs::file_time_type::clock::now() - std::chrono::hours(24));
    EXPECT_TRUE(std::get<bool>(call("rebuildCachesOnTargetVolume:reply:", {volume()})));
    EXPECT_GT(fs::last_write_time(volumeRoot / "System/Library/Extensions"),
              fs::file_time_type::clock::now() - std::chrono::minutes(1));

    test::writeText(volumeRoot / "Library/Extensions/Other.kext/x", "x");
    ::chown((volumeRoot / "Library/Extensions/Other.kext/x").c_str(), 501, 20);
    EXPECT_TRUE(std::get<bool>(call("repairWithFolder:onTargetVolume:reply:",
                                    {std::string("/Library/Extensions/"), volume()})));
    struct stat info {};
    ::stat((volumeRoot / "Library/Extensions/Other.kext/x").c_str(), &info);
    EXPECT_EQ(info.st_uid, 0u);
    EXPECT_EQ(info.st_mode & 07777, 0755u);
    EXPECT_EQ(errors, 0);
}

TEST_F(HelperProcessTest, RemovesKextsIntoABackupAndRestoresThem) {
    if (!test::runningAsRoot())
        GTEST_SKIP() << "the helper runs as root";
    test::makeKext(volumeRoot / "Library/Extensions", "Lilu.kext",
                   PlistValue::Dict{{"CFBundleIdentifier", "as.vit9696.Lilu"}});
    test::writeText(volumeRoot / "etc/passwd", "root");
    fs::create_directories(folder / "backups");
    const std::string removed = (folder / "backups/removed").string();
    const auto remove = [&](std::vector<std::string> kexts, std::string backup) {
        return std::get<std::vector<std::string>>(
            call("removeKernelExtensions:fromVolume:backupFolder:reply:",
                 {std::move(kexts), volume(), std::move(backup)}));
    };
    EXPECT_EQ(remove({"/Library/Extensions/Lilu.kext", "/etc/passwd"}, removed),
              std::vector<std::string>{"/etc/passwd"});
    EXPECT_FALSE(fs::exists(volumeRoot / "Library/Extensions/Lilu.kext"));
    EXPECT_TRUE(fs::exists(volumeRoot / "etc/passwd"));
    EXPECT_TRUE(fs::exists(fs::path(removed) / "Lilu.kext/Contents/Info.plist"));
    EXPECT_TRUE(fs::exists(fs::path(removed) / "Manifest.plist"));
    EXPECT_EQ(remove({"/Library/Extensions/A.kext"}, "relative/backup").size(), 1u);

    const auto restore = [&](std::string backup, std::string replaced) {
        return std::get<std::vector<std::string>>(
            call("restoreKernelExtensionsFromBackupFolder:onTargetVolume:backupFolder:reply:",
                 {std::move(backup), volume(), std::move(replaced)}));
    };
    EXPECT_EQ(restore(removed, (folder / "backups/replaced").string()), std::vector<std::string>{});
    struct stat info {};
    ASSERT_EQ(
        ::stat((volumeRoot / "Library/Extensions/Lilu.kext/Contents/Info.plist").c_str(), &info),
        0);
    EXPECT_EQ(info.st_uid, 0u);
    EXPECT_EQ(info.st_mode & 07777, 0755u);
    EXPECT_FALSE(fs::exists(folder / "backups/replaced")) << "nothing was replaced";
    const std::string missing = (folder / "backups/none").string();
    EXPECT_EQ(restore(missing, (folder / "backups/x").string()), std::vector<std::string>{missing});
    EXPECT_EQ(errors, 0);
}

TEST_F(HelperProcessTest, InstallsAndRemovesTheRepairToolForTheUser) {
    if (!test::runningAsRoot())
        GTEST_SKIP() << "the helper runs as root";
    test::writeText(folder / "RepairPermissions", "tool");
    const std::string destination = (folder / "Applications/RepairPermissions").string();
    fs::create_directories(folder / "Applications");
    EXPECT_TRUE(
        std::get<bool>(call("installRepairPermissionFromSourcePath:toDestinationPath:reply:",
                            {(folder / "RepairPermissions").string(), destination})));
    struct stat info {};
    ::stat(destination.c_str(), &info);
    EXPECT_EQ(info.st_uid, 501u);
    EXPECT_EQ(info.st_gid, 80u);
    EXPECT_TRUE(std::get<bool>(call("uninstallRepairPermissionsFromPath:reply:", {destination})));
    EXPECT_FALSE(std::get<bool>(call("uninstallRepairPermissionsFromPath:reply:", {destination})));
    EXPECT_FALSE(std::get<bool>(
        call("uninstallRepairPermissionsFromPath:reply:", {std::string("relative/path")})));
}

TEST_F(HelperProcessTest, NoLinkLeadsTheRootHelperOutsideWhatItWasGiven) {
    if (!test::runningAsRoot())
        GTEST_SKIP() << "the helper runs as root";
    TemporaryFolder outside;
    const auto secret = outside / "secret";
    test::writeText(secret, "secret");
    ::chown(secret.c_str(), 4242, 4242);
    ::chmod(secret.c_str(), 0600);
    const auto untouched = [&] {
        struct stat info {};
        return ::stat(secret.c_str(), &info) == 0 && info.st_uid == 4242 &&
               (info.st_mode & 07777) == 0600;
    };
    // A folder of the volume that is a link out of it, and a link inside a folder that is not.
    fs::remove(volumeRoot / "Library/Extensions");
    fs::create_directory_symlink(outside.path(), volumeRoot / "Library/Extensions");
    EXPECT_FALSE(std::get<bool>(call("repairWithFolder:onTargetVolume:reply:",
                                     {std::string("/Library/Extensions/"), volume()})));
    test::writeText(volumeRoot / "Extra/Extensions/A.kext/Info.plist", "x");
    fs::create_symlink(secret, volumeRoot / "Extra/Extensions/A.kext/link");
    EXPECT_TRUE(std::get<bool>(call("repairWithFolder:onTargetVolume:reply:",
                                    {std::string("/Extra/Extensions/"), volume()})));
    EXPECT_TRUE(untouched());

    // The repair tool: a source that is a link, or that others could have written, is refused.
    fs::create_directories(folder / "Applications");
    const std::string destination = (folder / "Applications/RepairPermissions").string();
    const auto install = [&](const fs::path& source, const std::string& to) {
        return std::get<bool>(call("installRepairPermissionFromSourcePath:toDestinationPath:reply:",
                                   {source.string(), to}));
    };
    fs::create_symlink(secret, folder / "linked");
    EXPECT_FALSE(install(folder / "linked", destination));
    test::writeText(folder / "writable", "tool");
    ::chmod((folder / "writable").c_str(), 0666);
    EXPECT_FALSE(install(folder / "writable", destination));
    EXPECT_FALSE(install(secret, destination)) << "owned by someone else";
    test::writeText(folder / "tool", "tool");
    fs::create_directory_symlink(outside.path(), folder / "Elsewhere");
    EXPECT_FALSE(install(folder / "tool", (folder / "Elsewhere/RepairPermissions").string()));
    EXPECT_FALSE(std::get<bool>(call("uninstallRepairPermissionsFromPath:reply:",
                                     {(folder / "Elsewhere/secret").string()})));
    EXPECT_TRUE(untouched());
    EXPECT_FALSE(fs::exists(outside / "RepairPermissions"));
}

TEST_F(HelperProcessTest, CallsLeaveNoThreadBehind) {
    const auto virtualSize = [&] {
        std::ifstream status("/proc/" + std::to_string(connection->pid()) + "/status");
        for (std::string line; std::getline(status, line);)
            if (line.starts_with("VmSize:"))
                return std::stol(line.substr(7));
        return 0L;
    };
    for (int i = 0; i < 10; ++i)
        call("test:");
    const long before = virtualSize();
    for (int i = 0; i < 100; ++i)
        call("test:");
    // Each thread left unjoined keeps its stack: 100 of them would add hundreds of megabytes.
    EXPECT_LT(virtualSize() - before, 64L * 1024) << "kB";
}

TEST(HelperInstallationTest, TheInstalledHelperServesAndTakesNoOtherOption) {
    TemporaryFolder root, files;
    const HelperIdentity helper("org.quelm.veskp.quelm.helper", QUELM_VERSION_TEXT);
    test::writeText(files / "policy.in", "<policy exec=\"@HELPER_PATH@\"/>\n");
    // Made as with a careless umask: the folders must not come out writable by others.
    const auto installed =
        test::runCommand("umask 000; " + std::string(QUELM_HELPER_PATH) + " --install " +
                         test::shellQuote((files / "policy.in").string()) + " --root " +
                         test::shellQuote(root.path().string()));
    ASSERT_EQ(installed.status, 0) << installed.output;
    for (auto path = fs::path(helper.toolPath(root.path().string())).parent_path();
         path != root.path(); path = path.parent_path()) {
        struct stat info {};
        ::stat(path.c_str(), &info);
        EXPECT_EQ(info.st_mode & 07777, 0755u) << path;
    }
    const std::string tool = test::shellQuote(helper.toolPath(root.path().string()));
    for (const auto* options :
         {"--install /etc/passwd", "--serve --root /", "--serve --efivars /", ""})
        EXPECT_NE(test::runCommand(tool + " " + options + " </dev/null").status, 0) << options;
}

TEST(HelperInstallationTest, OnlyFilesNoOneElseCouldHaveWrittenAreCopied) {
    TemporaryFolder folder;
    const auto file = folder / "tool";
    test::writeText(file, "tool");
    ::chmod(file.c_str(), 0644);
    EXPECT_EQ(readTrustedFile(file.string(), ::getuid(), 100), "tool");
    EXPECT_FALSE(readTrustedFile(file.string(), ::getuid(), 3)) << "larger than allowed";
    for (const mode_t mode : {0664, 0646}) {
        ::chmod(file.c_str(), mode);
        EXPECT_FALSE(readTrustedFile(file.string(), ::getuid(), 100)) << std::oct << mode;
    }
    ::chmod(file.c_str(), 0644);
    fs::create_symlink(file, folder / "link");
    EXPECT_FALSE(readTrustedFile((folder / "link").string(), ::getuid(), 100));
    EXPECT_FALSE(readTrustedFile(folder.path().string(), ::getuid(), 100)) << "a folder";
    if (!test::runningAsRoot())
        return;
    ::chown(file.c_str(), 4242, 4242);
    EXPECT_FALSE(readTrustedFile(file.string(), 0, 100)) << "another user's file";
    EXPECT_EQ(readTrustedFile(file.string(), 4242, 100), "tool") << "the caller's own file";
}

/// The helper's exit status after reading bytes as its whole input from a socket pair of ours,
/// with environment entries ("PKEXEC_UID=...") added for it.
int serveBytes(const std::string& bytes, const std::vector<std::string>& environment = {}) {
    TemporaryFolder folder;
    int channel[2] = {-1, -1};
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, channel), 0);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(channel[1], STDIN_FILENO);
        ::dup2(channel[1], STDOUT_FILENO);
        for (const auto& entry : environment)
            ::putenv(const_cast<char*>(entry.c_str()));
        ::execl(QUELM_HELPER_PATH, QUELM_HELPER_PATH, "--serve", "--root", folder.path().c_str(),
                static_cast<char*>(nullptr));
        ::_exit(127);
    }
    ::close(channel[1]);
    (void)::send(channel[0], bytes.data(), bytes.size(), MSG_NOSIGNAL);
    ::shutdown(channel[0], SHUT_WR);
    char sink[4096];
    while (::read(channel[0], sink, sizeof sink) > 0) {
    }
    ::close(channel[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string frameOf(PlistValue message) {
    return encodeFrame(message);
}

TEST(HelperHostileInputTest, EveryMalformedFrameClosesTheConnection) {
    const auto test = frameOf(encodeCall({1, findRemoteOperation("test:"), {}}));
    EXPECT_EQ(serveBytes(""), 0);
    EXPECT_EQ(serveBytes(test), 0);
    EXPECT_EQ(
        serveBytes(frameOf(encodeCall({std::nullopt, findRemoteOperation("terminateHelper"), {}})) +
                   "junk"),
        0);
    const PlistValue wrongClass =
        PlistValue::Dict{{"$class", "QVKernelExtension"}, {"url", "file:///"}};
    const std::vector<std::string> hostile{
        test.substr(0, test.size() - 3),
        std::string("\x7f\xff\xff\xff", 4) + "x",
        std::string("\0\0\0\x08", 4) + "not a pl",
        frameOf(PlistValue::Dict{{"id", 1}, {"op", "format:disk:"}, {"args", PlistValue::Array{}}}),
        frameOf(PlistValue::Dict{{"id", 1},
                                 {"op", "rebuildCachesOnTargetVolume:reply:"},
                                 {"args", PlistValue::Array{wrongClass}}}),
        frameOf(PlistValue::Dict{
            {"id", 1}, {"op", "changeMaximumThreadsNumber:reply:"}, {"args", PlistValue::Array{}}}),
        frameOf(PlistValue::Dict{{"id", 1},
                                 {"op", "changeMaximumThreadsNumber:reply:"},
                                 {"args", PlistValue::Array{"4"}}}),
        frameOf(PlistValue::Array{1, 2}),
    };
    for (std::size_t i = 0; i < hostile.size(); ++i)
        EXPECT_EQ(serveBytes(test + hostile[i]), 1) << "case " << i;
}

TEST(HelperChannelTest, OnlyTheUserWhoStartedTheHelperCanDriveIt) {
    const auto test = frameOf(encodeCall({1, findRemoteOperation("test:"), {}}));
    EXPECT_EQ(serveBytes(test), 0);
    EXPECT_EQ(serveBytes(test, {"PKEXEC_UID=" + std::to_string(::getuid() + 1)}), 1)
        << "a peer that is not the user pkexec authorised";
    EXPECT_EQ(serveBytes(test, {"PKEXEC_UID=" + std::to_string(::getuid())}), 0);
    TemporaryFolder folder;
    test::writeText(folder / "input", test);
    EXPECT_EQ(test::runCommand(std::string(QUELM_HELPER_PATH) + " --serve < " +
                               test::shellQuote((folder / "input").string()))
                  .status,
              1)
        << "a channel that is not a socket has no peer to check";
}

/// In a child of the given user: the application's side launches a channel, and another process
/// of that user tries to reach it through /proc. The child's exit status: 0 when it could not.
int reachChannelAs(uid_t user) {
    const pid_t application = ::fork();
    if (application != 0) {
        int status = 0;
        ::waitpid(application, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 100;
    }
    if (::geteuid() == 0 && (::setgid(user) != 0 || ::setuid(user) != 0))
        ::_exit(90);
    // As any program the user starts; setuid just made this process non-dumpable by itself.
    ::prctl(PR_SET_DUMPABLE, 1);
    auto connection = HelperConnection::launch("/bin/cat", {}, {});
    if (!connection)
        ::_exit(91);
    const std::string fds = "/proc/" + std::to_string(::getpid()) + "/fd";
    const pid_t other = ::fork();
    if (other == 0) {
        DIR* listing = ::opendir(fds.c_str());
        if (listing)
            ::_exit(1);
        for (int fd = 0; fd < 64; ++fd) {
            const int opened = ::open((fds + "/" + std::to_string(fd)).c_str(), O_RDWR);
            if (opened >= 0)
                ::_exit(2);
        }
        ::_exit(0);
    }
    int status = 0;
    ::waitpid(other, &status, 0);
    ::kill(connection->pid(), SIGKILL);
    ::_exit(WIFEXITED(status) ? WEXITSTATUS(status) : 99);
}

TEST(HelperChannelTest, AnotherProcessOfTheSameUserCannotReachTheChannel) {
    EXPECT_EQ(reachChannelAs(65534), 0);
}

TEST(HelperConnectionFailureTest, AHelperThatDiesOrBabblesIsOneConnectionError) {
    for (const auto* script :
         {"head -c 20 >/dev/null; exit 3", "printf '\\000\\000\\000\\005hello'; cat >/dev/null",
          "kill -9 $$"}) {
        std::atomic<int> errors = 0;
        std::string message;
        auto connection = HelperConnection::launch(
            "/bin/sh", {"-c", script}, {{}, [&](const std::string& error, std::optional<int>) {
                                            message = error;
                                            ++errors;
                                        }});
        ASSERT_TRUE(connection);
        EXPECT_EQ(connection->callAndWait("test:", {}), std::nullopt) << script;
        EXPECT_EQ(connection->callAndWait("test2:", {}), std::nullopt) << script;
        connection->invalidate();
        EXPECT_EQ(errors, 1) << script;
        EXPECT_FALSE(message.empty());
    }
}

} // namespace
} // namespace quelm
