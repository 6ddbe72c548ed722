// quelmctl volume-info: what Quelm reads from a macOS volume.
#include "quelmctl/Commands.h"
#include "volumes/QVOSVolume.h"

#include <iostream>

namespace quelm::ctl {
namespace {

int showVolume(const std::string& path) {
    const auto volume = openVolume(path);
    if (!volume)
        return 1;
    const auto major = volume->majorVersion();
    std::cout << volume->getFullNameVersionString() << '\n'
              << "mountPoint: " << volume->mountPoint() << '\n'
              << "version: " << *volume->version() << '\n'
              << "buildVersion: " << *volume->buildVersion() << '\n'
              << "majorVersion: " << (major ? std::to_string(*major) : "none") << '\n'
              << "isRecovery: " << (volume->isRecovery() ? "true" : "false") << '\n'
              << "hasExtraFolder: " << (volume->hasExtraFolder() ? "true" : "false") << '\n';
    return 0;
}

} // namespace

void addVolumeInfoCommand(CLI::App& app, int& status) {
    auto* command = app.add_subcommand(
        "volume-info", "Show the macOS version, build and kind of the volume mounted at PATH.");
    auto path = std::make_shared<std::string>();
    command->add_option("PATH", *path, "Mount point of the volume")->required();
    command->callback([path, &status] { status = showVolume(*path); });
}

} // namespace quelm::ctl
