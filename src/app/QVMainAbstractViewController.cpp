// The base of the working screens: their common widgets and their window style.
#include "app/QVMainAbstractViewController.h"

#include "ui/QVViewExtensions.h"

#include <QProgressBar>

namespace quelm {

QVMainAbstractViewController::QVMainAbstractViewController(QWidget* parent) : QWidget(parent) {
}

QVMainAbstractViewController::~QVMainAbstractViewController() {
    viewDidDisappear();
}

void QVMainAbstractViewController::viewDidLoad() {
    if (circularIndicator)
        stopBusyIndicator(*circularIndicator);
}

void QVMainAbstractViewController::viewDidDisappear() {
    for (const auto token : observers_)
        NotificationCenter::defaultCenter().removeObserver(token);
    observers_.clear();
}

} // namespace quelm
