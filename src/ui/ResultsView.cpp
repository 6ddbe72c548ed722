// The window that shows the results of a permission verification or repair in a table.
#include "ui/ResultsView.h"

#include "support/Log.h"
#include "support/Strings.h"
#include "ui/ViewExtensions.h"
#include "ui_ResultsView.h"

#include <QAction>
#include <QClipboard>
#include <QDir>
#include <QFileDialog>
#include <QGuiApplication>
#include <QHeaderView>
#include <QSaveFile>
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
    //% "Bill of Materials Unreadable"
    QT_TRID_NOOP("Bill of Materials Unreadable"),
    //% "Attributes Unreadable"
    QT_TRID_NOOP("Attributes Unreadable"),
    //% "Size Mismatched"
    QT_TRID_NOOP("Size Mismatched"),
    //% "Checksum Mismatched"
    QT_TRID_NOOP("Checksum Mismatched"),
    //% "Content Unreadable"
    QT_TRID_NOOP("Content Unreadable"),
};

const char* const kStatusIds[] = {
    //% "Verified"
    QT_TRID_NOOP("Verified"),
    //% "Fixed"
    QT_TRID_NOOP("Fixed"),
    //% "Failed"
    QT_TRID_NOOP("Failed"),
};

// Folders at the top of a macOS volume. A saved report does not name its volume, so its mount
// point is taken as what the paths have before the first of these folders, when all paths that
// hold one agree; otherwise every path is shown as stored. tmp, var and etc are left out because
// volumes are often mounted below the host's own.
constexpr std::string_view kVolumeTopFolders[] = {"Applications", "Library", "System", "Users",
                                                  "bin",          "private", "sbin",   "usr"};

/// The position of text in ids, which must hold it.
int listedIndex(const std::string& text, std::span<const char* const> ids) {
    const auto found = std::find(ids.begin(), ids.end(), text);
    if (found == ids.end())
        fatalError(kFatalMessage);
    return static_cast<int>(found - ids.begin());
}

QStringList translated(std::span<const char* const> ids) {
    QStringList texts;
    for (const char* id : ids)
        texts << qtTrId(id);
    return texts;
}

/// The path before its first component that is a volume's top folder, if it has one.
std::optional<std::string_view> prefixBeforeTopFolder(std::string_view path) {
    for (std::size_t slash = path.find('/'); slash != std::string_view::npos;
         slash = path.find('/', slash + 1)) {
        const std::string_view rest = path.substr(slash + 1);
        if (std::ranges::find(kVolumeTopFolders, rest.substr(0, rest.find('/'))) !=
            std::end(kVolumeTopFolders))
            return path.substr(0, slash);
    }
    return std::nullopt;
}

std::string derivedMountPoint(const std::vector<ResultRecord>& results) {
    std::optional<std::string_view> agreed;
    for (const auto& result : results) {
        const auto prefix = prefixBeforeTopFolder(result.fileSystemResourcePath);
        if (!prefix)
            continue;
        if (agreed && *agreed != *prefix)
            return {};
        agreed = prefix;
    }
    return std::string(agreed.value_or(""));
}

std::string mountPointOf(const ResultsSource& result) {
    return result.volumeMountPoint() ? *result.volumeMountPoint()
                                     : derivedMountPoint(result.results());
}

/// The path without the mount point (which has no final "/") when it lies below it.
QString pathOnVolume(std::string_view path, std::string_view mountPoint) {
    if (!mountPoint.empty() && path.starts_with(mountPoint) &&
        path.substr(mountPoint.size()).starts_with('/'))
        path.remove_prefix(mountPoint.size());
    return QString::fromUtf8(path.data(), static_cast<qsizetype>(path.size()));
}

bool isValueColumn(int column) {
    return column >= currentColumn && column <= newColumn;
}

std::int64_t attributeValue(const ResultRecord& result, int column) {
    switch (column) {
    case currentColumn:
        return result.currentAttribute;
    case correctColumn:
        return result.correctAttribute;
    case newColumn:
        return result.newAttribute;
    }
    fatalError(kFatalMessage);
}

} // namespace

ResultsSource::ResultsSource(QPixmap image, QString title, QString description,
                             std::vector<ResultRecord> results,
                             std::optional<std::string> volumeMountPoint)
    : image_(std::move(image)), title_(std::move(title)), description_(std::move(description)),
      results_(std::move(results)), volumeMountPoint_(std::move(volumeMountPoint)) {
}

int ResultsTableModel::columnWithIdentifier(QStringView identifier) {
    const auto found =
        std::find_if(std::begin(kColumns), std::end(kColumns), [&](const Column& column) {
            return identifier == QLatin1String(column.identifier);
        });
    return found == std::end(kColumns) ? -1 : static_cast<int>(found - std::begin(kColumns));
}

QStringList ResultsTableModel::statusTexts() {
    return translated(kStatusIds);
}

