// quelm-helper: Quelm's privileged helper. Serves the channel on stdin and stdout as root.
#include "HelperInfoPlist.h"
#include "helper/HelperInstallation.h"
#include "helper/HelperServer.h"
#include "support/Bundle.h"
#include "support/Files.h"
#include "support/Log.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <unistd.h>

namespace {

quelm::PlistValue::Dict helperInfo() {
    const auto info = quelm::parsePlist(kHelperInfoPlist);
    if (!info || !info->dict())
        quelm::fatalError("quelm-helper::FatalError: the compiled-in Info.plist is damaged.");
    return *info->dict();
}

/// Installs this very executable as the helper, with its launch policy.
int installSelf(const quelm::QVXPCHelper& helper, const std::string& policyTemplatePath,
                const std::string& root) {
    const auto policyTemplate = quelm::readFileBytes(policyTemplatePath, 1u << 20);
    const auto self = quelm::executableFolder() / "quelm-helper";
    if (!policyTemplate ||
        !quelm::installHelperFiles(helper, self.string(), *policyTemplate, root)) {
        quelm::logLine("quelm-helper: cannot install the helper under " + root);
        return 1;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    CLI::App app{"Quelm's privileged helper: installs kexts, repairs permissions and rebuilds "
                 "caches for the Quelm application, which starts it. Not meant to be run by hand.",
                 "quelm-helper"};
    bool serve = false;
    std::string install;
    quelm::QVXPCVESKHelper::Settings settings;
    auto* mode = app.add_option_group("mode");
    mode->add_flag("--serve", serve, "Serve the channel on stdin and stdout");
    mode->add_option("--install", install,
                     "Install this executable as the helper, with the launch policy made from "
                     "the given template file");
    mode->require_option(1);
    app.add_option("--root", settings.root, "Root folder of the installation (tests)");
    app.add_option("--efivars", settings.efivarsFolder, "Folder of the firmware variables");
    CLI11_PARSE(app, argc, argv);

    const auto info = helperInfo();
    if (!install.empty())
        return installSelf(quelm::QVXPCHelper(info), install, settings.root);
    // A closed channel must end the helper through the reader, not through a signal.
    std::signal(SIGPIPE, SIG_IGN);
    quelm::QVXPCVESKHelper helper(info, settings);
    return quelm::serveHelper(helper, STDIN_FILENO, STDOUT_FILENO);
}
