// Alerts with answers given in advance, busy bars and fades.
#include "ui/ViewExtensions.h"

#include "TestSupport.h"

#include <QAbstractButton>
#include <QApplication>
#include <QGraphicsOpacityEffect>
#include <QProgressBar>
#include <QTimer>
#include <QtTest>

namespace quelm {

class ViewExtensionsTest : public QObject {
    Q_OBJECT

private slots:
    void cleanup() { ModalAnswers::clear(); }

    void presetAnswersAreReturnedInOrderWithoutShowingABox() {
        bool shown = false;
        // Should a box appear after all, close it so that the test fails instead of blocking.
        QTimer::singleShot(0, [&] {
            if (auto* box = QApplication::activeModalWidget()) {
                shown = true;
                box->close();
            }
        });
        ModalAnswers::preset(QMessageBox::Cancel);
        ModalAnswers::preset(QMessageBox::Ok);
        QCOMPARE(showAlert(nullptr, "message", "informative"), QMessageBox::Cancel);
        QCOMPARE(showMessage(nullptr, "message", "informative"), QMessageBox::Ok);
        QCOMPARE(ModalAnswers::pending(), std::size_t{0});
        QCoreApplication::processEvents();
        QVERIFY(!shown);
    }

    void withoutAPresetTheAlertRunsModallyWithItsTextsAndStyle() {
        QMessageBox::Icon icon = QMessageBox::NoIcon;
        QString texts;
        QTimer::singleShot(0, [&] {
            auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
            QVERIFY(box);
            icon = box->icon();
            texts = box->text() + "|" + box->informativeText();
            box->button(QMessageBox::Ok)->click();
        });
        QCOMPARE(showAlert(nullptr, "Failed", "The helper stopped."), QMessageBox::Ok);
        QCOMPARE(icon, QMessageBox::Critical);
        QCOMPARE(texts, QString("Failed|The helper stopped."));
    }

    void busyIndicatorStartsVisibleAndStopsHiddenEvenIfNeverStarted() {
        QWidget window;
        auto* bar = new QProgressBar(&window);
        window.show();
        stopBusyIndicator(*bar);
        QVERIFY(bar->isHidden());
        startBusyIndicator(*bar);
        QVERIFY(bar->isVisible());
        QCOMPARE(bar->minimum(), 0);
        QCOMPARE(bar->maximum(), 0);
        stopBusyIndicator(*bar);
        QVERIFY(bar->isHidden());
    }

    void fadesReachTheirOpacityThenCallTheCompletion() {
        QWidget view;
        view.show();
        int completions = 0;
        fadeOut(view, 0.05, [&] { ++completions; });
        QTRY_COMPARE_WITH_TIMEOUT(completions, 1, test::kHangGuardMs);
        auto* effect = qobject_cast<QGraphicsOpacityEffect*>(view.graphicsEffect());
        QVERIFY(effect);
        QCOMPARE(effect->opacity(), 0.0);
        fadeIn(view, 0.05, [&] { ++completions; });
        QTRY_COMPARE_WITH_TIMEOUT(completions, 2, test::kHangGuardMs);
        QCOMPARE(effect->opacity(), 1.0);
    }
};

} // namespace quelm

QTEST_MAIN(quelm::ViewExtensionsTest)
#include "ViewExtensionsTest.moc"
