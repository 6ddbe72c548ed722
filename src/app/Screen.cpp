// The base of the working screens: their common widgets and their window style.
#include "app/Screen.h"

#include "ui/ViewExtensions.h"

#include <QProgressBar>

namespace quelm {

Screen::Screen(QWidget* parent) : QWidget(parent) {
}

Screen::~Screen() {
    for (const auto token : observers_)
        NotificationCenter::defaultCenter().removeObserver(token);
}

void Screen::setUpScreen() {
    if (circularIndicator)
        stopBusyIndicator(*circularIndicator);
}

} // namespace quelm
