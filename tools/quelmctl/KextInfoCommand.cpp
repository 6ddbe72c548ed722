// quelmctl kext-info: a kext bundle as Quelm sees it.
#include "kexts/KextCatalog.h"
#include "quelmctl/Commands.h"

#include <filesystem>
#include <iostream>

namespace quelm::ctl {
namespace {

int showKext(const std::string& path) {
    const Kext kext = readKext(path).value_or(Kext(FileURL::fromPath(path, false)));
    if (kext.url().pathExtension() != "kext") {
        printError(path + " is not a kext bundle: its name must end in .kext");
        return 1;
    }
    std::error_code error;
    if (!std::filesystem::is_directory(kext.url().path(), error)) {
        printError(path + ": no such bundle folder");
        return 1;
    }
    std::cout << "name: " << kext.name() << '\n'
              << "path: " << kext.path() << '\n'
              << "version: " << kext.version().value_or("none") << '\n';
    return 0;
}

} // namespace

void addKextInfoCommand(CLI::App& app, int& status) {
    auto* command = app.add_subcommand(
        "kext-info", "Show the name, path and version of the kext bundle at PATH.");
    auto path = std::make_shared<std::string>();
    command->add_option("PATH", *path, "Path of the .kext bundle folder")
        ->required()
        ->check(refuseEmpty);
    command->callback([path, &status] { status = showKext(*path); });
}

} // namespace quelm::ctl
