// The helper manager's paths: install, version check, re-install, removal failure and refused
// authorisation, each seen through its notification.
#include "helper/HelperManager.h"

#include "TestSupport.h"

#include <condition_variable>
#include <gtest/gtest.h>
#include <sys/stat.h>

namespace quelm {
namespace {

namespace fs = std::filesystem;
using test::TemporaryFolder;
using namespace std::chrono_literals;
using Names = std::vector<std::string>;

/// Collects the manager's notifications.
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
    /// Those seen once the first came, or none when it does not within a generous guard.
    Names seen() {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, 120s, [this] { return !seen_.empty(); });
        return seen_;
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
    Names seen_;
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
    /// What starting a manager of the version with these settings posts.
    Names started(const HelperManager::Settings& with, const std::string& version,
                  std::optional<std::string> prompt = "prompt") const {
        Outcomes posted;
        HelperManager manager(with, HelperIdentity(helper.bundleIdentifier(), version));
        manager.start(std::move(prompt));
        return posted.seen();
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
};

TEST_F(HelperManagerTest, InstallsThenKeepsTheSameVersionAndReplacesAnother) {
    const Names connected{kHelperDidConnect.name};
    ASSERT_EQ(started(settings(true), QUELM_VERSION_TEXT), connected);
    const auto tool = helper.toolPath(root.path().string());
    const auto policyPath = helper.launchPolicyPath(root.path().string());
    EXPECT_EQ(test::readText(policyPath), "<policy exec=\"" + tool + "\"/>\n");
    struct stat info {};
    EXPECT_TRUE(::stat(tool.c_str(), &info) == 0 && info.st_uid == 0 &&
                (info.st_mode & 07777) == 0755);

    fs::last_write_time(tool, fs::file_time_type::clock::now() - 1h);
    const auto before = fs::last_write_time(tool);
    for (const std::string version : {QUELM_VERSION_TEXT, "0.0.9"}) {
        EXPECT_EQ(started(settings(true), version, std::nullopt), connected) << version;
        EXPECT_EQ(fs::last_write_time(tool) == before, version == QUELM_VERSION_TEXT) << version;
    }
    // A policy path that is a non-empty folder cannot be removed as a file.
    fs::remove(policyPath);
    test::writeText(fs::path(policyPath) / "keep", "x");
    EXPECT_EQ(started(settings(true), "1.0", std::nullopt), Names{kHelperFailedToRemove.name});
}

TEST_F(HelperManagerTest, TheLauncherInstallsAndStartsTheHelperOrThePasswordIsRefused) {
    // The launcher's status when installing, then when starting the installed helper.
    for (const auto& [body, expected] : std::vector<std::pair<std::string, std::string>>{
             {"exit 126", kHelperFailedToAuthenticate.name},
             {"exit 127", kHelperFailedToAuthenticate.name},
             {"exit 1", kHelperFailedToInstall.name},
             {"[ \"$2\" = --serve ] && exit 126; exec \"$@\"", kHelperFailedToAuthenticate.name},
             {"[ \"$2\" = --serve ] && exit 127; exec \"$@\"", kHelperFailedToAuthenticate.name},
             {"umask 000; exec \"$@\"", kHelperDidConnect.name}}) {
        TemporaryFolder place;
        auto refusing = settings(false, launcher(body));
        refusing.root = place.path().string();
        EXPECT_EQ(started(refusing, QUELM_VERSION_TEXT), Names{expected}) << body;
        EXPECT_EQ(helper.installed(place.path().string()), !body.starts_with("exit")) << body;
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
    EXPECT_TRUE(HelperManager(packaged, helper).runsFromPackage());
    EXPECT_EQ(started(packaged, QUELM_VERSION_TEXT), Names{kHelperDidConnect.name});
    EXPECT_FALSE(fs::exists(helper.toolPath(root.path().string()))) << "nothing installed";
    EXPECT_EQ(started(packaged, "0.0.0"), Names{kHelperFailedToConnect.name})
        << "a broken package is reported";
    EXPECT_EQ(test::readText(helper.launchPolicyPath(root.path().string())), "<policy/>");
    EXPECT_FALSE(fs::exists(helper.toolPath(root.path().string())));
}

} // namespace
} // namespace quelm
