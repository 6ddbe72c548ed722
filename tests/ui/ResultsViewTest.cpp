// The results window: its table shown from the volume's root, sorting, the filters, copying
// rows, saving the report, its texts and the OK button.
#include "ui/ResultsView.h"

#include "TestSupport.h"
#include "ui/Translations.h"
#include "ui/ViewExtensions.h"

#include <QAction>
#include <QClipboard>
#include <QComboBox>
#include <QGroupBox>
#include <QHeaderView>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTableView>
#include <QTemporaryDir>
#include <QtTest>

namespace quelm {

using Type = Mismatch;
using Status = AttributeStatus;
using Row = ResultRecord;

namespace {

enum { pathColumn, reasonColumn, currentColumn, correctColumn, newColumn, statusColumn };

Row row(std::string path, Type type, std::int64_t current, std::int64_t correct,
        std::int64_t newValue, Status status) {
    return {.identifier = {},
            .fileSystemResourcePath = std::move(path),
            .attributeMismatchedTypeString = std::string(displayText(type)),
            .currentAttribute = current,
            .correctAttribute = correct,
            .newAttribute = newValue,
            .attributeStatusString = std::string(displayText(status))};
}

// Rows A to D, named by their last letter, whose order differs in every column and between
// text and number order.
const std::vector<Row> kFourRows{
    row("/media/u/Mac HD/usr/A", Type::posixPermissionsMismatched, 755, 4755, 4755, Status::fixed),
    row("/media/u/Mac HD/Library/B", Type::ownerIDMismatched, 501, 0, -1, Status::verified),
    row("/media/u/Mac HD/bin/C", Type::groupIDMismatched, 20, 9, 10, Status::failed),
    row("/media/u/Mac HD/System/D", Type::posixPermissionsMismatched, 1777, 644, 644,
        Status::fixed),
};

QTableView& tableOf(const QWidget& controller) {
    return *controller.findChild<QTableView*>("resultsTable");
}

QStringList columnTexts(const QAbstractItemModel& model, int column, int role = Qt::DisplayRole) {
    QStringList texts;
    for (int row = 0; row < model.rowCount(); ++row)
        texts << model.index(row, column).data(role).toString();
    return texts;
}

/// The letters of kFourRows's rows in the order shown.
QString shownOrder(const QWidget& controller) {
    QString letters;
    for (const QString& path : columnTexts(*tableOf(controller).model(), pathColumn))
        letters += path.back();
    return letters;
}

QString shownRows(const QWidget& controller) {
    return controller.findChild<QLabel*>("shownRowsField")->text();
}

bool numbersDescend(const QStringList& texts) {
    return std::ranges::is_sorted(texts, std::greater<>(),
                                  [](const QString& text) { return text.toLongLong(); });
}

} // namespace

class ResultsViewTest : public QObject {
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
            RepairResult(RepairMode::verifyPermissions, "/Volumes/Mac HD/usr/bin/login",
                         Type::ownerIDMismatched, 501, 0, std::nullopt, Status::verified)
                .representable(),
            RepairResult(RepairMode::repairPermissions, "/Volumes/Mac HD/usr/bin/su",
                         Type::posixPermissionsMismatched, 4555, 4755, 4755, Status::fixed)
                .representable()};
        ResultsView controller({QPixmap(), "Repaired", "Two files", results});
        const QAbstractItemModel& model = *tableOf(controller).model();

        QCOMPARE(model.columnCount(), 6);
        QCOMPARE(headers(model, Qt::DisplayRole),
                 QStringList(
                     {"Path", "Reason", "Current Value", "Correct Value", "New Value", "Status"}));
        QCOMPARE(headers(model, ResultsTableModel::ColumnIdentifierRole),
                 QStringList({"QVIDPath", "QVIDReason", "QVIDCurrentValue", "QVIDCorrectValue",
                              "QVIDNewValue", "QVIDStatus"}));
        QCOMPARE(ResultsTableModel::columnWithIdentifier(u"QVIDNewValue"), 4);
        QCOMPARE(ResultsTableModel::columnWithIdentifier(u"QVIDSize"), -1);

