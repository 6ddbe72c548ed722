// The real quelm-helper process driven over the channel, and what it does to hostile input.
#include "TestSupport.h"
#include "helper/BooterConfig.h"
#include "helper/Channel.h"
#include "helper/HelperClient.h"

#include <atomic>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;
using test::TemporaryFolder;
using Paths = std::vector<std::string>;

struct stat statOf(const fs::path& path) {
    struct stat info {};
    EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
    return info;
}

class HelperProcessTest : public testing::Test {
protected:
    void SetUp() override {
        test::makeVolume(volumeRoot, "10.12.6", "16G29");
        fs::create_directories(volumeRoot / "Library/Extensions");
        fs::create_directories(volumeRoot / "System/Library/Extensions");
        fs::create_directories(efivars);
        fs::create_directories(folder / "backups");
        connection = HelperConnection::launch(
            QUELM_HELPER_PATH,
            {"--serve", "--root", (folder / "root").string(), "--efivars", efivars.string()},
            {[this](double value) { progress.push_back(value); },
             [this](const std::string&, std::optional<int>) {
                 ++errors;
             }});
        ASSERT_TRUE(connection);
        helper.emplace(connection);
    }
    // No call of a test breaks the channel, refused ones included.
    void TearDown() override { EXPECT_EQ(errors, 0); }

    Volume volume() const { return *Volume::initWithMountPoint(volumeRoot.string()); }
    std::vector<Kext> kextIn(const fs::path& where, std::string_view name) const {
        return {Kext(FileURL::fromPath(
            test::makeKext(where, name, PlistValue::Dict{{"CFBundleVersion", "6.26"}}).string(),
            false))};
    }

    TemporaryFolder folder;
    fs::path volumeRoot = folder / "Mac HD";
    fs::path efivars = folder / "efivars";
    std::vector<double> progress;
    std::atomic<int> errors = 0;
    std::shared_ptr<HelperConnection> connection;
    std::optional<HelperClient> helper;
};

TEST_F(HelperProcessTest, AnswersProbesAndSettingsAndRefusedArgumentsWithFailure) {
    EXPECT_EQ(helper->test(), 1234567890);
    EXPECT_EQ(helper->test2(), 9999999999);
    EXPECT_EQ(helper->version(), QUELM_VERSION_TEXT);
    EXPECT_EQ(helper->uninstall()->size(), 2u) << "neither file is installed under the test root";
    EXPECT_EQ(helper->setMaximumThreads(3), true);
    for (const auto& [value, text] : std::vector<std::pair<std::int64_t, std::string>>{
             {0, "%00%00"}, {0x28, "%28%00"}, {0x2a7, "%a7%02"}, {0x12345, "%34%12"}})
        EXPECT_EQ(booterConfigValueText(value), text);
    EXPECT_EQ(booterConfigValueText(-1), std::nullopt);
    EXPECT_EQ(helper->applyBooterConfig(0x2a7), true);
    EXPECT_EQ(test::readText(efivars / "bootercfg-7c436110-ab2a-4bbb-a880-fe41995c9f82"),
              std::string("\x07\0\0\0\xa7\x02", 6));
    const auto kexts = kextIn(folder / "src", "A.kext");
    EXPECT_EQ(helper->installKexts(kexts, "/../../", volume()), kexts);
    EXPECT_EQ(
        helper->backUpKexts(kexts, "/Library/Extensions/", volume(), (folder / "backups").string()),
        kexts)
        << "a backup folder that exists is never added to";
    EXPECT_EQ(helper->setMaximumThreads(0), false) << "zero threads would stop the next job";
}

