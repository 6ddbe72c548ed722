// quelmctl rebuild-caches: rebuild, or mark stale, the kext caches of a volume.
#include "kexts/KextCaches.h"
#include "quelmctl/Commands.h"
#include "quelmctl/Rescue.h"
#include "volumes/MountedFileSystem.h"

#include <iostream>

namespace quelm::ctl {
namespace {

int rebuild(const std::string& path) {
    const auto volume = openVolume(path);
    if (!volume || refusesWrites(*volume, kKextChangesFolder))
        return 2;
    if (!rebuildCaches(*volume)) {
        printError("cannot rebuild the kext caches of " + volume->mountPoint());
        return 1;
    }
    std::cout << "kext caches of " << volume->mountPoint() << " rebuilt or marked for rebuilding\n";
    printCollectionNotice(*volume, false);
    return 0;
}

} // namespace

void addRebuildCachesCommand(CLI::App& app, int& status) {
    auto* command = app.add_subcommand(
        "rebuild-caches", "Rebuild the kext caches of a volume with kextcache where this host has "
                          "it; elsewhere mark them stale so that macOS rebuilds them at its next "
                          "start.");
    auto volume = std::make_shared<std::string>();
    command->add_option("--volume", *volume, "Mount point of the macOS volume")->required();
    addDataVolumeOption(command);
    command->callback([volume, &status] { status = rebuild(*volume); });
}

} // namespace quelm::ctl
