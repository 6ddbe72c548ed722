// quelmctl volume-info: what Quelm reads from a macOS volume.
#include "quelmctl/Commands.h"
#include "volumes/MountedFileSystem.h"
#include "volumes/Volume.h"

#include <array>
#include <cctype>
#include <iostream>

namespace quelm::ctl {
namespace {

const char* yesNo(bool value) {
    return value ? "yes" : "no";
}

/// The folders Quelm reads or writes, of every macOS it knows.
constexpr std::array<std::string_view, 8> kFoldersUsed{
    "/System/Library/Extensions", "/Library/Extensions",
    "/Library/StagedExtensions",  "/Library/Apple/System/Library/Extensions",
    "/System/Library/Receipts",   "/Library/Apple/System/Library/Receipts",
    "/private/var/db/receipts",   "/Library/KernelCollections"};

/// How the host mounts the folder: prefix names the half ("" or "data").
void showMountOf(const std::string& folder, std::string_view prefix) {
    const auto mount = mountedFileSystemOf(folder);
    if (!mount)
        return;
    const auto key = [&](std::string_view name) {
        return prefix.empty() ? std::string(name)
                              : std::string(prefix) + char(std::toupper(name[0])) +
                                    std::string(name.substr(1));
    };
    std::cout << key("fileSystem") << ": " << mount->type << " (" << mount->source << " on "
              << mount->mountPoint << ")\n"
              << key("readOnly") << ": " << yesNo(mount->readOnly) << '\n';
    if (mount->type == "hfsplus")
        std::cout << key("journaled") << ": "
                  << (mount->journaled ? yesNo(*mount->journaled) : "unknown (needs root)") << '\n';
    if (mount->replacesOwners)
        std::cout << key("ownersReplaced") << ": yes (uid= or gid=)\n";
}

/// The two halves of a macOS of 10.15 or later, its firmlinks, and where each folder lies.
void showHalves(const Volume& volume) {
    if (!volume.isSystemVolume()) {
        std::cout << "kind: whole volume\n";
        return;
    }
    std::cout << "kind: system volume" << (volume.isSealed() ? " (sealed)" : "") << '\n'
              << "dataVolume: " << volume.dataMountPoint().value_or("not found") << '\n';
    if (volume.dataMountPoint())
        showMountOf(*volume.dataMountPoint(), "data");
    std::cout << "firmlinks:\n";
    for (const auto& link : volume.firmlinks())
        std::cout << "  " << link.systemPath << " -> data volume " << link.dataPath << '\n';
    std::cout << "folders:\n";
    for (const auto folder : kFoldersUsed) {
        const auto place = volume.placeOf(folder);
        const bool onData = dataPathOf(volume.firmlinks(), folder).has_value();
        std::cout << "  " << folder << ": " << (onData ? "data volume" : "system volume") << ", "
                  << (onData == place.onDataVolume ? place.hostPath() : std::string("not found"))
                  << '\n';
    }
}

/// How the host mounts the volume, and whether Quelm may write to it.
void showMount(const Volume& volume) {
    showHalves(volume);
    showMountOf(volume.mountPoint(), "");
    const auto refusal = writeRefusal(volume);
    std::cout << "writable: " << (refusal ? "no: " + refusal->message : std::string("yes")) << '\n';
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
        "system, and whether Quelm can write to it; for macOS 10.15 and later also its data "
        "volume, the firmlinks that join the two and which of them holds each folder.");
    auto path = std::make_shared<std::string>();
    command->add_option("PATH", *path, "Mount point of the volume")->required();
    addDataVolumeOption(command);
    command->callback([path, &status] { status = showVolume(*path); });
}

} // namespace quelm::ctl
