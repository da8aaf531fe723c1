// The desk's main window: its state and its history.
#pragma once

#include "desk/desk.h"

#include <QSortFilterProxyModel>
#include <QTimer>
#include <QWidget>

class QLabel;
class QStackedWidget;
class QTableView;

namespace korvane::desk {

class HistoryModel;
class PlainTextView;

/// Shows whether the desk listens, and what has been asked. Closing hides it where a tray icon brings it
/// back, and else minimises it: only quitting ends the desk. Main thread only.
class MainWindow : public QWidget
{
    Q_OBJECT

public:
    explicit MainWindow(Desk& desk);

    /// Brings it above other windows, where the window system lets it.
    void bringUp();

protected:
    void closeEvent(QCloseEvent* event) override;

private:
    QWidget* makeHistory();
    QWidget* makeEmptyState();
    QLayout* makeBottomRow();
    void showState();
    void showHistory();
    void showDetails();
    void copyDetails() const;
    int currentRow() const;

    Desk& m_desk;
    QTimer m_historyTimer; ///< Requests may come by the hundred.
    HistoryModel* m_model;
    QSortFilterProxyModel m_filtered;
    QLabel* m_state;
    QStackedWidget* m_pages;
    QTableView* m_table = nullptr;
    PlainTextView* m_details = nullptr;
};

} // namespace korvane::desk
