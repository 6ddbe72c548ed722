// The application's light or dark appearance: its setting values, names and palette.
#pragma once

#include <QString>
#include <optional>
#include <string_view>

class QApplication;

namespace quelm {

enum class AppearanceMode { LightMode, DarkMode };

/// "LightMode" or "DarkMode", as stored under "QVDefaultAppearanceMode".
std::string_view rawValue(AppearanceMode mode);
/// Exactly one of the two raw values makes a case.
std::optional<AppearanceMode> appearanceModeFromRawValue(std::string_view raw);
/// The localised name of the mode.
QString displayText(AppearanceMode mode);

/// Gives the whole application its style's own light palette, or a dark one.
void applyAppearance(QApplication& application, AppearanceMode mode);

} // namespace quelm