ResultsTableModel::ResultsTableModel(const std::vector<ResultRecord>& results,
                                     const std::string& mountPoint, QObject* parent)
    : QAbstractTableModel(parent), results_(results), reasonTexts_(translated(kReasonIds)),
      statusTexts_(statusTexts()) {
    std::string_view mount = mountPoint;
    while (mount.ends_with('/'))
        mount.remove_suffix(1);
    rows_.reserve(results.size());
    for (const auto& result : results)
        rows_.push_back({pathOnVolume(result.fileSystemResourcePath, mount),
                         listedIndex(result.attributeMismatchedTypeString, kReasonIds),
                         listedIndex(result.attributeStatusString, kStatusIds)});
}

int ResultsTableModel::rowCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(rows_.size());
}

int ResultsTableModel::columnCount(const QModelIndex& parent) const {
    return parent.isValid() ? 0 : static_cast<int>(std::size(kColumns));
}

QVariant ResultsTableModel::data(const QModelIndex& index, int role) const {
    if (!checkIndex(index, CheckIndexOption::IndexIsValid))
        return {};
    const int row = index.row();
    const int column = index.column();
    switch (role) {
    case Qt::DisplayRole:
        return cellText(row, column);
    case Qt::ToolTipRole:
        if (column == pathColumn)
            return QString::fromStdString(
                results_[static_cast<std::size_t>(row)].fileSystemResourcePath);
        break;
    case SortRole:
        // qlonglong, as the proxy compares a std::int64_t (a long here) as text.
        if (isValueColumn(column))
            return QVariant(
                qlonglong(attributeValue(results_[static_cast<std::size_t>(row)], column)));
        return cellText(row, column);
    case Qt::TextAlignmentRole:
        if (isValueColumn(column))
            return QVariant::fromValue(Qt::AlignRight | Qt::AlignVCenter);
        break;
    }
    return {};
}

QVariant ResultsTableModel::headerData(int section, Qt::Orientation orientation, int role) const {
    if (orientation != Qt::Horizontal || section < 0 || section >= columnCount())
        return QAbstractTableModel::headerData(section, orientation, role);
    const Column& column = kColumns[section];
    if (role == Qt::DisplayRole)
        return qtTrId(column.headerId);
    if (role == ColumnIdentifierRole)
        return QString::fromLatin1(column.identifier);
    return {};
}

QString ResultsTableModel::rowLine(int row) const {
    QStringList cells{
        QString::fromStdString(results_[static_cast<std::size_t>(row)].fileSystemResourcePath)};
    for (int column = pathColumn + 1; column < columnCount(); ++column)
        cells << cellText(row, column);
    return cells.join('\t');
}

QString ResultsTableModel::cellText(int row, int column) const {
    const Row& shown = rows_[static_cast<std::size_t>(row)];
    switch (column) {
    case pathColumn:
        return shown.path;
    case reasonColumn:
        return reasonTexts_[shown.reason];
    case statusColumn:
        return statusTexts_[shown.status];
    }
    return QString::fromStdString(
        decimalText(attributeValue(results_[static_cast<std::size_t>(row)], column)));
}

ResultsFilterModel::ResultsFilterModel(ResultsTableModel& rows, QObject* parent)
    : QSortFilterProxyModel(parent), rows_(rows) {
    setSourceModel(&rows);
    setSortRole(ResultsTableModel::SortRole);
    setSortCaseSensitivity(Qt::CaseInsensitive);
}

// invalidate() rebuilds the rows at once and tells the view in one signal; invalidateFilter()
// would signal every removed stretch of rows, which is slow over many thousands.
void ResultsFilterModel::setStatusFilter(int status) {
    status_ = status;
    invalidate();
}

void ResultsFilterModel::setPathFilter(const QString& text) {
    path_ = text;
    invalidate();
}

bool ResultsFilterModel::filterAcceptsRow(int sourceRow, const QModelIndex&) const {
    return (status_ == allStatuses || rows_.statusOfRow(sourceRow) == status_) &&
           rows_.shownPath(sourceRow).contains(path_, Qt::CaseInsensitive);
}

ResultsView::ResultsView(ResultsSource result, QWidget* parent)
    : QWidget(parent, Qt::Window), ui_(std::make_unique<Ui::ResultsView>()),
      result_(std::move(result)), model_(result_.results(), mountPointOf(result_)), filter_(model_),
      reportPathQuestion_([this] { return askReportPath(); }) {
    ui_->setupUi(this);
    setUpScreen();
}

ResultsView::~ResultsView() = default;

void ResultsView::setUpScreen() {
    //% "Repair Permissions Results"
    ui_->resultsBox->setTitle(qtTrId("kQVDetailedResultsVCRepairPermissionsResults"));
    //% "OK"
    ui_->okButton->setText(qtTrId("kQVDetailedResultsVCOK"));
    //% "Report"
    setWindowTitle(qtTrId("kQVDetailedResultsVCReport"));
    setUpTable();
    setUpFilters();
    setUpActions();
    connect(ui_->okButton, &QPushButton::clicked, this, &ResultsView::actionButtonOK);

    ui_->imageView->setPixmap(result_.image());
    ui_->imageView->setVisible(!result_.image().isNull());
    ui_->titleField->setText(result_.title());
    ui_->descriptionField->setText(result_.description());
}

