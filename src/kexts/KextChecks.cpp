// The checks a careful user makes before a kext goes onto a volume whose next start needs it.
#include "kexts/KextChecks.h"

#include "kexts/KextVersion.h"

namespace quelm {
namespace {

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

std::optional<std::string> executableFailure(const Kext& kext) {
    if (!kext.executable)
        return std::nullopt;
    const std::string what = kext.name() + "'s executable " + kext.infoString("CFBundleExecutable");
    if (!*kext.executable)
        return what + " is unusable: " + kext.executable->error().message + ".";
    if ((*kext.executable)->hasX86_64())
        return std::nullopt;
    std::string types;
    for (const auto& type : kext.cpuTypes())
        types += (types.empty() ? "" : ", ") + type;
    return what + " has no 64-bit Intel (x86_64) code, only " + types + ".";
}

/// Why the library found on the volume cannot serve a kext asking for version asked; nothing
/// when it can.
std::optional<std::string> libraryFailure(const std::string& kextName, const Kext& library,
                                          const std::string& asked) {
    const std::string identifier = library.identifier();
    const auto wanted = KextVersion::parse(asked);
    if (!wanted)
        return kextName + " asks for " + identifier + " at " + quoted(asked) +
               ", which is not a kext version.";
    const auto version = KextVersion::parse(library.bundleVersion());
    if (!version || *version < *wanted)
        return kextName + " needs " + identifier + " version " + asked +
               " or later; the volume has " + quoted(library.bundleVersion()) + " at " +
               library.path() + ".";
    const std::string compatibleText = library.infoString("OSBundleCompatibleVersion");
    const auto compatible = KextVersion::parse(compatibleText);
    if (!compatible)
        return kextName + " needs " + identifier + ", but " + library.path() +
               " has no OSBundleCompatibleVersion, so no kext can link against it.";
    if (*wanted < *compatible)
        return kextName + " asks for " + identifier + " version " + asked + ", older than " +
               compatibleText + ", the oldest version that " + library.path() + " still serves.";
    return std::nullopt;
}

/// The libraries' entry that a 64-bit Intel kernel reads: the architecture's own list replaces
/// the plain one when there is one.
PlistValue::Dict::const_iterator libraryList(const Kext& kext, std::string& key) {
    for (const auto* name : {"OSBundleLibraries_x86_64", "OSBundleLibraries"}) {
        key = name;
        if (const auto found = kext.info->find(key); found != kext.info->end())
            return found;
    }
    return kext.info->end();
}

/// The old kernel's own identifiers, which only a 32-bit kernel offers to kexts.
bool isThirtyTwoBitKernelLibrary(std::string_view identifier) {
    return identifier == "com.apple.kernel" || identifier.starts_with("com.apple.kernel.");
}

void checkLibraries(const Kext& kext, const std::vector<Kext>& available,
                    std::vector<std::string>& failures) {
    std::string key;
    const auto found = libraryList(kext, key);
    if (found == kext.info->end())
        return;
    if (!found->second.dict()) {
        failures.push_back(kext.name() + "'s " + key +
                           " is not a dictionary of bundle identifiers and versions.");
        return;
    }
    const auto all = withPlugIns(available);
    for (const auto& [identifier, value] : *found->second.dict()) {
        if (!value.string()) {
            failures.push_back(kext.name() + " gives no version string for " + identifier + ".");
            continue;
        }
        if (isThirtyTwoBitKernelLibrary(identifier)) {
            failures.push_back(kext.name() + " needs " + identifier +
                               ", which only a 32-bit kernel has, so no 64-bit Intel Mac can "
                               "load it.");
            continue;
        }
        std::optional<std::string> failure =
            kext.name() + " needs " + identifier + ", which is not on the volume.";
        for (const auto* library : all) {
            if (library->identifier() != identifier)
                continue;
            failure = libraryFailure(kext.name(), *library, *value.string());
            if (!failure)
                break;
        }
        if (failure)
            failures.push_back(*failure);
    }
}

} // namespace

std::vector<std::string> kextCheckFailures(const Kext& kext, const std::vector<Kext>* available) {
    if (!kext.info)
        return {kext.name() + " has no readable Info.plist."};
    std::vector<std::string> failures;
    if (const auto type = kext.infoString("CFBundlePackageType"); type != "KEXT")
        failures.push_back(kext.name() + " is not a kext bundle: its CFBundlePackageType is " +
                           (type.empty() ? std::string("missing") : quoted(type)) +
                           ", not \"KEXT\".");
    if (kext.identifier().empty())
        failures.push_back(kext.name() + " has no CFBundleIdentifier.");
    if (!KextVersion::parse(kext.bundleVersion()))
        failures.push_back(kext.name() + "'s CFBundleVersion " + quoted(kext.bundleVersion()) +
                           " is not a kext version such as 1.2.3.");
    if (auto failure = executableFailure(kext))
        failures.push_back(std::move(*failure));
    if (available)
        checkLibraries(kext, *available, failures);
    return failures;
}

std::vector<std::vector<std::string>> checkKexts(const std::vector<std::string>& paths,
                                                 const std::optional<Volume>& volume) {
    std::vector<std::optional<Kext>> bundles;
    auto available = volume ? installedKexts(*volume) : std::vector<Kext>{};
    for (const auto& path : paths)
        if (const auto& bundle = bundles.emplace_back(readKext(path)))
            available.push_back(*bundle);
    std::vector<std::vector<std::string>> failures;
    for (std::size_t i = 0; i < paths.size(); ++i)
        failures.push_back(!bundles[i]
                               ? std::vector{paths[i] + " is not a kext bundle folder."}
                               : kextCheckFailures(*bundles[i], volume ? &available : nullptr));
    return failures;
}

} // namespace quelm
