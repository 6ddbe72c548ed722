// The application's side of the helper: authorise, install, connect, check and report.
#pragma once

#include "helper/HelperClient.h"
#include "helper/HelperIdentity.h"
#include "support/NotificationCenter.h"

#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace quelm {

enum class AuthorizationError {
    authReferenceFailedToCreate,
    authRequestErrorDenied,
    authRequestErrorCanceled,
    authRequestErrorInteractionNotAllowed,
    authRequestErrorInternalError,
};

/// Notifications without an object carry this.
using NoObject = std::monostate;

inline const auto kHelperDidConnect = notificationName<NoObject>(".xpc.manager.didConnectToHelper");
/// Carries the connection error's description.
inline const auto kHelperFailedToConnect =
    notificationName<std::string>(".xpc.manager.failedToConnectToHelper");
inline const auto kHelperFailedToInstall =
    notificationName<NoObject>(".xpc.manager.failedToInstallHelper");
inline const auto kHelperFailedToReinstall =
    notificationName<NoObject>(".xpc.manager.failedToReinstallHelper");
inline const auto kHelperFailedToRemove =
    notificationName<NoObject>(".xpc.manager.failedToRemoveHelper");
inline const auto kHelperFailedToAuthenticate =
    notificationName<NoObject>(".xpc.manager.failedToAuthenticate");
inline const auto kDidReceiveRemoteProgress =
    notificationName<double>(".veskp.didReceiveRemoteProgress");

/// The outcome of each step. The manager is its own default delegate; its reactions are the
/// notifications above, the removal and the re-installation.
class HelperManagerDelegate {
public:
    virtual ~HelperManagerDelegate() = default;
    virtual void helperManagerWillRemoveHelper() {}
    virtual void helperManagerDidRemoveHelper() = 0;
    virtual void helperManagerFailedToRemoveHelper(const std::vector<std::string>& paths) = 0;
    virtual void helperManagerWillCheckHelperVersion() {}
    virtual void helperManagerHelperVersionMatches(const std::string& running) = 0;
    virtual void helperManagerHelperVersionDiffers(const std::string& running,
                                                   const std::string& expected) = 0;
    virtual void helperManagerWillTestConnection() {}
    virtual void helperManagerConnectionTestPassed() = 0;
    virtual void helperManagerConnectionFailed(const std::string& error) = 0;
};

class HelperManager : public HelperManagerDelegate {
public:
    struct Settings {
        /// Where the helper is installed: "/" outside tests.
        std::string root = "/";
        /// Runs a command as root after asking for authorisation (exit 126: cancelled,
        /// 127: denied or no authentication agent).
        std::string launcher = "/usr/bin/pkexec";
        /// Root needs no authorisation: files are installed and the helper started directly.
        bool runningAsRoot = false;
        /// The helper executable shipped with the application, copied when installing.
        std::string shippedHelper;
        /// The launch policy template shipped with the application.
        std::string policyTemplate;
        /// Where an installed package keeps the helper. When the shipped helper is that one
        /// and the package's launch policy is in place, nothing is installed at run time.
        std::string packagedHelper = QUELM_PACKAGED_HELPER_PATH;
    };

    /// The manager of the running application, with the helper named by its Info.plist.
    static HelperManager& shared();
    /// Where the shared manager installs the helper; only before its first use ("/" else).
    static void setSharedRoot(std::string root);
    explicit HelperManager(Settings settings, std::optional<HelperIdentity> helper = {});
    ~HelperManager() override;
    HelperManager(const HelperManager&) = delete;
    HelperManager& operator=(const HelperManager&) = delete;

    const std::optional<HelperIdentity>& helper() const { return helper_; }
    void setDelegate(HelperManagerDelegate* delegate) { delegate_ = delegate; }

    /// From an installed package: connect to the package's helper and check its version.
    /// Installed at run time: connect and check the version. Otherwise install, connect and
    /// test.
    void start(std::optional<std::string> prompt);
    /// Whether the helper is the installed package's own, with the package's launch policy.
    bool runsFromPackage() const;
    /// Nothing as root; otherwise an authorised run of the launcher installs the helper.
    /// True when installed, false when installing failed, or why authorisation failed.
    [[nodiscard]] std::expected<bool, AuthorizationError> installHelper();
    /// Starts the helper installed at run time, or the package's.
    void connect();
    void testConnection();
    void checkHelperVersion();
    void reinstallHelper();
    void removeHelper();
    /// Asks the helper to exit at once.
    void terminateHelper();
    void invalidate();
    void updateProgressWithDoubleValue(double value);

    /// The open connection, through which the application calls the helper; null when there
    /// is none.
    std::shared_ptr<HelperConnection> connection() const { return connection_; }

    void helperManagerDidRemoveHelper() override;
    void helperManagerFailedToRemoveHelper(const std::vector<std::string>& paths) override;
    void helperManagerHelperVersionMatches(const std::string& running) override;
    void helperManagerHelperVersionDiffers(const std::string& running,
                                           const std::string& expected) override;
    void helperManagerConnectionTestPassed() override;
    void helperManagerConnectionFailed(const std::string& error) override;

private:
    /// Installs, then connects and tests; failed names the notification for a failed
    /// installation.
    void installAndConnect(const NotificationName<NoObject>& failed);
    /// Logs the application's reason before pkexec asks for a password, so that the prompt
    /// never comes unexplained, also where no window shows the status line.
    void announceAuthorization() const;

    Settings settings_;
    std::optional<HelperIdentity> helper_;
    std::optional<std::string> prompt_;
    HelperManagerDelegate* delegate_ = this;
    std::shared_ptr<HelperConnection> connection_;
};

} // namespace quelm
