// The quelmctl commands: each adds its subcommand, whose callback sets the exit status.
#pragma once

#include <CLI/CLI.hpp>
#include <string_view>

namespace quelm::ctl {

void addVolumeInfoCommand(CLI::App& app, int& status);
void addKextInfoCommand(CLI::App& app, int& status);
void addSmartTableCommand(CLI::App& app, int& status);
void addPermissionsCommands(CLI::App& app, int& status);
void addMakeDemoVolumeCommand(CLI::App& app, int& status);
void addListBomCommand(CLI::App& app, int& status);
void addMakeBomCommand(CLI::App& app, int& status);

/// One line on stderr, prefixed with the program name.
void printError(std::string_view message);

} // namespace quelm::ctl