TEST_F(HelperProcessTest, InstallsBacksUpRepairsAndInvalidatesCachesAsRoot) {
    if (!test::runningAsRoot())
        GTEST_SKIP() << "the helper runs as root";
    const auto kexts = kextIn(folder / "src", "Fake SMC.kext");
    test::writeText(volumeRoot / "Library/Extensions/Fake SMC.kext/OldOnly", "old");
    const auto backup = (folder / "backups/replaced").string();
    EXPECT_EQ(helper->backUpKexts(kexts, "/Library/Extensions/", volume(), backup),
              std::vector<Kext>{});
    EXPECT_EQ(test::readText(fs::path(backup) / "Fake SMC.kext/OldOnly"), "old");
    EXPECT_EQ(statOf(backup).st_uid, 501u);
    EXPECT_EQ(helper->installKexts(kexts, "/Library/Extensions/", volume()), std::vector<Kext>{});
    EXPECT_FALSE(fs::exists(volumeRoot / "Library/Extensions/Fake SMC.kext/OldOnly"));
    EXPECT_EQ(helper->checkWritableVolume(volume()), "");

    test::writeReceipt(volumeRoot, "com.apple.pkg.Base.plist", "com.apple.pkg.Base",
                       {test::kRepairGroup}, {{".", 040755, 0, 0}, {"./Library", 040755, 0, 0}});
    ::chmod((volumeRoot / "Library").c_str(), 0700);
    const auto results = *helper->repairPermissions(volume());
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].attributeStatusString, "Fixed");
    EXPECT_EQ(results[0].newAttribute, 755);
    EXPECT_FALSE(progress.empty()) << "progress is relayed while the job runs";

    fs::last_write_time(volumeRoot / "System/Library/Extensions",
                        fs::file_time_type::clock::now() - std::chrono::hours(24));
    EXPECT_EQ(helper->rebuildCaches(volume()), true);
    EXPECT_GT(fs::last_write_time(volumeRoot / "System/Library/Extensions"),
              fs::file_time_type::clock::now() - std::chrono::minutes(1));

    const auto item = volumeRoot / "Library/Extensions/Other.kext/x";
    test::writeText(item, "x");
    ::chown(item.c_str(), 501, 20);
    EXPECT_EQ(helper->repairFolder("/Library/Extensions/", volume()), true);
    EXPECT_EQ(statOf(item).st_uid, 0u);
    EXPECT_EQ(statOf(item).st_mode & 07777, 0755u);
}

TEST_F(HelperProcessTest, RemovesKextsIntoABackupAndRestoresThem) {
    if (!test::runningAsRoot())
        GTEST_SKIP() << "the helper runs as root";
    kextIn(volumeRoot / "Library/Extensions", "Lilu.kext");
    test::writeText(volumeRoot / "etc/passwd", "root");
    const std::string removed = (folder / "backups/removed").string();
    EXPECT_EQ(
        helper->removeKexts({"/Library/Extensions/Lilu.kext", "/etc/passwd"}, volume(), removed),
        Paths{"/etc/passwd"});
    EXPECT_FALSE(fs::exists(volumeRoot / "Library/Extensions/Lilu.kext"));
    EXPECT_TRUE(fs::exists(volumeRoot / "etc/passwd"));
    EXPECT_TRUE(fs::exists(fs::path(removed) / "Lilu.kext/Contents/Info.plist"));

    EXPECT_EQ(helper->restoreKexts(removed, volume(), (folder / "backups/replaced").string()),
              Paths{});
    const auto restored = statOf(volumeRoot / "Library/Extensions/Lilu.kext/Contents/Info.plist");
    EXPECT_EQ(restored.st_uid, 0u);
    EXPECT_EQ(restored.st_mode & 07777, 0755u);
    EXPECT_FALSE(fs::exists(folder / "backups/replaced")) << "nothing was replaced";
    const std::string missing = (folder / "backups/none").string();
    EXPECT_EQ(helper->restoreKexts(missing, volume(), (folder / "backups/x").string()),
              Paths{missing});
}

