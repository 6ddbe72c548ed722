// quelmctl volume-info: what Quelm reads from a macOS volume.
#include "quelmctl/Commands.h"
#include "volumes/MountedFileSystem.h"
#include "volumes/QVOSVolume.h"

#include <iostream>

namespace quelm::ctl {
namespace {

const char* yesNo(bool value) {
    return value ? "yes" : "no";
}

/// How the host mounts the volume, and whether Quelm may write to it.
void showMount(const QVOSVolume& volume) {
    const auto mount = mountedFileSystemOf(volume.mountPoint());
    if (mount) {
        std::cout << "fileSystem: " << mount->type << " (" << mount->source << " on "
                  << mount->mountPoint << ")\n"
                  << "readOnly: " << yesNo(mount->readOnly) << '\n';
        if (mount->type == "hfsplus")
            std::cout << "journaled: "
                      << (mount->journaled ? yesNo(*mount->journaled) : "unknown (needs root)")
                      << '\n';
    }
    const auto refusal = writeRefusal(volume);
    std::cout << "writable: " << (refusal ? "no: " + *refusal : std::string("yes")) << '\n';
}

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
    showMount(*volume);
    return 0;
}

} // namespace

void addVolumeInfoCommand(CLI::App& app, int& status) {
    auto* command = app.add_subcommand(
        "volume-info",
        "Show the macOS version, build and kind of the volume mounted at PATH, its file "
        "system, and whether Quelm can write to it.");
    auto path = std::make_shared<std::string>();
    command->add_option("PATH", *path, "Mount point of the volume")->required();
    command->callback([path, &status] { status = showVolume(*path); });
}

} // namespace quelm::ctl
