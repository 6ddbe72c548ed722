// Loads the translations of the application's text ids.
#pragma once

#include "support/Bundle.h"

#include <QCoreApplication>
#include <filesystem>

namespace quelm {

/// Installs the English translation (quelm_en.qm) from folder, and over it the one for the
/// user's languages when the folder has one. False, with a log line, when the English one is
/// missing: every text would then show as its id.
[[nodiscard]] bool installTranslations(
    QCoreApplication& application,
    const std::filesystem::path& folder = Bundle::main().resourceFolder() / "translations");

} // namespace quelm
