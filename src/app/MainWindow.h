// The single main window: hidden until the application says which screen it shows.
#pragma once

#include "support/NotificationCenter.h"

#include <QMainWindow>
#include <QStringList>
#include <functional>

namespace quelm {

class JobScreen;

/// true shows the installation screen, false the preferences.
inline const auto kShowScreen = notificationName<bool>(".veskp.quelm.presentvc");

class MainWindow : public QMainWindow {
    Q_OBJECT
public:
    explicit MainWindow(QWidget* parent = nullptr);
    ~MainWindow() override;

    /// Shows the window with the installation screen (true) or the preferences (false), once
    /// per run; later choices only show the window.
    void showScreen(bool installation);
    /// The object name of the screen shown: "QVSBIDMainQuelm" or "QVSBIDMainQuelmPreference".
    /// The installation screen, when the window shows it.
    JobScreen* installationScreen() const;
    QString screenName() const;

signals:
    /// Kext bundles dropped on the window.
    void filesDropped(const QStringList& paths);
    /// The installation screen's job is over.
    void jobFinished();
    /// The user closed the window.
    void windowClosed();

protected:
    void closeEvent(QCloseEvent* event) override;
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    NotificationCenter::Token observer_ = 0;
    bool chosen_ = false;
};

} // namespace quelm
