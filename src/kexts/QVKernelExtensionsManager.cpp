// The kexts the user handed to the application, and where they go.
#include "kexts/QVKernelExtensionsManager.h"

#include <algorithm>

namespace quelm {

QVKernelExtensionsManager& QVKernelExtensionsManager::shared() {
    static QVKernelExtensionsManager manager;
    return manager;
}

void QVKernelExtensionsManager::addKernelExtensions(const std::vector<FileURL>& urls) {
    for (const auto& url : urls) {
        if (url.pathExtension() != "kext")
            continue;
        QVKernelExtension kext(url);
        if (std::ranges::find(kextsTBI_, kext) == kextsTBI_.end())
            kextsTBI_.push_back(std::move(kext));
    }
}

void QVKernelExtensionsManager::addKernelExtensions(const std::vector<std::string>& paths) {
    std::vector<FileURL> urls;
    for (const auto& path : paths)
        urls.push_back(FileURL::fromPath(path, false));
    addKernelExtensions(urls);
}

} // namespace quelm
