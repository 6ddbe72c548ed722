// The window that shows the results of a permission verification or repair in a table.
#pragma once

#include "repair/QVRepairPermissionsResult.h"

#include <QAbstractTableModel>
#include <QPixmap>
#include <QString>
#include <QWidget>
#include <memory>
#include <vector>

namespace Ui {
class QVDetailedResultsViewController;
}

namespace quelm {

/// What the results window shows: a picture, a headline, an explanation and the table rows.
class QVDetailedRepresentableResult {
public:
    QVDetailedRepresentableResult(QPixmap image, QString title, QString description,
                                  std::vector<QVRepairPermissionsRepresentableResult> results);

    const QPixmap& image() const { return image_; }
    const QString& title() const { return title_; }
    const QString& description() const { return description_; }
    const std::vector<QVRepairPermissionsRepresentableResult>& results() const { return results_; }

private:
    QPixmap image_;
    QString title_;
    QString description_;
    std::vector<QVRepairPermissionsRepresentableResult> results_;
};

/// The rows of the results table in six columns: path, reason, current, correct and new value,
/// status. Numbers are shown in base 10 as stored; reasons and statuses localised.
class QVDetailedResultsTableModel : public QAbstractTableModel {
    Q_OBJECT

public:
    /// headerData() in this role gives a column's identifier, "QVIDPath" to "QVIDStatus".
    static constexpr int ColumnIdentifierRole = Qt::UserRole;

    /// The column with the identifier, or -1.
    static int columnWithIdentifier(QStringView identifier);

    /// The rows are not copied: they must outlive the model.
    explicit QVDetailedResultsTableModel(
        const std::vector<QVRepairPermissionsRepresentableResult>& results,
        QObject* parent = nullptr);

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role = Qt::DisplayRole) const override;
    QVariant headerData(int section, Qt::Orientation orientation,
                        int role = Qt::DisplayRole) const override;

private:
    QString cellText(const QVRepairPermissionsRepresentableResult& row, int column) const;

    const std::vector<QVRepairPermissionsRepresentableResult>& results_;
};

/// A window of its own, even with a parent. It is made with its result, so the table never
/// asks for rows before there are any; OK closes the window.
class QVDetailedResultsViewController : public QWidget {
    Q_OBJECT

public:
    explicit QVDetailedResultsViewController(QVDetailedRepresentableResult result,
                                             QWidget* parent = nullptr);
    ~QVDetailedResultsViewController() override;

    const QVDetailedRepresentableResult& result() const { return result_; }

    void actionButtonOK();

private:
    void viewDidLoad();

    std::unique_ptr<Ui::QVDetailedResultsViewController> ui_;
    QVDetailedRepresentableResult result_;
    /// Over result_'s rows, so declared after it.
    QVDetailedResultsTableModel model_;
};

} // namespace quelm