void ResultsView::setUpTable() {
    QTableView* table = ui_->resultsTable;
    table->setModel(&filter_);
    QHeaderView* header = table->horizontalHeader();
    header->setSectionResizeMode(QHeaderView::ResizeToContents);
    header->setSectionResizeMode(pathColumn, QHeaderView::Stretch);
    // The rows keep the order given until a column is chosen.
    header->setSortIndicator(-1, Qt::AscendingOrder);
    table->setSortingEnabled(true);
}

void ResultsView::setUpFilters() {
    //% "Status:"
    ui_->statusFilterLabel->setText(qtTrId("kQVDetailedResultsVCStatusFilter"));
    //% "All"
    ui_->statusFilter->addItem(qtTrId("kQVDetailedResultsVCAllStatuses"),
                               ResultsFilterModel::allStatuses);
    const QStringList statuses = ResultsTableModel::statusTexts();
    for (int status = 0; status < statuses.size(); ++status)
        ui_->statusFilter->addItem(statuses[status], status);
    //% "Filter by path"
    ui_->pathFilter->setPlaceholderText(qtTrId("kQVDetailedResultsVCPathFilter"));
    connect(ui_->statusFilter, &QComboBox::currentIndexChanged, this, [this] {
        filter_.setStatusFilter(ui_->statusFilter->currentData().toInt());
        updateShownRowsField();
    });
    connect(ui_->pathFilter, &QLineEdit::textChanged, this, [this](const QString& text) {
        filter_.setPathFilter(text);
        updateShownRowsField();
    });
    updateShownRowsField();
}

void ResultsView::setUpActions() {
    QTableView* table = ui_->resultsTable;
    //% "Copy"
    copyAction_ = new QAction(qtTrId("kQVDetailedResultsVCCopy"), table);
    copyAction_->setObjectName("actionCopy");
    copyAction_->setShortcut(QKeySequence::Copy);
    copyAction_->setShortcutContext(Qt::WidgetWithChildrenShortcut);
    copyAction_->setEnabled(false);
    table->addAction(copyAction_);
    table->setContextMenuPolicy(Qt::ActionsContextMenu);
    connect(copyAction_, &QAction::triggered, this, &ResultsView::actionCopy);
    connect(table->selectionModel(), &QItemSelectionModel::selectionChanged, this, [this] {
        copyAction_->setEnabled(ui_->resultsTable->selectionModel()->hasSelection());
    });
    //% "Save Report..."
    ui_->saveReportButton->setText(qtTrId("kQVDetailedResultsVCSaveReport"));
    connect(ui_->saveReportButton, &QPushButton::clicked, this, &ResultsView::actionSaveReport);
}

void ResultsView::updateShownRowsField() {
    //% "Rows shown: %L1 of %L2"
    ui_->shownRowsField->setText(
        qtTrId("kQVDetailedResultsVCShownRows").arg(filter_.rowCount()).arg(model_.rowCount()));
}

void ResultsView::actionButtonOK() {
    close();
}

void ResultsView::actionCopy() {
    QModelIndexList rows = ui_->resultsTable->selectionModel()->selectedRows();
    if (rows.isEmpty())
        return;
    std::ranges::sort(rows, {}, &QModelIndex::row);
    QString text;
    for (const QModelIndex& row : rows)
        text += model_.rowLine(filter_.mapToSource(row).row()) + '\n';
    QGuiApplication::clipboard()->setText(text);
}

void ResultsView::actionSaveReport() {
    const QString path = reportPathQuestion_();
    if (!path.isEmpty())
        saveReport(path);
}

bool ResultsView::saveReport(const QString& path) {
    const std::string text = reportText(result_.results());
    QSaveFile file(path);
    if (file.open(QIODevice::WriteOnly)) {
        file.write(text.data(), static_cast<qint64>(text.size()));
        if (file.commit())
            return true;
    }
    //% "The report could not be saved."
    showAlert(this, qtTrId("kQVDetailedResultsVCReportNotSaved"),
              QDir::toNativeSeparators(path) + ": " + file.errorString());
    return false;
}

QString ResultsView::askReportPath() {
    //% "Save Report"
    const QString title = qtTrId("kQVDetailedResultsVCSaveReportTitle");
    //% "Permissions Report.txt"
    const QString name = qtTrId("kQVDetailedResultsVCReportFileName");
    //% "Text files (*.txt)"
    const QString types = qtTrId("kQVDetailedResultsVCTextFiles");
    return QFileDialog::getSaveFileName(this, title, QDir::home().filePath(name), types);
}

} // namespace quelm
