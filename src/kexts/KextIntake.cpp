// The kexts the user handed to the application, and where they go.
#include "kexts/KextIntake.h"

#include <algorithm>

namespace quelm {

KextIntake& KextIntake::shared() {
    static KextIntake manager;
    return manager;
}

void KextIntake::addKernelExtensions(const std::vector<FileURL>& urls) {
    for (const auto& url : urls) {
        if (url.pathExtension() != "kext")
            continue;
        Kext kext(url);
        if (std::ranges::find(kextsToInstall_, kext) == kextsToInstall_.end())
            kextsToInstall_.push_back(std::move(kext));
    }
}

void KextIntake::addKernelExtensions(const std::vector<std::string>& paths) {
    std::vector<FileURL> urls;
    for (const auto& path : paths)
        urls.push_back(FileURL::fromPath(path, false));
    addKernelExtensions(urls);
}

} // namespace quelm
