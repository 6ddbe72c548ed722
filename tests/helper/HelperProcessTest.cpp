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
        for (const auto& path : {volumeRoot / "Library/Extensions",
                                 volumeRoot / "System/Library/Extensions", efivars, backups})
            fs::create_directories(path);
        connection = HelperConnection::launch(
            QUELM_HELPER_PATH,
            {"--serve", "--root", (folder / "root").string(), "--efivars", efivars.string()},
            {{}, [this](const std::string&, std::optional<int>) {
                 ++errors;
             }});
        ASSERT_TRUE(connection);
        helper.emplace(connection);
    }
    // No call of a test breaks the channel, refused ones included.
    void TearDown() override { EXPECT_EQ(errors, 0); }

    Volume volume() const { return *Volume::initWithMountPoint(volumeRoot.string()); }

    TemporaryFolder folder;
    fs::path volumeRoot = folder / "Mac HD";
    fs::path efivars = folder / "efivars";
    fs::path backups = folder / "backups";
    std::atomic<int> errors = 0;
    std::shared_ptr<HelperConnection> connection;
    std::optional<HelperClient> helper;
};

TEST_F(HelperProcessTest, AnswersAndRefusesAnExistingBackupFolderLeavingNoThreadBehind) {
    EXPECT_EQ(helper->version(), QUELM_VERSION_TEXT);
    EXPECT_EQ(helper->setMaximumThreads(3), true);
    EXPECT_EQ(booterConfigValueText(0x12345), "%34%12") << "the low two bytes, low first";
    EXPECT_EQ(booterConfigValueText(-1), std::nullopt);
    EXPECT_EQ(helper->applyBooterConfig(0x2a7), true);
    EXPECT_EQ(test::readText(efivars / "bootercfg-7c436110-ab2a-4bbb-a880-fe41995c9f82"),
              std::string("\x07\0\0\0\xa7\x02", 6));
    const std::vector kexts{Kext(FileURL::fromPath(
        test::makeKext(folder / "src", "A.kext", PlistValue::Dict{}).string(), false))};
    EXPECT_EQ(helper->backUpKexts(kexts, "/Library/Extensions/", volume(), backups.string()), kexts)
        << "a backup folder that exists is never added to";
    // The helper's virtual size in kB after that many more calls.
    const auto sizeAfter = [&](int calls) {
        for (int i = 0; i < calls; ++i)
            helper->test();
        std::ifstream status("/proc/" + std::to_string(connection->pid()) + "/status");
        for (std::string line; std::getline(status, line);)
            if (line.starts_with("VmSize:"))
                return std::stol(line.substr(7));
        return 0L;
    };
    const long before = sizeAfter(10);
    // Each thread left unjoined keeps its stack: 100 of them would add hundreds of megabytes.
    EXPECT_LT(sizeAfter(100) - before, 64L * 1024) << "kB";
}

TEST_F(HelperProcessTest, AsRootRemovesOnlyKextsAndRepairsAFolderToRootOwnedItems) {
    // Installing, marking the caches and repairing the volume through the helper are the
    // file-system lane's job in quelm.
    if (!test::runningAsRoot())
        GTEST_SKIP() << "the helper runs as root";
    const auto extensions = volumeRoot / "Library/Extensions";
    test::makeKext(extensions, "Fake SMC.kext", PlistValue::Dict{});
    test::writeText(volumeRoot / "etc/passwd", "root");
    const auto removed = (backups / "removed").string();
    EXPECT_EQ(helper->removeKexts({"/Library/Extensions/Fake SMC.kext", "/etc/passwd"}, volume(),
                                  removed),
              Paths{"/etc/passwd"});
    EXPECT_TRUE(fs::exists(volumeRoot / "etc/passwd"));
    EXPECT_EQ(helper->restoreKexts(removed, volume(), (backups / "x").string()), Paths{});
    const auto restored = statOf(extensions / "Fake SMC.kext/Contents/Info.plist");
    EXPECT_TRUE(restored.st_uid == 0 && (restored.st_mode & 07777) == 0755);
    EXPECT_EQ(helper->restoreKexts(removed + "-none", volume(), (backups / "y").string()),
              Paths{removed + "-none"});

    const auto item = extensions / "Other.kext/x";
    test::writeText(item, "x");
    ::chown(item.c_str(), 501, 20);
    EXPECT_EQ(helper->repairFolder("/Library/Extensions/", volume()), true);
    EXPECT_TRUE(statOf(item).st_uid == 0 && (statOf(item).st_mode & 07777) == 0755);
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
    EXPECT_TRUE(statOf(installed).st_uid == 501u && statOf(installed).st_gid == 80u);
    EXPECT_EQ(helper->uninstallRepairTool(installed.string()), true);
    EXPECT_EQ(helper->uninstallRepairTool(installed.string()), false);
    fs::create_symlink(secret, folder / "linked");
    for (const auto* name : {"group-writable", "writable"})
        test::writeText(folder / name, "tool");
    ::chmod((folder / "group-writable").c_str(), 0664);
    ::chmod((folder / "writable").c_str(), 0646);
    for (const auto& source :
         {folder / "linked", folder / "group-writable", folder / "writable", folder.path(), secret})
        EXPECT_EQ(tool(source, installed), false) << source;
    fs::create_directory_symlink(outside.path(), folder / "Elsewhere");
    EXPECT_EQ(tool(folder / "tool", folder / "Elsewhere/RepairPermissions"), false);
    EXPECT_EQ(helper->uninstallRepairTool((folder / "Elsewhere/secret").string()), false);
    EXPECT_TRUE(statOf(secret).st_uid == 4242u && (statOf(secret).st_mode & 07777) == 0600u);
    EXPECT_FALSE(fs::exists(outside / "RepairPermissions"));
}

