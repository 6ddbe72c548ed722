// The window that shows the results of a permission verification or repair in a table.
#include "ui/QVDetailedResultsViewController.h"

#include "support/Log.h"
#include "support/Strings.h"
#include "ui_QVDetailedResultsViewController.h"

#include <QHeaderView>
#include <algorithm>
#include <iterator>
#include <span>

namespace quelm {
namespace {

constexpr std::string_view kFatalMessage =
    "QVDetailedResultsVC::FatalError: You should never reach at here.";

enum ColumnIndex {
    pathColumn,
    reasonColumn,
    currentColumn,
    correctColumn,
    newColumn,
    statusColumn
};

struct Column {
    const char* identifier;
    const char* headerId;
};

const Column kColumns[] = {
    //% "Path"
    {"QVIDPath", QT_TRID_NOOP("kQVDetailedResultsVCPath")},
    //% "Reason"
    {"QVIDReason", QT_TRID_NOOP("kQVDetailedResultsVCReason")},
    //% "Current Value"
    {"QVIDCurrentValue", QT_TRID_NOOP("kQVDetailedResultsVCCurrentValue")},
    //% "Correct Value"
    {"QVIDCorrectValue", QT_TRID_NOOP("kQVDetailedResultsVCCorrectValue")},
    //% "New Value"
    {"QVIDNewValue", QT_TRID_NOOP("kQVDetailedResultsVCNewValue")},
    //% "Status"
    {"QVIDStatus", QT_TRID_NOOP("kQVDetailedResultsVCFileStatus")},
};

// The reasons and statuses are their own text ids, so that the English words of the results
// find their translations.
const char* const kReasonIds[] = {
    //% "Owner ID Mismatched"
    QT_TRID_NOOP("Owner ID Mismatched"),
    //% "Group ID Mismatched"
    QT_TRID_NOOP("Group ID Mismatched"),
    //% "POSIX Permissions Mismatched"
    QT_TRID_NOOP("POSIX Permissions Mismatched"),
};

const char* const kStatusIds[] = {
    //% "Verified"
    QT_TRID_NOOP("Verified"),
    //% "Fixed"
    QT_TRID_NOOP("Fixed"),
    //% "Failed"
    QT_TRID_NOOP("Failed"),
};

/// The translation of text, which must be one of ids.
QString listedText(const std::string& text, std::span<const char* const> ids) {
    const auto found = std::find(ids.begin(), ids.end(), text);
    if (found == ids.end())
        fatalError(kFatalMessage);
    return qtTrId(*found);
}

QString decimal(std::int64_t value) {
    return QString::fromStdString(decimalText(value));
}

} // namespace

QVDetailedRepresentableResult::QVDetailedRepresentableResult(
    QPixmap image, QString title, QString description,
    std::vector<QVRepairPermissionsRepresentableResult> results)
    : image_(std::move(image)), title_(std::move(title)), description_(std::move(description)),
      results_(std::move(results)) {
}

int QVDetailedResultsTableModel::columnWithIdentifier(QStringView identifier) {
    const auto found =
        std::find_if(std::begin(kColumns), std::end(kColumns), [&](const Column& column) {
            return identifier == QLatin1String(column.identifier);
        });
    return found == std::end(kColumns) ? -1 : static_cast<int>(found - std::begin(kColumns));
}

QVDetailedResultsTableModel::QVDetailedResultsTableModel(
    const std::vector<QVRepairPermissionsRepresentableResult>& results, QObject* parent)
    : QAbstractTableModel(parent), results_(results) {
}

int QVDetailedResultsTableModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(results_.size());
}

int QVDetailedResultsTableModel::columnCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(std::size(kColumns));
}

QVariant QVDetailedResultsTableModel::data(const QModelIndex& index, int role) const {
    if (!checkIndex(index, CheckIndexOption::IndexIsValid))
        return {};
    if (role == Qt::DisplayRole)
        return cellText(results_[static_cast<std::size_t>(index.row())], index.column());
    const bool isValue = index.column() >= currentColumn && index.column() <= newColumn;
    if (role == Qt::TextAlignmentRole && isValue)
        return QVariant::fromValue(Qt::AlignRight | Qt::AlignVCenter);
    return {};
}

QVariant QVDetailedResultsTableModel::headerData(int section, Qt::Orientation orientation,
                                                 int role) const {
    if (orientation != Qt::Horizontal || section < 0 || section >= columnCount())
        return QAbstractTableModel::headerData(section, orientation, role);
    const Column& column = kColumns[section];
    if (role == Qt::DisplayRole)
        return qtTrId(column.headerId);
    if (role == ColumnIdentifierRole)
        return QString::fromLatin1(column.identifier);
    return {};
}

QString QVDetailedResultsTableModel::cellText(const QVRepairPermissionsRepresentableResult& row,
                                              int column) const {
    switch (column) {
    case pathColumn:
        return QString::fromStdString(row.fileSystemResourcePath);
    case reasonColumn:
        return listedText(row.attributeMismatchedTypeString, kReasonIds);
    case currentColumn:
        return decimal(row.currentAttribute);
    case correctColumn:
        return decimal(row.correctAttribute);
    case newColumn:
        return decimal(row.newAttribute);
    case statusColumn:
        return listedText(row.attributeStatusString, kStatusIds);
    }
    fatalError(kFatalMessage);
}

QVDetailedResultsViewController::QVDetailedResultsViewController(
    QVDetailedRepresentableResult result, QWidget* parent)
    : QWidget(parent, Qt::Window), ui_(std::make_unique<Ui::QVDetailedResultsViewController>()),
      result_(std::move(result)), model_(result_.results()) {
    ui_->setupUi(this);
    viewDidLoad();
}

QVDetailedResultsViewController::~QVDetailedResultsViewController() = default;

void QVDetailedResultsViewController::viewDidLoad() {
    //% "Repair Permissions Results"
    ui_->outletBoxRepairPermissionsResults->setTitle(
        qtTrId("kQVDetailedResultsVCRepairPermissionsResults"));
    //% "OK"
    ui_->outletButtonOK->setText(qtTrId("kQVDetailedResultsVCOK"));
    //% "Report"
    setWindowTitle(qtTrId("kQVDetailedResultsVCReport"));
    ui_->outletResultsTableView->setModel(&model_);
    QHeaderView* header = ui_->outletResultsTableView->horizontalHeader();
    header->setSectionResizeMode(QHeaderView::ResizeToContents);
    header->setSectionResizeMode(pathColumn, QHeaderView::Stretch);
    connect(ui_->outletButtonOK, &QPushButton::clicked, this,
            &QVDetailedResultsViewController::actionButtonOK);

    ui_->imageView->setPixmap(result_.image());
    ui_->imageView->setVisible(!result_.image().isNull());
    ui_->titleField->setText(result_.title());
    ui_->descriptionField->setText(result_.description());
}

void QVDetailedResultsViewController::actionButtonOK() {
    close();
}

} // namespace quelm
