// quelmctl: Quelm's jobs on the command line, in process.
#include "quelmctl/Commands.h"
#include "support/PathValidation.h"
#include "volumes/MountedFileSystem.h"
#include "volumes/VolumePairing.h"

#include <algorithm>
#include <cctype>
#include <iostream>
#include <ranges>
#include <string>
#include <sys/prctl.h>
#include <vector>

namespace quelm::ctl {

void printError(std::string_view message) {
    std::cerr << "quelmctl: " << message << '\n';
}

namespace {

std::optional<std::string>& dataVolumeOption() {
    static std::optional<std::string> path;
    return path;
}

} // namespace

void addDataVolumeOption(CLI::App* command) {
    command
        ->add_option_function<std::string>(
            "--data-volume",
            [](const std::string& path) { dataVolumeOption() = absoluteNormalPath(path); },
            "Mount point of the data volume of macOS 10.15 or later, when it is not found by "
            "itself")
        ->check(refuseEmpty);
}

std::optional<Volume> openVolume(const std::string& path,
                                 const std::optional<std::string>& dataPath) {
    auto volume =
        openMacOS(absoluteNormalPath(path), dataVolumeOption() ? dataVolumeOption() : dataPath);
    if (!volume) {
        printError(volume.error().message);
        return std::nullopt;
    }
    return std::move(*volume);
}

bool refusesWrites(const Volume& volume, std::string_view path) {
    const auto refusal = path.empty() ? writeRefusal(volume) : writeRefusal(volume, path);
    if (refusal)
        printError(refusal->message);
    return refusal.has_value();
}

std::string refuseEmpty(const std::string& path) {
    return path.empty() ? "an empty path names no file" : "";
}

namespace {

/// The commands the user named, the program first.
std::vector<const CLI::App*> namedCommands(const CLI::App& app) {
    std::vector<const CLI::App*> commands{&app};
    while (!commands.back()->get_subcommands().empty())
        commands.push_back(commands.back()->get_subcommands().front());
    return commands;
}

/// What was wrong, as the end of a sentence. CLI11 says only that a command is required when
/// the user typed one that does not exist, so that word is named instead.
std::string usageProblem(const CLI::App& command, const CLI::ParseError& error) {
    const auto left = command.remaining();
    if (error.get_name() == "RequiredError" && command.get_require_subcommand_min() > 0 &&
        command.get_subcommands().empty()) {
        if (left.empty())
            return "a command is required";
        return left.front() +
               (left.front().starts_with('-') ? " is not an option" : " is not a command");
    }
    std::string text = error.what();
    std::ranges::replace(text, '\n', ' ');
    // "The following argument..." reads on after a colon; "KEXT is required" keeps its name.
    if (text.size() > 1 && std::islower(static_cast<unsigned char>(text[1])))
        text[0] = static_cast<char>(std::tolower(static_cast<unsigned char>(text[0])));
    return text;
}

/// One line naming the problem and the help that explains the command; scripts tell a usage
/// error from a failed job by its status, 2.
int usageError(const CLI::App& app, const CLI::ParseError& error) {
    const auto commands = namedCommands(app);
    std::string names;
    for (const auto* command : commands | std::views::drop(1))
        names += command->get_name() + " ";
    const std::string where = names.empty() ? "" : names.substr(0, names.size() - 1) + ": ";
    printError(where + usageProblem(*commands.back(), error) + "; see quelmctl " + names +
               "--help");
    return 2;
}

} // namespace
} // namespace quelm::ctl

int main(int argc, char** argv) {
    ::prctl(PR_SET_DUMPABLE, 0);
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
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& request) {
        return app.exit(request);
    } catch (const CLI::ParseError& error) {
        return quelm::ctl::usageError(app, error);
    }
    return status;
}