        QCOMPARE(model.rowCount(), 2);
        QCOMPARE(rowTexts(model, 0), QStringList({"/usr/bin/login", "Owner ID Mismatched", "501",
                                                  "0", "-1", "Verified"}));
        QCOMPARE(rowTexts(model, 1), QStringList({"/usr/bin/su", "POSIX Permissions Mismatched",
                                                  "4555", "4755", "4755", "Fixed"}));
    }

    // A null mount point is a saved report's, which names none.
    void pathsAreShownFromTheVolumeRootWithTheFullPathAsTooltip_data() {
        QTest::addColumn<QString>("mountPoint");
        QTest::addColumn<QStringList>("paths");
        QTest::addColumn<QStringList>("shown");
        QTest::newRow("known, with a final slash")
            << "/mnt/HD/" << QStringList{"/mnt/HD/System/Foo.kext", "/mnt/HD/etc"}
            << QStringList{"/System/Foo.kext", "/etc"};
        QTest::newRow("known, a volume with a longer name")
            << "/mnt/HD" << QStringList{"/mnt/HD2/usr/bin/su"}
            << QStringList{"/mnt/HD2/usr/bin/su"};
        QTest::newRow("known, the host's root")
            << "/" << QStringList{"/usr/bin/su"} << QStringList{"/usr/bin/su"};
        QTest::newRow("saved, below tmp")
            << QString()
            << QStringList{"/tmp/x/Mac HD/System/Library/A.kext", "/tmp/x/Mac HD/private/etc/hosts",
                           "/tmp/x/Mac HD/etc"}
            << QStringList{"/System/Library/A.kext", "/private/etc/hosts", "/etc"};
        QTest::newRow("saved, two volumes")
            << QString() << QStringList{"/mnt/A/usr/bin/su", "/mnt/B/usr/bin/su"}
            << QStringList{"/mnt/A/usr/bin/su", "/mnt/B/usr/bin/su"};
    }

    void pathsAreShownFromTheVolumeRootWithTheFullPathAsTooltip() {
        QFETCH(QString, mountPoint);
        QFETCH(QStringList, paths);
        QFETCH(QStringList, shown);
        std::vector<Row> results;
        for (const QString& path : paths)
            results.push_back(
                row(path.toStdString(), Type::ownerIDMismatched, 1, 0, 0, Status::fixed));
        ResultsView controller(
            {QPixmap(), "", "", results,
             mountPoint.isNull() ? std::nullopt : std::optional(mountPoint.toStdString())});
        const QAbstractItemModel& model = *tableOf(controller).model();

        QCOMPARE(columnTexts(model, pathColumn), shown);
        QCOMPARE(columnTexts(model, pathColumn, Qt::ToolTipRole), paths);
        QVERIFY(!model.index(0, reasonColumn).data(Qt::ToolTipRole).isValid());
    }

    void clickingAHeaderSortsByItsColumn_data() {
        QTest::addColumn<int>("column");
        QTest::addColumn<QString>("ascending");
        QTest::addColumn<QString>("descending");
        QTest::newRow("path, in any case") << int(pathColumn) << "CBDA"
                                           << "ADBC";
        QTest::newRow("reason, ties as given") << int(reasonColumn) << "CBAD"
                                               << "ADBC";
        QTest::newRow("current, as numbers") << int(currentColumn) << "CBAD"
                                             << "DABC";
        QTest::newRow("correct, permissions") << int(correctColumn) << "BCDA"
                                              << "ADCB";
        QTest::newRow("new, none first") << int(newColumn) << "BCDA"
                                         << "ADCB";
        QTest::newRow("status") << int(statusColumn) << "CADB"
                                << "BADC";
    }

    void clickingAHeaderSortsByItsColumn() {
        QFETCH(int, column);
        QFETCH(QString, ascending);
        QFETCH(QString, descending);
        ResultsView controller({QPixmap(), "", "", kFourRows});
        controller.show();
        QVERIFY(QTest::qWaitForWindowExposed(&controller, test::kHangGuardMs));
        QCOMPARE(shownOrder(controller), QString("ABCD"));

        QHeaderView& header = *tableOf(controller).horizontalHeader();
        const QPoint section(header.sectionViewportPosition(column) + 4, header.height() / 2);
        for (int click = 0; click < 2; ++click) {
            QTest::mouseClick(header.viewport(), Qt::LeftButton, {}, section);
            QCOMPARE(header.sortIndicatorSection(), column);
            QCOMPARE(shownOrder(controller),
                     header.sortIndicatorOrder() == Qt::AscendingOrder ? ascending : descending);
        }
    }

    void filtersByStatusAndPathAndCountsTheShownRows() {
        ResultsView controller({QPixmap(), "", "", kFourRows});
        auto& status = *controller.findChild<QComboBox*>("statusFilter");
        auto& path = *controller.findChild<QLineEdit*>("pathFilter");
        QStringList statuses;
        for (int index = 0; index < status.count(); ++index)
            statuses << status.itemText(index);
        QCOMPARE(statuses, QStringList({"All", "Verified", "Fixed", "Failed"}));
        QCOMPARE(shownRows(controller), QString("Rows shown: 4 of 4"));

        status.setCurrentIndex(2);
        QCOMPARE(shownOrder(controller), QString("AD"));
        QTest::keyClicks(&path, "USR");
        QCOMPARE(shownOrder(controller), QString("A"));
        QCOMPARE(shownRows(controller), QString("Rows shown: 1 of 4"));
        // The mount point is not shown, so it is not searched either.
        status.setCurrentIndex(0);
        path.setText("Mac HD");
        QCOMPARE(shownRows(controller), QString("Rows shown: 0 of 4"));
    }

    void copyPutsTheSelectedRowsWithTheirFullPathsOnTheClipboard() {
        ResultsView controller({QPixmap(), "", "", kFourRows});
        controller.show();
        QVERIFY(QTest::qWaitForWindowActive(&controller, test::kHangGuardMs));
        QTableView& table = tableOf(controller);
        auto* copy = controller.findChild<QAction*>("actionCopy");
        QCOMPARE(copy->text(), QString("Copy"));
        QVERIFY(table.actions().contains(copy));
        QCOMPARE(table.contextMenuPolicy(), Qt::ActionsContextMenu);
        QVERIFY(!copy->isEnabled());

        table.sortByColumn(currentColumn, Qt::AscendingOrder);
        table.setFocus();
        for (int row : {2, 0})
            QTest::mouseClick(table.viewport(), Qt::LeftButton, Qt::ControlModifier,
                              table.visualRect(table.model()->index(row, reasonColumn)).center());
        QVERIFY(copy->isEnabled());
        QTest::keyClick(&table, Qt::Key_C, Qt::ControlModifier);
        QCOMPARE(QGuiApplication::clipboard()->text(),
                 QString("/media/u/Mac HD/bin/C\tGroup ID Mismatched\t20\t9\t10\tFailed\n"
                         "/media/u/Mac HD/usr/A\tPOSIX Permissions Mismatched\t755\t4755\t4755\t"
                         "Fixed\n"));
    }

    void saveReportWritesEveryRowToTheChosenFileOrSaysWhyNot() {
        ResultsView controller({QPixmap(), "", "", kFourRows});
        controller.findChild<QLineEdit*>("pathFilter")->setText("usr");
        auto& save = *controller.findChild<QPushButton*>("saveReportButton");
        QCOMPARE(save.text(), QString("Save Report..."));
        QTemporaryDir folder;
        QString answer;
        controller.setReportPathQuestion([&] { return answer; });

        QTest::mouseClick(&save, Qt::LeftButton);
        QVERIFY(QDir(folder.path()).isEmpty());
        answer = folder.filePath("report.txt");
        QTest::mouseClick(&save, Qt::LeftButton);
        QFile report(answer);
        QVERIFY(report.open(QIODevice::ReadOnly));
        QCOMPARE(report.readAll().toStdString(), reportText(kFourRows));

        ModalAnswers::preset(QMessageBox::Ok);
        QVERIFY(!controller.saveReport(folder.filePath("missing/report.txt")));
        QCOMPARE(ModalAnswers::pending(), std::size_t(0));
    }

    void aHundredThousandRowsSortAndFilter() {
        constexpr int count = 100'000;
        std::vector<Row> results;
        const Status statuses[] = {Status::verified, Status::fixed, Status::failed};
        for (int index = 0; index < count; ++index)
            results.push_back(row("/mnt/HD/System/K" + std::to_string(index) + ".kext",
                                  Type::posixPermissionsMismatched, index * 7919 % count, 755, 755,
                                  statuses[index % 3]));
        ResultsView controller({QPixmap(), "", "", std::move(results)});
        controller.show();
        QVERIFY(QTest::qWaitForWindowExposed(&controller, test::kHangGuardMs));
        QTableView& table = tableOf(controller);
        const QAbstractItemModel& model = *table.model();

        table.sortByColumn(currentColumn, Qt::DescendingOrder);
        QCOMPARE(model.rowCount(), count);
        QVERIFY(numbersDescend(columnTexts(model, currentColumn)));
        controller.findChild<QComboBox*>("statusFilter")->setCurrentIndex(3);
        QCOMPARE(model.rowCount(), count / 3);
        QCOMPARE(model.index(0, statusColumn).data().toString(), QString("Failed"));
        controller.findChild<QComboBox*>("statusFilter")->setCurrentIndex(0);
        controller.findChild<QLineEdit*>("pathFilter")->setText("k4242");
        QCOMPARE(model.rowCount(), 11);
        QVERIFY(numbersDescend(columnTexts(model, currentColumn)));
    }

    void windowShowsTheResultTextsAndOKClosesIt() {
        ResultsView controller({QPixmap(16, 16), "Verified", "Nothing to repair", {}});
        controller.show();
        QVERIFY(QTest::qWaitForWindowExposed(&controller, test::kHangGuardMs));
        QCOMPARE(controller.windowTitle(), QString("Report"));
        QCOMPARE(controller.findChild<QLabel*>("titleField")->text(), QString("Verified"));
        QCOMPARE(controller.findChild<QLabel*>("descriptionField")->text(),
                 QString("Nothing to repair"));
        QVERIFY(controller.findChild<QLabel*>("imageView")->isVisible());
        QCOMPARE(controller.findChild<QGroupBox*>("resultsBox")->title(),
                 QString("Repair Permissions Results"));
        QCOMPARE(controller.findChild<QLabel*>("statusFilterLabel")->text(), QString("Status:"));
        QCOMPARE(controller.findChild<QLineEdit*>("pathFilter")->placeholderText(),
                 QString("Filter by path"));
        QCOMPARE(shownRows(controller), QString("Rows shown: 0 of 0"));

        auto* ok = controller.findChild<QPushButton*>("okButton");
        QCOMPARE(ok->text(), QString("OK"));
        QTest::mouseClick(ok, Qt::LeftButton);
        QVERIFY(!controller.isVisible());
    }
};

} // namespace quelm

QTEST_MAIN(quelm::ResultsViewTest)
#include "ResultsViewTest.moc"
