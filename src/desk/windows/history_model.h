// The history as a table.
#pragma once

#include "desk/history.h"

#include <QAbstractTableModel>

namespace korvane::desk {

/// What has ended, newest first, fit to be shown. Main thread only.
class HistoryModel : public QAbstractTableModel
{
    Q_OBJECT

public:
    enum Column { Time, WhoAsked, Action, Summary, Answer, Decider, Seconds, ColumnCount };

    /// All of a cell's text, of which a table shows no more than the beginning.
    static constexpr int WholeTextRole = Qt::UserRole;

    /// Shows these entries, newest first, in the place of all others.
    void show(const QList<HistoryEntry>& entries);

    /// The id of the entry in that row.
    quint64 idAt(int row) const { return m_entries.at(row).id; }

    /// The row of that entry; -1 where there is none.
    int rowOf(quint64 id) const;

    /// All there is to know of the entry in that row, as text: its words from outside are to be shown
    /// by a PlainTextView.
    QString detailsOf(int row) const;

    int rowCount(const QModelIndex& parent = {}) const override;
    int columnCount(const QModelIndex& parent = {}) const override;
    QVariant data(const QModelIndex& index, int role) const override;
    QVariant headerData(int section, Qt::Orientation orientation, int role) const override;

private:
    QString textOf(const HistoryEntry& entry, int column) const;

    QList<HistoryEntry> m_entries;
};

} // namespace korvane::desk
