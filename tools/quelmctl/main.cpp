// quelmctl: Quelm's jobs on the command line, in process.
#include "quelmctl/Commands.h"
#include "support/PathValidation.h"
#include "volumes/MountedFileSystem.h"

#include <iostream>

namespace quelm::ctl {

void printError(std::string_view message) {
    std::cerr << "quelmctl: " << message << '\n';
}

std::optional<QVOSVolume> openVolume(const std::string& path) {
    auto volume = QVOSVolume::initWithMountPoint(absoluteNormalPath(path));
    if (!volume)
        printError(path + " is not a macOS volume: it has no readable " +
                   "System/Library/CoreServices/SystemVersion.plist with ProductVersion and " +
                   "ProductBuildVersion");
    return volume;
}

bool refusesWrites(const QVOSVolume& volume) {
    const auto refusal = writeRefusal(volume);
    if (refusal)
        printError(*refusal);
    return refusal.has_value();
}

} // namespace quelm::ctl

int main(int argc, char** argv) {
    CLI::App app{"Quelm installs kext bundles onto a macOS volume and repairs the volume so that "
                 "it boots.",
                 "quelmctl"};
    app.set_version_flag("--version", QUELM_VERSION);
    app.require_subcommand(1);
    int status = 0;
    quelm::ctl::addVolumeInfoCommand(app, status);
    quelm::ctl::addKextInfoCommand(app, status);
    quelm::ctl::addSmartTableCommand(app, status);
    quelm::ctl::addPermissionsCommands(app, status);
    quelm::ctl::addMakeDemoVolumeCommand(app, status);
    quelm::ctl::addInstallCommand(app, status);
    quelm::ctl::addRebuildCachesCommand(app, status);
    quelm::ctl::addKextsCommand(app, status);
    quelm::ctl::addCheckKextCommand(app, status);
    quelm::ctl::addRemoveCommand(app, status);
    quelm::ctl::addRestoreCommand(app, status);
    quelm::ctl::addHistoryCommand(app, status);
    quelm::ctl::addUndoCommand(app, status);
    quelm::ctl::addListBomCommand(app, status);
    quelm::ctl::addMakeBomCommand(app, status);
    CLI11_PARSE(app, argc, argv);
    return status;
}
