// The window that shows the results of a permission verification or repair in a table.
#pragma once

#include "repair/RepairResult.h"

#include <QAbstractTableModel>
#include <QPixmap>
#include <QSortFilterProxyModel>
#include <QString>
#include <QWidget>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class QAction;

namespace Ui {
class ResultsView;
}

namespace quelm {

/// What the results window shows: a picture, a headline, an explanation and the table rows,
/// and the mount point of the volume the rows' paths lie on when it is known.
class ResultsSource {
public:
    ResultsSource(QPixmap image, QString title, QString description,
                  std::vector<ResultRecord> results,
                  std::optional<std::string> volumeMountPoint = std::nullopt);

    const QPixmap& image() const { return image_; }
    const QString& title() const { return title_; }
    const QString& description() const { return description_; }
    const std::vector<ResultRecord>& results() const { return results_; }
    const std::optional<std::string>& volumeMountPoint() const { return volumeMountPoint_; }

private:
    QPixmap image_;
    QString title_;
    QString description_;
    std::vector<ResultRecord> results_;
    std::optional<std::string> volumeMountPoint_;
};

/// The rows of the results table in six columns: path, reason, current, correct and new value,
/// status. Paths are shown from the volume's root, with the full path as their tooltip;
/// numbers are shown in base 10 as stored; reasons and statuses localised.
class ResultsTableModel : public QAbstractTableModel {
    Q_OBJECT

public:
    /// headerData() in this role gives a column's identifier, "QVIDPath" to "QVIDStatus".
    static constexpr int ColumnIdentifierRole = Qt::UserRole;
    /// data() in this role gives what a column sorts by: numbers for the values, else text.
    static constexpr int SortRole = Qt::UserRole + 1;

    /// The column with the identifier, or -1.
    static int columnWithIdentifier(QStringView identifier);
    /// The localised status words, in the order of statusOfRow().
    static QStringList statusTexts();

    /// The rows are not copied: they must outlive the model. Paths below mountPoint are shown
    /// without it; "" or "/" shows every path as stored.
    ResultsTableModel(const std::vector<ResultRecord>& results, const std::string& mountPoint,
                      QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation,
                        int role = Qt::DisplayRole) const override;

    const QString& shownPath(int row) const { return rows_[static_cast<std::size_t>(row)].path; }
    /// An index into statusTexts().
    int statusOfRow(int row) const { return rows_[static_cast<std::size_t>(row)].status; }
    /// The row's cell texts separated by tabs, with its full path.
    QString rowLine(int row) const;

private:
    /// What the cells need of a result, worked out once so that sorting and filtering do not
    /// convert or look up texts again.
    struct Row {
        QString path;
        int reason;
        int status;
    };

    QString cellText(int row, int column) const;

    const std::vector<ResultRecord>& results_;
    std::vector<Row> rows_;
    QStringList reasonTexts_;
    QStringList statusTexts_;
};

/// The table's sorted and filtered view: the rows of one status, or of all, whose shown path
/// holds a text (in any case).
class ResultsFilterModel : public QSortFilterProxyModel {
public:
    static constexpr int allStatuses = -1;

    explicit ResultsFilterModel(ResultsTableModel& rows, QObject* parent = nullptr);

    /// allStatuses or an index into ResultsTableModel::statusTexts().
    void setStatusFilter(int status);
    void setPathFilter(const QString& text);

protected:
    bool filterAcceptsRow(int sourceRow, const QModelIndex& sourceParent) const override;

private:
    const ResultsTableModel& rows_;
    int status_ = allStatuses;
    QString path_;
};

/// A window of its own, even with a parent. It is made with its result, so the table never
/// asks for rows before there are any; OK closes the window.
class ResultsView : public QWidget {
    Q_OBJECT

public:
    /// Asks where to save the report; an empty answer cancels.
    using ReportPathQuestion = std::function<QString()>;

    explicit ResultsView(ResultsSource result, QWidget* parent = nullptr);
    ~ResultsView() override;

    const ResultsSource& result() const { return result_; }

    void actionButtonOK();
    /// Puts the selected rows on the clipboard, one line each in the order shown.
    void actionCopy();
    /// Asks for a file (a save dialog unless replaced) and saves the report there.
    void actionSaveReport();
    /// Writes the report of every row to path; an alert says why when it cannot.
    bool saveReport(const QString& path);
    /// Replaces the save dialog, so that tests can answer it.
    void setReportPathQuestion(ReportPathQuestion question) {
        reportPathQuestion_ = std::move(question);
    }

private:
    void setUpScreen();
    void setUpTable();
    void setUpFilters();
    void setUpActions();
    void updateShownRowsField();
    QString askReportPath();

    std::unique_ptr<Ui::ResultsView> ui_;
    ResultsSource result_;
    /// Over result_'s rows, so declared after it.
    ResultsTableModel model_;
    ResultsFilterModel filter_;
    QAction* copyAction_ = nullptr;
    ReportPathQuestion reportPathQuestion_;
};

} // namespace quelm
