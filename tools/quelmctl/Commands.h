// The quelmctl commands: each adds its subcommand, whose callback sets the exit status.
#pragma once

#include "kexts/SmartTable.h"
#include "volumes/Volume.h"

#include <CLI/CLI.hpp>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace quelm::ctl {

void addVolumeInfoCommand(CLI::App& app, int& status);
void addKextInfoCommand(CLI::App& app, int& status);
void addSmartTableCommand(CLI::App& app, int& status);
void addPermissionsCommands(CLI::App& app, int& status);
void addMakeDemoVolumeCommand(CLI::App& app, int& status);
void addListBomCommand(CLI::App& app, int& status);
void addMakeBomCommand(CLI::App& app, int& status);

void addInstallCommand(CLI::App& app, int& status);
void addRebuildCachesCommand(CLI::App& app, int& status);
void addKextsCommand(CLI::App& app, int& status);
void addCheckKextCommand(CLI::App& app, int& status);
void addRemoveCommand(CLI::App& app, int& status);
void addRestoreCommand(CLI::App& app, int& status);
void addHistoryCommand(CLI::App& app, int& status);
void addUndoCommand(CLI::App& app, int& status);

/// The user's smart table in folder, made or refreshed first as the application does at
/// launch; nothing (and a message) when that fails.
std::optional<SmartTable> preparedUserCopy(const std::filesystem::path& folder);

/// The macOS volume mounted at path (made absolute), joined to its data volume from 10.15 on
/// (--data-volume, else dataPath, else the one found among the mounts), or nothing after a
/// message naming it.
std::optional<Volume> openVolume(const std::string& path,
                                 const std::optional<std::string>& dataPath = std::nullopt);

/// Adds --data-volume, which every later openVolume takes as the data volume to join.
void addDataVolumeOption(CLI::App* command);

/// Says why root cannot write to the volume, or to the half that holds path when one is given,
/// when it cannot: commands that change a volume stop there with status 2, before their first
/// write.
bool refusesWrites(const Volume& volume, std::string_view path = {});

/// A CLI11 check for path arguments: the file system would read an empty one as the working
/// folder.
std::string refuseEmpty(const std::string& path);

/// One line on stderr, prefixed with the program name.
void printError(std::string_view message);

} // namespace quelm::ctl
