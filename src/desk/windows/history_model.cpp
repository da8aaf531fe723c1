// Cells and details of what has ended.
#include "desk/windows/history_model.h"

#include "consent/shown_text.h"

#include <algorithm>
#include <array>

namespace korvane::desk {

using namespace Qt::StringLiterals;

void HistoryModel::show(const QList<HistoryEntry>& entries)
{
    beginResetModel();
    m_entries = entries;
    endResetModel();
}

int HistoryModel::rowOf(quint64 id) const
{
    const auto found = std::find_if(m_entries.begin(), m_entries.end(),
                                    [id](const HistoryEntry& entry) { return entry.id == id; });
    return found == m_entries.end() ? -1 : static_cast<int>(found - m_entries.begin());
}

/// Whose words they are is said before them, and only theirs follow: the desk's own come first.
QString HistoryModel::detailsOf(int row) const
{
    const HistoryEntry& entry = m_entries.at(row);
    const auto line = [&](int column) {
        return u"%1: %2"_s.arg(headerData(column, Qt::Horizontal, Qt::DisplayRole).toString(),
                               textOf(entry, column));
    };
    const QString delivery = deliveryText(entry);
    QStringList lines{line(Time),
                      line(WhoAsked),
                      entry.asker.executable,
                      line(Action),
                      line(Answer) + (delivery.isEmpty() ? QString() : u", "_s + delivery),
                      line(Decider),
                      line(Seconds),
                      u'\n' + tr("请求方的话:"),
                      entry.request.title,
                      entry.request.summary,
                      entry.request.detail};
    if (!entry.request.reason.isEmpty())
        lines += {u'\n' + tr("AI 自述的理由, 未经核实:"), entry.request.reason};
    lines.removeAll(QString());
    return lines.join(u'\n');
}

int HistoryModel::rowCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : static_cast<int>(m_entries.size());
}

int HistoryModel::columnCount(const QModelIndex& parent) const
{
    return parent.isValid() ? 0 : ColumnCount;
}

QVariant HistoryModel::data(const QModelIndex& index, int role) const
{
    if ((role != Qt::DisplayRole && role != WholeTextRole) ||
        !checkIndex(index, CheckIndexOption::IndexIsValid))
        return {};
    // A table lays out all of a cell's text, for as long as that takes. The details have the rest.
    constexpr qsizetype mostInCell = 500;
    const QString text = textOf(m_entries.at(index.row()), index.column());
    return role == WholeTextRole || text.size() <= mostInCell ? text
                                                              : text.first(mostInCell) + u'…';
}

QVariant HistoryModel::headerData(int section, Qt::Orientation orientation, int role) const
{
    if (role != Qt::DisplayRole || orientation != Qt::Horizontal)
        return {};
    const std::array<QString, ColumnCount> names{tr("时间"),     tr("请求方"), tr("操作"),
                                                 tr("概要"),     tr("答复"),   tr("决定者"),
                                                 tr("用时 (秒)")};
    return names.at(static_cast<std::size_t>(section));
}

QString HistoryModel::textOf(const HistoryEntry& entry, int column) const
{
    switch (column) {
    case Time:
        return entry.arrivedAt.toString(u"yyyy-MM-dd HH:mm:ss"_s);
    case WhoAsked:
        return consent::shownText(entry.asker.chainText());
    case Action:
        return consent::shownText(entry.request.action);
    case Summary:
        return consent::shownText(entry.request.summary);
    case Answer:
        return answerText(entry.outcome);
    case Decider:
        return deciderText(entry.outcome);
    default:
        return QString::number(static_cast<double>(entry.taken.count()) / 1000, 'f', 1);
    }
}

} // namespace korvane::desk
