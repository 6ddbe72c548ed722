// The application's light or dark appearance: its setting values, names and palette.
#pragma once

#include <QString>
#include <optional>
#include <string_view>

class QApplication;

namespace quelm {

enum class QVMainQuelmAppearanceMode { LightMode, DarkMode };

/// "LightMode" or "DarkMode", as stored under "QVDefaultAppearanceMode".
std::string_view rawValue(QVMainQuelmAppearanceMode mode);
/// Exactly one of the two raw values makes a case.
std::optional<QVMainQuelmAppearanceMode> appearanceModeFromRawValue(std::string_view raw);
/// The localised name of the mode.
QString displayText(QVMainQuelmAppearanceMode mode);

/// Gives the whole application its style's own light palette, or a dark one.
void applyAppearance(QApplication& application, QVMainQuelmAppearanceMode mode);

} // namespace quelm
