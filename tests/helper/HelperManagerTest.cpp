// The helper manager's paths: install, version check, re-install, removal failure and refused
// authorisation, each seen through its notification.
#include "helper/HelperManager.h"

#include "TestSupport.h"

#include <algorithm>
#include <condition_variable>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;
using test::TemporaryFolder;
using namespace std::chrono_literals;

/// Collects the manager's notifications and waits for the first one.
class Outcomes {
public:
    Outcomes() {
        for (const auto* name :
             {&kHelperDidConnect, &kHelperFailedToInstall, &kHelperFailedToReinstall,
              &kHelperFailedToRemove, &kHelperFailedToAuthenticate})
            watch(*name);
        watch(kHelperFailedToConnect);
    }
    ~Outcomes() {
        for (const auto token : tokens_)
            NotificationCenter::defaultCenter().removeObserver(token);
    }
    /// The first notification, or "" when none comes within a generous guard.
    std::string first() {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, 120s, [this] { return !seen_.empty(); });
        return seen_.empty() ? std::string() : seen_.front();
    }
    long count(const std::string& name) {
        std::lock_guard lock(mutex_);
        return std::ranges::count(seen_, name);
    }

private:
    template <class T> void watch(const NotificationName<T>& name) {
        tokens_.push_back(
            NotificationCenter::defaultCenter().addObserver(name, [this, &name](const T&) {
                std::lock_guard lock(mutex_);
                seen_.push_back(name.name);
                changed_.notify_all();
            }));
    }
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<std::string> seen_;
    std::vector<NotificationCenter::Token> tokens_;
};

class HelperManagerTest : public testing::Test {
protected:
    void SetUp() override {
        if (!test::runningAsRoot())
            GTEST_SKIP() << "the helper is installed and started as root";
        test::writeText(policy, "<policy exec=\"@HELPER_PATH@\"/>\n");
    }
    HelperManager::Settings settings(bool asRoot, const std::string& launcher = "") const {
        return {root.path().string(), launcher, asRoot, QUELM_HELPER_PATH, policy.string()};
    }
    std::string launcher(const std::string& body) const {
        const auto path = root / "launcher";
        test::writeText(path, "#!/bin/sh\n" + body + "\n");
        ::chmod(path.c_str(), 0755);
        return path.string();
    }

    TemporaryFolder root, files;
    fs::path policy = files / "helper.policy.in";
    HelperIdentity helper{"org.quelm.veskp.quelm.helper", QUELM_VERSION_TEXT};
    Outcomes outcomes;
};

TEST_F(HelperManagerTest, InstallsThenKeepsTheSameVersionAndReplacesAnother) {
    HelperManager first(settings(true), helper);
    first.start("prompt");
    ASSERT_EQ(outcomes.first(), kHelperDidConnect.name);
    const auto tool = helper.toolPath(root.path().string());
    const auto policyPath = helper.launchPolicyPath(root.path().string());
    EXPECT_EQ(test::readText(policyPath), "<policy exec=\"" + tool + "\"/>\n");
    struct stat info {};
    EXPECT_TRUE(::stat(tool.c_str(), &info) == 0 && info.st_uid == 0 &&
                (info.st_mode & 07777) == 0755);
    EXPECT_EQ(HelperClient(first.connection()).test2(), 9999999999);
    first.invalidate();

    fs::last_write_time(tool, fs::file_time_type::clock::now() - 1h);
    const auto before = fs::last_write_time(tool);
    for (const std::string version : {QUELM_VERSION_TEXT, "0.0.9"}) {
        Outcomes seen;
        HelperManager manager(settings(true), HelperIdentity(helper.bundleIdentifier(), version));
        manager.start(std::nullopt);
        EXPECT_EQ(seen.first(), kHelperDidConnect.name) << version;
        EXPECT_EQ(fs::last_write_time(tool) == before, version == QUELM_VERSION_TEXT) << version;
    }
    // A policy path that is a non-empty folder cannot be removed as a file.
    fs::remove(policyPath);
    test::writeText(fs::path(policyPath) / "keep", "x");
    Outcomes seen;
    HelperManager manager(settings(true), HelperIdentity(helper.bundleIdentifier(), "1.0"));
    manager.start(std::nullopt);
    EXPECT_EQ(seen.first(), kHelperFailedToRemove.name);
}

TEST_F(HelperManagerTest, TheLauncherInstallsAndStartsTheHelperOrThePasswordIsRefused) {
    // The launcher's status when installing, then when starting the installed helper.
    const std::vector<std::pair<std::string, std::string>> launchers{
        {"exit 126", kHelperFailedToAuthenticate.name},
        {"exit 127", kHelperFailedToAuthenticate.name},
        {"exit 1", kHelperFailedToInstall.name},
        {"[ \"$2\" = --serve ] && exit 126; exec \"$@\"", kHelperFailedToAuthenticate.name},
        {"[ \"$2\" = --serve ] && exit 127; exec \"$@\"", kHelperFailedToAuthenticate.name},
        {"umask 000; exec \"$@\"", kHelperDidConnect.name}};
    for (const auto& [body, expected] : launchers) {
        TemporaryFolder place;
        auto refusing = settings(false, launcher(body));
        refusing.root = place.path().string();
        Outcomes seen;
        HelperManager manager(refusing, helper);
        manager.start("prompt");
        EXPECT_EQ(seen.first(), expected) << body;
        EXPECT_EQ(helper.installed(place.path().string()), !body.starts_with("exit")) << body;
        EXPECT_EQ(seen.count(kHelperFailedToConnect.name), 0) << body;
        if (expected != kHelperDidConnect.name)
            continue;
        // Installed under a careless umask: no folder may come out writable by others.
        const auto tool = helper.toolPath(place.path().string());
        for (auto path = fs::path(tool).parent_path(); path != place.path();
             path = path.parent_path())
            EXPECT_EQ(fs::status(path).permissions(), fs::perms(0755)) << path;
        for (const auto* options :
             {"--install /etc/passwd", "--serve --root /", "--serve --efivars /", ""})
            EXPECT_NE(
                test::runCommand(test::shellQuote(tool) + " " + options + " </dev/null").status, 0)
                << "the installed helper takes no option but --serve: " << options;
    }
}

TEST_F(HelperManagerTest, APackagedHelperIsUsedAsItIsAndNeverReinstalled) {
    // As an installed package has it: the shipped helper is the package's, beside its policy.
    auto packaged = settings(false, launcher("exec \"$@\""));
    packaged.packagedHelper = packaged.shippedHelper;
    test::writeText(helper.launchPolicyPath(root.path().string()), "<policy/>");
    HelperManager manager(packaged, helper);
    EXPECT_TRUE(manager.runsFromPackage());
    manager.start("prompt");
    EXPECT_EQ(outcomes.first(), kHelperDidConnect.name);
    EXPECT_FALSE(fs::exists(helper.toolPath(root.path().string()))) << "nothing installed";

    Outcomes seen;
    HelperManager older(packaged, HelperIdentity(helper.bundleIdentifier(), "0.0.0"));
    older.start("prompt");
    EXPECT_EQ(seen.first(), kHelperFailedToConnect.name) << "a broken package is reported";
    EXPECT_EQ(test::readText(helper.launchPolicyPath(root.path().string())), "<policy/>");
    EXPECT_FALSE(fs::exists(helper.toolPath(root.path().string())));
}

} // namespace
} // namespace quelm
