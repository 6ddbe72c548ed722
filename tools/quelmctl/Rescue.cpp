// What the commands that change kexts share: JSON text, where backups go, the history, the
// warning about the kernel cache.
#include "quelmctl/Rescue.h"

#include "kexts/KextCaches.h"
#include "quelmctl/Commands.h"
#include "support/Strings.h"

#include <cstdio>
#include <filesystem>
#include <iostream>
#include <unistd.h>

namespace quelm::ctl {

std::string jsonString(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned char>(c));
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string jsonStrings(const std::vector<std::string>& texts) {
    std::string out = "[";
    for (const auto& text : texts)
        out += (out.size() > 1 ? ", " : "") + jsonString(text);
    return out + "]";
}

std::optional<std::string> backupRoot(const std::string& chosen) {
    namespace fs = std::filesystem;
    const fs::path root = chosen.empty() ? defaultBackupRoot() : fs::absolute(chosen);
    std::error_code error;
    fs::create_directories(root, error);
    // The folder is the user's choice: its links are resolved once, and nothing below it is
    // reached through one.
    const fs::path resolved = fs::canonical(root, error);
    if (error || !fs::is_directory(resolved, error)) {
        printError("cannot make the backup folder " + root.string());
        return std::nullopt;
    }
    return resolved.string();
}

void recordInHistory(HistoryRecord record) {
    if (auto saved = appendHistory(historyFilePath(), record); !saved)
        printError("the operation is not in the history: " + saved.error());
}

HistoryRecord recordOf(const QVOSVolume& volume, std::string operation,
                       std::vector<std::string> kexts, std::string backup) {
    return {isoTimestamp(std::chrono::system_clock::now()),
            volume.mountPoint(),
            std::move(operation),
            std::move(kexts),
            std::move(backup),
            false};
}

bool invalidateCaches(const QVOSVolume& volume) {
    if (rebuildCaches(volume))
        return true;
    printError("cannot rebuild or mark stale the kext caches of " + volume.mountPoint() +
               ": run quelmctl rebuild-caches");
    return false;
}

int finishChange(const QVOSVolume& volume, std::string operation, const RescueOutcome& outcome,
                 std::string_view verb, bool json) {
    const int status = reportOutcome(outcome, verb, json);
    if (outcome.done.empty())
        return status;
    recordInHistory(recordOf(volume, std::move(operation), outcome.done, outcome.backupFolder));
    return invalidateCaches(volume) ? status : 1;
}

int reportOutcome(const RescueOutcome& outcome, std::string_view verb, bool json) {
    if (json) {
        std::cout << "{\"" << verb << "\": " << jsonStrings(outcome.done)
                  << ", \"failed\": " << jsonStrings(outcome.failed) << ", \"backup\": "
                  << (outcome.backupFolder.empty() ? "null" : jsonString(outcome.backupFolder))
                  << "}\n";
    } else {
        for (const auto& path : outcome.done)
            std::cout << verb << ' ' << path << '\n';
        for (const auto& path : outcome.failed)
            std::cout << "failed " << path << '\n';
        if (!outcome.backupFolder.empty())
            std::cout << "backup: " << outcome.backupFolder << '\n';
    }
    return outcome.failed.empty() ? 0 : 1;
}

bool runsAsRoot(std::string_view command) {
    if (::geteuid() == 0)
        return true;
    printError(std::string(command) + " must run as root: kexts put back on a volume must belong "
                                      "to root");
    return false;
}

} // namespace quelm::ctl
