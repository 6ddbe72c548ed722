// Conveniences every screen shares: alerts, answers given in advance, busy bars and fades.
#include "ui/ViewExtensions.h"

#include <QAbstractButton>
#include <QProgressBar>
#include <deque>

namespace quelm {
namespace {

std::deque<QMessageBox::StandardButton>& presetAnswers() {
    static std::deque<QMessageBox::StandardButton> answers;
    return answers;
}

std::vector<ModalAnswers::Shown>& shownBoxes() {
    static std::vector<ModalAnswers::Shown> boxes;
    return boxes;
}

QStringList buttonTexts(const QMessageBox& box) {
    QStringList texts;
    for (const auto* button : box.buttons())
        texts << button->text();
    return texts;
}

QMessageBox::StandardButton runAlert(QWidget* parent, const QString& message,
                                     const QString& informative, QMessageBox::Icon style) {
    QMessageBox box(style, QString(), message, QMessageBox::Ok, parent);
    box.setInformativeText(informative);
    return ModalAnswers::run(box);
}

} // namespace

void ModalAnswers::preset(QMessageBox::StandardButton answer) {
    presetAnswers().push_back(answer);
}

void ModalAnswers::clear() {
    presetAnswers().clear();
    shownBoxes().clear();
}

std::size_t ModalAnswers::pending() {
    return presetAnswers().size();
}

const std::vector<ModalAnswers::Shown>& ModalAnswers::shown() {
    return shownBoxes();
}

QMessageBox::StandardButton ModalAnswers::run(QMessageBox& box) {
    shownBoxes().push_back({box.text(), box.informativeText(), buttonTexts(box)});
    auto& answers = presetAnswers();
    if (!answers.empty()) {
        const auto answer = answers.front();
        answers.pop_front();
        return answer;
    }
    box.exec();
    return box.standardButton(box.clickedButton());
}

QMessageBox::StandardButton showAlert(QWidget* parent, const QString& message,
                                      const QString& informative) {
    return runAlert(parent, message, informative, QMessageBox::Critical);
}

QMessageBox::StandardButton showMessage(QWidget* parent, const QString& message,
                                        const QString& informative) {
    return runAlert(parent, message, informative, QMessageBox::Information);
}

void startBusyIndicator(QProgressBar& indicator) {
    indicator.setVisible(true);
    indicator.setRange(0, 0);
}

void stopBusyIndicator(QProgressBar& indicator) {
    indicator.setVisible(false);
}

} // namespace quelm
