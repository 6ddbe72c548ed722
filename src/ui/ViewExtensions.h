// Conveniences every screen shares: alerts, answers given in advance, busy bars and fades.
// Labels need none here: QWidget::show() and hide() already are the label helpers.
#pragma once

#include <QMessageBox>
#include <QStringList>
#include <cstddef>
#include <vector>

class QProgressBar;
class QWidget;

namespace quelm {

/// Answers for modal boxes given in advance, so that tests never block on one. Main thread
/// only. A box whose buttons need other texts uses standard buttons with new texts
/// (box.button(QMessageBox::Yes)->setText(...)), so that an answer still names its button.
class ModalAnswers {
public:
    /// What a box run through run() said, answered in advance or not.
    struct Shown {
        QString text;
        QString informativeText;
        QStringList buttons;
    };

    /// Queues an answer: the next box run through run() is not shown and returns it.
    static void preset(QMessageBox::StandardButton answer);
    /// Drops the answers not yet used and the boxes recorded.
    static void clear();
    static std::size_t pending();
    /// Every box run so far, oldest first, so that tests can read what the user was told.
    static const std::vector<Shown>& shown();
    /// Takes the oldest preset answer without showing the box; with none, runs the box
    /// modally and returns the standard button that closed it (NoButton if none did).
    static QMessageBox::StandardButton run(QMessageBox& box);
};

/// A critical box with the texts (already localised) and one OK button; returns its answer.
QMessageBox::StandardButton showAlert(QWidget* parent, const QString& message,
                                      const QString& informative);
/// The same with the informational style.
QMessageBox::StandardButton showMessage(QWidget* parent, const QString& message,
                                        const QString& informative);

/// Shows the bar in busy mode (range 0 to 0), which its style animates while it is visible.
void startBusyIndicator(QProgressBar& indicator);
/// Hides the bar, which ends its animation; harmless on a bar never started.
void stopBusyIndicator(QProgressBar& indicator);

} // namespace quelm
