// What the commands that change kexts share: JSON text, where backups go, the history, the
// warning about the kernel cache.
#include "quelmctl/Rescue.h"

#include "kexts/KextCaches.h"
#include "quelmctl/Commands.h"
#include "support/Strings.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <unistd.h>

namespace quelm::ctl {

namespace {

/// A first byte of a well-formed UTF-8 sequence: its length and the range of its second byte,
/// which rules out overlong forms, surrogates and code points past U+10FFFF. The later bytes of
/// a sequence are 0x80 to 0xBF.
struct LeadByte {
    unsigned char first, last;
    std::size_t length;
    unsigned char secondLow, secondHigh;
};

constexpr LeadByte kLeadBytes[] = {
    {0x00, 0x7F, 1, 0x00, 0x00}, {0xC2, 0xDF, 2, 0x80, 0xBF}, {0xE0, 0xE0, 3, 0xA0, 0xBF},
    {0xE1, 0xEC, 3, 0x80, 0xBF}, {0xED, 0xED, 3, 0x80, 0x9F}, {0xEE, 0xEF, 3, 0x80, 0xBF},
    {0xF0, 0xF0, 4, 0x90, 0xBF}, {0xF1, 0xF3, 4, 0x80, 0xBF}, {0xF4, 0xF4, 4, 0x80, 0x8F}};

constexpr std::string_view kReplacementCharacter = "\xEF\xBF\xBD"; // U+FFFD

/// The length of the well-formed UTF-8 sequence that text starts with, or 0.
std::size_t wellFormedLength(std::string_view text) {
    const auto byte = [&](std::size_t i) {
        return static_cast<unsigned char>(text[i]);
    };
    const auto* lead = std::ranges::find_if(kLeadBytes, [&](const LeadByte& row) {
        return byte(0) >= row.first && byte(0) <= row.last;
    });
    if (lead == std::ranges::end(kLeadBytes) || text.size() < lead->length)
        return 0;
    if (lead->length > 1 && (byte(1) < lead->secondLow || byte(1) > lead->secondHigh))
        return 0;
    for (std::size_t i = 2; i < lead->length; ++i)
        if (byte(i) < 0x80 || byte(i) > 0xBF)
            return 0;
    return lead->length;
}

std::string escapedAscii(char c) {
    if (c == '"' || c == '\\')
        return {'\\', c};
    if (static_cast<unsigned char>(c) >= 0x20)
        return {c};
    char escaped[8];
    std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned char>(c));
    return escaped;
}

} // namespace

std::string jsonString(std::string_view text) {
    std::string out = "\"";
    while (!text.empty()) {
        const std::size_t length = wellFormedLength(text);
        if (length == 0)
            out += kReplacementCharacter;
        else if (length == 1)
            out += escapedAscii(text[0]);
        else
            out += text.substr(0, length);
        text.remove_prefix(std::max<std::size_t>(length, 1));
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
        printError("the operation is not in the history: " + saved.error().message);
}

HistoryRecord recordOf(const Volume& volume, std::string operation, std::vector<std::string> kexts,
                       std::string backup) {
    return {isoTimestamp(std::chrono::system_clock::now()),
            volume.mountPoint(),
            std::move(operation),
            std::move(kexts),
            std::move(backup),
            false};
}

bool invalidateCaches(const Volume& volume) {
    if (rebuildCaches(volume))
        return true;
    printError("cannot rebuild or mark stale the kext caches of " + volume.mountPoint() +
               ": run quelmctl rebuild-caches");
    return false;
}

int finishChange(const Volume& volume, std::string operation, const RescueOutcome& outcome,
                 std::string_view verb, bool json) {
    const int status = reportOutcome(outcome, verb, json);
    if (outcome.done.empty())
        return status;
    recordInHistory(recordOf(volume, std::move(operation), outcome.done, outcome.backupFolder));
    const bool invalidated = invalidateCaches(volume);
    printCollectionNotice(volume, json);
    return invalidated ? status : 1;
}

void printCollectionNotice(const Volume& volume, bool json) {
    if (const auto notice = auxiliaryCollectionNotice(volume); notice && !json)
        std::cout << *notice << '\n';
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
        for (const auto& path : outcome.failed) {
            const auto cause = outcome.causes.find(path);
            std::cout << "failed " << path
                      << (cause == outcome.causes.end() ? "" : ": " + cause->second) << '\n';
        }
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
