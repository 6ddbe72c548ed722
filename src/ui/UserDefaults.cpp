// The user's settings, where the platform keeps them: the counterpart of the user defaults.
#include "ui/UserDefaults.h"

#include "kexts/KextHistory.h"
#include "support/NotificationCenter.h"
#include "support/Paths.h"

#include <QSettings>

namespace quelm {
namespace {

QString qString(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

/// Made afresh for each access: it reads what other instances wrote and writes on sync.
QSettings standardUserDefaults() {
    return QSettings(qString(kIdentifierPrefix), qString(kDisplayName));
}

} // namespace

std::optional<std::string> userDefaultString(std::string_view key) {
    const QVariant value = standardUserDefaults().value(qString(key));
    if (!value.isValid())
        return std::nullopt;
    return value.toString().toStdString();
}

void setUserDefaultString(std::string_view key, std::string_view value) {
    QSettings settings = standardUserDefaults();
    settings.setValue(qString(key), qString(value));
    settings.sync();
}

void removeUserDefault(std::string_view key) {
    QSettings settings = standardUserDefaults();
    settings.remove(qString(key));
    settings.sync();
}

std::optional<std::filesystem::path> backupFolderSetting() {
    namespace fs = std::filesystem;
    const auto chosen = userDefaultString(kBackupFolderKey);
    const fs::path folder = chosen && !chosen->empty() ? fs::path(*chosen) : defaultBackupRoot();
    std::error_code error;
    fs::create_directories(folder, error);
    const fs::path resolved = fs::canonical(folder, error);
    if (error || !fs::is_directory(resolved, error))
        return std::nullopt;
    return resolved;
}

} // namespace quelm
