// The application's light or dark appearance: its setting values, names and palette.
#include "ui/AppearanceMode.h"

#include "support/RawValues.h"

#include <QApplication>
#include <QPalette>
#include <QStyle>

namespace quelm {
namespace {

constexpr RawValueTable<AppearanceMode, 2> kRawValues{{"LightMode", "DarkMode"}};

QPalette darkPalette() {
    const QColor window(0x2d, 0x2d, 0x30), base(0x1e, 0x1e, 0x1e), button(0x3c, 0x3c, 0x40);
    const QColor text(0xe6, 0xe6, 0xe6), dimmed(0x80, 0x80, 0x80), accent(0x3d, 0x7e, 0xdb);
    QPalette palette(button, window);
    palette.setColor(QPalette::WindowText, text);
    palette.setColor(QPalette::Base, base);
    palette.setColor(QPalette::AlternateBase, window);
    palette.setColor(QPalette::Text, text);
    palette.setColor(QPalette::ButtonText, text);
    palette.setColor(QPalette::ToolTipBase, window);
    palette.setColor(QPalette::ToolTipText, text);
    palette.setColor(QPalette::PlaceholderText, dimmed);
    palette.setColor(QPalette::Highlight, accent);
    palette.setColor(QPalette::HighlightedText, Qt::white);
    palette.setColor(QPalette::Link, accent.lighter(130));
    for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        palette.setColor(QPalette::Disabled, role, dimmed);
    return palette;
}

} // namespace

std::string_view rawValue(AppearanceMode mode) {
    return kRawValues.rawValue(mode);
}

std::optional<AppearanceMode> appearanceModeFromRawValue(std::string_view raw) {
    return kRawValues.fromRawValue(raw);
}

QString displayText(AppearanceMode mode) {
    switch (mode) {
    case AppearanceMode::LightMode:
        //% "Light"
        return qtTrId("kQVMainQuelmAppearanceModeLightMode");
    case AppearanceMode::DarkMode:
        //% "Dark"
        return qtTrId("kQVMainQuelmAppearanceModeDarkMode");
    }
    return {};
}

void applyAppearance(QApplication& application, AppearanceMode mode) {
    application.setPalette(
        mode == AppearanceMode::DarkMode ? darkPalette() : application.style()->standardPalette());
}

} // namespace quelm
