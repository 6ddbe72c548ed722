// The results window: its table, column identifiers and headers, texts and OK button.
#include "ui/QVDetailedResultsViewController.h"

#include "ui/Translations.h"

#include <QGroupBox>
#include <QLabel>
#include <QPushButton>
#include <QTableView>
#include <QtTest>

namespace quelm {

using Type = QVFileSystemResourceAttributeMismatchedType;
using Status = QVFileSystemResourceAttributeStatus;

class QVDetailedResultsViewControllerTest : public QObject {
    Q_OBJECT

    static QStringList rowTexts(const QAbstractItemModel& model, int row) {
        QStringList texts;
        for (int column = 0; column < model.columnCount(); ++column)
            texts << model.index(row, column).data().toString();
        return texts;
    }

    static QStringList headers(const QAbstractItemModel& model, int role) {
        QStringList texts;
        for (int column = 0; column < model.columnCount(); ++column)
            texts << model.headerData(column, Qt::Horizontal, role).toString();
        return texts;
    }

private slots:
    void initTestCase() { QVERIFY(installTranslations(*QCoreApplication::instance())); }

    void tableShowsVerifiedAndFixedResultsColumnByColumn() {
        const std::vector results{
            QVRepairPermissionsResult(QVRepairPermissionsJobType::verifyPermissions,
                                      "/Volumes/Mac HD/usr/bin/login", Type::ownerIDMismatched, 501,
                                      0, std::nullopt, Status::verified)
                .representable(),
            QVRepairPermissionsResult(
                QVRepairPermissionsJobType::repairPermissions, "/Volumes/Mac HD/usr/bin/su",
                Type::posixPermissionsMismatched, 4555, 4755, 4755, Status::fixed)
                .representable()};
        QVDetailedResultsViewController controller({QPixmap(), "Repaired", "Two files", results});
        const auto* table = controller.findChild<QTableView*>("outletResultsTableView");
        QVERIFY(table);
        const QAbstractItemModel& model = *table->model();

        QCOMPARE(model.columnCount(), 6);
        QCOMPARE(headers(model, Qt::DisplayRole),
                 QStringList(
                     {"Path", "Reason", "Current Value", "Correct Value", "New Value", "Status"}));
        QCOMPARE(headers(model, QVDetailedResultsTableModel::ColumnIdentifierRole),
                 QStringList({"QVIDPath", "QVIDReason", "QVIDCurrentValue", "QVIDCorrectValue",
                              "QVIDNewValue", "QVIDStatus"}));
        QCOMPARE(QVDetailedResultsTableModel::columnWithIdentifier(u"QVIDNewValue"), 4);
        QCOMPARE(QVDetailedResultsTableModel::columnWithIdentifier(u"QVIDSize"), -1);

        QCOMPARE(model.rowCount(), 2);
        QCOMPARE(rowTexts(model, 0),
                 QStringList({"/Volumes/Mac HD/usr/bin/login", "Owner ID Mismatched", "501", "0",
                              "-1", "Verified"}));
        QCOMPARE(rowTexts(model, 1),
                 QStringList({"/Volumes/Mac HD/usr/bin/su", "POSIX Permissions Mismatched", "4555",
                              "4755", "4755", "Fixed"}));
    }

    void windowShowsTheResultTextsAndOKClosesIt() {
        QVDetailedResultsViewController controller(
            {QPixmap(16, 16), "Verified", "Nothing to repair", {}});
        controller.show();
        QVERIFY(QTest::qWaitForWindowExposed(&controller));
        QCOMPARE(controller.windowTitle(), QString("Report"));
        QCOMPARE(controller.findChild<QLabel*>("titleField")->text(), QString("Verified"));
        QCOMPARE(controller.findChild<QLabel*>("descriptionField")->text(),
                 QString("Nothing to repair"));
        QVERIFY(controller.findChild<QLabel*>("imageView")->isVisible());
        QCOMPARE(controller.findChild<QGroupBox*>("outletBoxRepairPermissionsResults")->title(),
                 QString("Repair Permissions Results"));
        QCOMPARE(controller.findChild<QTableView*>("outletResultsTableView")->model()->rowCount(),
                 0);

        auto* ok = controller.findChild<QPushButton*>("outletButtonOK");
        QCOMPARE(ok->text(), QString("OK"));
        QTest::mouseClick(ok, Qt::LeftButton);
        QVERIFY(!controller.isVisible());
    }
};

} // namespace quelm

QTEST_MAIN(quelm::QVDetailedResultsViewControllerTest)
#include "QVDetailedResultsViewControllerTest.moc"
