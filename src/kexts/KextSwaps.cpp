// Replacing a bundle whole: hidden names unique to the run, the swap, and putting right what a
// run cut short (a kill, a failed disk) left behind.
#include "kexts/KextSwaps.h"

#include "kexts/KextBackups.h"
#include "kexts/KextCatalog.h"
#include "support/FolderTrees.h"
#include "support/Log.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <random>
#include <unistd.h>

namespace quelm {
namespace {

constexpr std::string_view kHiddenMark = ".quelm-";

std::string_view roleName(HiddenRole role) {
    switch (role) {
    case HiddenRole::staging:
        return "staging";
    case HiddenRole::previous:
        return "previous";
    case HiddenRole::removing:
        return "removing";
    }
    return "staging";
}

const std::string& runToken() {
    static const std::string token = [] {
        std::random_device random;
        return std::to_string(::getpid()) + "-" + std::to_string(random() % 1000000);
    }();
    return token;
}

bool exchange(int folder, const std::string& staging, const std::string& name) {
#if defined(__APPLE__)
    return ::renameatx_np(folder, staging.c_str(), folder, name.c_str(), RENAME_SWAP) == 0;
#else
    return ::renameat2(folder, staging.c_str(), folder, name.c_str(), RENAME_EXCHANGE) == 0;
#endif
}

std::expected<std::string, SwapFailure> replaceThroughAside(int folder, const std::string& staging,
                                                            const std::string& installed,
                                                            const std::string& name) {
    const std::string aside = hiddenName(name, HiddenRole::previous);
    if (::renameat(folder, installed.c_str(), folder, aside.c_str()) != 0)
        return std::unexpected(SwapFailure{failureCause(errno), ""});
    if (::renameat(folder, staging.c_str(), folder, name.c_str()) == 0)
        return aside;
    const std::string cause = failureCause(errno);
    if (::renameat(folder, aside.c_str(), folder, installed.c_str()) == 0)
        return std::unexpected(SwapFailure{cause, ""});
    logLine("KextSwaps::Error: " + installed + " stays as " + aside + " until the next run");
    return std::unexpected(SwapFailure{cause, aside});
}

/// The bundle name and role of a hidden entry this code made; nothing for any other entry.
std::optional<std::pair<std::string, HiddenRole>> parseHidden(const std::string& entry) {
    const auto mark = entry.rfind(kHiddenMark);
    if (!entry.starts_with('.') || mark == std::string::npos || mark < 2)
        return std::nullopt;
    const std::string rest = entry.substr(mark + kHiddenMark.size());
    for (const auto role : {HiddenRole::staging, HiddenRole::previous, HiddenRole::removing})
        if (rest.substr(0, rest.find('-')) == roleName(role))
            return std::pair{entry.substr(1, mark - 1), role};
    return std::nullopt;
}

void removeLeftover(int folder, const std::string& entry) {
    if (!removeTreeAt(folder, entry))
        logLine("KextSwaps::Error: Unable to remove " + entry);
}

void recoverBelow(const Volume& volume, const std::string& folder) {
    const UniqueFd opened = openFolderOn(volume, folder);
    if (opened)
        recoverLeftovers(opened.get());
}

} // namespace

std::string hiddenName(const std::string& name, HiddenRole role) {
    return "." + name + std::string(kHiddenMark) + std::string(roleName(role)) + "-" + runToken();
}

std::expected<std::string, SwapFailure> swapIntoPlace(int folder, const std::string& staging,
                                                      const std::string& name) {
    const auto installed = listedNameAt(folder, name);
    if (!installed) {
        if (::renameat(folder, staging.c_str(), folder, name.c_str()) != 0)
            return std::unexpected(SwapFailure{failureCause(errno), ""});
        return "";
    }
    // Drivers refuse an exchange in their own ways (EINVAL from hfsplus, ENOTEMPTY from apfs
    // when the target holds files): whatever the answer, the aside path is safe to try.
    if (*installed == name && exchange(folder, staging, name))
        return staging;
    return replaceThroughAside(folder, staging, *installed, name);
}

void recoverLeftovers(int folder) {
    for (const auto& entry : entryNamesAt(folder).value_or(std::vector<std::string>{})) {
        const auto hidden = parseHidden(entry);
        if (!hidden)
            continue;
        const auto& [name, role] = *hidden;
        if (role == HiddenRole::previous && !listedNameAt(folder, name) &&
            ::renameat(folder, entry.c_str(), folder, name.c_str()) == 0) {
            logLine("KextSwaps: put " + name + " back from " + entry);
            continue;
        }
        removeLeftover(folder, entry);
    }
}

std::expected<VolumeLock, Error> beginKextChanges(const Volume& volume) {
    auto lock = VolumeLock::acquire(volume.mountPoint());
    if (!lock)
        return lock;
    for (const auto folder : kExtensionsFolders) {
        recoverBelow(volume, std::string(folder));
        recoverBelow(volume, std::string(kStagedExtensionsFolder) + std::string(folder));
    }
    return lock;
}

} // namespace quelm
