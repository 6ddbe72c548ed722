// quelmctl smart-table: show, look up and reset the user's copy of the smart table.
#include "kexts/SmartTable.h"
#include "quelmctl/Commands.h"
#include "support/Paths.h"

#include <filesystem>
#include <iostream>
#include <optional>

namespace quelm::ctl {
namespace {} // namespace

std::optional<SmartTable> preparedUserCopy(const std::filesystem::path& folder) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) {
        printError("cannot create " + folder.string() + ": " + error.message());
        return std::nullopt;
    }
    const SmartTable manager(folder, Bundle::main());
    if (auto prepared = manager.prepare(); !prepared) {
        printError("cannot prepare the smart table " + manager.userCopyPath() + " (" +
                   std::string(errorName(prepared.error())) + "); 'quelmctl smart-table reset' " +
                   "restores the shipped one");
        return std::nullopt;
    }
    return SmartTable(folder, Bundle::main(), manager.userCopyPath());
}

namespace {

int show(const std::filesystem::path& folder) {
    const auto table = preparedUserCopy(folder);
    if (!table)
        return 1;
    std::cout << "file: " << table->userCopyPath() << '\n'
              << "version: " << table->version().value_or("none") << '\n';
    for (const auto& [name, destination] : table->table())
        std::cout << name << '\t' << destination << '\n';
    return 0;
}

int lookup(const std::filesystem::path& folder, const std::string& name) {
    const auto table = preparedUserCopy(folder);
    if (!table)
        return 1;
    const auto found = table->table().find(name);
    if (found == table->table().end()) {
        printError(name + " is not in the smart table " + table->userCopyPath());
        return 1;
    }
    std::cout << found->second << '\n';
    return 0;
}

int reset(const std::filesystem::path& folder) {
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    const SmartTable manager(folder, Bundle::main());
    if (error || !manager.reset()) {
        printError("cannot reset " + manager.userCopyPath() + " from " +
                   Bundle::main().resourcePath(SmartTable::resourceName).string());
        return 1;
    }
    std::cout << "reset " << manager.userCopyPath() << " to the shipped table\n";
    return 0;
}

} // namespace

void addSmartTableCommand(CLI::App& app, int& status) {
    auto* command = app.add_subcommand(
        "smart-table", "Show, look up or reset your copy of the smart table, which says where "
                       "each known kext is installed.");
    command->require_subcommand(1);
    const auto folder = applicationSupportFolder();
    command->add_subcommand("show", "Print the table's version and every entry.")
        ->callback([folder, &status] { status = show(folder); });
    auto* find = command->add_subcommand(
        "lookup", "Print the folder for a bundle file name (exit 1 when it is not listed).");
    auto name = std::make_shared<std::string>();
    find->add_option("NAME", *name, "Bundle file name, e.g. FakeSMC.kext")->required();
    find->callback([folder, name, &status] { status = lookup(folder, *name); });
    command->add_subcommand("reset", "Replace your copy with the table shipped with Quelm.")
        ->callback([folder, &status] { status = reset(folder); });
}

} // namespace quelm::ctl