/// The helper's exit status after reading bytes as its whole input from a socket pair of ours,
/// told user is the one pkexec authorised.
int serveBytes(const std::string& bytes, std::optional<uid_t> user) {
    TemporaryFolder folder;
    const auto helper = test::startChild([&](int socket) {
        ::dup2(socket, STDIN_FILENO);
        ::dup2(socket, STDOUT_FILENO);
        if (user)
            ::setenv("PKEXEC_UID", std::to_string(*user).c_str(), 1);
        ::execl(QUELM_HELPER_PATH, QUELM_HELPER_PATH, "--serve", "--root", folder.path().c_str(),
                static_cast<char*>(nullptr));
        return 127;
    });
    (void)::send(helper.socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    ::shutdown(helper.socket, SHUT_WR);
    return test::finish(helper).status;
}

std::string callFrame(std::string_view selector, std::optional<std::int64_t> id) {
    return encodeFrame(encodeCall({id, findOperation(selector), {}, {}}));
}

TEST(HelperHostileInputTest, EveryMalformedFrameOrStrangePeerClosesTheConnection) {
    const auto test = callFrame("test:", 1);
    // Frame faults, one call the decoder refuses (its other refusals are the protocol's), and a
    // peer that is not the user pkexec authorised.
    using Case = std::tuple<std::string, int, std::optional<uid_t>>;
    for (const auto& [bytes, status, user] : std::vector<Case>{
             {"", 0, {}},
             {test, 0, {}},
             {callFrame("terminateHelper", std::nullopt) + "junk", 0, {}},
             {test + test.substr(0, test.size() - 3), 1, {}},
             {test + std::string("\x7f\xff\xff\xff", 4) + "x", 1, {}},
             {test + std::string("\0\0\0\x08", 4) + "not a pl", 1, {}},
             {test + encodeFrame(PlistValue::Dict{
                         {"id", 1}, {"op", "format:disk:"}, {"args", PlistValue::Array{}}}),
              1,
              {}},
             {test, 1, ::getuid() + 1},
             {test, 0, ::getuid()}})
        EXPECT_EQ(serveBytes(bytes, user), status) << bytes.size() << " bytes";
    // A channel that is not a socket has no peer to check; on a socket, no input ends with 0.
    EXPECT_EQ(test::runCommand(std::string(QUELM_HELPER_PATH) + " --serve </dev/null").status, 1);
}

TEST(HelperChannelTest, AnotherProcessOfTheSameUserCannotReachTheChannel) {
    // The application's side, as nobody, launches a channel; another process of nobody tries to
    // reach it through /proc.
    const auto reached = test::finish(test::startChild([](int) {
        if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0))
            return 90;
        // As any program the user starts; setuid just made this process non-dumpable by itself.
        ::prctl(PR_SET_DUMPABLE, 1);
        auto connection = HelperConnection::launch("/bin/cat", {}, {});
        if (!connection)
            return 91;
        const std::string fds = "/proc/" + std::to_string(::getpid()) + "/fd";
        const auto other = test::finish(test::startChild([&](int) {
            bool found = ::opendir(fds.c_str()) != nullptr;
            for (int fd = 0; fd < 64; ++fd)
                found = found || ::open((fds + "/" + std::to_string(fd)).c_str(), O_RDWR) >= 0;
            return found ? 1 : 0;
        }));
        ::kill(connection->pid(), SIGKILL);
        return other.status;
    }));
    EXPECT_EQ(reached.status, 0);
}

TEST(HelperConnectionFailureTest, AHelperThatDiesOrBabblesIsOneConnectionError) {
    // The real helper told to end, one that exits mid-frame, one that sends garbage, one killed.
    for (const auto& command :
         std::vector<Paths>{{QUELM_HELPER_PATH, "--serve"},
                            {"/bin/sh", "-c", "head -c 20 >/dev/null; exit 3"},
                            {"/bin/sh", "-c", "printf '\\000\\000\\000\\005hello'; cat >/dev/null"},
                            {"/bin/sh", "-c", "kill -9 $$"}}) {
        std::atomic<int> errors = 0;
        auto connection =
            HelperConnection::launch(command[0], {command.begin() + 1, command.end()},
                                     {{}, [&](const std::string&, std::optional<int>) {
                                          ++errors;
                                      }});
        ASSERT_TRUE(connection);
        HelperClient helper(connection);
        if (command[0] == QUELM_HELPER_PATH)
            helper.terminate();
        EXPECT_EQ(helper.test(), std::nullopt) << command.back();
        connection->invalidate();
        EXPECT_EQ(errors, 1) << command.back();
    }
}

} // namespace
} // namespace quelm
