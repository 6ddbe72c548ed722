// Loads the translations of the application's text ids.
#include "ui/Translations.h"

#include "support/Log.h"

#include <QLocale>
#include <QTranslator>
#include <memory>

namespace quelm {

bool installTranslations(QCoreApplication& application, const std::filesystem::path& folder) {
    const QString directory = QString::fromStdString(folder.string());
    auto english = std::make_unique<QTranslator>(&application);
    if (!english->load(QStringLiteral("quelm_en"), directory)) {
        logLine("installTranslations: no quelm_en.qm in " + folder.string());
        return false;
    }
    QCoreApplication::installTranslator(english.release());
    // Translators installed later are asked first, so the user's language wins where it
    // has a text and English fills the gaps.
    auto local = std::make_unique<QTranslator>(&application);
    if (local->load(QLocale(), QStringLiteral("quelm"), QStringLiteral("_"), directory))
        QCoreApplication::installTranslator(local.release());
    return true;
}

} // namespace quelm
