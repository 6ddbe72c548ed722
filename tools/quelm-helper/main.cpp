// quelm-helper: Quelm's privileged helper. Serves the channel on stdin and stdout as root.
#include "HelperInfoPlist.h"
#include "helper/HelperInstallation.h"
#include "helper/HelperServer.h"
#include "support/Bundle.h"
#include "support/Log.h"

#include <CLI/CLI.hpp>
#include <csignal>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

quelm::PlistValue::Dict helperInfo() {
    const auto info = quelm::parsePlist(kHelperInfoPlist);
    if (!info || !info->dict())
        quelm::fatalError("quelm-helper::FatalError: the compiled-in Info.plist is damaged.");
    return *info->dict();
}

/// The root folder under which this executable is the installed helper (by a package, or at
/// run time), or nothing for the copy shipped with the application in a build tree.
std::optional<std::string> installedUnder(const quelm::HelperIdentity& helper) {
    const std::string self = quelm::executablePath().string();
    if (self == QUELM_PACKAGED_HELPER_PATH)
        return "/";
    const std::string installed = helper.toolPath("/");
    if (!self.ends_with(installed))
        return std::nullopt;
    const std::string root = self.substr(0, self.size() - installed.size());
    return root.empty() ? "/" : root;
}

int serve(const quelm::PlistValue::Dict& info, const quelm::HelperOperations::Settings& settings) {
    if (!quelm::peerIsAllowed(STDIN_FILENO))
        return 1;
    // A closed channel must end the helper through the reader, not through a signal.
    std::signal(SIGPIPE, SIG_IGN);
    quelm::HelperOperations helper(info, settings);
    return quelm::serveHelper(helper, STDIN_FILENO, STDOUT_FILENO);
}

/// The installed helper serves, and does nothing else: no option of it names a file.
int runInstalled(int argc, char** argv, const quelm::PlistValue::Dict& info,
                 const std::string& root) {
    CLI::App app{"Quelm's installed privileged helper: serves the Quelm application, which "
                 "starts it. Not meant to be run by hand.",
                 "quelm-helper"};
    bool serving = false;
    app.add_flag("--serve", serving, "Serve the channel on stdin and stdout")->required();
    CLI11_PARSE(app, argc, argv);
    return serve(info, {.root = root});
}

/// The copy shipped with the application installs itself, or serves for tests and the demo.
int runShipped(int argc, char** argv, const quelm::PlistValue::Dict& info) {
    CLI::App app{"Quelm's privileged helper as shipped: installs itself for the Quelm "
                 "application. Not meant to be run by hand.",
                 "quelm-helper"};
    bool serving = false;
    std::string policyTemplate;
    quelm::HelperOperations::Settings settings;
    auto* mode = app.add_option_group("mode");
    mode->add_flag("--serve", serving, "Serve the channel on stdin and stdout");
    mode->add_option("--install", policyTemplate,
                     "Install this executable as the helper, with the launch policy made from "
                     "the given template file");
    mode->require_option(1);
    app.add_option("--root", settings.root, "Root folder of the installation (tests)");
    app.add_option("--efivars", settings.efivarsFolder, "Folder of the firmware variables");
    CLI11_PARSE(app, argc, argv);
    if (serving)
        return serve(info, settings);
    if (quelm::installHelperFiles(quelm::HelperIdentity(info), quelm::executablePath().string(),
                                  policyTemplate, settings.root, quelm::callerUid()))
        return 0;
    quelm::logLine("quelm-helper: cannot install the helper under " + settings.root);
    return 1;
}

} // namespace

int main(int argc, char** argv) {
    // No process of the user who started it may trace the helper or read its memory.
    ::prctl(PR_SET_DUMPABLE, 0);
    // Whatever the caller's umask, nothing the helper makes may be writable by others.
    ::umask(022);
    const auto info = helperInfo();
    if (const auto root = installedUnder(quelm::HelperIdentity(info)))
        return runInstalled(argc, argv, info, *root);
    return runShipped(argc, argv, info);
}
