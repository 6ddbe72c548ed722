// The results window: its table shown from the volume's root, sorting, the filters, copying
// rows, saving the report and the OK button.
#include "ui/ResultsView.h"

#include "TestSupport.h"
#include "ui/Translations.h"
#include "ui/ViewExtensions.h"

#include <QAction>
#include <QClipboard>
#include <QComboBox>
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
    return {{},      std::move(path), std::string(displayText(type)),  current,
            correct, newValue,        std::string(displayText(status))};
}

// Rows A to D, named by their last letter, whose order differs in every column and between
// text and number order.
const std::vector<Row> kFourRows{
    row("/mnt/Mac HD/usr/A", Type::posixPermissionsMismatched, 755, 4755, 4755, Status::fixed),
    row("/mnt/Mac HD/Library/B", Type::ownerIDMismatched, 501, 0, -1, Status::verified),
    row("/mnt/Mac HD/bin/C", Type::groupIDMismatched, 20, 9, 10, Status::failed),
    row("/mnt/Mac HD/System/D", Type::posixPermissionsMismatched, 1777, 644, 644, Status::fixed),
};

/// A window over the rows, shown and exposed.
std::unique_ptr<ResultsView> shownView(std::vector<Row> rows) {
    auto view = std::make_unique<ResultsView>(ResultsSource({}, "", "", std::move(rows)));
    view->show();
    return QTest::qWaitForWindowActive(view.get(), test::kHangGuardMs) ? std::move(view) : nullptr;
}

QTableView& tableOf(const QWidget& view) {
    return *view.findChild<QTableView*>("resultsTable");
}

QStringList columnTexts(const QAbstractItemModel& model, int column, int role = Qt::DisplayRole) {
    QStringList texts;
    for (int row = 0; row < model.rowCount(); ++row)
        texts << model.index(row, column).data(role).toString();
    return texts;
}

/// The headers and then each row, their cells separated by tabs.
QStringList tableLines(const QAbstractItemModel& model) {
    QStringList lines(model.rowCount() + 1);
    for (int column = 0; column < model.columnCount(); ++column) {
        const QString tab = column ? "\t" : "";
        lines[0] += tab + model.headerData(column, Qt::Horizontal).toString();
        for (int row = 0; row < model.rowCount(); ++row)
            lines[row + 1] += tab + model.index(row, column).data().toString();
    }
    return lines;
}

/// The letters of kFourRows's rows in the order shown.
QString shownOrder(const QWidget& view) {
    QString letters;
    for (const QString& path : columnTexts(*tableOf(view).model(), pathColumn))
        letters += path.back();
    return letters;
}

bool numbersDescend(const QStringList& texts) {
    return std::ranges::is_sorted(texts, std::greater<>(),
                                  [](const QString& text) { return text.toLongLong(); });
}

} // namespace

class ResultsViewTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(installTranslations(*QCoreApplication::instance())); }

    // A saved report names no mount point: it is taken from the paths' top folders.
    void windowShowsItsTextsAndEveryColumnLocalisedAndOKClosesIt() {
        ResultsView view({QPixmap(16, 16), "Verified", "Nothing to repair", kFourRows});
        view.show();
        QVERIFY(QTest::qWaitForWindowExposed(&view, test::kHangGuardMs));
        QCOMPARE(view.findChild<QLabel*>("titleField")->text() + "|" +
                     view.findChild<QLabel*>("descriptionField")->text(),
                 QString("Verified|Nothing to repair"));
        QVERIFY(view.findChild<QLabel*>("imageView")->isVisible());
        QCOMPARE(tableLines(*tableOf(view).model()),
                 QStringList({"Path\tReason\tCurrent Value\tCorrect Value\tNew Value\tStatus",
                              "/usr/A\tPOSIX Permissions Mismatched\t755\t4755\t4755\tFixed",
                              "/Library/B\tOwner ID Mismatched\t501\t0\t-1\tVerified",
                              "/bin/C\tGroup ID Mismatched\t20\t9\t10\tFailed",
                              "/System/D\tPOSIX Permissions Mismatched\t1777\t644\t644\tFixed"}));
        QTest::mouseClick(view.findChild<QPushButton*>("okButton"), Qt::LeftButton);
        QVERIFY(!view.isVisible());
    }

    // Paths and what is shown of them, separated by ";". No mount point is a saved report's.
    void pathsAreShownFromTheVolumeRootWithTheFullPathAsTooltip() {
        const std::tuple<std::optional<std::string>, QString, QString> cases[] = {
            {"/mnt/HD/", "/mnt/HD/System/Foo.kext;/mnt/HD/etc", "/System/Foo.kext;/etc"},
            {"/mnt/HD", "/mnt/HD2/usr/bin/su", "/mnt/HD2/usr/bin/su"},
            {"/", "/usr/bin/su", "/usr/bin/su"},
            {std::nullopt, "/tmp/Mac HD/System/A.kext;/tmp/Mac HD/private/etc;/tmp/Mac HD/etc",
             "/System/A.kext;/private/etc;/etc"},
            {std::nullopt, "/mnt/A/usr/bin/su;/mnt/B/usr/bin/su",
             "/mnt/A/usr/bin/su;/mnt/B/usr/bin/su"},
        };
        for (const auto& [mountPoint, paths, shown] : cases) {
            std::vector<Row> results;
            for (const QString& path : paths.split(';'))
                results.push_back(
                    row(path.toStdString(), Type::ownerIDMismatched, 1, 0, 0, Status::fixed));
            ResultsView view({{}, "", "", results, mountPoint});
            const QAbstractItemModel& model = *tableOf(view).model();
            QCOMPARE(columnTexts(model, pathColumn).join(';'), shown);
            QCOMPARE(columnTexts(model, pathColumn, Qt::ToolTipRole).join(';'), paths);
        }
    }

    // Each column's orders of rows A to D, ascending and descending.
    void clickingAHeaderSortsByItsColumn() {
        const std::tuple<int, QString, QString> orders[] = {
            {pathColumn, "CBDA", "ADBC"},                                 // text in any case
            {reasonColumn, "CBAD", "ADBC"},                               // ties as given
            {currentColumn, "CBAD", "DABC"},                              // numbers, not text
            {correctColumn, "BCDA", "ADCB"}, {newColumn, "BCDA", "ADCB"}, // none (-1) first
            {statusColumn, "CADB", "BADC"},
        };
        for (const auto& [column, ascending, descending] : orders) {
            const auto view = shownView(kFourRows);
            QVERIFY(view);
            QHeaderView& header = *tableOf(*view).horizontalHeader();
            const QPoint section(header.sectionViewportPosition(column) + 4, header.height() / 2);
            for (int click = 0; click < 2; ++click) {
                QTest::mouseClick(header.viewport(), Qt::LeftButton, {}, section);
                const bool up = header.sortIndicatorOrder() == Qt::AscendingOrder;
                QCOMPARE(shownOrder(*view), up ? ascending : descending);
            }
        }
    }

    // The report holds every row, not only those shown; a cancelled question writes nothing.
    void filtersByStatusAndPathCountTheShownRowsAndTheReportKeepsEveryRow() {
        ResultsView view({{}, "", "", kFourRows});
        auto& status = *view.findChild<QComboBox*>("statusFilter");
        auto& path = *view.findChild<QLineEdit*>("pathFilter");
        const auto& shownRows = *view.findChild<QLabel*>("shownRowsField");
        QCOMPARE(shownRows.text(), QString("Rows shown: 4 of 4"));
        status.setCurrentIndex(2);
        QCOMPARE(shownOrder(view), QString("AD"));
        QTest::keyClicks(&path, "USR");
        QCOMPARE(shownOrder(view), QString("A"));
        QCOMPARE(shownRows.text(), QString("Rows shown: 1 of 4"));

        auto* save = view.findChild<QPushButton*>("saveReportButton");
        QTemporaryDir folder;
        QString answer;
        view.setReportPathQuestion([&] { return answer; });
        QTest::mouseClick(save, Qt::LeftButton);
        QVERIFY(QDir(folder.path()).isEmpty());
        answer = folder.filePath("report.txt");
        QTest::mouseClick(save, Qt::LeftButton);
        QCOMPARE(test::readText(answer.toStdString()), reportText(kFourRows));
        ModalAnswers::preset(QMessageBox::Ok);
        QVERIFY(!view.saveReport(folder.filePath("missing/report.txt")));
        QCOMPARE(ModalAnswers::pending(), std::size_t(0));

        // The mount point is not shown, so it is not searched either.
        status.setCurrentIndex(0);
        path.setText("Mac HD");
        QCOMPARE(shownRows.text(), QString("Rows shown: 0 of 4"));
    }

    void copyPutsTheSelectedRowsWithTheirFullPathsOnTheClipboard() {
        const auto view = shownView(kFourRows);
        QVERIFY(view);
        QTableView& table = tableOf(*view);
        auto* copy = view->findChild<QAction*>("actionCopy");
        QVERIFY(!copy->isEnabled());

        table.sortByColumn(currentColumn, Qt::AscendingOrder);
        table.setFocus();
        for (int row : {2, 0})
            QTest::mouseClick(table.viewport(), Qt::LeftButton, Qt::ControlModifier,
                              table.visualRect(table.model()->index(row, reasonColumn)).center());
        QVERIFY(copy->isEnabled());
        QTest::keyClick(&table, Qt::Key_C, Qt::ControlModifier);
        QCOMPARE(QGuiApplication::clipboard()->text(),
                 QString("/mnt/Mac HD/bin/C\tGroup ID Mismatched\t20\t9\t10\tFailed\n"
                         "/mnt/Mac HD/usr/A\tPOSIX Permissions Mismatched\t755\t4755\t4755\t"
                         "Fixed\n"));
    }

    // A whole volume's results: filtering that signalled each removed stretch of rows was too
    // slow at this size.
    void aHundredThousandRowsSortAndFilter() {
        constexpr int count = 100'000;
        std::vector<Row> results;
        for (int index = 0; index < count; ++index)
            results.push_back(row("/mnt/HD/System/K" + std::to_string(index) + ".kext",
                                  Type::posixPermissionsMismatched, index * 7919 % count, 755, 755,
                                  static_cast<Status>(index % 3)));
        const auto view = shownView(std::move(results));
        QVERIFY(view);
        const QAbstractItemModel& model = *tableOf(*view).model();

        tableOf(*view).sortByColumn(currentColumn, Qt::DescendingOrder);
        QVERIFY(numbersDescend(columnTexts(model, currentColumn)));
        view->findChild<QComboBox*>("statusFilter")->setCurrentIndex(3);
        QCOMPARE(columnTexts(model, statusColumn), QStringList(count / 3, "Failed"));
        view->findChild<QComboBox*>("statusFilter")->setCurrentIndex(0);
        view->findChild<QLineEdit*>("pathFilter")->setText("k4242");
        QCOMPARE(model.rowCount(), 11);
        QVERIFY(numbersDescend(columnTexts(model, currentColumn)));
    }
};

} // namespace quelm

QTEST_MAIN(quelm::ResultsViewTest)
#include "ResultsViewTest.moc"
