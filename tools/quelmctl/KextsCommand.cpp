// quelmctl kexts: every kext in the extensions folders of a volume, with its plug-ins.
#include "kexts/KextCatalog.h"
#include "quelmctl/Commands.h"
#include "quelmctl/Rescue.h"

#include <iostream>

namespace quelm::ctl {
namespace {

struct Options {
    std::string volume;
    bool json = false;
};

std::string folderOf(const Kext& kext) {
    return kext.path().substr(0, kext.path().rfind('/') + 1);
}

std::string codeText(const Kext& kext) {
    if (!kext.executable)
        return "no executable";
    if (!*kext.executable)
        return "executable unusable: " + kext.executable->error().message;
    std::string types;
    for (const auto& type : kext.cpuTypes())
        types += (types.empty() ? "" : " ") + type;
    return types;
}

void printLine(const Kext& kext, int depth) {
    std::cout << std::string(static_cast<std::size_t>(depth) * 2, ' ') << kext.name();
    if (!kext.info)
        std::cout << " (no readable Info.plist)";
    else
        std::cout << " (" << kext.identifier() << ' ' << kext.version().value_or("") << ')';
    std::cout << " in " << folderOf(kext) << ": " << codeText(kext)
              << (kext.isApple() ? "; Apple's" : "")
              << (kext.hasCodeSignature ? "; code signature" : "; no code signature")
              << (kext.ownersAndModesRight ? "; owners and modes right"
                                           : "; owners or modes wrong (want 0:0, 755)")
              << '\n';
    for (const auto& plugIn : kext.plugIns)
        printLine(plugIn, depth + 1);
}

std::string jsonOf(const Kext& kext) {
    const bool unusable = kext.executable && !*kext.executable;
    std::string plugIns;
    for (const auto& plugIn : kext.plugIns)
        plugIns += (plugIns.empty() ? "" : ", ") + jsonOf(plugIn);
    return "{\"name\": " + jsonString(kext.name()) +
           ", \"identifier\": " + jsonString(kext.identifier()) +
           ", \"version\": " + jsonString(kext.version().value_or("")) +
           ", \"folder\": " + jsonString(folderOf(kext)) +
           ", \"path\": " + jsonString(kext.path()) +
           ", \"infoPlistReadable\": " + (kext.info ? "true" : "false") +
           ", \"apple\": " + (kext.isApple() ? "true" : "false") +
           ", \"ownersAndModesRight\": " + (kext.ownersAndModesRight ? "true" : "false") +
           ", \"codeSignature\": " + (kext.hasCodeSignature ? "true" : "false") +
           ", \"executable\": " +
           (kext.executable ? jsonString(kext.infoString("CFBundleExecutable")) : "null") +
           ", \"executableProblem\": " +
           (unusable ? jsonString(kext.executable->error().message) : "null") +
           ", \"cpuTypes\": " + jsonStrings(kext.cpuTypes()) + ", \"plugIns\": [" + plugIns + "]}";
}

int listKexts(const Options& options) {
    const auto volume = openVolume(options.volume);
    if (!volume)
        return 2;
    const auto kexts = installedKexts(*volume);
    if (options.json) {
        std::cout << "[";
        for (std::size_t i = 0; i < kexts.size(); ++i)
            std::cout << (i ? ",\n " : "\n ") << jsonOf(kexts[i]);
        std::cout << (kexts.empty() ? "]\n" : "\n]\n");
        return 0;
    }
    for (const auto& kext : kexts)
        printLine(kext, 0);
    return 0;
}

} // namespace

void addKextsCommand(CLI::App& app, int& status) {
    auto* command = app.add_subcommand(
        "kexts", "List every kext in /System/Library/Extensions, /Library/Extensions, "
                 "/Extra/Extensions and /Library/Apple/System/Library/Extensions of a volume, "
                 "in either bundle layout (Contents, or flat as Apple ships some of its own): "
                 "name, bundle identifier, version, folder, "
                 "whether it is Apple's, whether its owners and modes are right, whether it has "
                 "a code signature, and the CPU types of its executable. Plug-ins are listed "
                 "under their kext.");
    auto options = std::make_shared<Options>();
    command->add_option("--volume", options->volume, "Mount point of the macOS volume")->required();
    addDataVolumeOption(command);
    command->add_flag("--json", options->json, "Print the kexts as a JSON array");
    command->footer("Owners and modes are right when every item of the bundle belongs to 0:0, "
                    "every folder has mode 755 and every file 755 or 644.\n"
                    "Exit status: 0 when the kexts were listed, 2 when the folder is no macOS "
                    "volume.");
    command->callback([options, &status] { status = listKexts(*options); });
}

} // namespace quelm::ctl
