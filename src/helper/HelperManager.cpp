// The application's side of the helper: authorise, install, connect, check and report.
#include "helper/HelperManager.h"

#include "helper/HelperInstallation.h"
#include "support/Bundle.h"
#include "support/Files.h"
#include "support/Log.h"
#include "support/Process.h"

#include <filesystem>
#include <unistd.h>

namespace quelm {
namespace {

using AuthError = AuthorizationError;

constexpr int kLauncherCancelled = 126;
constexpr int kLauncherDenied = 127;
constexpr std::int64_t kTestAnswer = 1234567890;

void post(const NotificationName<NoObject>& name) {
    NotificationCenter::defaultCenter().post(name, NoObject{});
}

/// The helper shipped with the application: beside it in the build tree, in libexec once
/// installed.
std::string shippedHelperPath() {
    const auto folder = executableFolder();
    std::error_code error;
    if (std::filesystem::exists(folder / "quelm-helper", error))
        return (folder / "quelm-helper").string();
    return (folder.parent_path() / "libexec" / "quelm" / "quelm-helper").string();
}

std::string& sharedRoot() {
    static std::string root = "/";
    return root;
}

} // namespace

void HelperManager::setSharedRoot(std::string root) {
    sharedRoot() = std::move(root);
}

HelperManager& HelperManager::shared() {
    const auto& bundle = Bundle::main();
    static HelperManager manager(
        {.root = sharedRoot(),
         .runningAsRoot = ::geteuid() == 0,
         .shippedHelper = shippedHelperPath(),
         .policyTemplate = bundle.resourcePath("org.quelm.veskp.quelm.helper.policy.in").string()},
        HelperIdentity(bundle.infoDictionary()));
    return manager;
}

HelperManager::HelperManager(Settings settings, std::optional<HelperIdentity> helper)
    : settings_(std::move(settings)), helper_(std::move(helper)) {
}

HelperManager::~HelperManager() {
    invalidate();
}

void HelperManager::start(std::optional<std::string> prompt) {
    prompt_ = std::move(prompt);
    if (!helper_)
        fatalError("QVXPCHelperManager::start() FatalError: no helper to start.");
    if (runsFromPackage() || helper_->installed(settings_.root)) {
        connect();
        checkHelperVersion();
    } else {
        installAndConnect(kHelperFailedToInstall);
    }
}

bool HelperManager::runsFromPackage() const {
    std::error_code error;
    return settings_.shippedHelper == settings_.packagedHelper &&
           std::filesystem::exists(helper_->launchPolicyPath(settings_.root), error);
}

void HelperManager::installAndConnect(const NotificationName<NoObject>& failed) {
    const auto installed = installHelper();
    if (!installed) {
        post(kHelperFailedToAuthenticate);
        return;
    }
    if (!*installed) {
        post(failed);
        return;
    }
    connect();
    testConnection();
}

std::expected<bool, AuthorizationError> HelperManager::installHelper() {
    if (settings_.runningAsRoot)
        return installHelperFiles(*helper_, settings_.shippedHelper, settings_.policyTemplate,
                                  settings_.root, ::getuid());
    announceAuthorization();
    const int status =
        runTool(settings_.launcher, {settings_.shippedHelper, "--install", settings_.policyTemplate,
                                     "--root", settings_.root});
    if (status == kLauncherCancelled)
        return std::unexpected(AuthError::authRequestErrorCanceled);
    if (status == kLauncherDenied)
        return std::unexpected(AuthError::authRequestErrorDenied);
    if (status < 0)
        return std::unexpected(AuthError::authReferenceFailedToCreate);
    return status == 0;
}

void HelperManager::connect() {
    invalidate();
    const std::string tool =
        runsFromPackage() ? settings_.packagedHelper : helper_->toolPath(settings_.root);
    // The installed helper knows its root from where it lies, and takes no other option.
    const std::vector<std::string> serve{"--serve"};
    HelperConnection::Handlers handlers{
        [this](double value) { updateProgressWithDoubleValue(value); },
        [this](const std::string& error, std::optional<int> exitStatus) {
            // pkexec answers a cancelled or refused password prompt with these statuses
            // before any helper runs: that is an authentication failure, not a broken channel.
            if (!settings_.runningAsRoot &&
                (exitStatus == kLauncherCancelled || exitStatus == kLauncherDenied))
                post(kHelperFailedToAuthenticate);
            else
                delegate_->helperManagerConnectionFailed(error);
        }};
    if (settings_.runningAsRoot) {
        connection_ = HelperConnection::launch(tool, serve, std::move(handlers));
    } else {
        announceAuthorization();
        std::vector<std::string> arguments{tool};
        arguments.insert(arguments.end(), serve.begin(), serve.end());
        connection_ = HelperConnection::launch(settings_.launcher, arguments, std::move(handlers));
    }
    if (!connection_)
        delegate_->helperManagerConnectionFailed("cannot start " + tool);
}

void HelperManager::announceAuthorization() const {
    if (prompt_)
        logLine("QVXPCHelperManager: asking for authorization: " + *prompt_);
}

void HelperManager::testConnection() {
    if (!connection_)
        return;
    delegate_->helperManagerWillTestConnection();
    HelperClient(connection_).test([this](std::optional<std::int64_t> answer) {
        if (answer == kTestAnswer)
            delegate_->helperManagerConnectionTestPassed();
    });
}

void HelperManager::checkHelperVersion() {
    if (!connection_)
        return;
    delegate_->helperManagerWillCheckHelperVersion();
    HelperClient(connection_).version([this](std::optional<std::string> running) {
        if (!running)
            return;
        if (*running == helper_->bundleVersion())
            delegate_->helperManagerHelperVersionMatches(*running);
        else
            delegate_->helperManagerHelperVersionDiffers(*running, helper_->bundleVersion());
    });
}

void HelperManager::removeHelper() {
    if (!connection_)
        return;
    delegate_->helperManagerWillRemoveHelper();
    HelperClient(connection_).uninstall([this](std::optional<std::vector<std::string>> failed) {
        if (!failed)
            return;
        if (failed->empty())
            delegate_->helperManagerDidRemoveHelper();
        else
            delegate_->helperManagerFailedToRemoveHelper(*failed);
    });
}

void HelperManager::reinstallHelper() {
    terminateHelper();
    invalidate();
    installAndConnect(kHelperFailedToReinstall);
}

void HelperManager::terminateHelper() {
    if (connection_)
        HelperClient(connection_).terminate();
}

void HelperManager::invalidate() {
    if (connection_)
        connection_->invalidate();
    connection_.reset();
}

void HelperManager::updateProgressWithDoubleValue(double value) {
    NotificationCenter::defaultCenter().post(kDidReceiveRemoteProgress, value);
}

void HelperManager::helperManagerDidRemoveHelper() {
    reinstallHelper();
}

void HelperManager::helperManagerFailedToRemoveHelper(const std::vector<std::string>&) {
    post(kHelperFailedToRemove);
}

void HelperManager::helperManagerHelperVersionMatches(const std::string&) {
    post(kHelperDidConnect);
}

void HelperManager::helperManagerHelperVersionDiffers(const std::string& running,
                                                      const std::string& expected) {
    // The package's files are the package manager's to replace, not ours.
    if (runsFromPackage())
        delegate_->helperManagerConnectionFailed(
            "the installed helper " + settings_.packagedHelper + " is version " + running +
            " but Quelm expects " + expected + ": the quelm package is broken; reinstall it.");
    else
        removeHelper();
}

void HelperManager::helperManagerConnectionTestPassed() {
    post(kHelperDidConnect);
}

void HelperManager::helperManagerConnectionFailed(const std::string& error) {
    NotificationCenter::defaultCenter().post(kHelperFailedToConnect, error);
}

} // namespace quelm
