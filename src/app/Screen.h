// The base of the working screens: their common widgets and their window style.
#pragma once

#include "support/NotificationCenter.h"

#include <QWidget>
#include <vector>

class QLabel;
class QProgressBar;
class QPushButton;

namespace quelm {

class Screen : public QWidget {
    Q_OBJECT
public:
    explicit Screen(QWidget* parent = nullptr);
    ~Screen() override;

protected:
    /// Set by the subclass from its form: the volume picture, the headline, the volume's mount
    /// point and the indicator that spins or shows the helper's progress.
    QPushButton* imageButton = nullptr;
    QLabel* mainTitle = nullptr;
    QLabel* pathField = nullptr;
    QProgressBar* circularIndicator = nullptr;

    virtual void setUpScreen();
    /// Observes a notification for as long as the screen lives, shown or hidden, so that a job
    /// goes on behind a closed window; the handler runs on the main thread whatever thread
    /// posts.
    template <class Payload>
    void observe(const NotificationName<Payload>& name,
                 std::function<void(const Payload&)> handler);

private:
    std::vector<NotificationCenter::Token> observers_;
};

template <class Payload>
void Screen::observe(const NotificationName<Payload>& name,
                     std::function<void(const Payload&)> handler) {
    observers_.push_back(NotificationCenter::defaultCenter().addObserver(
        name, [this, handler = std::move(handler)](const Payload& object) {
            QMetaObject::invokeMethod(
                this, [handler, object] { handler(object); }, Qt::QueuedConnection);
        }));
}

} // namespace quelm
