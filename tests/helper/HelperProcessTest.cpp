// The real quelm-helper process driven over the channel, and what it does to hostile input.
#include "TestSupport.h"
#include "helper/BooterConfig.h"
#include "helper/Channel.h"
#include "helper/HelperConnection.h"

#include <atomic>
#include <gtest/gtest.h>
#include <sys/stat.h>
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
             [this](const std::string&) {
                 ++errors;
             }});
        ASSERT_TRUE(connection);
    }

    RemoteValue call(std::string_view selector, std::vector<RemoteValue> arguments = {}) {
        auto reply = connection->callAndWait(selector, std::move(arguments));
        EXPECT_TRUE(reply) << selector;
        return reply.value_or(RemoteValue(false));
    }
    QVOSVolume volume() const { return *QVOSVolume::initWithMountPoint(volumeRoot.string()); }

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
    const std::vector kexts{QVKernelExtension(FileURL::fromPath(bundle.string(), false))};
    const auto failed =
        call("installWithKernelExtensions:toDestinationFolder:onTargetVolume:reply:",
             {kexts, std::string("/Library/Extensions/"), volume()});
    EXPECT_TRUE(std::get<std::vector<QVKernelExtension>>(failed).empty());
    EXPECT_FALSE(fs::exists(volumeRoot / "Library/Extensions/Fake SMC.kext/OldOnly"));

    EXPECT_EQ(std::get<std::string>(call("checkWritableTargetVolume:reply:", {volume()})), "");

    const auto escaping =
        call("installWithKernelExtensions:toDestinationFolder:onTargetVolume:reply:",
             {kexts, std::string("/../../"), volume()});
    EXPECT_EQ(std::get<std::vector<QVKernelExtension>>(escaping).size(), 1u);

    test::writeReceipt(volumeRoot, "com.apple.pkg.Base.plist", "com.apple.pkg.Base",
                       {test::kRepairGroup}, {{".", 040755, 0, 0}, {"./Library", 040755, 0, 0}});
    ::chmod((volumeRoot / "Library").c_str(), 0700);
    const auto results = std::get<std::vector<QVRepairPermissionsRepresentableResult>>(
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

/// The helper's exit status after reading bytes as its whole input.
int serveBytes(const std::string& bytes) {
    TemporaryFolder folder;
    test::writeText(folder / "input", bytes);
    return test::runCommand(std::string(QUELM_HELPER_PATH) + " --serve --root " +
                            test::shellQuote(folder.path().string()) + " < " +
                            test::shellQuote((folder / "input").string()))
        .status;
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

TEST(HelperConnectionFailureTest, AHelperThatDiesOrBabblesIsOneConnectionError) {
    for (const auto* script : {"head -c 20 >/dev/null; exit 3",
                               "printf '\\000\\000\\000\\005hello'; sleep 5", "kill -9 $$"}) {
        std::atomic<int> errors = 0;
        std::string message;
        auto connection =
            HelperConnection::launch("/bin/sh", {"-c", script}, {{}, [&](const std::string& error) {
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