TEST_F(HelperProcessTest, NoLinkLeadsTheRootHelperOutsideWhatItWasGiven) {
    if (!test::runningAsRoot())
        GTEST_SKIP() << "the helper runs as root";
    TemporaryFolder outside;
    const auto secret = outside / "secret";
    test::writeText(secret, "secret");
    ::chown(secret.c_str(), 4242, 4242);
    ::chmod(secret.c_str(), 0600);
    // A folder of the volume that is a link out of it, and a link inside a folder that is not.
    fs::remove(volumeRoot / "Library/Extensions");
    fs::create_directory_symlink(outside.path(), volumeRoot / "Library/Extensions");
    EXPECT_EQ(helper->repairFolder("/Library/Extensions/", volume()), false);
    test::writeText(volumeRoot / "Extra/Extensions/A.kext/Info.plist", "x");
    fs::create_symlink(secret, volumeRoot / "Extra/Extensions/A.kext/link");
    EXPECT_EQ(helper->repairFolder("/Extra/Extensions/", volume()), true);

    // The repair tool goes to the user; a source that is a link, a folder, or that others could
    // have written, is refused, and so is a destination through a link.
    const auto tool = [&](const fs::path& source, const fs::path& destination) {
        return helper->installRepairTool(source.string(), destination.string());
    };
    const auto installed = folder / "Applications/RepairPermissions";
    fs::create_directories(installed.parent_path());
    test::writeText(folder / "tool", "tool");
    EXPECT_EQ(tool(folder / "tool", installed), true);
    EXPECT_EQ(statOf(installed).st_uid, 501u);
    EXPECT_EQ(statOf(installed).st_gid, 80u);
    EXPECT_EQ(helper->uninstallRepairTool(installed.string()), true);
    EXPECT_EQ(helper->uninstallRepairTool(installed.string()), false);
    fs::create_symlink(secret, folder / "linked");
    for (const auto& [name, mode] :
         {std::pair{"group-writable", 0664}, std::pair{"writable", 0646}}) {
        test::writeText(folder / name, "tool");
        ::chmod((folder / name).c_str(), static_cast<mode_t>(mode));
    }
    for (const auto& source :
         {folder / "linked", folder / "group-writable", folder / "writable", folder.path(), secret})
        EXPECT_EQ(tool(source, installed), false) << source;
    fs::create_directory_symlink(outside.path(), folder / "Elsewhere");
    EXPECT_EQ(tool(folder / "tool", folder / "Elsewhere/RepairPermissions"), false);
    EXPECT_EQ(helper->uninstallRepairTool((folder / "Elsewhere/secret").string()), false);
    EXPECT_EQ(statOf(secret).st_uid, 4242u);
    EXPECT_EQ(statOf(secret).st_mode & 07777, 0600u);
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
        helper->test();
    const long before = virtualSize();
    for (int i = 0; i < 100; ++i)
        helper->test();
    // Each thread left unjoined keeps its stack: 100 of them would add hundreds of megabytes.
    EXPECT_LT(virtualSize() - before, 64L * 1024) << "kB";
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

std::string callFrame(std::string_view selector, std::optional<std::int64_t> id,
                      RemoteArguments arguments = {}) {
    return encodeFrame(encodeCall({id, findOperation(selector), std::move(arguments), {}}));
}

TEST(HelperHostileInputTest, EveryMalformedFrameClosesTheConnection) {
    const auto test = callFrame("test:", 1);
    EXPECT_EQ(serveBytes(""), 0);
    EXPECT_EQ(serveBytes(test), 0);
    EXPECT_EQ(serveBytes(callFrame("terminateHelper", std::nullopt) + "junk"), 0);
    // Frame faults, and one call the decoder refuses: its other refusals are the protocol's.
    const std::vector<std::string> hostile{
        test.substr(0, test.size() - 3),
        std::string("\x7f\xff\xff\xff", 4) + "x",
        std::string("\0\0\0\x08", 4) + "not a pl",
        encodeFrame(
            PlistValue::Dict{{"id", 1}, {"op", "format:disk:"}, {"args", PlistValue::Array{}}}),
    };
    for (std::size_t i = 0; i < hostile.size(); ++i)
        EXPECT_EQ(serveBytes(test + hostile[i]), 1) << "case " << i;
}

TEST(HelperChannelTest, OnlyTheUserWhoStartedTheHelperCanDriveIt) {
    const auto test = callFrame("test:", 1);
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
        if (::opendir(fds.c_str()))
            ::_exit(1);
        for (int fd = 0; fd < 64; ++fd)
            if (::open((fds + "/" + std::to_string(fd)).c_str(), O_RDWR) >= 0)
                ::_exit(2);
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
    // The real helper told to end, one that exits mid-frame, one that sends garbage, one killed.
    const std::vector<std::vector<std::string>> helpers{
        {QUELM_HELPER_PATH, "--serve"},
        {"/bin/sh", "-c", "head -c 20 >/dev/null; exit 3"},
        {"/bin/sh", "-c", "printf '\\000\\000\\000\\005hello'; cat >/dev/null"},
        {"/bin/sh", "-c", "kill -9 $$"}};
    for (const auto& command : helpers) {
        std::atomic<int> errors = 0;
        std::string message;
        auto connection =
            HelperConnection::launch(command[0], {command.begin() + 1, command.end()},
                                     {{}, [&](const std::string& error, std::optional<int>) {
                                          message = error;
                                          ++errors;
                                      }});
        ASSERT_TRUE(connection);
        HelperClient helper(connection);
        if (command[0] == QUELM_HELPER_PATH)
            helper.terminate();
        EXPECT_EQ(helper.test(), std::nullopt) << command.back();
        EXPECT_EQ(helper.test2(), std::nullopt) << command.back();
        connection->invalidate();
        EXPECT_EQ(errors, 1) << command.back();
        EXPECT_FALSE(message.empty());
    }
}

} // namespace
} // namespace quelm
